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

    // A closed log file with a fixed detail level and formatter (may be null).
    explicit CLogFile(ELogFileDetail detail = eLogFileDetailOff, LPDATAFORMATTER formatter = nullptr);
    CLogFile(const CLogFile&) = delete;
    CLogFile& operator=(const CLogFile&) = delete;
    // Writes everything queued, then closes.
    virtual ~CLogFile();

    // Opens (or creates) the file and appends to it; starts the worker. False when the file
    // cannot be opened or the worker cannot start (the object is then closed).
    bool Open(const wchar_t* path);
    // Stops the worker after it has written everything queued, closes the file and forgets the
    // queue and the pending operations. Never throws.
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
    typedef std::map<const OVERLAPPED*, PendingOperation> PendingMap;

    // The stand-in log file of channels that have none: never opened, it ignores every call.
    static const boost::shared_ptr<CLogFile>& Inert();

    void QueueData(unsigned int type, const void* data, unsigned int size, bool synchronous);
    // The entry to fill next (a spare one when there is one); counted by incrementing
    // m_nQueued once filled. Under the lock.
    LogEntry& NextEntry();
    bool AddPendingOperation(unsigned int kind, const void* buffer, unsigned int size, OVERLAPPED* overlapped);
    // Removes the operation registered for `overlapped` and logs it as completed or as aborted.
    bool EndPendingOperation(OVERLAPPED* overlapped, unsigned int bytesTransferred, bool completed);

    // The worker thread: writes the queue in batches until stopped or a write fails.
    void StartWorker();
    bool IsWorkerStarted() const;
    // Waits for the worker to end and releases its thread.
    void JoinWorker();
    unsigned int ThreadRoutine();
    unsigned int WorkerRoutine();
    // Moves the queue into `batch` (`count` entries in use) and gives the queue the batch's
    // written entries as spares.
    void TakeQueue(std::vector<LogEntry>& batch, std::size_t& count);
    // Writes the first `count` entries in order; false after a failed write.
    bool WriteBatch(std::vector<LogEntry>& batch, std::size_t count);
    // The UTF-8 record of one entry into `out`.
    void FormatRecord(const LogEntry& entry, std::string& out) const;
    // One WriteFile of the whole text; true only when every byte was written. A failing call
    // leaves the "Error=..." line in the file (when it can) and closes it.
    bool Write(const std::string& utf8);
    void WriteErrorLine(long error, std::size_t bytesToWrite);
    void CloseFileQuietly();

    mutable CCriticalSection m_cs;
    CEvent m_StopEvent;
    CFile m_File;
    CThread m_Thread;
    // The queue: its first m_nQueued entries; the rest are written entries kept for their
    // buffers.
    std::vector<LogEntry> m_vecQueue;
    std::size_t m_nQueued;
    PendingMap m_mapPending;
    const ELogFileDetail m_eDetail;
    const LPDATAFORMATTER m_pFormatter;
    // Cleared by the worker as it ends; with the file open and the thread started, this is what
    // IsOK reports, without asking the system for the thread's exit code on every call.
    std::atomic<bool> m_bWorkerRunning;
};

// The process-wide map from channels to log files.
class TAVRIN_API CLogFileServer
{
public:
    // The instance, created on first use. At process exit its log files are closed (everything
    // queued is written) and the detail level drops to Off; the instance itself stays reachable
    // for late callers and is not re-created.
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

private:
    friend class CLogFileProxy;
    friend struct CLogFileServerAccess;

    CLogFileServer();
    ~CLogFileServer();

    // Removes the channel's entry only while it is still `expected` (a broken file).
    void DropLogFile(unsigned int channel, const boost::shared_ptr<CLogFile>& expected);
    // Exit-time clean-up: closes every log file and stops creating new ones.
    void Shutdown();

    mutable CCriticalSection m_cs;
    ustring m_strKey;
    ustring m_strFolder;
    std::map<unsigned int, boost::shared_ptr<CLogFile>> m_mapLogFiles;
    ELogFileDetail m_eDetail;
};

// Access to the log file of one channel for the duration of one logging action. The proxy holds
// the log file's lock for its whole life, so keep it short. A channel without a log file gets a
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
    // The channel's log file, or the stand-in that ignores every call.
    static boost::shared_ptr<CLogFile> LogFileOfChannel(unsigned int channel);

    unsigned int m_nChannel;
    boost::shared_ptr<CLogFile> m_pLogFile;
    CLocker<CCriticalSection> m_Locker;
};

} // namespace tavrin
