// File-system helpers of CFile: folder creation, existence tests, attributes, copies, moves,
// deletions, module and special-folder paths, temporary names and shell links. Every name goes
// to the system in its long-path form; failing calls throw CWinException naming the call.
#include <tavrin/core/file.h>

#include "core/file_path_internal.h"

#include <objbase.h>
#include <shlobj.h>
#include <shobjidl.h>

#include <vector>

namespace tavrin {

namespace {

// Source lines recorded by three failures that callers and their logs know by line.
const unsigned int kLineModuleFileName = 728;
const unsigned int kLineComponentIsFile = 854;
const unsigned int kLineCreateDirectory = 873;

[[noreturn]] void ThrowWin(unsigned int line, const wchar_t* function, DWORD error)
{
    throw CWinException(line, TAVRIN_WFILE, function, static_cast<long>(error));
}

// Some shell calls fail without setting the thread's last error; an exception with code 0
// would read "The operation completed successfully".
DWORD LastErrorOr(DWORD fallback)
{
    const DWORD error = ::GetLastError();
    return error != ERROR_SUCCESS ? error : fallback;
}

[[noreturn]] void ThrowHResult(unsigned int line, const wchar_t* function, HRESULT hr)
{
    throw CWinException(line, TAVRIN_WFILE, function, static_cast<long>(hr));
}

// An open FindFirstFileW search, closed on scope exit.
class CFindHandle
{
public:
    CFindHandle(const ustring& pattern, WIN32_FIND_DATAW& data)
        : m_hFind(::FindFirstFileW(CFile::OptAddFileNamePrefix(pattern), &data))
    {
    }
    CFindHandle(const CFindHandle&) = delete;
    CFindHandle& operator=(const CFindHandle&) = delete;
    ~CFindHandle()
    {
        if (IsValid())
            ::FindClose(m_hFind);
    }
    bool IsValid() const { return m_hFind != INVALID_HANDLE_VALUE; }
    bool Next(WIN32_FIND_DATAW& data) { return ::FindNextFileW(m_hFind, &data) != FALSE; }

private:
    HANDLE m_hFind;
};

// PathFileExistsW lives in shlwapi, which the library does not link; it is bound at first use.
// Should the binding fail, the attributes query it performs itself stands in.
bool PathFileExistsLongName(const ustring& prefixedName)
{
    using PathFileExistsFn = BOOL(WINAPI*)(LPCWSTR);
    static const PathFileExistsFn pathFileExists = []() -> PathFileExistsFn {
        HMODULE shlwapi = ::LoadLibraryW(L"shlwapi.dll");
        if (shlwapi == nullptr)
            return nullptr;
        return reinterpret_cast<PathFileExistsFn>(
            reinterpret_cast<void*>(::GetProcAddress(shlwapi, "PathFileExistsW")));
    }();
    if (pathFileExists != nullptr)
        return pathFileExists(prefixedName) != FALSE;
    return ::GetFileAttributesW(prefixedName) != INVALID_FILE_ATTRIBUTES;
}

bool IsDotOrDotDot(const wchar_t* name)
{
    return name[0] == L'.' && (name[1] == L'\0' || (name[1] == L'.' && name[2] == L'\0'));
}

// SHGetSpecialFolderPathW without creating the folder; false when the folder is unknown.
bool TryGetSpecialFolder(int csidl, ustring& out)
{
    wchar_t buffer[MAX_PATH + 1] = {};
    if (!::SHGetSpecialFolderPathW(nullptr, buffer, csidl, FALSE))
        return false;
    out = buffer;
    return true;
}

bool FileExistsInSpecialFolder(int csidl, const wchar_t* fname, const wchar_t* ext, bool& isFolder)
{
    ustring folder;
    if (!TryGetSpecialFolder(csidl, folder))
        return false;
    ustring path;
    CFile::MakePath(path, nullptr, folder, fname, ext);
    return CFile::FileExists(path, isFolder);
}

// Balances the thread's COM initialisation for the span of one call. A thread already in the
// other apartment model keeps it (RPC_E_CHANGED_MODE): COM is usable there as it is.
class CComScope
{
public:
    CComScope() : m_bUninitialize(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) {}
    CComScope(const CComScope&) = delete;
    CComScope& operator=(const CComScope&) = delete;
    ~CComScope()
    {
        if (m_bUninitialize)
            ::CoUninitialize();
    }

private:
    bool m_bUninitialize;
};

// Owner of one COM interface reference.
template <class I>
class CComRef
{
public:
    CComRef() = default;
    CComRef(const CComRef&) = delete;
    CComRef& operator=(const CComRef&) = delete;
    ~CComRef()
    {
        if (m_p != nullptr)
            m_p->Release();
    }
    I* operator->() const { return m_p; }
    void** Out() { return reinterpret_cast<void**>(&m_p); }

private:
    I* m_p = nullptr;
};

} // namespace

namespace detail {

bool FindLastSubfolder(const ustring& folder, ustring& name)
{
    WIN32_FIND_DATAW data;
    CFindHandle search(folder + L"*", data);
    if (!search.IsValid())
        return false;
    bool found = false;
    do
    {
        if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 || IsDotOrDotDot(data.cFileName))
            continue;
        if (!found || ::CompareStringOrdinal(data.cFileName, -1, name.c_str(), -1, TRUE) == CSTR_GREATER_THAN)
        {
            name = data.cFileName;
            found = true;
        }
    } while (search.Next(data));
    return found;
}

} // namespace detail

