// CLogFile: the queue of one channel's records and the worker thread that writes them.
#include <tavrin/log/logfile.h>

#include <algorithm>
#include <cstdio>
#include <type_traits>
#include <utility>

namespace tavrin {

namespace {

const DWORD kWorkerCycleMs = 100;
// Bytes per line of a data record's dump.
const unsigned int kDumpWidth = 32;
const char kHexDigits[] = "0123456789ABCDEF";
// Room for the formatted text of most events; longer ones take the general path.
const int kShortTextLength = 512;
// Written entries go back to the queue with their buffers, so that steady logging allocates
// nothing. Buffers larger than these, and entries beyond this many, are released instead.
const std::size_t kSpareDataBytes = 1024;
const std::size_t kSpareTextLength = 512;
const std::size_t kSpareEntries = 4096;

// The characters that the dump shows as themselves: those for which isgraph holds in the C
// locale. A fixed test keeps the files the same whatever locale the application has set.
inline bool IsDumpGraphic(unsigned char byte)
{
    return byte > 0x20 && byte < 0x7F;
}

// Appends the dump lines of `data` (see CLogFile::Bin2Text) to a narrow or wide string. The
// lines are written in place: a data record is mostly dump, and the worker's throughput is
// mostly this loop.
template <class String>
void AppendDump(const unsigned char* data, std::size_t size, unsigned int width, String& out)
{
    if (size == 0 || width == 0)
        return;
    const std::size_t lines = (size + width - 1) / width;
    // Per line " " + 3 per cell + "    " + "\r\n", plus one text character per byte.
    const std::size_t added = lines * (1 + 3 * static_cast<std::size_t>(width) + 4 + 2) + size;
    const std::size_t start = out.size();
    out.resize(start + added);
    auto* p = &out[0] + start;
    typedef typename std::remove_reference<decltype(*p)>::type Char;
    for (std::size_t offset = 0; offset < size; offset += width)
    {
        const std::size_t count = std::min<std::size_t>(width, size - offset);
        const unsigned char* line = data + offset;
        *p++ = Char(' ');
        for (std::size_t i = 0; i < count; ++i)
        {
            *p++ = Char(kHexDigits[line[i] >> 4]);
            *p++ = Char(kHexDigits[line[i] & 0x0F]);
            *p++ = Char(' ');
        }
        for (std::size_t i = count; i < width; ++i)
        {
            *p++ = Char(' ');
            *p++ = Char(' ');
            *p++ = Char(' ');
        }
        for (int i = 0; i < 4; ++i)
            *p++ = Char(' ');
        for (std::size_t i = 0; i < count; ++i)
            *p++ = IsDumpGraphic(line[i]) ? Char(line[i]) : Char('.');
        *p++ = Char('\r');
        *p++ = Char('\n');
    }
}

// Appends UTF-16 text to `out` as UTF-8.
void AppendUtf8(const std::wstring& text, std::string& out)
{
    if (text.empty())
        return;
    const std::size_t start = out.size();
    // UTF-8 takes at most three bytes per UTF-16 code unit.
    out.resize(start + text.size() * 3);
    const int written = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[start],
                                              static_cast<int>(text.size() * 3), nullptr, nullptr);
    out.resize(start + (written > 0 ? static_cast<std::size_t>(written) : 0));
}

} // namespace

// ---------------------------------------------------------------- construction

const boost::shared_ptr<CLogFile>& CLogFile::Inert()
{
    // One object serves every channel without a file. It is never destroyed, so that proxies
    // built during process exit still find it.
    static const boost::shared_ptr<CLogFile>* inert =
        new boost::shared_ptr<CLogFile>(new CLogFile(eLogFileDetailOff, nullptr));
    return *inert;
}

CLogFile::CLogFile(ELogFileDetail detail, LPDATAFORMATTER formatter)
    : m_StopEvent(nullptr, TRUE, FALSE, nullptr),
      m_nQueued(0),
      m_eDetail(detail),
      m_pFormatter(formatter),
      m_bWorkerRunning(false)
{
    m_Thread.SetRoutine([this] { return ThreadRoutine(); });
    m_Thread.SetPriority(THREAD_PRIORITY_BELOW_NORMAL);
}

CLogFile::~CLogFile()
{
    Close();
}

