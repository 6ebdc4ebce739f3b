// CFile: the library's file (an owned Win32 file handle whose calls are logged to the channel's
// data log file) and, as static members, the library's path toolkit.
//
// Path conventions of the static members:
//   - "/" is accepted everywhere and turned into "\\".
//   - Every name handed to the system is first put into the long-path form with
//     OptAddFileNamePrefix, so absolute paths longer than MAX_PATH (260) work.
//   - Failing system calls throw CWinException naming the Windows function; the path helpers
//     log nothing and need no open file.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/exception.h>
#include <tavrin/core/object.h>
#include <tavrin/core/ustring.h>

#include <functional>
#include <vector>

namespace tavrin {

class TAVRIN_API CFile : public CHandle<-1>
{
    // =========================================================================================
    // BEGIN instance members
    // (construction, Open/Close/Read/Write/... and the instance fields; maintained separately
    //  from the static path helpers below)
    // =========================================================================================
public:
    // placeholder: instance members go here

    // =========================================================================================
    // END instance members
    // =========================================================================================

public:
    // ---------------------------------------------------------------- path constants
    // Longest path in code units; also the buffer size for module file names.
    static constexpr unsigned int m_nMaxPathLong = 32767;
    // The Win32 file-namespace prefix, \\?\ .
    static constexpr const wchar_t* m_strFileNamespacePrefix = L"\\\\?\\";
    // Replaces the first backslash of \\server\share in the long-path form \\?\UNC\server\share.
    static constexpr const wchar_t* m_strUNC = L"UNC";

    // The four parts of a path, as bit flags.
    enum EPathComponents
    {
        PathNone = 0,
        PathDrive = 1,
        PathDirectory = 2,
        PathFileName = 4,
        PathExtension = 8,
        PathFolder = PathDrive | PathDirectory,
        PathNameExt = PathFileName | PathExtension,
        PathAll = PathDrive | PathDirectory | PathFileName | PathExtension
    };

    // Which part of a module's path GetModuleFileNameW returns.
    enum EModuleFileName
    {
        ModulePath = 0,    // the whole path
        ModuleNameExt = 1, // file name and extension
        ModuleName = 2,    // file name alone
        ModuleFolder = 3   // drive and directory, with a trailing "\\"
    };

    // ---------------------------------------------------------------- pure path text
    // Long-path form: trimmed of spaces, "/" -> "\\"; \\server\share -> \\?\UNC\server\share;
    // C:\x -> \\?\C:\x whatever its length; relative names, device names and names already in
    // the \\?\ form come back only trimmed and with backslashes. Null gives empty text.
    static ustring OptAddFileNamePrefix(const wchar_t* name);

    // Splits a path into drive ("C:", everything up to the first ":"), directory (up to and with
    // the last "\\"), file name and extension (from the last "." of the last component, with
    // the "."). A dot inside a folder name is no extension. Null is treated as empty text.
    static void SplitPath(const wchar_t* path, ustring& drive, ustring& dir, ustring& fname, ustring& ext);

    // Joins the parts (any may be null): drive, directory with a "\\" added when the text so far
    // does not end in one, file name, extension with a "." put in front when it lacks one. Each
    // part is trimmed of spaces with "/" turned into "\\"; doubled backslashes are collapsed
    // except at the very start (a UNC prefix survives).
    static void MakePath(ustring& out, const wchar_t* drive, const wchar_t* dir, const wchar_t* fname, const wchar_t* ext);

    // Builds `out` from the parts of `src` selected by `srcParts` and the parts of `dst`
    // selected by `dstParts`. Drive, file name and extension: the part of `dst` when selected
    // there and not empty, else the part of `src` when selected there. Directory: when both are
    // selected and the directory of `dst` is relative, it is appended to that of `src`, its
    // leading ".\\" pieces dropped and each leading "..\\" removing the last folder of `src`'s
    // directory (never the root or a UNC server\share); an absolute directory of `dst`
    // (starting with "\\") replaces that of `src`.
    //   UpdatePath(L"C:\\app\\bin\\tool.exe", PathFolder, L"..\\data\\x.ini",
    //              EPathComponents(PathDirectory | PathNameExt), out) -> "C:\\app\\data\\x.ini"
    static void UpdatePath(const wchar_t* src, EPathComponents srcParts, const wchar_t* dst, EPathComponents dstParts, ustring& out);

