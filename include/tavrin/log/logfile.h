// Per-channel data log files.
//
// A channel is an unsigned number chosen by the application (for the library's own classes: the
// value of the handle or socket). CLogFileServer, one per process, maps channels to CLogFile
// objects; each CLogFile owns one file and one worker thread that formats the queued records and
// appends them to the file, so that the communicating thread never waits for the disk.
//
// Communication code reaches the log file of its channel through a short-lived proxy:
//
//     CLogFileProxy proxy(channel);
//     proxy().LogSentData(buffer, sent, true);
//
// Overlapped operations are registered when they are issued and logged when they complete:
//
//     if (!port.Read(buffer, size, got, &ov))      // pending: CFile registered the read
//         ...;
//     port.GetOverlappedResult(&ov, got, true);    // logs the bytes with the completion
//
// Nothing here throws to its caller: a file that cannot be created or written simply stops
// logging, and communication goes on unlogged. Until an application calls
// CLogFileServer::Ref().SetDetail, no log file is created at all.
//
// Files are UTF-8 text. One record per queued entry, lines ending in "\r\n":
//
//     ASYNC READ request completed: 3 (0x3) bytes, 2024/3/7, 09:05:01.123
//      41 42 0A <87 blanks>    AB.
//     <empty line>
//
// Text events read "Text Event, <time>", the text, and the empty line.
//
// Life cycle, and what happens when things go wrong:
//
// - Process exit. Every record logged before the process ends is in the file afterwards, however
//   it ends: return from main, exit, ExitProcess, or an uncaught exception. When the library is
//   notified of the exit, the system has already stopped every other thread, the log workers
//   included; the library then writes, on the exiting thread, what each worker had taken and not
//   yet written and everything still queued, and closes the files. It waits for no thread and
//   enters no lock that a stopped thread may still hold. Only a record whose logging call was
//   itself cut short by the exit may be missing. Logging from other modules' exit-time code
//   (a plug-in's static destructors, say) is still written as long as it happens before the
//   library's own turn; after that, logging calls are ignored.
// - Unloading. A running worker keeps Tavrin.dll loaded, and a log file keeps the module of its
//   formatter loaded for as long as the log file exists, so that no thread ever runs code of an
//   unloaded module. Hosts and plug-ins that load the library dynamically call
//   CLogFileServer::Shutdown before they unload it: it writes and closes every log file, and the
//   FreeLibrary that follows unloads the library. Without it, FreeLibrary still returns at once
//   and nothing queued is lost, but the library stays in the process, writing, until its files
//   are closed or the process ends.
// - Floods. The worker never lets a busy lock hold it up for a whole cycle: it keeps trying the
//   log file's lock, and when other threads hold it continuously one of them hands the queue
//   over. Queued records take at most the file's queue limit in memory (SetQueueLimit,
//   m_nDefaultQueueLimit by default); records that would exceed it are dropped and counted, and
//   the file gets a text event that says how many were dropped, from when to when.
// - Disk faults. A write that fails (disk full, folder deleted, handle gone) ends the file's
//   worker after the "Error=..." line, when that can still be written; later records are ignored
//   and the file is dropped from the server by the next proxy on its channel. GetStatus (on the
//   log file, or on the server for a channel) tells the application that its log stopped and why.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>
#include <tavrin/core/object.h>
#include <tavrin/core/thread.h>
#include <tavrin/core/ustring.h>
#include <tavrin/log/logcall.h>

#include <boost/shared_ptr.hpp>

#include <atomic>
#include <cstdarg>
#include <map>
#include <string>
#include <vector>

namespace tavrin {

// The amount of logging, stored as a 32-bit unsigned value.
enum ELogFileDetail : unsigned int
{
    eLogFileDetailOff = 0,     // no file is created; every logging call is ignored
    eLogFileDetailNormal = 1,  // data records, and text events marked important
    eLogFileDetailVerbose = 2  // everything, including a text event per completed event wait
};

// One channel's log file: a file on disk and the worker thread that writes it.
class TAVRIN_API CLogFile
{
public:
    // Renders a data record's bytes as protocol-specific text (with its own line ends), written
    // above the record's hexadecimal dump. Called on the worker thread, which may be writing
    // while Close holds the log file's lock: a formatter must not log itself.
    typedef CFile::LPDATAFORMATTER LPDATAFORMATTER;

