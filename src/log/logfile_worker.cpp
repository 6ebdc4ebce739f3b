// CLogFile's writing side: the worker thread, the record layout, and what happens to the records
// when the worker cannot finish (a killed thread, process exit).
#include "log/logfile_internal.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace tavrin {

namespace {

const DWORD kWorkerCycleMs = 100;
// How long opening a log file waits for its worker thread to start (see StartWorker).
const DWORD kWorkerStartWaitMs = 1000;
// Bytes per line of a data record's dump.
const unsigned int kDumpWidth = 32;
// With this much queued after a batch, the worker goes on at once instead of waiting a cycle.
const std::size_t kBacklogBytes = 256 * 1024;
// When the lock is busy: quick retries (each yielding the processor) before the worker waits a
// millisecond between tries.
const unsigned int kQuickRetries = 16;

typedef BOOLEAN(WINAPI* LPRTLDLLSHUTDOWNINPROGRESS)();

// Looked up once when the library is loaded; every logging call asks.
const LPRTLDLLSHUTDOWNINPROGRESS g_pRtlDllShutdownInProgress = reinterpret_cast<LPRTLDLLSHUTDOWNINPROGRESS>(
    reinterpret_cast<void (*)()>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));
std::atomic<bool> g_bProcessExiting(false);

// The process-wide list of open log files, walked at process exit. Slots are never freed, only
// emptied and reused, so the list can be walked and changed without a lock.
struct RegistrySlot
{
    std::atomic<CLogFile*> pFile;
    RegistrySlot* pNext;
};
std::atomic<RegistrySlot*> g_pRegistry(nullptr);

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

void AppendTime(const SYSTEMTIME& t, std::string& out)
{
    char text[64];
    const int length = std::snprintf(text, sizeof(text), "%u/%u/%u, %02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay,
                                     t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
    if (length > 0)
        out.append(text, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof(text) - 1));
}

} // namespace

// ---------------------------------------------------------------- process exit

bool detail::IsProcessExiting()
{
    return g_bProcessExiting.load(std::memory_order_relaxed) ||
           (g_pRtlDllShutdownInProgress != nullptr && g_pRtlDllShutdownInProgress());
}

// Gives the module's clean-ups, plain functions, access to the log files.
struct CLogFileModule
{
    static void CloseAllAtExit()
    {
        for (RegistrySlot* slot = g_pRegistry.load(); slot != nullptr; slot = slot->pNext)
        {
            if (CLogFile* file = slot->pFile.load())
                file->CloseAtExit();
        }
    }
    static void ReleaseAtUnload()
    {
        RegistrySlot* slot = g_pRegistry.exchange(nullptr);
        while (slot != nullptr)
        {
            RegistrySlot* next = slot->pNext;
            delete slot;
            slot = next;
        }
        CLogFile::ReleaseStandIns();
    }
};

void detail::CloseLogFilesAtProcessExit()
{
    g_bProcessExiting = true;
    CLogFileModule::CloseAllAtExit();
}

void detail::ReleaseLogFilesAtUnload()
{
    CLogFileModule::ReleaseAtUnload();
}

void CLogFile::Register()
{
    if (m_pRegistration != nullptr)
        return;
    for (RegistrySlot* slot = g_pRegistry.load(); slot != nullptr; slot = slot->pNext)
    {
        CLogFile* empty = nullptr;
        if (slot->pFile.compare_exchange_strong(empty, this))
        {
            m_pRegistration = slot;
            return;
        }
    }
    RegistrySlot* slot = new RegistrySlot;
    slot->pFile = this;
    slot->pNext = g_pRegistry.load();
    while (!g_pRegistry.compare_exchange_weak(slot->pNext, slot))
    {
    }
    m_pRegistration = slot;
}

void CLogFile::Unregister()
{
    if (RegistrySlot* slot = static_cast<RegistrySlot*>(m_pRegistration))
    {
        slot->pFile = nullptr;
        m_pRegistration = nullptr;
    }
}

