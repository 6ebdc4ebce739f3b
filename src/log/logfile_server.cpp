// CLogFileServer (the process-wide map of channels to log files), CLogFileProxy, and the
// helpers through which wrapped system calls report to their channel.
#include <tavrin/l10n/registry.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include <shlobj.h>

#include <atomic>
#include <cstdlib>

namespace tavrin {

namespace {

std::atomic<CLogFileServer*> g_pLogFileServer(nullptr);

} // namespace

// Gives the exit-time clean-up, a plain function for atexit, access to the server.
struct CLogFileServerAccess
{
    static void ShutdownAtExit()
    {
        if (CLogFileServer* server = g_pLogFileServer.load())
            server->Shutdown();
    }
};

// ---------------------------------------------------------------- CLogFileServer

CLogFileServer& CLogFileServer::Ref()
{
    if (CLogFileServer* server = g_pLogFileServer.load(std::memory_order_acquire))
        return *server;
    static CMutex mtx;
    CLocker<CMutex> lock(&mtx);
    if (g_pLogFileServer.load() == nullptr)
    {
        g_pLogFileServer.store(new CLogFileServer(), std::memory_order_release);
        std::atexit(&CLogFileServerAccess::ShutdownAtExit);
    }
    return *g_pLogFileServer.load();
}

CLogFileServer::CLogFileServer() : m_eDetail(eLogFileDetailOff)
{
    RegGetDefaultKeyName(nullptr, nullptr, L"Logs", m_strKey);
    ustring defaultFolder;
    try
    {
        CFile::GetSpecialFolderPath(CSIDL_PERSONAL, defaultFolder);
    }
    catch (const CStdException&)
    {
        // A profile without a documents folder: the temporary folder is writable everywhere.
        CFile::GetTempPathW(defaultFolder);
        while (!defaultFolder.empty() && defaultFolder.back() == L'\\')
            defaultFolder.pop_back();
    }
    defaultFolder += L"\\_Debug";
    RegGetValue(HKEY_CURRENT_USER, m_strKey, L"Path", m_strFolder, defaultFolder);
}

CLogFileServer::~CLogFileServer()
{
    Shutdown();
}

void CLogFileServer::Shutdown()
{
    std::map<unsigned int, boost::shared_ptr<CLogFile>> files;
    {
        CLocker<CCriticalSection> lock(&m_cs);
        m_eDetail = eLogFileDetailOff;
        files.swap(m_mapLogFiles);
    }
    // The files close (writing what they queued) as the map goes, outside the server's lock.
}

void CLogFileServer::SetFolder(const wchar_t* folder, bool persist)
{
    ustring key;
    {
        CLocker<CCriticalSection> lock(&m_cs);
        m_strFolder = folder;
        key = m_strKey;
    }
    if (persist)
        RegWriteValue(HKEY_CURRENT_USER, key, L"Path", folder ? folder : L"");
}

ustring CLogFileServer::GetFolder() const
{
    CLocker<CCriticalSection> lock(&m_cs);
    return m_strFolder;
}

void CLogFileServer::SetDetail(ELogFileDetail detail)
{
    CLocker<CCriticalSection> lock(&m_cs);
    m_eDetail = detail;
}

ELogFileDetail CLogFileServer::GetDetail() const
{
    CLocker<CCriticalSection> lock(&m_cs);
    return m_eDetail;
}

ustring CLogFileServer::GetSettingsKey() const
{
    CLocker<CCriticalSection> lock(&m_cs);
    return m_strKey;
}

bool CLogFileServer::CreateLogFile(unsigned int channel, const wchar_t* name, CLogFile::LPDATAFORMATTER formatter)
{
    try
    {
        ELogFileDetail detail;
        ustring folder;
        {
            CLocker<CCriticalSection> lock(&m_cs);
            detail = m_eDetail;
            folder = m_strFolder;
        }
        if (detail == eLogFileDetailOff)
            return false;

        boost::shared_ptr<CLogFile> file(new CLogFile(detail, formatter));
        // A folder given with a closing separator must not yield an empty path component,
        // which the long-path form does not tolerate.
        while (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/'))
            folder.pop_back();
        SYSTEMTIME now;
        ::GetLocalTime(&now);
        const ustring path = ustring::sprintf_stc(L"%ls\\%ls-%04u.%02u.%02u-%02u.%02u.%02u.%03u.log", folder.c_str(),
                                                  name ? name : L"", now.wYear, now.wMonth, now.wDay, now.wHour,
                                                  now.wMinute, now.wSecond, now.wMilliseconds);
        CFile::CreateFolder(folder);
        if (!file->Open(path))
            return false;

        boost::shared_ptr<CLogFile> replaced; // let go after the lock: it may be the last holder
        {
            CLocker<CCriticalSection> lock(&m_cs);
            boost::shared_ptr<CLogFile>& slot = m_mapLogFiles[channel];
            replaced.swap(slot);
            slot = file;
        }
        return true;
    }
    catch (...)
    {
        return false;
    }
}

bool CLogFileServer::Attach(unsigned int channel, unsigned int existingChannel)
{
    CLocker<CCriticalSection> lock(&m_cs);
    const auto existing = m_mapLogFiles.find(existingChannel);
    if (existing == m_mapLogFiles.end())
        return false;
    m_mapLogFiles.insert(std::make_pair(channel, existing->second));
    return true;
}

bool CLogFileServer::CloseLogFile(unsigned int channel)
{
    boost::shared_ptr<CLogFile> removed; // let go after the lock: it may be the last holder
    {
        CLocker<CCriticalSection> lock(&m_cs);
        const auto it = m_mapLogFiles.find(channel);
        if (it == m_mapLogFiles.end())
            return false;
        removed.swap(it->second);
        m_mapLogFiles.erase(it);
    }
    return true;
}

void CLogFileServer::DropLogFile(unsigned int channel, const boost::shared_ptr<CLogFile>& expected)
{
    boost::shared_ptr<CLogFile> removed;
    {
        CLocker<CCriticalSection> lock(&m_cs);
        const auto it = m_mapLogFiles.find(channel);
        if (it == m_mapLogFiles.end() || it->second != expected)
            return;
        removed.swap(it->second);
        m_mapLogFiles.erase(it);
    }
}

bool CLogFileServer::LogFileExists(unsigned int channel) const
{
    CLocker<CCriticalSection> lock(&m_cs);
    return m_mapLogFiles.find(channel) != m_mapLogFiles.end();
}

boost::shared_ptr<CLogFile> CLogFileServer::FindLogFile(unsigned int channel) const
{
    CLocker<CCriticalSection> lock(&m_cs);
    const auto it = m_mapLogFiles.find(channel);
    return it == m_mapLogFiles.end() ? boost::shared_ptr<CLogFile>() : it->second;
}

// ---------------------------------------------------------------- CLogFileProxy

boost::shared_ptr<CLogFile> CLogFileProxy::LogFileOfChannel(unsigned int channel)
{
    try
    {
        boost::shared_ptr<CLogFile> file = CLogFileServer::Ref().FindLogFile(channel);
        if (file)
            return file;
    }
    catch (...)
    {
    }
    return CLogFile::Inert();
}

CLogFileProxy::CLogFileProxy(unsigned int channel)
    : m_nChannel(channel), m_pLogFile(LogFileOfChannel(channel)), m_Locker(&m_pLogFile->CriticalSection())
{
}

CLogFileProxy::~CLogFileProxy()
{
    // A broken or closed file leaves the map, unless the channel has been given another file
    // meanwhile. The stand-in of channels without a file came from no entry.
    try
    {
        if (m_pLogFile != CLogFile::Inert() && !m_pLogFile->IsOK())
            CLogFileServer::Ref().DropLogFile(m_nChannel, m_pLogFile);
    }
    catch (...)
    {
    }
}

// ---------------------------------------------------------------- reporting of wrapped calls

void LogChannelTextV(unsigned int channel, bool important, const wchar_t* format, va_list args)
{
    try
    {
        CLogFileProxy proxy(channel);
        proxy().LogTextV(important, format, args);
    }
    catch (...)
    {
    }
}

void LogChannelText(unsigned int channel, bool important, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    LogChannelTextV(channel, important, format, args);
    va_end(args);
}

void ThrowLoggedWinError(unsigned int channel, bool important, unsigned int line, const wchar_t* file,
                         const wchar_t* function, long error, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    LogChannelTextV(channel, important, format, args);
    va_end(args);
    throw CWinException(line, file, function, error);
}

} // namespace tavrin
