// CThread: an owned worker thread.
//
// The routine is either a std::function handed to the thread or the virtual Run of a derived
// class. Whatever escapes the routine is caught on the thread (the process never terminates
// because of it) and kept as a cloned exception for the owner to inspect or re-throw:
//
//     CThread worker([&] { ...; return 0u; });
//     worker.SetPriority(THREAD_PRIORITY_BELOW_NORMAL);
//     worker.Start();
//     ...
//     worker.RequestStop();            // the routine polls WaitForStopRequest / GetStopEvent
//     worker.Wait();
//     if (auto failure = worker.GetException())
//         failure->Throw();            // re-thrown by its own type, e.g. CWinException
//
// Start, SetRoutine, SetPriority and the destructor belong to the owning thread; the status
// members (IsRunning, Wait, GetExitCode, GetException, stop requests) may be used from any.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/exception.h>
#include <tavrin/core/object.h>

#include <boost/shared_ptr.hpp>

#include <functional>

namespace tavrin {

class TAVRIN_API CThread
{
public:
    // The thread's routine; its result is the thread's exit code.
    using Routine = std::function<unsigned int()>;

    // Exit code of a thread whose routine ended by an exception.
    static const unsigned int m_nExceptionExitCode = 0xFFFFFFFFu;

    // A thread object without routine: derived classes override Run.
    CThread();
    explicit CThread(Routine routine);
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;
    // Requests the stop and waits for the thread to end; never throws. A class deriving from
    // CThread must do the same in its own destructor, before its members (used by its Run) go.
    virtual ~CThread();

    // Replaces the routine; refused (CWinException "tavrin::CThread::SetRoutine", ERROR_BUSY)
    // while the thread runs.
    void SetRoutine(Routine routine);

    // Starts the thread (_beginthreadex) at the priority set with SetPriority. A thread object
    // whose previous run has ended can be started again: the stop request, the exit code and
    // the kept exception are reset. Throws CWinException: "tavrin::CThread::Start" with
    // ERROR_BUSY while it still runs, else the failing system call's name.
    void Start();
    void Start(Routine routine);

    // Lets the thread go without waiting for its end: closes its handle and forgets it, so that
    // the object can be started again and its destructor does not wait. For a routine that has
    // told its owner that it is done and ends on its own, for example through
    // FreeLibraryAndExitThread: waiting for a thread's end needs the loader lock, which a caller
    // in DllMain holds. The routine must not use this object any more.
    void Detach();

    // Whether the thread has been started and has not ended yet.
    bool IsRunning() const;
    // Waits for the end of the thread: true when it has ended (or was never started), false on
    // time-out; throws "WaitForSingleObject" when the wait fails.
    bool Wait(unsigned long timeoutMs = INFINITE) const;

    // Sets the stop event (manual-reset, cleared by Start); the routine is expected to end soon
    // after. Stop requests are only a convention between owner and routine.
    void RequestStop();
    bool IsStopRequested() const;
    // Waits up to `timeoutMs` for a stop request: true when one has been made.
    bool WaitForStopRequest(unsigned long timeoutMs) const;
    // The stop event, for waits on several objects.
    HANDLE GetStopEvent() const;

    // THREAD_PRIORITY_* value. Before Start it is remembered and applied when the thread is
    // created; on a running thread SetThreadPriority / GetThreadPriority are called (and throw
    // with those names on failure).
    void SetPriority(int priority);
    int GetPriority() const;

    // The ended thread's exit code (the routine's result, or m_nExceptionExitCode); false while
    // it runs or when it was never started.
    bool GetExitCode(unsigned long& code) const;
    // Clone of the exception that ended the routine; empty while the thread runs and when the
    // routine returned. A CStdException is cloned with its own type; anything else becomes a
    // CWinException with function "tavrin::CThread::Run" and ERROR_UNHANDLED_EXCEPTION (574).
    boost::shared_ptr<const CStdException> GetException() const;

    // The thread's handle (null before the first Start) and identifier (0 before it).
    HANDLE GetHandle() const;
    unsigned int GetThreadId() const;

protected:
    // The routine: calls the std::function when there is one, else returns 0.
    virtual unsigned int Run();

private:
    static unsigned int __stdcall ThreadProc(void* self);

    Routine m_Routine;
    CHandle<0> m_hThread;
    CEvent m_StopEvent;
    unsigned int m_nThreadId;
    int m_nPriority;
    // Written by the thread before it ends; read by others only after its end.
    boost::shared_ptr<const CStdException> m_pException;
};

} // namespace tavrin