void CFile::CreateFolder(const wchar_t* path)
{
    ustring current = detail::NormalizeSeparators(path);
    const std::size_t root = detail::PathRootLength(current);
    while (current.size() > root && current.size() > 1 && current.back() == L'\\')
        current.pop_back();

    // Walk towards the root until an existing folder is met, remembering what is missing.
    std::vector<ustring> missing;
    while (current.size() > root && current != L"\\")
    {
        bool isFolder = false;
        if (FileExists(current, isFolder))
        {
            if (!isFolder)
                ThrowWin(kLineComponentIsFile, L"CFile::CreateDirectory", ERROR_INVALID_PARAMETER);
            break;
        }
        missing.push_back(current);
        const std::size_t cut = current.rfind(L'\\');
        if (cut == std::wstring::npos)
            break;
        current.erase(cut);
    }

    for (auto it = missing.rbegin(); it != missing.rend(); ++it)
    {
        if (!::CreateDirectoryW(OptAddFileNamePrefix(*it), nullptr))
        {
            const DWORD error = ::GetLastError();
            // Another process may have created it in the meantime.
            if (error != ERROR_ALREADY_EXISTS)
                ThrowWin(kLineCreateDirectory, L"CreateDirectoryW", error);
        }
    }
}

bool CFile::FileExists(const wchar_t* path)
{
    bool isFolder = false;
    return FileExists(path, isFolder);
}

bool CFile::FileExists(const wchar_t* path, bool& isFolder)
{
    if (path == nullptr || *path == L'\0')
        return false;
    const ustring name = OptAddFileNamePrefix(path);
    {
        WIN32_FIND_DATAW data;
        CFindHandle search(name, data);
        if (search.IsValid())
        {
            isFolder = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
            return true;
        }
    }
    // Roots such as C:\ are no directory entries, so the search does not find them.
    if (!PathFileExistsLongName(name))
        return false;
    const DWORD attributes = ::GetFileAttributesW(name);
    isFolder = attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    return true;
}

bool CFile::FileExists(int csidl, const wchar_t* fname, const wchar_t* ext)
{
    bool isFolder = false;
    return FileExistsInSpecialFolder(csidl, fname, ext, isFolder);
}

bool CFile::FileExists(int csidl, const wchar_t* fname, const wchar_t* ext, bool& isFolder)
{
    return FileExistsInSpecialFolder(csidl, fname, ext, isFolder);
}

