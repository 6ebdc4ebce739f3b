// CLogFileServer (the process-wide map of channels to log files), CLogFileProxy, and the
// helpers through which wrapped system calls report to their channel.
#include "log/logfile_internal.h"

#include <tavrin/l10n/registry.h>
#include <tavrin/log/logcall.h>

#include <shlobj.h>

#include <atomic>
#include <cstdlib>

namespace tavrin {

using detail::CExitSafeLock;

namespace {

std::atomic<CLogFileServer*> g_pLogFileServer(nullptr);
// Every proxy looks its channel up under the server's lock, for a few dozen nanoseconds: a
// contended Lock spins first.
const unsigned long kLockSpinCount = 4000;

} // namespace

// Gives the clean-up at unload, a plain function for atexit, access to the server.
struct CLogFileServerAccess
{
    static void ShutdownAtExit()
    {
        CLogFileServer* server = g_pLogFileServer.load();
        if (server == nullptr)
            return;
        // At process exit the module's entry point has written and closed the files already; a
        // thread stopped by the exit may hold the server's lock, which is therefore only tried.
        if (detail::IsProcessExiting())
        {
            CExitSafeLock lock(server->m_cs);
            if (lock.Locked())
                server->m_eDetail = eLogFileDetailOff;
            return;
        }
        // Unloaded by FreeLibrary: no caller can reach the server any more, and no worker runs
        // (each holds a reference on the library), so what the library kept goes with it.
        g_pLogFileServer.store(nullptr);
        delete server;
        detail::ReleaseLogFilesAtUnload();
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

CLogFileServer::CLogFileServer()
    : m_cs(kLockSpinCount), m_eDetail(eLogFileDetailOff), m_nQueueLimit(CLogFile::m_nDefaultQueueLimit)
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
    try
    {
        CExitSafeLock lock(m_cs);
        m_eDetail = eLogFileDetailOff;
        if (lock.Locked())
            files.swap(m_mapLogFiles);
    }
    catch (...)
    {
    }
    // Outside the server's lock: closing waits for each worker to write what it has queued.
    // Files that other holders keep are closed all the same (Close never throws).
    for (auto& entry : files)
        entry.second->Close();
}

void CLogFileServer::SetFolder(const wchar_t* folder, bool persist)
{
    ustring key;
    {
        CExitSafeLock lock(m_cs);
        m_strFolder = folder;
        key = m_strKey;
    }
    if (persist)
        RegWriteValue(HKEY_CURRENT_USER, key, L"Path", folder ? folder : L"");
}

ustring CLogFileServer::GetFolder() const
{
    CExitSafeLock lock(m_cs);
    return m_strFolder;
}

void CLogFileServer::SetDetail(ELogFileDetail detail)
{
    CExitSafeLock lock(m_cs);
    m_eDetail = detail;
}

ELogFileDetail CLogFileServer::GetDetail() const
{
    CExitSafeLock lock(m_cs);
    return m_eDetail;
}

ustring CLogFileServer::GetSettingsKey() const
{
    CExitSafeLock lock(m_cs);
    return m_strKey;
}

void CLogFileServer::SetQueueLimit(std::size_t bytes)
{
    CExitSafeLock lock(m_cs);
    m_nQueueLimit = bytes;
}

std::size_t CLogFileServer::GetQueueLimit() const
{
    CExitSafeLock lock(m_cs);
    return m_nQueueLimit;
}

bool CLogFileServer::CreateLogFile(unsigned int channel, const wchar_t* name, CLogFile::LPDATAFORMATTER formatter)
{
    try
    {
        ELogFileDetail detail;
        ustring folder;
        std::size_t limit;
        {
            CExitSafeLock lock(m_cs);
            detail = m_eDetail;
            folder = m_strFolder;
            limit = m_nQueueLimit;
        }
        if (detail == eLogFileDetailOff)
            return false;

        boost::shared_ptr<CLogFile> file(new CLogFile(detail, formatter));
        file->SetQueueLimit(limit);
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
            CExitSafeLock lock(m_cs);
            if (!lock.Locked())
                return false;
            boost::shared_ptr<CLogFile>& slot = m_mapLogFiles[channel];
            replaced.swap(slot);
            slot = file;
            m_mapStopped.erase(channel);
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
    CExitSafeLock lock(m_cs);
    const auto existing = m_mapLogFiles.find(existingChannel);
    if (!lock.Locked() || existing == m_mapLogFiles.end())
        return false;
    m_mapLogFiles.insert(std::make_pair(channel, existing->second));
    return true;
}

bool CLogFileServer::CloseLogFile(unsigned int channel)
{
    boost::shared_ptr<CLogFile> removed; // let go after the lock: it may be the last holder
    {
        CExitSafeLock lock(m_cs);
        if (!lock.Locked())
            return false;
        m_mapStopped.erase(channel);
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
        CExitSafeLock lock(m_cs);
        if (!lock.Locked())
            return;
        const auto it = m_mapLogFiles.find(channel);
        if (it == m_mapLogFiles.end() || it->second != expected)
            return;
        removed.swap(it->second);
        m_mapLogFiles.erase(it);
        m_mapStopped[channel] = removed->GetStatus();
    }
}

bool CLogFileServer::LogFileExists(unsigned int channel) const
{
    CExitSafeLock lock(m_cs);
    return lock.Locked() && m_mapLogFiles.find(channel) != m_mapLogFiles.end();
}

boost::shared_ptr<CLogFile> CLogFileServer::FindLogFile(unsigned int channel) const
{
    CExitSafeLock lock(m_cs);
    if (!lock.Locked())
        return boost::shared_ptr<CLogFile>();
    const auto it = m_mapLogFiles.find(channel);
    return it == m_mapLogFiles.end() ? boost::shared_ptr<CLogFile>() : it->second;
}

bool CLogFileServer::GetStatus(unsigned int channel, CLogFile::Status& status) const
{
    try
    {
        boost::shared_ptr<CLogFile> file = FindLogFile(channel);
        if (file)
        {
            status = file->GetStatus();
            return true;
        }
        CExitSafeLock lock(m_cs);
        const auto stopped = m_mapStopped.find(channel);
        if (!lock.Locked() || stopped == m_mapStopped.end())
            return false;
        status = stopped->second;
        return true;
    }
    catch (...)
    {
        return false;
    }
}

bool CLogFileServer::GetLogFilePath(unsigned int channel, ustring& path) const
{
    try
    {
        path.clear();
        const boost::shared_ptr<CLogFile> file = FindLogFile(channel);
        return file && file->GetPath(path);
    }
    catch (...)
    {
        return false;
    }
}

// ---------------------------------------------------------------- CLogFileProxy

CLogFileProxy::Prepared CLogFileProxy::Prepare(unsigned int channel)
{
    Prepared prepared = {boost::shared_ptr<CLogFile>(), SYSTEMTIME(), false};
    try
    {
        prepared.pFile = CLogFileServer::Ref().FindLogFile(channel);
    }
    catch (...)
    {
    }
    if (!prepared.pFile)
        prepared.pFile = CLogFile::Inert();
    // During process exit the proxy must not wait for a lock that a stopped thread holds: such
    // a file is left alone, and the exit-time stand-in, whose lock nobody else takes, serves.
    if (detail::IsProcessExiting())
    {
        if (!prepared.pFile->CriticalSection().Lock(false))
            prepared.pFile = CLogFile::InertAtExit();
        else
            prepared.pFile->CriticalSection().Unlock();
    }
    // The time of the record about to be logged, before the lock: waiting for it does not
    // lengthen everybody else's wait.
    if (prepared.pFile->m_eDetail != eLogFileDetailOff &&
        prepared.pFile->m_bWorkerRunning.load(std::memory_order_relaxed))
    {
        ::GetLocalTime(&prepared.time);
        prepared.bTimed = true;
    }
    return prepared;
}

CLogFileProxy::CLogFileProxy(unsigned int channel) : CLogFileProxy(channel, Prepare(channel))
{
}

CLogFileProxy::CLogFileProxy(unsigned int channel, Prepared&& prepared)
    : m_nChannel(channel), m_pLogFile(std::move(prepared.pFile)), m_Locker(&m_pLogFile->CriticalSection())
{
    if (prepared.bTimed)
    {
        // Under the lock: these fields belong to the thread that holds it.
        m_pLogFile->m_ProxyTime = prepared.time;
        m_pLogFile->m_bProxyTime = true;
        m_pLogFile->m_dwProxyThread.store(::GetCurrentThreadId(), std::memory_order_relaxed);
    }
}

CLogFileProxy::~CLogFileProxy()
{
    try
    {
        if (m_pLogFile->IsProxiedHere())
        {
            m_pLogFile->m_bProxyTime = false;
            m_pLogFile->m_dwProxyThread.store(0, std::memory_order_relaxed);
        }
        // A broken or closed file leaves the map, unless the channel has been given another
        // file meanwhile. The stand-ins of channels without a file came from no entry. The
        // proxy holds the lock: IsOK without taking it again.
        if (!m_pLogFile->m_bWorkerRunning.load(std::memory_order_relaxed) && m_pLogFile != CLogFile::Inert() &&
            m_pLogFile != CLogFile::InertAtExit() && !detail::IsProcessExiting())
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
