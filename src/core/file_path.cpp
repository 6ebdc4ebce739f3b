// Path text helpers of CFile: long-path prefixing, splitting, joining, updating, marker
// resolution and ancestry tests. Everything here works on text only, except ResolvePath,
// which enumerates a folder.
#include <tavrin/core/file.h>

#include "core/file_path_internal.h"

#include <algorithm>
#include <cwchar>
#include <cwctype>

namespace tavrin {

namespace {

// Whether `text` holds `piece` at position `pos`.
bool HasAt(const ustring& text, std::size_t pos, const wchar_t* piece)
{
    const std::size_t length = std::wcslen(piece);
    return pos <= text.size() && text.size() - pos >= length && std::wmemcmp(text.data() + pos, piece, length) == 0;
}

} // namespace

namespace detail {

ustring NormalizeSeparators(const wchar_t* path)
{
    ustring text(path);
    std::replace(text.begin(), text.end(), L'/', L'\\');
    return text;
}

std::size_t PathRootLength(const ustring& path)
{
    // Skips `count` components after position `from`, each with its closing backslash (the last
    // one may end the text instead).
    auto skipComponents = [&path](std::size_t from, int count) {
        std::size_t pos = from;
        for (int i = 0; i < count && pos < path.size(); ++i)
        {
            const std::size_t sep = path.find(L'\\', pos);
            pos = (sep == std::wstring::npos) ? path.size() : sep + 1;
        }
        return pos;
    };
    auto startsWith = [&path](const wchar_t* head) { return HasAt(path, 0, head); };
    auto isDriveAt = [&path](std::size_t at) {
        return path.size() >= at + 2 && std::iswalpha(path[at]) && path[at + 1] == L':';
    };

    if (startsWith(L"\\\\?\\UNC\\"))
        return skipComponents(8, 2); // \\?\UNC\server\share\ .
    if (startsWith(L"\\\\?\\") || startsWith(L"\\\\.\\"))
    {
        if (isDriveAt(4))
            return (path.size() > 6 && path[6] == L'\\') ? 7 : 6; // \\?\C:\ .
        return skipComponents(4, 1); // \\?\Volume{...}\ .
    }
    if (startsWith(L"\\\\"))
        return skipComponents(2, 2); // \\server\share\ .
    if (isDriveAt(0))
        return (path.size() > 2 && path[2] == L'\\') ? 3 : 2;
    if (startsWith(L"\\"))
        return 1;
    return 0;
}

} // namespace detail

// Defined here so that the constants are exported and callers can bind references to them.
const unsigned int CFile::m_nMaxPathLong;
const wchar_t* const CFile::m_strFileNamespacePrefix = L"\\\\?\\";
const wchar_t* const CFile::m_strUNC = L"UNC";

using detail::NormalizeSeparators;
using detail::PathRootLength;

namespace {

const wchar_t kFolderMarker[] = L"<FOLDER_LAST_ALP>";

// A present part of MakePath: trimmed of spaces, with backslashes only.
ustring PathPart(const wchar_t* part)
{
    ustring text = NormalizeSeparators(part);
    text.trim(L' ');
    return text;
}

bool EndsWithBackslash(const ustring& text)
{
    return !text.empty() && text.back() == L'\\';
}

// Components of a path split at backslashes, trailing empty pieces dropped.
std::vector<ustring> PathComponents(const wchar_t* path)
{
    const ustring text = NormalizeSeparators(path);
    std::vector<ustring> parts;
    std::size_t start = 0;
    for (;;)
    {
        const std::size_t sep = text.find(L'\\', start);
        if (sep == std::wstring::npos)
        {
            parts.emplace_back(text.substr(start));
            break;
        }
        parts.emplace_back(text.substr(start, sep - start));
        start = sep + 1;
    }
    while (!parts.empty() && parts.back().empty())
        parts.pop_back();
    return parts;
}

// Joins the relative directory `rel` to `base` (which ends in a backslash): leading ".\" pieces
// are dropped and each leading "..\" takes the last folder off `base`. At the root of an
// absolute base a ".." has nowhere to go and is dropped, as the system itself would do; a
// relative base that runs out (or already ends in "..") keeps the remaining "..\" pieces.
ustring JoinDirectories(ustring base, ustring rel)
{
    const std::size_t root = PathRootLength(base);
    for (;;)
    {
        if (HasAt(rel, 0, L".\\"))
        {
            rel.erase(0, 2);
            continue;
        }
        if (!HasAt(rel, 0, L"..\\"))
            break;
        if (base.size() > root)
        {
            // The last folder of base: between the backslash before its end and its end.
            const std::size_t prev = base.size() >= 2 ? base.rfind(L'\\', base.size() - 2) : std::wstring::npos;
            const std::size_t folderStart = (prev == std::wstring::npos) ? 0 : prev + 1;
            if ((base.size() - folderStart == 3 && HasAt(base, folderStart, L"..\\")) || folderStart < root)
                break; // nothing left that a ".." could remove
            base.erase(folderStart);
            rel.erase(0, 3);
        }
        else if (root > 0)
            rel.erase(0, 3);
        else
            break;
    }
    return base + rel;
}

} // namespace

ustring CFile::OptAddFileNamePrefix(const wchar_t* name)
{
    ustring text(name);
    text.trim(L' ');
    std::replace(text.begin(), text.end(), L'/', L'\\');
    if (text.size() >= 3 && text[0] == L'\\' && text[1] == L'\\' && std::iswalpha(text[2]))
    {
        ustring prefixed(m_strFileNamespacePrefix);
        prefixed += m_strUNC;
        prefixed.append(text, 1, std::wstring::npos);
        return prefixed;
    }
    if (text.size() >= 3 && std::iswalpha(text[0]) && text[1] == L':' && text[2] == L'\\')
        return ustring(m_strFileNamespacePrefix) + text;
    return text;
}

void CFile::SplitPath(const wchar_t* path, ustring& drive, ustring& dir, ustring& fname, ustring& ext)
{
    ustring text = NormalizeSeparators(path);

    drive.clear();
    const std::size_t colon = text.find(L':');
    if (colon != std::wstring::npos)
    {
        drive = text.substr(0, colon + 1);
        text.erase(0, colon + 1);
    }

    ext.clear();
    const std::size_t dot = text.rfind(L'.');
    const std::size_t slash = text.rfind(L'\\');
    if (dot != std::wstring::npos && (slash == std::wstring::npos || slash < dot))
    {
        ext = text.substr(dot);
        text.erase(dot);
    }

    dir.clear();
    if (slash != std::wstring::npos)
    {
        dir = text.substr(0, slash + 1);
        text.erase(0, slash + 1);
    }

    fname = text;
}

void CFile::MakePath(ustring& out, const wchar_t* drive, const wchar_t* dir, const wchar_t* fname, const wchar_t* ext)
{
    ustring joined;
    if (drive != nullptr)
        joined += PathPart(drive);
    if (dir != nullptr)
    {
        const ustring part = PathPart(dir);
        if (!part.empty())
        {
            joined += part;
            if (!EndsWithBackslash(joined))
                joined += L'\\';
        }
    }
    if (fname != nullptr)
        joined += PathPart(fname);
    if (ext != nullptr)
    {
        const ustring part = PathPart(ext);
        if (!part.empty())
        {
            if (part[0] != L'.')
                joined += L'.';
            joined += part;
        }
    }

    // Collapse doubled backslashes, but keep the two that open a UNC or \\?\ name.
    out.clear();
    out.reserve(joined.size());
    for (std::size_t i = 0; i < joined.size(); ++i)
    {
        if (joined[i] == L'\\' && i >= 2 && out.back() == L'\\')
            continue;
        out += joined[i];
    }
}

void CFile::UpdatePath(const wchar_t* src, EPathComponents srcParts, const wchar_t* dst, EPathComponents dstParts, ustring& out)
{
    ustring srcDrive, srcDir, srcName, srcExt;
    ustring dstDrive, dstDir, dstName, dstExt;
    SplitPath(src, srcDrive, srcDir, srcName, srcExt);
    SplitPath(dst, dstDrive, dstDir, dstName, dstExt);

    auto pick = [srcParts, dstParts](EPathComponents which, const ustring& fromSrc, const ustring& fromDst) {
        if ((dstParts & which) && !fromDst.empty())
            return fromDst;
        if (srcParts & which)
            return fromSrc;
        return ustring();
    };

    const ustring drive = pick(PathDrive, srcDrive, dstDrive);
    const ustring name = pick(PathFileName, srcName, dstName);
    const ustring ext = pick(PathExtension, srcExt, dstExt);

    const ustring baseDir = (srcParts & PathDirectory) ? srcDir : ustring();
    const ustring relDir = (dstParts & PathDirectory) ? dstDir : ustring();
    ustring dir;
    if (relDir.empty())
        dir = baseDir;
    else if (baseDir.empty() || relDir[0] == L'\\')
        dir = relDir;
    else
        dir = JoinDirectories(baseDir, relDir);

    MakePath(out, drive, dir, name, ext);
}

bool CFile::ResolvePath(ustring& path)
{
    for (;;)
    {
        const std::size_t marker = path.find(kFolderMarker);
        if (marker == std::wstring::npos)
            return true;

        ustring folder = path.substr(0, marker);
        if (!folder.empty() && folder.back() != L'\\' && folder.back() != L'/' && folder.back() != L':')
            folder += L'\\';

        ustring last;
        if (!detail::FindLastSubfolder(folder, last))
            return false;
        path.replace(marker, std::wcslen(kFolderMarker), last);
    }
}

bool CFile::IsParentFolder(const wchar_t* parent, const wchar_t* child)
{
    const std::vector<ustring> parentParts = PathComponents(parent);
    const std::vector<ustring> childParts = PathComponents(child);
    if (parentParts.size() > childParts.size())
        return false;
    for (std::size_t i = 0; i < parentParts.size(); ++i)
    {
        if (parentParts[i].compareNoCase(childParts[i]) != 0)
            return false;
    }
    return true;
}

} // namespace tavrin