void CLogFile::CloseAtExit()
{
    // Every other thread has stopped. A lock that one of them held stays taken for ever, so it
    // is only tried; whoever held it is not coming back to the queue.
    const bool locked = m_cs.Lock(false);
    try
    {
        if (m_bWorkerRunning.exchange(false))
            WriteLeftovers();
        CloseFileQuietly();
    }
    catch (...)
    {
    }
    Unregister();
    if (locked)
        m_cs.Unlock();
}

// ---------------------------------------------------------------- the worker

void CLogFile::StartWorker()
{
    // The worker holds a reference on this library until its thread has left the library's
    // code for good (FreeLibraryAndExitThread): a FreeLibrary meanwhile cannot unload the code
    // under it, and the thread's end never has to be waited for.
    if (!::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(TAVRIN_MODULE),
                              &m_hWorkerModule))
        m_hWorkerModule = nullptr;
    try
    {
        m_Thread.Start();
    }
    catch (...)
    {
        if (m_hWorkerModule != nullptr)
            ::FreeLibrary(m_hWorkerModule);
        m_hWorkerModule = nullptr;
        throw;
    }
    // A new thread runs every module's thread start-up under the loader lock before it runs a
    // line of the worker. That is waited for here, in the opener's ordinary context: a Close
    // from a DllMain later on (a plug-in's Shutdown as it is unloaded) then never waits for a
    // worker that is still queued behind the lock its own caller holds. A file opened inside a
    // DllMain cannot see its worker start before that returns; the wait gives up after a while.
    ::WaitForSingleObject(m_StartedEvent.GetHandle(), kWorkerStartWaitMs);
}

bool CLogFile::IsWorkerStarted() const
{
    return m_Thread.GetHandle() != nullptr;
}

void CLogFile::JoinWorker()
{
    // Whichever comes first: the worker's word that it is done, or the end of a thread that was
    // killed before it could say so. The thread's end is not waited for as such: it needs the
    // loader lock, which a caller in DllMain holds.
    const HANDLE handles[2] = {m_DoneEvent.GetHandle(), m_Thread.GetHandle()};
    const DWORD wait = ::WaitForMultipleObjects(2, handles, FALSE, INFINITE);
    if (wait != WAIT_OBJECT_0 && m_bWorkerRunning.exchange(false))
        WriteLeftovers();
    m_hWorkerModule = nullptr;
    m_Thread.Detach();
}

unsigned int CLogFile::ThreadRoutine()
{
    // Copies: once the done event is set, this object may be gone.
    const HMODULE module = m_hWorkerModule;
    const HANDLE done = m_DoneEvent.GetHandle();
    ::SetEvent(m_StartedEvent.GetHandle());
    try
    {
        WorkerRoutine();
    }
    catch (...)
    {
    }
    // Last acts of the worker: from here on IsOK() is false and nothing more is queued.
    m_bWorkerRunning = false;
    ::SetEvent(done);
    if (module != nullptr)
        ::FreeLibraryAndExitThread(module, 0);
    return 0;
}

unsigned int CLogFile::WorkerRoutine()
{
    // The thread was created at below-normal priority (see the constructor): writing the log
    // must never compete with the communication that it records.
    for (;;)
    {
        const DWORD cycle = QueuedBytes() >= kBacklogBytes ? 0 : kWorkerCycleMs;
        bool stopping = ::WaitForSingleObject(m_StopEvent.GetHandle(), cycle) != WAIT_TIMEOUT;
        QueueChunk* batch = TakeBatch(stopping);
        if (!WriteBatch(batch))
            return 0;
        if (stopping)
        {
            // Records dropped at the end, with nothing accepted after them to carry the notice.
            if (m_nDropRunRecords != 0)
                WriteDropRun();
            return 0;
        }
    }
}