bool CLogFile::Open(const wchar_t* path)
{
    // The shared stand-in of channels without a log file must stay inert.
    if (this == Inert().get())
        return false;
    Close();
    try
    {
        CLocker<CCriticalSection> lock(&m_cs);
        m_StopEvent.Reset();
        m_File.Open(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_ALWAYS,
                    FILE_ATTRIBUTE_NORMAL, nullptr, CFile::eLoggingModeOff, nullptr, false);
        m_File.Seek(0, FILE_END);

        // Log files are highly repetitive text; compressed they take a fraction of the disk.
        // File systems without compression refuse, and the file is then kept as it is. The call
        // goes to the system directly: the log file's own handle is no channel to report to.
        USHORT format = COMPRESSION_FORMAT_DEFAULT;
        DWORD returned = 0;
        ::DeviceIoControl(m_File.GetHandle(), FSCTL_SET_COMPRESSION, &format, sizeof(format), nullptr, 0, &returned,
                          nullptr);

        m_bWorkerRunning = true;
        StartWorker();
        return true;
    }
    catch (...)
    {
        m_bWorkerRunning = false;
    }
    Close();
    return false;
}

void CLogFile::Close()
{
    try
    {
        CLocker<CCriticalSection> lock(&m_cs);
        // The lock is held while the worker finishes: no new record can be queued meanwhile,
        // and the worker, seeing the stop event with the lock taken, empties the queue without
        // it.
        if (IsWorkerStarted())
        {
            m_StopEvent.Set();
            JoinWorker();
        }
        // A worker that was killed (at process exit every other thread is gone before the
        // library is unloaded) never reached its end: write what it left on this thread.
        if (m_bWorkerRunning)
        {
            m_bWorkerRunning = false;
            std::vector<LogEntry> rest;
            std::size_t count = 0;
            TakeQueue(rest, count);
            WriteBatch(rest, count);
        }
        CloseFileQuietly();
    }
    catch (const CStdException&)
    {
    }
    catch (const std::exception&)
    {
    }
    Clear();
}

bool CLogFile::IsOK() const
{
    try
    {
        CLocker<CCriticalSection> lock(&m_cs);
        return m_bWorkerRunning;
    }
    catch (const CStdException&)
    {
        return false;
    }
}

void CLogFile::Clear()
{
    try
    {
        CLocker<CCriticalSection> lock(&m_cs);
        std::vector<LogEntry>().swap(m_vecQueue);
        m_nQueued = 0;
        m_mapPending.clear();
    }
    catch (const CStdException&)
    {
    }
}

// ---------------------------------------------------------------- logging

void CLogFile::LogText(bool important, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    LogTextV(important, format, args);
    va_end(args);
}

void CLogFile::LogTextV(bool important, const wchar_t* format, va_list args)
{
    if (!(m_eDetail == eLogFileDetailVerbose || (m_eDetail == eLogFileDetailNormal && important)))
        return;
    try
    {
        // Time and formatting happen before the lock, so that threads logging to one file hold
        // it only to fill an entry. Short texts are formatted on the stack.
        SYSTEMTIME now;
        ::GetLocalTime(&now);
        wchar_t local[kShortTextLength];
        va_list attempt;
        va_copy(attempt, args);
        const int length = format ? ::_vsnwprintf(local, kShortTextLength, format, attempt) : 0;
        va_end(attempt);
        ustring longText;
        if (length < 0)
            longText.vsprintf(format, args);

        CLocker<CCriticalSection> lock(&m_cs);
        if (!m_bWorkerRunning)
            return;
        LogEntry& entry = NextEntry();
        entry.nType = LogEntry::eText;
        entry.bSynchronous = true;
        entry.time = now;
        entry.data.clear();
        if (length >= 0)
            static_cast<std::wstring&>(entry.text).assign(local, static_cast<std::size_t>(length));
        else
            entry.text.swap(longText);
        ++m_nQueued;
    }
    catch (...)
    {
    }
}

void CLogFile::LogSentData(const void* data, unsigned int size, bool synchronous)
{
    QueueData(LogEntry::eWrite, data, size, synchronous);
}

void CLogFile::LogReceivedData(const void* data, unsigned int size, bool synchronous)
{
    QueueData(LogEntry::eRead, data, size, synchronous);
}

void CLogFile::QueueData(unsigned int type, const void* data, unsigned int size, bool synchronous)
{
    if (m_eDetail == eLogFileDetailOff)
        return;
    try
    {
        SYSTEMTIME now;
        ::GetLocalTime(&now);
        CLocker<CCriticalSection> lock(&m_cs);
        if (!m_bWorkerRunning)
            return;
        LogEntry& entry = NextEntry();
        entry.nType = type;
        entry.bSynchronous = synchronous;
        entry.time = now;
        if (data != nullptr && size != 0)
        {
            const unsigned char* bytes = static_cast<const unsigned char*>(data);
            entry.data.assign(bytes, bytes + size);
        }
        else
            entry.data.clear();
        entry.text.clear();
        ++m_nQueued;
    }
    catch (...)
    {
    }
}

CLogFile::LogEntry& CLogFile::NextEntry()
{
    if (m_nQueued == m_vecQueue.size())
        m_vecQueue.emplace_back();
    return m_vecQueue[m_nQueued];
}

// ---------------------------------------------------------------- pending operations

