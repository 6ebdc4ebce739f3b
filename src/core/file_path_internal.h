// Helpers shared by the path sources of CFile (not part of the library's interface).
#pragma once

#include <tavrin/core/ustring.h>

#include <cstddef>

namespace tavrin {
namespace detail {

// Copy of the path (null: empty) with every "/" turned into "\\".
ustring NormalizeSeparators(const wchar_t* path);

// Length of the part of a path (backslashes only) that no folder operation can go above or
// create: "\\" 1, "C:" 2, "C:\\" 3, "\\\\server\\share\\" and "\\\\?\\UNC\\server\\share\\" up to
// and with the share's backslash, "\\\\?\\C:\\" 7, a relative path 0.
std::size_t PathRootLength(const ustring& path);

// Name of the last sub-folder of `folder` (which ends in a separator or ":", or is empty for
// the current folder), "." and ".." skipped. Entries are ordered case-insensitively by their
// code units, the order in which NTFS lists them, so the choice does not depend on the file
// system's listing order. False when the folder cannot be listed or has no sub-folder.
bool FindLastSubfolder(const ustring& folder, ustring& name);

} // namespace detail
} // namespace tavrin