CLogFile::QueueChunk* CLogFile::TakeBatch(bool& stopping)
{
    // The lock is only tried, never waited for: Close holds it while it waits for this thread.
    // A busy lock is tried again and again; meanwhile the worker asks, and the next caller to
    // queue a record hands the queue over.
    for (unsigned int attempt = 0;; ++attempt)
    {
        if (m_cs.Lock(false))
        {
            QueueChunk* batch = TakeQueue();
            m_cs.Unlock();
            return batch;
        }
        // The stop event is set and the lock is taken: Close holds it and waits for this thread
        // without touching the queue any more.
        if (stopping)
            return TakeQueue();
        if (QueueChunk* handed = m_pHandoff.load(std::memory_order_acquire))
        {
            BeginBatch(handed);
            m_pHandoff.store(nullptr, std::memory_order_release);
            return handed;
        }
        m_bHandoffWanted.store(true, std::memory_order_relaxed);
        if (attempt < kQuickRetries)
            ::SwitchToThread();
        else if (::WaitForSingleObject(m_StopEvent.GetHandle(), 1) != WAIT_TIMEOUT)
            stopping = true;
    }
}

CLogFile::QueueChunk* CLogFile::TakeQueue()
{
    // What was handed over came first; the queue follows it.
    QueueChunk* batch = m_pHandoff.load(std::memory_order_acquire);
    if (batch != nullptr)
    {
        QueueChunk* last = batch;
        while (QueueChunk* next = last->pNext.load(std::memory_order_relaxed))
            last = next;
        last->pNext.store(m_pQueueHead, std::memory_order_release);
    }
    else
        batch = m_pQueueHead;
    // The batch is known before the queue and the hand-over forget it (see PublishEntry).
    BeginBatch(batch);
    m_pHandoff.store(nullptr, std::memory_order_relaxed);
    m_pQueueHead = m_pQueueTail = nullptr;
    m_bHandoffWanted.store(false, std::memory_order_relaxed);
    return batch;
}

void CLogFile::BeginBatch(QueueChunk* batch)
{
    m_pBatchNext.store(batch != nullptr ? &batch->entries[0] : nullptr);
    m_pBatch.store(batch);
}