bool CLogFile::AddPendingReadOperation(const void* buffer, unsigned int size, OVERLAPPED* overlapped)
{
    return AddPendingOperation(PendingOperation::eRead, buffer, size, overlapped);
}

bool CLogFile::AddPendingWriteOperation(const void* buffer, unsigned int size, OVERLAPPED* overlapped)
{
    return AddPendingOperation(PendingOperation::eWrite, buffer, size, overlapped);
}

bool CLogFile::AddPendingWaitOperation(const unsigned long* eventMask, OVERLAPPED* overlapped)
{
    return AddPendingOperation(PendingOperation::eWait, eventMask, 4, overlapped);
}

bool CLogFile::AddPendingOperation(unsigned int kind, const void* buffer, unsigned int size, OVERLAPPED* overlapped)
{
    try
    {
        CLocker<CCriticalSection> lock(&m_cs);
        if (!m_bWorkerRunning)
            return false;
        // A reused OVERLAPPED replaces its stale entry.
        PendingOperation& slot = m_mapPending[overlapped];
        slot.nKind = kind;
        slot.pBuffer = buffer;
        slot.nSize = size;
        return true;
    }
    catch (...)
    {
        return false;
    }
}

bool CLogFile::CommitPendingOperation(OVERLAPPED* overlapped, unsigned int bytesTransferred)
{
    return EndPendingOperation(overlapped, bytesTransferred, true);
}

bool CLogFile::AbortPendingOperation(OVERLAPPED* overlapped, unsigned int bytesTransferred)
{
    return EndPendingOperation(overlapped, bytesTransferred, false);
}

bool CLogFile::EndPendingOperation(OVERLAPPED* overlapped, unsigned int bytesTransferred, bool completed)
{
    try
    {
        CLocker<CCriticalSection> lock(&m_cs);
        if (!m_bWorkerRunning)
            return false;
        const PendingMap::iterator it = m_mapPending.find(overlapped);
        if (it == m_mapPending.end())
            return false;
        const PendingOperation operation = it->second;
        m_mapPending.erase(it);

        const unsigned int size = std::min(bytesTransferred, operation.nSize);
        // An aborted transfer leaves a record only of the bytes that it did move.
        if (!completed && (size == 0 || operation.nKind == PendingOperation::eWait))
            return true;
        switch (operation.nKind)
        {
        case PendingOperation::eRead:
            LogReceivedData(operation.pBuffer, size, false);
            break;
        case PendingOperation::eWrite:
            LogSentData(operation.pBuffer, size, false);
            break;
        case PendingOperation::eWait:
            if (operation.nSize == 4 && m_eDetail == eLogFileDetailVerbose)
            {
                const unsigned long mask = *static_cast<const unsigned long*>(operation.pBuffer);
                LogText(true, L"ASYNC WaitCommEvent(LPDWORD lpEvtMask) succeeded. *lpEvtMask=0x%X (%ls).", mask,
                        CommEventMaskText(mask).c_str());
            }
            break;
        default:
            break;
        }
        return true;
    }
    catch (...)
    {
        return false;
    }
}

// ---------------------------------------------------------------- dumps

ustring CLogFile::Bin2Hex(const void* data, unsigned int size)
{
    ustring out;
    Bin2Hex(data, size, out);
    return out;
}

void CLogFile::Bin2Hex(const void* data, unsigned int size, ustring& out)
{
    out.clear();
    if (data == nullptr || size == 0)
        return;
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    out.reserve(static_cast<std::size_t>(size) * 3);
    for (unsigned int i = 0; i < size; ++i)
    {
        if (i != 0)
            out.push_back(L' ');
        out.push_back(kHexDigits[bytes[i] >> 4]);
        out.push_back(kHexDigits[bytes[i] & 0x0F]);
    }
}

ustring CLogFile::Bin2Text(const std::vector<unsigned char>& data, unsigned int width)
{
    ustring out;
    Bin2Text(data, width, out);
    return out;
}

void CLogFile::Bin2Text(const std::vector<unsigned char>& data, unsigned int width, ustring& out)
{
    out.clear();
    AppendDump(data.data(), data.size(), width, out);
}

// ---------------------------------------------------------------- the worker

void CLogFile::StartWorker()
{
    m_Thread.Start();
}

bool CLogFile::IsWorkerStarted() const
{
    return m_Thread.GetHandle() != nullptr;
}

void CLogFile::JoinWorker()
{
    m_Thread.Wait(INFINITE);
}

unsigned int CLogFile::ThreadRoutine()
{
    unsigned int result = 0;
    try
    {
        result = WorkerRoutine();
    }
    catch (...)
    {
    }
    // Last act of the worker: from here on IsOK() is false and nothing more is queued.
    m_bWorkerRunning = false;
    return result;
}