    // One queued record.
    struct LogEntry
    {
        enum EType : unsigned int
        {
            eText = 0,  // text event
            eWrite = 1, // data sent
            eRead = 2   // data received
        };

        unsigned int nType;
        bool bSynchronous;              // completed at once; text events always true
        SYSTEMTIME time;                // local time when the caller logged
        std::vector<unsigned char> data; // the bytes; empty for text events
        ustring text;                   // the text of a text event; empty for data records
    };

    // An overlapped operation issued but not yet completed.
    struct PendingOperation
    {
        enum EKind : unsigned int
        {
            eRead = 0,
            eWrite = 1,
            eWait = 2 // serial-port event wait; the buffer is the caller's 32-bit event mask
        };

        unsigned int nKind;
        const void* pBuffer; // the caller's buffer
        unsigned int nSize;  // its size in bytes (4 for a wait)
    };

    // Health of a log file, as GetStatus reports it.
    struct Status
    {
        bool bRunning;               // records are being written (what IsOK tells)
        long nError;                 // why writing stopped: the system error code of the failed
                                     // write (ERROR_DISK_FULL, say), -1 for a failure that was no
                                     // system error; 0 while no write has failed
        unsigned long long nWritten; // records written to the file (not counting the notices
                                     // of dropped records)
        unsigned long long nDropped; // records refused because the queue was at its limit
        std::size_t nQueued;         // records waiting to be written
        std::size_t nQueuedBytes;    // their memory, as counted against the limit
        std::size_t nQueueLimit;     // the limit
    };

    // Queue limit of a new log file: 128 MiB, about a million short records, which a burst of
    // several threads logging flat out can queue before the worker has written them.
    static const std::size_t m_nDefaultQueueLimit = 128u * 1024u * 1024u;

    // A closed log file with a fixed detail level and formatter (may be null). The module that
    // holds the formatter stays loaded for as long as this object exists.
    explicit CLogFile(ELogFileDetail detail = eLogFileDetailOff, LPDATAFORMATTER formatter = nullptr);
    CLogFile(const CLogFile&) = delete;
    CLogFile& operator=(const CLogFile&) = delete;
    // Writes everything queued, then closes.
    virtual ~CLogFile();

    // Opens (or creates) the file and appends to it; starts the worker. False when the file
    // cannot be opened or the worker cannot start (the object is then closed).
    bool Open(const wchar_t* path);
    // Stops the worker after it has written everything queued, closes the file and forgets the
    // queue and the pending operations. Never throws. It waits for the worker to finish writing,
    // not for its thread to end, so it may be called where the loader lock is held (a plug-in's
    // DllMain or static destructors). During process exit it writes the rest itself.
    void Close();
    // Whether records are being written: the file is open and its worker runs. False after a
    // failed write ended the worker.
    bool IsOK() const;
    // Discards the queue and the pending operations.
    void Clear();

    // printf-style text event ("%ls" for wide strings). Queued with detail Verbose, or with
    // detail Normal when `important`.
    void LogText(bool important, const wchar_t* format, ...);
    void LogTextV(bool important, const wchar_t* format, va_list args);
    // Data records with a copy of the bytes; queued unless the detail is Off.
    void LogSentData(const void* data, unsigned int size, bool synchronous);
    void LogReceivedData(const void* data, unsigned int size, bool synchronous);