bool CLogFile::WriteBatch(QueueChunk* batch)
{
    // Callers will need about as many chunks again while this batch is written: they are kept.
    // Batches vary in size, so what was kept shrinks by an eighth per batch only.
    std::size_t chunks = 0;
    for (QueueChunk* chunk = batch; chunk != nullptr; chunk = chunk->pNext.load(std::memory_order_relaxed))
        ++chunks;
    const std::size_t most =
        m_nQueueLimit.load(std::memory_order_relaxed) / 4 / (QueueChunk::kEntries * sizeof(LogEntry));
    const std::size_t wanted = std::max(2 * chunks, m_nIdleTarget - m_nIdleTarget / 8);
    m_nIdleTarget = std::max(QueueChunk::kIdleLimit, std::min(wanted, most));

    for (QueueChunk* chunk = batch; chunk != nullptr;)
    {
        const unsigned int used = chunk->nUsed.load(std::memory_order_acquire);
        QueueChunk* next = chunk->pNext.load(std::memory_order_acquire);
        for (unsigned int i = 0; i < used; ++i)
        {
            const LogEntry& entry = chunk->entries[i];
            if (!WriteEntry(entry))
            {
                m_bWorkerRunning = false;
                return false;
            }
            // Only the worker counts out.
            m_nBytesOut.store(m_nBytesOut.load(std::memory_order_relaxed) + detail::EntryCost(entry),
                              std::memory_order_relaxed);
            m_nRecordsOut.store(m_nRecordsOut.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            // The next entry to write, then the end of the write under way: an exit in between
            // sees the record as written (see WriteLeftovers).
            m_pBatchNext.store(i + 1 < used ? &chunk->entries[i + 1] : (next != nullptr ? &next->entries[0] : nullptr));
            m_pInFlight.store(nullptr);
        }
        if (used == 0)
            m_pBatchNext.store(next != nullptr ? &next->entries[0] : nullptr);
        m_pBatch.store(next);
        RecycleChunk(chunk);
        chunk = next;
    }
    return true;
}

bool CLogFile::WriteEntry(const LogEntry& entry)
{
    FormatRecord(entry, m_strRecord);
    const unsigned long long start = m_nFileEnd.load();
    const unsigned long long end = start + m_strRecord.size();
    // Where the record goes, then which record it is: an exit during the write finds out from
    // the file's position how much of it arrived.
    m_nInFlightStart.store(start);
    m_nInFlightEnd.store(end);
    m_pInFlight.store(&entry);
    if (!Write(m_strRecord))
        return false;
    m_nFileEnd.store(end);
    if (entry.nType != DropNotice::kEntryType)
        m_nWritten.store(m_nWritten.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
}

void CLogFile::RecycleChunk(QueueChunk* chunk)
{
    chunk->Reset();
    if (m_nIdleChunks.load(std::memory_order_relaxed) >= m_nIdleTarget)
    {
        delete chunk;
        return;
    }
    ++m_nIdleChunks;
    QueueChunk* head = m_pSpareChunks.load(std::memory_order_relaxed);
    do
        chunk->pNext.store(head, std::memory_order_relaxed);
    while (!m_pSpareChunks.compare_exchange_weak(head, chunk, std::memory_order_release, std::memory_order_relaxed));
}

void CLogFile::WriteDropRun()
{
    const DropNotice notice = CurrentDropRun();
    m_nDropRunRecords = 0;
    m_nDropRunBytes = 0;
    FormatDropNotice(notice, m_strRecord);
    if (Write(m_strRecord))
        m_nFileEnd += m_strRecord.size();
}

void CLogFile::WriteLeftovers()
{
    // 1. The rest of the worker's batch, from the entry it was to write next. That entry may be
    // the one whose write was under way: the file's position tells whether it arrived, in whole
    // or in part (a part is cut off and written again).
    const LogEntry* next = m_pBatchNext.load();
    bool skipNext = false;
    if (next != nullptr && m_pInFlight.load() == next)
    {
        const unsigned long long start = m_nInFlightStart.load();
        const unsigned long long end = m_nInFlightEnd.load();
        if (m_nFileEnd.load() == end)
            skipNext = true;
        else
        {
            LARGE_INTEGER zero = {}, position = {};
            if (::SetFilePointerEx(m_File.GetHandle(), zero, &position, FILE_CURRENT))
            {
                const unsigned long long at = static_cast<unsigned long long>(position.QuadPart);
                if (at >= end)
                {
                    skipNext = true;
                    m_nFileEnd.store(at);
                }
                else if (at > start)
                {
                    LARGE_INTEGER back;
                    back.QuadPart = static_cast<LONGLONG>(start);
                    if (::SetFilePointerEx(m_File.GetHandle(), back, nullptr, FILE_BEGIN))
                        ::SetEndOfFile(m_File.GetHandle());
                }
            }
        }
    }
    bool started = false;
    for (QueueChunk* chunk = m_pBatch.load(); chunk != nullptr && next != nullptr; chunk = chunk->pNext.load())
    {
        chunk->bVisited = true;
        unsigned int from = 0;
        if (!started)
        {
            // Chunks before the one of the next entry are written already.
            if (next < &chunk->entries[0] || next >= &chunk->entries[QueueChunk::kEntries])
                continue;
            started = true;
            from = static_cast<unsigned int>(next - &chunk->entries[0]) + (skipNext ? 1 : 0);
        }
        const unsigned int used = chunk->nUsed.load();
        for (unsigned int i = from; i < used; ++i)
        {
            if (!WriteEntry(chunk->entries[i]))
                return;
        }
    }
    // 2. What a caller handed over, and 3. the queue. A chunk met twice was on its way from one
    // chain to the other when the thread moving it stopped.
    for (QueueChunk* list : {m_pHandoff.load(), m_pQueueHead})
    {
        for (QueueChunk* chunk = list; chunk != nullptr; chunk = chunk->pNext.load())
        {
            if (chunk->bVisited)
                continue;
            chunk->bVisited = true;
            const unsigned int used = chunk->nUsed.load();
            for (unsigned int i = 0; i < used; ++i)
            {
                if (!WriteEntry(chunk->entries[i]))
                    return;
            }
        }
    }
    // 4. Records dropped at the end.
    if (m_nDropRunRecords != 0)
        WriteDropRun();
}

// ---------------------------------------------------------------- records

void CLogFile::FormatRecord(const LogEntry& entry, std::string& out) const
{
    // The record is built in UTF-8 directly: headers and dumps are ASCII, and only the texts
    // (events and the formatter's) need converting.
    out.clear();
    if (entry.nType == DropNotice::kEntryType)
    {
        DropNotice notice = {};
        std::memcpy(&notice, entry.data.data(), std::min(sizeof(notice), entry.data.size()));
        FormatDropNotice(notice, out);
        return;
    }
    if (entry.nType == LogEntry::eText)
        out.append("Text Event, ");
    else
    {
        char header[96];
        const unsigned int size = static_cast<unsigned int>(entry.data.size());
        const int length = std::snprintf(header, sizeof(header), "%s %s request completed: %u (0x%X) bytes, ",
                                         entry.bSynchronous ? "SYNC" : "ASYNC",
                                         entry.nType == LogEntry::eWrite ? "WRITE" : "READ", size, size);
        if (length > 0)
            out.append(header, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof(header) - 1));
    }
    AppendTime(entry.time, out);
    out.append("\r\n", 2);

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
        detail::AppendDump(entry.data.data(), entry.data.size(), kDumpWidth, out);
    }
    out.append("\r\n", 2);
}