    // Replaces each "<FOLDER_LAST_ALP>" marker by the name of the last sub-folder (in the order
    // the system enumerates them; "." and ".." skipped) of the folder in front of the marker.
    // True when no marker is left; false when one could not be resolved (the path then keeps
    // that marker and everything after it).
    static bool ResolvePath(ustring& path);

    // Whether `parent` is `child` or one of its ancestors: component-wise, case-insensitive,
    // "/" and "\\" alike, trailing separators ignored. Null is treated as empty text.
    static bool IsParentFolder(const wchar_t* parent, const wchar_t* child);

    // ---------------------------------------------------------------- file system
    // Creates every missing folder of the path, outermost first. A component that exists as a
    // file throws CWinException("CFile::CreateDirectory", ERROR_INVALID_PARAMETER (87)); a
    // failing CreateDirectoryW throws with that name (ERROR_ALREADY_EXISTS is ignored). An
    // existing path does nothing.
    static void CreateFolder(const wchar_t* path);

    // Whether a file or folder exists (null or empty: false). Drive roots such as C:\ are found
    // through PathFileExistsW; in that case `isFolder` is set from the path's attributes.
    static bool FileExists(const wchar_t* path);
    static bool FileExists(const wchar_t* path, bool& isFolder);
    // The same for MakePath(null, special folder `csidl`, fname, ext); false when the special
    // folder is unknown.
    static bool FileExists(int csidl, const wchar_t* fname, const wchar_t* ext);
    static bool FileExists(int csidl, const wchar_t* fname, const wchar_t* ext, bool& isFolder);

    // Size in bytes of a named file; throws with "GetFileAttributesExW" (or
    // "SHGetSpecialFolderPath" for an unknown special folder).
    static unsigned __int64 GetLength(const wchar_t* path);
    static unsigned __int64 GetLength(int csidl, const wchar_t* fname, const wchar_t* ext);

    // GetFileAttributesW / SetFileAttributesW; throw with those names.
    static DWORD GetAttributes(const wchar_t* path);
    static void SetAttributes(const wchar_t* path, DWORD attributes);

    // The Windows calls on the long-path forms of the names; throw with the function's name.
    static void CopyFileW(const wchar_t* source, const wchar_t* target, bool failIfExists);
    static void MoveFileW(const wchar_t* source, const wchar_t* target);
    static void DeleteFileW(const wchar_t* path);

    // The module's path, or the part selected by `kind`. Failure (or an unknown kind) returns
    // false when `noThrow`, else throws with "GetModuleFileNameW" (an unknown kind always just
    // returns false). `out` is cleared first.
    static bool GetModuleFileNameW(HINSTANCE module, ustring& out, EModuleFileName kind = ModulePath, bool noThrow = false);

    // Path of a special folder (CSIDL_*), without creating it and without a trailing "\\";
    // throws with "SHGetSpecialFolderPath".
    static void GetSpecialFolderPath(int csidl, ustring& out);
    // The special folder joined with a relative path (null: the folder itself); false when the
    // folder is unknown.
    static bool GetSpecialFolderPathEx(int csidl, const wchar_t* relative, ustring& out);

    // GetTempPathW (with its trailing "\\"); throws with "GetTempPath".
    static void GetTempPathW(ustring& out);
    // GetTempFileNameW in folder `path` with up to three characters of `prefix`; `unique` 0 lets
    // the system pick a number and create the file, any other value only forms the name.
    // Throws with "GetTempFileName".
    static void GetTempFileNameW(const wchar_t* path, const wchar_t* prefix, unsigned int unique, ustring& out);
};

// Creates (or overwrites) the shell link `linkFile` (a ".lnk" path) pointing to `target`, with
// an optional description and working folder (null: none). COM is initialised for the call
// when the thread has not done so. Each failing step throws CWinException with its HRESULT and
// its name: "CoCreateInstance", "IShellLink::SetPath", "IShellLink::SetDescription",
// "IShellLink::SetWorkingDirectory", "IShellLink::QueryInterface", "IPersistFile::Save".
TAVRIN_API void CreateShortcut(const wchar_t* linkFile, const wchar_t* target, const wchar_t* description = nullptr, const wchar_t* workingDirectory = nullptr);

// File-system path of a special folder (CSIDL_*) through its item identifier list; also
// knows folders that SHGetSpecialFolderPathW does not. False when the folder is unknown or
// has no file-system path (virtual folders such as the control panel).
TAVRIN_API bool GetSpecialFolderLocation(int csidl, ustring& out);

} // namespace tavrin
