// CLogFile: opening and closing, the queue that callers fill, pending operations and dumps.
#include "log/logfile_internal.h"

#include <algorithm>
#include <utility>

namespace tavrin {

using detail::CExitSafeLock;

namespace {

const char kHexDigits[] = "0123456789ABCDEF";
// Room for the formatted text of most events; longer ones take the general path.
const int kShortTextLength = 512;
// Callers hold a log file's lock for a few hundred nanoseconds: a contended Lock spins first.
const unsigned long kLockSpinCount = 4000;

// The characters that the dump shows as themselves: those for which isgraph holds in the C
// locale. A fixed test keeps the files the same whatever locale the application has set.
inline bool IsDumpGraphic(unsigned char byte)
{
    return byte > 0x20 && byte < 0x7F;
}

// Whether `cost` more bytes keep the queue within `limit`.
bool Fits(std::size_t queued, std::size_t cost, std::size_t limit)
{
    return cost <= limit && queued <= limit - cost;
}

} // namespace

namespace detail {

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

template void AppendDump<std::string>(const unsigned char*, std::size_t, unsigned int, std::string&);
template void AppendDump<ustring>(const unsigned char*, std::size_t, unsigned int, ustring&);

} // namespace detail

// ---------------------------------------------------------------- construction

const std::size_t CLogFile::m_nDefaultQueueLimit;

namespace {

// The stand-ins, made on first use. They stay until the library is unloaded (never at process
// exit), so that proxies built by other modules' exit-time code still find them.
boost::shared_ptr<CLogFile>* g_pInert = nullptr;
boost::shared_ptr<CLogFile>* g_pInertAtExit = nullptr;

} // namespace

const boost::shared_ptr<CLogFile>& CLogFile::Inert()
{
    // One object serves every channel without a file.
    static const boost::shared_ptr<CLogFile>* inert = g_pInert =
        new boost::shared_ptr<CLogFile>(new CLogFile(eLogFileDetailOff, nullptr));
    return *inert;
}

const boost::shared_ptr<CLogFile>& CLogFile::InertAtExit()
{
    // The stand-in for exit-time callers when a thread stopped by the exit held the lock of the
    // shared one: only the exiting thread is left to take this one's.
    static const boost::shared_ptr<CLogFile>* inert = g_pInertAtExit =
        new boost::shared_ptr<CLogFile>(new CLogFile(eLogFileDetailOff, nullptr));
    return *inert;
}

void CLogFile::ReleaseStandIns()
{
    delete g_pInert;
    delete g_pInertAtExit;
    g_pInert = g_pInertAtExit = nullptr;
}

CLogFile::CLogFile(ELogFileDetail detail, LPDATAFORMATTER formatter)
    : m_cs(kLockSpinCount),
      m_StopEvent(nullptr, TRUE, FALSE, nullptr),
      m_pQueueHead(nullptr),
      m_pQueueTail(nullptr),
      m_eDetail(detail),
      m_pFormatter(formatter),
      m_hFormatterModule(nullptr),
      m_hWorkerModule(nullptr),
      m_DoneEvent(nullptr, TRUE, FALSE, nullptr),
      m_StartedEvent(nullptr, TRUE, FALSE, nullptr),
      m_bWorkerRunning(false),
      m_pFreeChunks(nullptr),
      m_pSpareChunks(nullptr),
      m_nIdleChunks(0),
      m_bHandoffWanted(false),
      m_pHandoff(nullptr),
      m_nQueueLimit(m_nDefaultQueueLimit),
      m_nBytesIn(0),
      m_nRecordsIn(0),
      m_nDropped(0),
      m_nBytesOutSeen(0),
      m_nDropRunRecords(0),
      m_nDropRunBytes(0),
      m_DropRunFirst(),
      m_DropRunLast(),
      m_dwProxyThread(0),
      m_bProxyTime(false),
      m_ProxyTime(),
      m_aSeparator(),
      m_pBatch(nullptr),
      m_pBatchNext(nullptr),
      m_pInFlight(nullptr),
      m_nInFlightStart(0),
      m_nInFlightEnd(0),
      m_nFileEnd(0),
      m_nBytesOut(0),
      m_nRecordsOut(0),
      m_nWritten(0),
      m_nError(0),
      m_nIdleTarget(QueueChunk::kIdleLimit),
      m_pRegistration(nullptr)
{
    m_Thread.SetRoutine([this] { return ThreadRoutine(); });
    m_Thread.SetPriority(THREAD_PRIORITY_BELOW_NORMAL);
    // The formatter is called by the worker, perhaps long after the module that holds it (a
    // plug-in, say) was let go by its own users: it stays loaded while this object exists.
    if (formatter != nullptr &&
        !::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                              reinterpret_cast<LPCWSTR>(reinterpret_cast<UINT_PTR>(formatter)), &m_hFormatterModule))
        m_hFormatterModule = nullptr;
}