    // Register an issued overlapped operation under the address of its OVERLAPPED (a reused
    // OVERLAPPED replaces the stale entry). The buffer must stay valid until the operation is
    // committed. False when the log file is not IsOK().
    bool AddPendingReadOperation(const void* buffer, unsigned int size, OVERLAPPED* overlapped);
    bool AddPendingWriteOperation(const void* buffer, unsigned int size, OVERLAPPED* overlapped);
    bool AddPendingWaitOperation(const unsigned long* eventMask, OVERLAPPED* overlapped);
    // Logs a completed operation (reads and writes as ASYNC data records of at most the
    // registered size; an event wait as a text event with detail Verbose) and forgets it. False
    // when nothing is registered for `overlapped` or the log file is not IsOK().
    bool CommitPendingOperation(OVERLAPPED* overlapped, unsigned int bytesTransferred);
    // Ends a registered operation that failed or was cancelled: a read or write that moved bytes
    // before it ended logs them as an ASYNC data record (at most the registered size); one that
    // moved none, and an event wait, is forgotten without a record. False when nothing is
    // registered for `overlapped` or the log file is not IsOK().
    bool AbortPendingOperation(OVERLAPPED* overlapped, unsigned int bytesTransferred);

    // The bound on the memory of the records waiting to be written: a record's data or text
    // buffer plus a fixed overhead per record (sizeof(LogEntry)). A record that would take the
    // queue beyond it is dropped and counted; when records are accepted again (or when the file
    // closes), a text event in the file says how many were dropped, when, and under which
    // limit. Takes effect at once; SIZE_MAX lifts the bound, 0 drops everything. Besides the
    // queue, a log file keeps written entries with their buffers for reuse, as many as its
    // recent batches needed (a quarter of the limit at most), so that steady logging allocates
    // nothing.
    void SetQueueLimit(std::size_t bytes);
    std::size_t GetQueueLimit() const;
    // Health and counters. Never throws and never waits for the lock: a figure may be a moment
    // old when records are being logged meanwhile.
    Status GetStatus() const;
    // The path of the file on disk, as Open was given it, so that an application can show its
    // user where the log is. False, with `path` empty, while the log file is not open. Never
    // throws.
    bool GetPath(ustring& path) const;

    // The lock of this log file, for callers that group several calls.
    CCriticalSection& CriticalSection() const { return m_cs; }

    // "%02X" bytes separated by single blanks ("01 A2 FF"); empty input gives empty text.
    static ustring Bin2Hex(const void* data, unsigned int size);
    static void Bin2Hex(const void* data, unsigned int size, ustring& out);
    // Hexadecimal and text dump, `width` bytes a line: " " + a "%02X " cell per position (three
    // blanks past the end) + four blanks + the bytes as characters (printable ASCII 0x21-0x7E
    // as itself, any other byte as ".") + "\r\n". Empty data (or width 0) gives empty text.
    static ustring Bin2Text(const std::vector<unsigned char>& data, unsigned int width);
    static void Bin2Text(const std::vector<unsigned char>& data, unsigned int width, ustring& out);

private:
    friend class CLogFileProxy;
    friend struct CLogFileModule;
    typedef std::map<const OVERLAPPED*, PendingOperation> PendingMap;
    // A fixed block of queue entries. Entries never move once queued, so the queue grows without
    // copying under the lock, and the queued entries can be read without it at process exit,
    // whatever a stopped thread was doing.
    struct QueueChunk;
    // The notice of records dropped at the queue limit.
    struct DropNotice;

    // The stand-in log file of channels that have none: never opened, it ignores every call.
    static const boost::shared_ptr<CLogFile>& Inert();
    // Another one for proxies built during process exit when a stopped thread holds the lock of
    // the first.
    static const boost::shared_ptr<CLogFile>& InertAtExit();
    // Deletes both when the library is unloaded.
    static void ReleaseStandIns();

