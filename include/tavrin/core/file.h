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

#include <shlobj.h> // CSIDL_* values taken by the special-folder members

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
    // Whether Open creates the data log file of the handle's channel.
    enum ELoggingMode
    {
        eLoggingModeOff = 0, // no log file
        eLoggingModeOn = 1   // any non-zero value: the channel's log file is created at open
    };

    // Renders the bytes of a data record in the channel's own way, for its data log file (may
    // be null). The text carries its own line ends.
    typedef ustring(__stdcall* LPDATAFORMATTER)(const std::vector<unsigned char>& data);

    // No handle, empty name.
    CFile();
    // Opens at once (see Open); delete-on-close is false. A failing open throws and leaves no
    // object.
    CFile(const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD creation,
          DWORD flagsAndAttributes, HANDLE templateFile, ELoggingMode loggingMode = eLoggingModeOff,
          LPDATAFORMATTER formatter = nullptr);
    // Creates a new empty file in the user's temporary folder, named by GetTempFileNameW from up
    // to three characters of `prefix` (null: "tmp"), and opens it (OPEN_EXISTING, not logged).
    // The full name is returned in `name`. With `deleteOnClose` the file is deleted by Close.
    // Throws like GetTempPathW, GetTempFileNameW and Open; a file that could not be opened is
    // deleted again.
    CFile(DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD flagsAndAttributes, const wchar_t* prefix,
          ustring& name, bool deleteOnClose = true);
    // Closes through Close; never throws.
    ~CFile() override;

    // Closes the handle (see CHandle::Close, whose result or exception it passes on). With
    // delete-on-close the file is then deleted and the name and flag are cleared. A handle that
    // had a usable data log file logs "The handle has been closed." and closes that log file.
    bool Close() override;

    // CreateFileW on the long-path form of `name` (a held handle is closed first). Failure
    // throws CWinException("CreateFileW"). The name is kept as given. With a logging mode other
    // than 0 the channel's data log file is created (named by `name` without the characters
    // /\:*?"<>|.) and the open is logged to it.
    virtual void Open(const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                      DWORD creation, DWORD flagsAndAttributes, HANDLE templateFile,
                      ELoggingMode loggingMode, LPDATAFORMATTER formatter, bool deleteOnClose);

    // ReadFile / WriteFile. True when the transfer completed (its bytes are logged as a SYNC
    // record); false when it is pending on `overlapped` (it is registered with the log file and
    // logged when GetOverlappedResult completes it). Failure logs and throws CWinException
    // ("ReadFile" / "WriteFile").
    virtual bool Read(void* buffer, unsigned int size, unsigned int& bytesRead, OVERLAPPED* overlapped = nullptr);
    virtual bool Write(const void* data, unsigned int size, unsigned int& bytesWritten,
                       OVERLAPPED* overlapped = nullptr);
    // FlushFileBuffers; throws with that name.
    virtual void Flush();
    // DeviceIoControl on the handle. True when complete, false when pending on `overlapped`;
    // failure logs and throws CWinException("DeviceIoControl").
    virtual bool DeviceIoControlLL(DWORD controlCode, const void* inBuffer, unsigned int inSize, void* outBuffer,
                                   unsigned int outSize, unsigned int& bytesReturned,
                                   OVERLAPPED* overlapped = nullptr);
    // Input-only form, for overlapped requests (`overlapped` may be null).
    virtual bool DeviceIoControlLL(DWORD controlCode, const void* inBuffer, unsigned int inSize,
                                   OVERLAPPED* overlapped);
    // The file pointer / moves it (FILE_BEGIN, FILE_CURRENT, FILE_END) and returns the new
    // position; throw CWinException("SetFilePointer").
    virtual unsigned __int64 GetPosition();
    virtual unsigned __int64 Seek(__int64 distance, DWORD method);
    // GetFileSize; throws with that name.
    virtual unsigned __int64 GetLength();
    // Moves the file pointer to `length` and ends the file there (SetEndOfFile); throws with
    // "SetFilePointer" or "SetEndOfFile".
    virtual void SetLength(unsigned __int64 length);
    // Cancels this thread's pending operations on the handle; failure logs and throws
    // CWinException("CancelIo").
    virtual void CancelIo();
    // Completes a pending transfer: true (and its data logged) when done; false only for
    // ERROR_IO_PENDING (997). Every other error, ERROR_IO_INCOMPLETE (996) of a transfer still
    // running with `wait` false included, logs and throws CWinException("GetOverlappedResult").
    // An error other than 996 has ended the operation (ERROR_OPERATION_ABORTED (995) after
    // CancelIo, for instance): its pending record is dropped, after a record of the bytes that
    // it moved, if any (CLogFile::AbortPendingOperation).
    virtual bool GetOverlappedResult(OVERLAPPED* overlapped, unsigned int& bytes, bool wait);

    // The name as given to Open (empty when none, or after a delete-on-close).
    const ustring& GetFileName() const { return m_strFileName; }
    bool GetDeleteOnClose() const { return m_bDeleteOnClose; }

protected:
    ustring m_strFileName;
    bool m_bDeleteOnClose;

    // =========================================================================================
    // END instance members
    // =========================================================================================

public:
    // ---------------------------------------------------------------- path constants
    // Longest path in code units; also the buffer size for module file names.
    static const unsigned int m_nMaxPathLong = 32767;
    // The Win32 file-namespace prefix, \\?\ .
    static const wchar_t* const m_strFileNamespacePrefix;
    // "UNC": replaces the first backslash of \\server\share in the long form \\?\UNC\server\share.
    static const wchar_t* const m_strUNC;

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

    // Replaces each "<FOLDER_LAST_ALP>" marker (standing for one whole path component) by the
    // name of the last sub-folder of the folder in front of it, "." and ".." skipped. "Last" is
    // the case-insensitive order of the names' code units, the order NTFS lists them in,
    // whatever the file system. True when no marker is left; false when one could not be
    // resolved (the path then keeps that marker and everything after it).
    static bool ResolvePath(ustring& path);

    // Whether `parent` is `child` or one of its ancestors: component-wise, case-insensitive,
    // "/" and "\\" alike, trailing separators ignored. Null is treated as empty text; an empty
    // parent has no components and so is an ancestor of everything.
    static bool IsParentFolder(const wchar_t* parent, const wchar_t* child);

    // ---------------------------------------------------------------- file system
    // Creates every missing folder of the path, outermost first. A component that exists as a
    // file throws CWinException("CFile::CreateDirectory", ERROR_INVALID_PARAMETER (87)); a
    // failing CreateDirectoryW throws with that name (ERROR_ALREADY_EXISTS is ignored). An
    // existing path does nothing.
    static void CreateFolder(const wchar_t* path);

    // Whether a file or folder exists (null or empty: false). The name goes to FindFirstFileW,
    // so a name with wildcards tells whether anything matches. Drive roots such as C:\ are
    // found through PathFileExistsW; `isFolder` is then set from the path's attributes.
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