CLogFile::~CLogFile()
{
    Close();
    // At process exit the memory goes with the process; nothing is unloaded any more.
    if (detail::IsProcessExiting())
        return;
    DeleteChunks(m_pQueueHead);
    DeleteChunks(m_pFreeChunks);
    DeleteChunks(m_pSpareChunks.exchange(nullptr));
    if (m_hFormatterModule != nullptr)
        ::FreeLibrary(m_hFormatterModule);
}

bool CLogFile::Open(const wchar_t* path)
{
    // The shared stand-ins of channels without a log file must stay inert, and nothing starts
    // once the process is exiting.
    if (this == Inert().get() || this == InertAtExit().get() || detail::IsProcessExiting())
        return false;
    Close();
    try
    {
        CLocker<CCriticalSection> lock(&m_cs);
        m_StopEvent.Reset();
        m_DoneEvent.Reset();
        m_StartedEvent.Reset();
        m_File.Open(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_ALWAYS,
                    FILE_ATTRIBUTE_NORMAL, nullptr, CFile::eLoggingModeOff, nullptr, false);
        const unsigned long long end = m_File.Seek(0, FILE_END);
        m_nFileEnd = end;
        m_pInFlight = nullptr;

        // Log files are highly repetitive text; compressed they take a fraction of the disk.
        // File systems without compression refuse, and the file is then kept as it is. The call
        // goes to the system directly: the log file's own handle is no channel to report to.
        USHORT format = COMPRESSION_FORMAT_DEFAULT;
        DWORD returned = 0;
        ::DeviceIoControl(m_File.GetHandle(), FSCTL_SET_COMPRESSION, &format, sizeof(format), nullptr, 0, &returned,
                          nullptr);

        m_nError = 0;
        m_nDropRunRecords = 0;
        m_nDropRunBytes = 0;
        m_bWorkerRunning = true;
        Register();
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
    if (detail::IsProcessExiting())
    {
        CloseAtExit();
        return;
    }
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
        CloseFileQuietly();
        Unregister();
    }
    catch (const CStdException&)
    {
    }
    catch (const std::exception&)
    {
    }
    Clear();
    ReleaseIdleChunks();
}

bool CLogFile::IsOK() const
{
    try
    {
        CExitSafeLock lock(m_cs);
        return m_bWorkerRunning;
    }
    catch (...)
    {
        return false;
    }
}

void CLogFile::Clear()
{
    try
    {
        CExitSafeLock lock(m_cs);
        if (!lock.Locked())
            return;
        QueueChunk* chunk = m_pQueueHead;
        m_pQueueHead = m_pQueueTail = nullptr;
        while (chunk != nullptr)
        {
            QueueChunk* next = chunk->pNext.load();
            const unsigned int used = chunk->nUsed.load();
            std::size_t bytes = 0;
            for (unsigned int i = 0; i < used; ++i)
                bytes += detail::EntryCost(chunk->entries[i]);
            m_nBytesIn.store(m_nBytesIn.load() - bytes);
            m_nRecordsIn.store(m_nRecordsIn.load() - used);
            chunk->Reset();
            if (m_nIdleChunks.load() < QueueChunk::kIdleLimit)
            {
                chunk->pNext = m_pFreeChunks;
                m_pFreeChunks = chunk;
                ++m_nIdleChunks;
            }
            else
                delete chunk;
            chunk = next;
        }
        m_mapPending.clear();
    }
    catch (...)
    {
    }
}

void CLogFile::ReleaseIdleChunks()
{
    try
    {
        CExitSafeLock lock(m_cs);
        if (!lock.Locked() || m_bWorkerRunning)
            return;
        // What a failed worker left of its batch, and what was handed to it afterwards.
        DeleteChunks(m_pBatch.exchange(nullptr));
        m_pBatchNext = nullptr;
        DeleteChunks(m_pHandoff.exchange(nullptr));
        DeleteChunks(m_pFreeChunks);
        m_pFreeChunks = nullptr;
        DeleteChunks(m_pSpareChunks.exchange(nullptr));
        m_nIdleChunks = 0;
        m_nBytesIn.store(m_nBytesOut.load());
        m_nRecordsIn.store(m_nRecordsOut.load());
        m_nBytesOutSeen = m_nBytesOut.load();
        std::string().swap(m_strRecord);
    }
    catch (...)
    {
    }
}