    void QueueData(unsigned int type, const void* data, unsigned int size, bool synchronous);
    // Whether the calling thread holds the lock through a proxy.
    bool IsProxiedHere() const { return m_dwProxyThread.load(std::memory_order_relaxed) == ::GetCurrentThreadId(); }
    // The time of a record about to be queued: the proxy's, unless a record used it already.
    void TakeTime(bool proxied, SYSTEMTIME& time);
    // Under the lock: the entry to fill for a record of about `payloadBytes`, after the notice of
    // earlier drops when there is one; null when the record is dropped (and counted).
    LogEntry* AdmitEntry(const SYSTEMTIME& time, std::size_t payloadBytes);
    // The first free entry at the end of the queue, in a new chunk when the last one is full.
    LogEntry& TailEntry();
    // Publishes the entry filled last (the tail entry), or drops it when its buffers take the
    // queue beyond the limit.
    void CommitEntry(LogEntry& entry);
    // Counts the tail entry as queued and makes it visible; hands the queue to the worker when
    // it asked for it.
    void PublishEntry(std::size_t cost);
    void HandOffQueue();
    // Whether `cost` more bytes keep the queue within `limit`; under the lock.
    bool FitsQueue(std::size_t cost, std::size_t limit);
    // What the records waiting to be written take, as counted against the limit.
    std::size_t QueuedBytes() const
    {
        return m_nBytesIn.load(std::memory_order_relaxed) - m_nBytesOut.load(std::memory_order_relaxed);
    }
    void CountDrop(const SYSTEMTIME& time, std::size_t payloadBytes);
    void QueueDropNotice();
    DropNotice CurrentDropRun() const;
    bool AddPendingOperation(unsigned int kind, const void* buffer, unsigned int size, OVERLAPPED* overlapped);
    // Removes the operation registered for `overlapped` and logs it as completed or as aborted.
    bool EndPendingOperation(OVERLAPPED* overlapped, unsigned int bytesTransferred, bool completed);

    // The worker thread: writes the queue in batches until stopped or a write fails.
    void StartWorker();
    bool IsWorkerStarted() const;
    // Waits until the worker has written its last record, then lets its thread go.
    void JoinWorker();
    unsigned int ThreadRoutine();
    unsigned int WorkerRoutine();
    // The next batch: what was handed over, then the queue. Keeps trying the lock; gives up on
    // it once `stopping` (Close holds it).
    QueueChunk* TakeBatch(bool& stopping);
    // Under the lock, or when nobody else can touch the queue.
    QueueChunk* TakeQueue();
    void BeginBatch(QueueChunk* batch);
    // Writes the batch's entries in order, recycling its chunks; false after a failed write.
    bool WriteBatch(QueueChunk* batch);
    bool WriteEntry(const LogEntry& entry);
    void RecycleChunk(QueueChunk* chunk);
    void WriteDropRun();
    // Writes, on the calling thread, what a worker that will never finish left: the rest of its
    // batch, what was handed over, the queue, and the notice of drops at the end.
    void WriteLeftovers();
    // Process exit: writes the leftovers and closes the file, without waiting and without
    // entering the lock.
    void CloseAtExit();
    void ReleaseIdleChunks();
    static void DeleteChunks(QueueChunk* list);
    // Membership of the list of open log files that the exit clean-up walks.
    void Register();
    void Unregister();
    // The UTF-8 record of one entry into `out`.
    void FormatRecord(const LogEntry& entry, std::string& out) const;
    static void FormatDropNotice(const DropNotice& notice, std::string& out);
    // One WriteFile of the whole text; true only when every byte was written. A failing call
    // leaves the "Error=..." line in the file (when it can) and closes it.
    bool Write(const std::string& utf8);
    void WriteErrorLine(long error, std::size_t bytesToWrite);
    void CloseFileQuietly();

    mutable CCriticalSection m_cs;
    CEvent m_StopEvent;
    CFile m_File;
    CThread m_Thread;
    // The queue: the chunks from head to tail, each with its published entries.
    QueueChunk* m_pQueueHead;
    QueueChunk* m_pQueueTail;
    PendingMap m_mapPending;
    const ELogFileDetail m_eDetail;
    const LPDATAFORMATTER m_pFormatter;
    // The reference on the formatter's module, and the one that the worker holds on this library
    // until its thread has left it.
    HMODULE m_hFormatterModule;
    HMODULE m_hWorkerModule;
    // Set by the worker once it has written its last record and will not touch this object again.
    CEvent m_DoneEvent;
    // Set by the worker as its routine begins, when the thread is through the modules' thread
    // start-up (which runs under the loader lock).
    CEvent m_StartedEvent;
    // Cleared by the worker as it ends; with the file open and the thread started, this is what
    // IsOK reports, without asking the system for the thread's exit code on every call.
    std::atomic<bool> m_bWorkerRunning;