unsigned int CLogFile::WorkerRoutine()
{
    // The thread was created at below-normal priority (see the constructor): writing the log
    // must never compete with the communication that it records.
    std::vector<LogEntry> batch;
    for (;;)
    {
        const DWORD wait = ::WaitForSingleObject(m_StopEvent.GetHandle(), kWorkerCycleMs);
        const bool stopping = wait != WAIT_TIMEOUT;
        // The lock is only tried: a caller holding a proxy for long delays the writing by a
        // cycle, it never blocks this thread. When the stop event is set and the lock is
        // taken, Close holds it and waits for this thread without touching the queue any more.
        std::size_t count = 0;
        if (m_cs.Lock(false))
        {
            TakeQueue(batch, count);
            m_cs.Unlock();
        }
        else if (stopping)
            TakeQueue(batch, count);

        if (!WriteBatch(batch, count))
            return 0;
        if (stopping)
            return 0;
    }
}

void CLogFile::TakeQueue(std::vector<LogEntry>& batch, std::size_t& count)
{
    // The written entries of the previous batch become the queue's spare entries.
    batch.swap(m_vecQueue);
    count = m_nQueued;
    m_nQueued = 0;
}

bool CLogFile::WriteBatch(std::vector<LogEntry>& batch, std::size_t count)
{
    std::string record;
    bool ok = true;
    for (std::size_t i = 0; i < count && ok; ++i)
    {
        FormatRecord(batch[i], record);
        ok = Write(record);
    }
    if (!ok)
    {
        m_bWorkerRunning = false;
        return false;
    }
    // Keep the entries for reuse, but not what a burst of large records left behind.
    for (std::size_t i = 0; i < count; ++i)
    {
        LogEntry& entry = batch[i];
        if (entry.data.capacity() > kSpareDataBytes)
            std::vector<unsigned char>().swap(entry.data);
        if (entry.text.capacity() > kSpareTextLength)
            ustring().swap(entry.text);
    }
    if (batch.size() > kSpareEntries)
    {
        batch.resize(kSpareEntries);
        batch.shrink_to_fit();
    }
    return true;
}

void CLogFile::FormatRecord(const LogEntry& entry, std::string& out) const
{
    // The record is built in UTF-8 directly: headers and dumps are ASCII, and only the texts
    // (events and the formatter's) need converting.
    out.clear();
    char header[160];
    int length;
    const SYSTEMTIME& t = entry.time;
    if (entry.nType == LogEntry::eText)
    {
        length = std::snprintf(header, sizeof(header), "Text Event, %u/%u/%u, %02u:%02u:%02u.%03u\r\n", t.wYear,
                               t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
    }
    else
    {
        const unsigned int size = static_cast<unsigned int>(entry.data.size());
        length = std::snprintf(header, sizeof(header),
                               "%s %s request completed: %u (0x%X) bytes, %u/%u/%u, %02u:%02u:%02u.%03u\r\n",
                               entry.bSynchronous ? "SYNC" : "ASYNC", entry.nType == LogEntry::eWrite ? "WRITE" : "READ",
                               size, size, t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
    }
    if (length > 0)
        out.append(header, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof(header) - 1));

    if (entry.nType == LogEntry::eText)
    {
        AppendUtf8(entry.text, out);
        out.append("\r\n", 2);
    }
    else
    {
        if (m_pFormatter != nullptr)
        {
            // The formatter is the application's code; a failing one costs its own text only.
            try
            {
                AppendUtf8(m_pFormatter(entry.data), out);
            }
            catch (...)
            {
            }
        }
        AppendDump(entry.data.data(), entry.data.size(), kDumpWidth, out);
    }
    out.append("\r\n", 2);
}

bool CLogFile::Write(const std::string& utf8)
{
    if (!m_File.IsCreated())
        return false;
    try
    {
        DWORD written = 0;
        if (!::WriteFile(m_File.GetHandle(), utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr))
            throw CWinException(__LINE__, TAVRIN_WFILE, L"WriteFile", static_cast<long>(::GetLastError()));
        return written == utf8.size();
    }
    catch (const CWinException& e)
    {
        WriteErrorLine(e.GetErrorCode(), utf8.size());
    }
    catch (...)
    {
        WriteErrorLine(-1, utf8.size());
    }
    CloseFileQuietly();
    return false;
}

void CLogFile::WriteErrorLine(long error, std::size_t bytesToWrite)
{
    const std::string line =
        "Error=" + std::to_string(error) + ", BytesToWrite=" + std::to_string(bytesToWrite) + "\r\n";
    DWORD written = 0;
    ::WriteFile(m_File.GetHandle(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}

void CLogFile::CloseFileQuietly()
{
    // Through the handle base: the log file's own handle is no channel, so CFile::Close's
    // reporting does not apply to it.
    try
    {
        m_File.CHandle<-1>::Close();
    }
    catch (const CStdException&)
    {
    }
}

} // namespace tavrin