void CLogFile::DeleteChunks(QueueChunk* list)
{
    while (list != nullptr)
    {
        QueueChunk* next = list->pNext.load();
        delete list;
        list = next;
    }
}

// ---------------------------------------------------------------- limits and status

void CLogFile::SetQueueLimit(std::size_t bytes)
{
    m_nQueueLimit = bytes;
}

std::size_t CLogFile::GetQueueLimit() const
{
    return m_nQueueLimit;
}

CLogFile::Status CLogFile::GetStatus() const
{
    Status status;
    status.bRunning = m_bWorkerRunning.load();
    status.nError = m_nError.load();
    status.nWritten = m_nWritten.load();
    status.nDropped = m_nDropped.load();
    status.nQueued = m_nRecordsIn.load() - m_nRecordsOut.load();
    status.nQueuedBytes = QueuedBytes();
    status.nQueueLimit = m_nQueueLimit.load();
    return status;
}

bool CLogFile::GetPath(ustring& path) const
{
    try
    {
        path.clear();
        CExitSafeLock lock(m_cs);
        if (!lock.Locked() || !m_File.IsCreated())
            return false;
        path = m_File.GetFileName();
        return true;
    }
    catch (...)
    {
        path.clear();
        return false;
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
        const bool proxied = IsProxiedHere();
        SYSTEMTIME now;
        TakeTime(proxied, now);
        wchar_t local[kShortTextLength];
        va_list attempt;
        va_copy(attempt, args);
        const int length = format ? ::_vsnwprintf(local, kShortTextLength, format, attempt) : 0;
        va_end(attempt);
        ustring longText;
        if (length < 0)
            longText.vsprintf(format, args);
        const std::size_t textLength = length >= 0 ? static_cast<std::size_t>(length) : longText.size();

        CExitSafeLock lock(m_cs, proxied);
        if (!lock.Locked() || !m_bWorkerRunning)
            return;
        LogEntry* entry = AdmitEntry(now, textLength * sizeof(wchar_t));
        if (entry == nullptr)
            return;
        entry->nType = LogEntry::eText;
        entry->bSynchronous = true;
        entry->time = now;
        entry->data.clear();
        if (length >= 0)
            static_cast<std::wstring&>(entry->text).assign(local, textLength);
        else
            entry->text.swap(longText);
        CommitEntry(*entry);
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
        const bool proxied = IsProxiedHere();
        SYSTEMTIME now;
        TakeTime(proxied, now);
        if (data == nullptr)
            size = 0;
        CExitSafeLock lock(m_cs, proxied);
        if (!lock.Locked() || !m_bWorkerRunning)
            return;
        LogEntry* entry = AdmitEntry(now, size);
        if (entry == nullptr)
            return;
        entry->nType = type;
        entry->bSynchronous = synchronous;
        entry->time = now;
        const unsigned char* bytes = static_cast<const unsigned char*>(data);
        entry->data.assign(bytes, bytes + size);
        entry->text.clear();
        CommitEntry(*entry);
    }
    catch (...)
    {
    }
}

void CLogFile::TakeTime(bool proxied, SYSTEMTIME& time)
{
    // The proxy's fields are this thread's while it holds the lock.
    if (proxied && m_bProxyTime)
    {
        time = m_ProxyTime;
        m_bProxyTime = false;
    }
    else
        ::GetLocalTime(&time);
}

bool CLogFile::FitsQueue(std::size_t cost, std::size_t limit)
{
    // The worker's count is read only when the last one seen says no: it changes with every
    // record written, and reading it each time would fetch its cache line from the worker.
    const std::size_t in = m_nBytesIn.load(std::memory_order_relaxed);
    if (Fits(in - m_nBytesOutSeen, cost, limit))
        return true;
    m_nBytesOutSeen = m_nBytesOut.load(std::memory_order_relaxed);
    return Fits(in - m_nBytesOutSeen, cost, limit);
}

CLogFile::LogEntry* CLogFile::AdmitEntry(const SYSTEMTIME& time, std::size_t payloadBytes)
{
    const std::size_t limit = m_nQueueLimit.load(std::memory_order_relaxed);
    const std::size_t cost = sizeof(LogEntry) + payloadBytes;
    if (m_nDropRunRecords != 0)
    {
        // Once records are dropped, the queue must drain to three quarters of its limit before it
        // takes records again: one notice per overload, rather than one between every two
        // records while it stays at the limit.
        if (!FitsQueue(cost, limit - limit / 4))
        {
            CountDrop(time, payloadBytes);
            return nullptr;
        }
        QueueDropNotice();
    }
    else if (!FitsQueue(cost, limit))
    {
        CountDrop(time, payloadBytes);
        return nullptr;
    }
    return &TailEntry();
}