void CLogFile::FormatDropNotice(const DropNotice& notice, std::string& out)
{
    // A text event of the library's own, at the time of the first dropped record.
    out.assign("Text Event, ");
    AppendTime(notice.first, out);
    char text[192];
    const int length = std::snprintf(text, sizeof(text),
                                     "\r\nQueue limit of %llu bytes reached: records dropped: %llu (%llu bytes), from ",
                                     notice.nLimit, notice.nRecords, notice.nBytes);
    if (length > 0)
        out.append(text, std::min<std::size_t>(static_cast<std::size_t>(length), sizeof(text) - 1));
    AppendTime(notice.first, out);
    out.append(" to ");
    AppendTime(notice.last, out);
    out.append(".\r\n\r\n");
}

bool CLogFile::Write(const std::string& utf8)
{
    if (!m_File.IsCreated())
    {
        m_nError = ERROR_INVALID_HANDLE;
        return false;
    }
    try
    {
        DWORD written = 0;
        if (!::WriteFile(m_File.GetHandle(), utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr))
            throw CWinException(__LINE__, TAVRIN_WFILE, L"WriteFile", static_cast<long>(::GetLastError()));
        if (written == utf8.size())
            return true;
        // A short write without an error: the volume took what it had room for.
        m_nError = ERROR_DISK_FULL;
        return false;
    }
    catch (const CWinException& e)
    {
        m_nError = e.GetErrorCode() != 0 ? e.GetErrorCode() : -1;
        WriteErrorLine(e.GetErrorCode(), utf8.size());
    }
    catch (...)
    {
        m_nError = -1;
        WriteErrorLine(-1, utf8.size());
    }
    CloseFileQuietly();
    return false;
}

void CLogFile::WriteErrorLine(long error, std::size_t bytesToWrite)
{
    char line[96];
    const int length = std::snprintf(line, sizeof(line), "Error=%ld, BytesToWrite=%zu\r\n", error, bytesToWrite);
    DWORD written = 0;
    if (length > 0)
        ::WriteFile(m_File.GetHandle(), line, static_cast<DWORD>(length), &written, nullptr);
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
