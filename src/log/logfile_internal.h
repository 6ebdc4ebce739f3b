// Internals shared by the data log file's sources and the module's entry point.
#pragma once

#include <tavrin/log/logfile.h>

#include <atomic>
#include <cstddef>

namespace tavrin {

// A block of queue entries. Entries are filled in order and published by raising nUsed; a block
// is linked to the queue before its first entry is filled. So whatever a stopped thread was doing,
// the published entries of the chain from the head are complete.
struct CLogFile::QueueChunk
{
    static const unsigned int kEntries = 128;
    // Written chunks are reused with their entries' buffers, so that steady logging allocates
    // nothing: as many are kept idle as the last batches needed (at least kIdleLimit, and no
    // more than a quarter of the queue limit's worth of entries), and buffers larger than these
    // are released.
    static const std::size_t kIdleLimit = 8;
    static const std::size_t kSpareDataBytes = 1024;
    static const std::size_t kSpareTextLength = 512;

    QueueChunk() : nUsed(0), pNext(nullptr), bVisited(false) {}

    // Empties the chunk for reuse, keeping the entries' small buffers.
    void Reset()
    {
        const unsigned int used = nUsed.load();
        for (unsigned int i = 0; i < used; ++i)
        {
            LogEntry& entry = entries[i];
            if (entry.data.capacity() > kSpareDataBytes)
                std::vector<unsigned char>().swap(entry.data);
            if (entry.text.capacity() > kSpareTextLength)
                ustring().swap(entry.text);
        }
        nUsed.store(0);
        pNext.store(nullptr);
        bVisited = false;
    }

    LogEntry entries[kEntries];
    std::atomic<unsigned int> nUsed;
    // The next block of the queue or batch; in the spare list, the next spare.
    std::atomic<QueueChunk*> pNext;
    // Marks blocks already written by the exit clean-up, which may meet one block in two chains.
    bool bVisited;
};

// The notice of records dropped while the queue was at its limit, queued as an entry of its own
// type with this structure as its data, and written as a text event.
struct CLogFile::DropNotice
{
    static const unsigned int kEntryType = 3;

    unsigned long long nRecords;
    unsigned long long nBytes; // their data and text
    unsigned long long nLimit;
    SYSTEMTIME first;
    SYSTEMTIME last;
};

namespace detail {

// What an entry counts against the queue limit: its buffers as allocated, and the entry itself.
inline std::size_t EntryCost(const CLogFile::LogEntry& entry)
{
    return sizeof(CLogFile::LogEntry) + entry.data.capacity() + entry.text.capacity() * sizeof(wchar_t);
}

// Appends the dump lines of `data` (see CLogFile::Bin2Text) to a std::string or a ustring.
template <class String>
void AppendDump(const unsigned char* data, std::size_t size, unsigned int width, String& out);

// True once the process has begun to exit (ExitProcess, or the end of main): every thread but
// the exiting one is gone, and a lock that one of them held will never be released.
bool IsProcessExiting();

// The module's entry point calls this on DLL_PROCESS_DETACH at process exit: writes and closes
// every open log file.
void CloseLogFilesAtProcessExit();

// When the library is unloaded by FreeLibrary (no worker runs then: each holds a reference on
// the library), after the server's files are closed: releases what the log files kept for the
// library's lifetime.
void ReleaseLogFilesAtUnload();

// Holds a critical section for its lifetime. During process exit it only tries the lock (a
// stopped thread may hold it for ever); the caller then decides whether to go on without it.
class CExitSafeLock
{
public:
    explicit CExitSafeLock(CCriticalSection& cs) : m_cs(cs), m_bLocked(cs.Lock(!IsProcessExiting())) {}
    // `held`: the calling thread holds the lock already (through a proxy) and takes it no
    // second time.
    CExitSafeLock(CCriticalSection& cs, bool held)
        : m_cs(cs), m_bLocked(!held && cs.Lock(!IsProcessExiting())), m_bHeld(held)
    {
    }
    CExitSafeLock(const CExitSafeLock&) = delete;
    CExitSafeLock& operator=(const CExitSafeLock&) = delete;
    ~CExitSafeLock()
    {
        if (m_bLocked)
            m_cs.Unlock();
    }

    bool Locked() const { return m_bLocked || m_bHeld; }

private:
    CCriticalSection& m_cs;
    const bool m_bLocked;
    const bool m_bHeld = false;
};

} // namespace detail

} // namespace tavrin