unsigned __int64 CFile::GetLength(const wchar_t* path)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!::GetFileAttributesExW(OptAddFileNamePrefix(path), GetFileExInfoStandard, &data))
        ThrowWin(__LINE__, L"GetFileAttributesExW", ::GetLastError());
    return (static_cast<unsigned __int64>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

unsigned __int64 CFile::GetLength(int csidl, const wchar_t* fname, const wchar_t* ext)
{
    ustring folder, path;
    GetSpecialFolderPath(csidl, folder);
    MakePath(path, nullptr, folder, fname, ext);
    return GetLength(path);
}

DWORD CFile::GetAttributes(const wchar_t* path)
{
    const DWORD attributes = ::GetFileAttributesW(OptAddFileNamePrefix(path));
    if (attributes == INVALID_FILE_ATTRIBUTES)
        ThrowWin(__LINE__, L"GetFileAttributesW", ::GetLastError());
    return attributes;
}

void CFile::SetAttributes(const wchar_t* path, DWORD attributes)
{
    if (!::SetFileAttributesW(OptAddFileNamePrefix(path), attributes))
        ThrowWin(__LINE__, L"SetFileAttributesW", ::GetLastError());
}

void CFile::CopyFileW(const wchar_t* source, const wchar_t* target, bool failIfExists)
{
    if (!::CopyFileW(OptAddFileNamePrefix(source), OptAddFileNamePrefix(target), failIfExists ? TRUE : FALSE))
        ThrowWin(__LINE__, L"CopyFileW", ::GetLastError());
}

void CFile::MoveFileW(const wchar_t* source, const wchar_t* target)
{
    if (!::MoveFileW(OptAddFileNamePrefix(source), OptAddFileNamePrefix(target)))
        ThrowWin(__LINE__, L"MoveFileW", ::GetLastError());
}

void CFile::DeleteFileW(const wchar_t* path)
{
    if (!::DeleteFileW(OptAddFileNamePrefix(path)))
        ThrowWin(__LINE__, L"DeleteFileW", ::GetLastError());
}

bool CFile::GetModuleFileNameW(HINSTANCE module, ustring& out, EModuleFileName kind, bool noThrow)
{
    out.clear();
    std::vector<wchar_t> buffer(m_nMaxPathLong + 1, L'\0');
    const DWORD length = ::GetModuleFileNameW(module, buffer.data(), m_nMaxPathLong);
    // A full buffer means the name was cut short (ERROR_INSUFFICIENT_BUFFER).
    if (length == 0 || length >= m_nMaxPathLong)
    {
        if (noThrow)
            return false;
        ThrowWin(kLineModuleFileName, L"GetModuleFileNameW", LastErrorOr(ERROR_INSUFFICIENT_BUFFER));
    }
    const ustring path(buffer.data(), length);

    if (kind == ModulePath)
    {
        out = path;
        return true;
    }
    ustring drive, dir, fname, ext;
    SplitPath(path, drive, dir, fname, ext);
    switch (kind)
    {
    case ModuleNameExt:
        out = fname + ext;
        return true;
    case ModuleName:
        out = fname;
        return true;
    case ModuleFolder:
        MakePath(out, drive, dir, nullptr, nullptr);
        return true;
    default:
        return false;
    }
}

void CFile::GetSpecialFolderPath(int csidl, ustring& out)
{
    ::SetLastError(ERROR_SUCCESS);
    if (!TryGetSpecialFolder(csidl, out))
        ThrowWin(__LINE__, L"SHGetSpecialFolderPath", LastErrorOr(ERROR_PATH_NOT_FOUND));
}

bool CFile::GetSpecialFolderPathEx(int csidl, const wchar_t* relative, ustring& out)
{
    ustring folder;
    if (!TryGetSpecialFolder(csidl, folder))
        return false;
    if (relative == nullptr || *relative == L'\0')
        out = folder;
    else
        MakePath(out, nullptr, folder, relative, nullptr);
    return true;
}

void CFile::GetTempPathW(ustring& out)
{
    // The required size includes the terminator; the folder may change between the two calls,
    // hence the loop.
    DWORD size = MAX_PATH + 1;
    for (;;)
    {
        std::vector<wchar_t> buffer(size + 1, L'\0');
        const DWORD length = ::GetTempPathW(size, buffer.data());
        if (length == 0)
            ThrowWin(__LINE__, L"GetTempPath", ::GetLastError());
        if (length < size)
        {
            out.assign(buffer.data(), length);
            return;
        }
        size = length + 1;
    }
}

void CFile::GetTempFileNameW(const wchar_t* path, const wchar_t* prefix, unsigned int unique, ustring& out)
{
    // The system writes up to MAX_PATH code units and accepts no long-path form here.
    wchar_t buffer[MAX_PATH + 1] = {};
    const ustring folder = detail::NormalizeSeparators(path);
    if (::GetTempFileNameW(folder, prefix != nullptr ? prefix : L"", unique, buffer) == 0)
        ThrowWin(__LINE__, L"GetTempFileName", ::GetLastError());
    out = buffer;
}

void CreateShortcut(const wchar_t* linkFile, const wchar_t* target, const wchar_t* description, const wchar_t* workingDirectory)
{
    CComScope com;
    CComRef<IShellLinkW> link;
    HRESULT hr = ::CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW, link.Out());
    if (FAILED(hr))
        ThrowHResult(__LINE__, L"CoCreateInstance", hr);
    hr = link->SetPath(target != nullptr ? target : L"");
    if (FAILED(hr))
        ThrowHResult(__LINE__, L"IShellLink::SetPath", hr);
    if (description != nullptr)
    {
        hr = link->SetDescription(description);
        if (FAILED(hr))
            ThrowHResult(__LINE__, L"IShellLink::SetDescription", hr);
    }
    if (workingDirectory != nullptr)
    {
        hr = link->SetWorkingDirectory(workingDirectory);
        if (FAILED(hr))
            ThrowHResult(__LINE__, L"IShellLink::SetWorkingDirectory", hr);
    }
    CComRef<IPersistFile> file;
    hr = link->QueryInterface(IID_IPersistFile, file.Out());
    if (FAILED(hr))
        ThrowHResult(__LINE__, L"IShellLink::QueryInterface", hr);
    hr = file->Save(linkFile != nullptr ? linkFile : L"", TRUE);
    if (FAILED(hr))
        ThrowHResult(__LINE__, L"IPersistFile::Save", hr);
}

bool GetSpecialFolderLocation(int csidl, ustring& out)
{
    PIDLIST_ABSOLUTE pidl = nullptr;
    if (FAILED(::SHGetSpecialFolderLocation(nullptr, csidl, &pidl)) || pidl == nullptr)
        return false;
    wchar_t buffer[MAX_PATH + 1] = {};
    const BOOL ok = ::SHGetPathFromIDListW(pidl, buffer);
    ::CoTaskMemFree(pidl);
    if (!ok || buffer[0] == L'\0')
        return false;
    out = buffer;
    return true;
}

} // namespace tavrin