    // Written chunks for reuse: the callers' list (under the lock) and the one that the worker
    // gives them back through, without the lock.
    QueueChunk* m_pFreeChunks;
    std::atomic<QueueChunk*> m_pSpareChunks;
    std::atomic<std::size_t> m_nIdleChunks;
    // The worker raises the request when it cannot get the lock; the next caller to queue a
    // record hands the queue over.
    std::atomic<bool> m_bHandoffWanted;
    std::atomic<QueueChunk*> m_pHandoff;
    std::atomic<std::size_t> m_nQueueLimit;
    // The records queued: their memory and number counted in by callers (under the lock) and
    // out by the worker, each side writing only its own (the difference is what waits); and
    // the records dropped.
    std::atomic<std::size_t> m_nBytesIn;
    std::atomic<std::size_t> m_nRecordsIn;
    std::atomic<unsigned long long> m_nDropped;
    // The worker's count out as last read (under the lock).
    std::size_t m_nBytesOutSeen;
    // The records dropped since the last notice (under the lock).
    unsigned long long m_nDropRunRecords;
    unsigned long long m_nDropRunBytes;
    SYSTEMTIME m_DropRunFirst;
    SYSTEMTIME m_DropRunLast;
    // Set by a proxy while it holds the lock: its thread (which need not lock again), and the
    // time that it took before locking, until a record uses it.
    std::atomic<DWORD> m_dwProxyThread;
    bool m_bProxyTime;
    SYSTEMTIME m_ProxyTime;

    // Keeps what the worker writes for every record off the cache lines that callers use.
    char m_aSeparator[64];

    // The batch being written: its chunks, the next entry to write, and the entry whose write is
    // under way with the file offsets before and after it. Read at process exit to finish the
    // batch without writing a record twice.
    std::atomic<QueueChunk*> m_pBatch;
    std::atomic<const LogEntry*> m_pBatchNext;
    std::atomic<const LogEntry*> m_pInFlight;
    std::atomic<unsigned long long> m_nInFlightStart;
    std::atomic<unsigned long long> m_nInFlightEnd;
    std::atomic<unsigned long long> m_nFileEnd;
    std::atomic<std::size_t> m_nBytesOut;
    std::atomic<std::size_t> m_nRecordsOut;
    std::atomic<unsigned long long> m_nWritten;
    std::atomic<long> m_nError;
    // How many written chunks to keep for reuse.
    std::size_t m_nIdleTarget;
    // The record being written, kept for its capacity.
    std::string m_strRecord;

    // Slot in the list of open log files.
    void* m_pRegistration;
};

// The process-wide map from channels to log files.
class TAVRIN_API CLogFileServer
{
public:
    // The instance, created on first use. At process exit its log files are written and closed
    // (see the top of this header); the instance itself stays reachable for late callers, whose
    // logging is then ignored, and is not re-created.
    static CLogFileServer& Ref();

    CLogFileServer(const CLogFileServer&) = delete;
    CLogFileServer& operator=(const CLogFileServer&) = delete;

    // Folder of the files created from now on; with `persist` also stored as the registry value
    // "Path" of the settings key under HKEY_CURRENT_USER.
    void SetFolder(const wchar_t* folder, bool persist);
    ustring GetFolder() const;
    // Detail level given to files created from now on; open files keep theirs.
    void SetDetail(ELogFileDetail detail);
    ELogFileDetail GetDetail() const;
    // The registry key of the server's settings ("SOFTWARE\<company>\<product>\Logs").
    ustring GetSettingsKey() const;
    // Queue limit given to files created from now on (see CLogFile::SetQueueLimit); open files
    // keep theirs. Starts at CLogFile::m_nDefaultQueueLimit.
    void SetQueueLimit(std::size_t bytes);
    std::size_t GetQueueLimit() const;