CLogFile::LogEntry& CLogFile::TailEntry()
{
    QueueChunk* tail = m_pQueueTail;
    if (tail == nullptr || tail->nUsed.load(std::memory_order_relaxed) == QueueChunk::kEntries)
    {
        // A chunk that the worker has written and given back, or a new one: either way the
        // entries already queued stay where they are.
        QueueChunk* chunk = m_pFreeChunks;
        if (chunk == nullptr)
            chunk = m_pSpareChunks.exchange(nullptr, std::memory_order_acquire);
        if (chunk != nullptr)
        {
            m_pFreeChunks = chunk->pNext.load(std::memory_order_relaxed);
            --m_nIdleChunks;
            chunk->pNext.store(nullptr, std::memory_order_relaxed);
        }
        else
            chunk = new QueueChunk();
        if (tail != nullptr)
            tail->pNext.store(chunk, std::memory_order_release);
        else
            m_pQueueHead = chunk;
        m_pQueueTail = chunk;
        tail = chunk;
    }
    return tail->entries[tail->nUsed.load(std::memory_order_relaxed)];
}

void CLogFile::CommitEntry(LogEntry& entry)
{
    // The estimate of AdmitEntry did not know the capacity of the entry's buffers.
    const std::size_t cost = detail::EntryCost(entry);
    if (!FitsQueue(cost, m_nQueueLimit.load(std::memory_order_relaxed)))
    {
        CountDrop(entry.time, entry.data.size() + entry.text.size() * sizeof(wchar_t));
        // The entry stays unpublished, to be filled again; without a large buffer that nothing
        // counts.
        if (entry.data.capacity() > QueueChunk::kSpareDataBytes)
            std::vector<unsigned char>().swap(entry.data);
        if (entry.text.capacity() > QueueChunk::kSpareTextLength)
            ustring().swap(entry.text);
        return;
    }
    PublishEntry(cost);
}

void CLogFile::PublishEntry(std::size_t cost)
{
    // Only callers, under the lock, count in: no locked instruction needed.
    m_nBytesIn.store(m_nBytesIn.load(std::memory_order_relaxed) + cost, std::memory_order_relaxed);
    m_nRecordsIn.store(m_nRecordsIn.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    QueueChunk* tail = m_pQueueTail;
    tail->nUsed.store(tail->nUsed.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    HandOffQueue();
}

void CLogFile::HandOffQueue()
{
    // The worker could not get the lock: it gets the queue from whoever holds it. Callers that
    // drop records hand it over too, or a full queue would never drain while they keep the
    // lock busy.
    if (!m_bHandoffWanted.load(std::memory_order_relaxed) || m_pQueueHead == nullptr ||
        m_pHandoff.load(std::memory_order_relaxed) != nullptr)
        return;
    // Published before the queue forgets it: an exit in between finds the chunks twice (and
    // writes them once), never nowhere.
    m_pHandoff.store(m_pQueueHead, std::memory_order_release);
    m_pQueueHead = m_pQueueTail = nullptr;
    m_bHandoffWanted.store(false, std::memory_order_relaxed);
}

void CLogFile::CountDrop(const SYSTEMTIME& time, std::size_t payloadBytes)
{
    if (m_nDropRunRecords++ == 0)
        m_DropRunFirst = time;
    m_DropRunLast = time;
    m_nDropRunBytes += payloadBytes;
    m_nDropped.store(m_nDropped.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    HandOffQueue();
}

void CLogFile::QueueDropNotice()
{
    LogEntry& entry = TailEntry();
    const DropNotice notice = CurrentDropRun();
    entry.nType = DropNotice::kEntryType;
    entry.bSynchronous = true;
    entry.time = m_DropRunFirst;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&notice);
    entry.data.assign(bytes, bytes + sizeof(notice));
    entry.text.clear();
    m_nDropRunRecords = 0;
    m_nDropRunBytes = 0;
    // The notice is queued whatever the limit: it is small, and one per overload.
    PublishEntry(detail::EntryCost(entry));
}

CLogFile::DropNotice CLogFile::CurrentDropRun() const
{
    DropNotice notice;
    notice.nRecords = m_nDropRunRecords;
    notice.nBytes = m_nDropRunBytes;
    notice.nLimit = m_nQueueLimit.load();
    notice.first = m_DropRunFirst;
    notice.last = m_DropRunLast;
    return notice;
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
        CExitSafeLock lock(m_cs);
        if (!lock.Locked() || !m_bWorkerRunning)
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
        CExitSafeLock lock(m_cs);
        if (!lock.Locked() || !m_bWorkerRunning)
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
    detail::AppendDump(data.data(), data.size(), width, out);
}

} // namespace tavrin