    // Creates "<folder>\<name>-YYYY.MM.DD-hh.mm.ss.mmm.log" (appending when it exists) and makes
    // it the channel's log file, replacing any other. False, with nothing created, when the
    // detail level is Off or the file cannot be created.
    bool CreateLogFile(unsigned int channel, const wchar_t* name, CLogFile::LPDATAFORMATTER formatter);
    // Makes `channel` share the log file of `existingChannel`; false when that has none. An
    // entry that `channel` already has is kept.
    bool Attach(unsigned int channel, unsigned int existingChannel);
    // Removes the channel's entry (false when there is none); the file closes when its last
    // holder lets go.
    bool CloseLogFile(unsigned int channel);
    bool LogFileExists(unsigned int channel) const;
    // The channel's log file, or an empty pointer.
    boost::shared_ptr<CLogFile> FindLogFile(unsigned int channel) const;

    // The status of the channel's log file (see CLogFile::GetStatus). A file that stopped after
    // a failed write and was dropped from the map by a proxy is still reported, with bRunning
    // false and its error, until the channel gets a new file or CloseLogFile is called for it.
    // False when the channel has no log file and no such report. Never throws.
    bool GetStatus(unsigned int channel, CLogFile::Status& status) const;
    // The path of the channel's log file (see CLogFile::GetPath): the file that a connection's
    // records go to, named by the server after the channel's name and the time it was created.
    // False, with `path` empty, when the channel has no open log file. Never throws.
    bool GetLogFilePath(unsigned int channel, ustring& path) const;

    // Writes and closes every log file of the map, empties the map and sets the detail level to
    // Off, so that no file is created until SetDetail is called again. Files that callers still
    // hold are closed as well: logging to them is ignored from then on. Hosts and plug-ins call
    // this before they unload the library (and plug-ins whose formatters log files use, before
    // they are unloaded themselves); see the top of this header. Waits for each worker to finish
    // writing but not for its thread to end, so it may be called from DllMain. Never throws.
    void Shutdown();

private:
    friend class CLogFileProxy;
    friend struct CLogFileServerAccess;

    CLogFileServer();
    ~CLogFileServer();

    // Removes the channel's entry only while it is still `expected` (a broken file), keeping its
    // status for GetStatus.
    void DropLogFile(unsigned int channel, const boost::shared_ptr<CLogFile>& expected);

    mutable CCriticalSection m_cs;
    ustring m_strKey;
    ustring m_strFolder;
    std::map<unsigned int, boost::shared_ptr<CLogFile>> m_mapLogFiles;
    ELogFileDetail m_eDetail;
    std::size_t m_nQueueLimit;
    // The last status of files that proxies dropped after a failed write.
    std::map<unsigned int, CLogFile::Status> m_mapStopped;
};

// Access to the log file of one channel for the duration of one logging action. The proxy holds
// the log file's lock for its whole life, so keep it short. It takes the local time before it
// waits for the lock, and the first record logged through it carries that time: the lock is not
// held across the time stamp, so records of several threads may show their times a little out
// of order (by as long as one waited for the other). A channel without a log file gets a
// stand-in log file that ignores every call (one for all such channels: unlogged I/O costs a map
// look-up and a lock, nothing more). When the proxy ends and its file is no longer usable (its
// worker ended after a failed write, or it was closed), the file is dropped from the server.
class TAVRIN_API CLogFileProxy
{
public:
    explicit CLogFileProxy(unsigned int channel);
    CLogFileProxy(const CLogFileProxy&) = delete;
    CLogFileProxy& operator=(const CLogFileProxy&) = delete;
    virtual ~CLogFileProxy();

    CLogFile& operator()() const { return *m_pLogFile; }

private:
    // The channel's log file (or the stand-in that ignores every call) and, for a file that
    // logs, the local time for the first record, taken before the lock.
    struct Prepared
    {
        boost::shared_ptr<CLogFile> pFile;
        SYSTEMTIME time;
        bool bTimed;
    };
    static Prepared Prepare(unsigned int channel);
    CLogFileProxy(unsigned int channel, Prepared&& prepared);

    unsigned int m_nChannel;
    boost::shared_ptr<CLogFile> m_pLogFile;
    CLocker<CCriticalSection> m_Locker;
};

} // namespace tavrin
