// CThread: an owned worker thread that never lets an exception escape its routine.
#include <tavrin/core/thread.h>

#include <process.h>

#include <utility>

namespace tavrin {

namespace {

// ERROR_UNHANDLED_EXCEPTION, which the MinGW headers lack.
const DWORD kErrorUnhandledException = 574;

[[noreturn]] void ThrowWin(unsigned int line, const wchar_t* function, DWORD error)
{
    throw CWinException(line, TAVRIN_WFILE, function, static_cast<long>(error));
}

} // namespace

// Defined here so that the constant is exported and callers can bind references to it.
const unsigned int CThread::m_nExceptionExitCode;

CThread::CThread() : CThread(Routine())
{
}

CThread::CThread(Routine routine)
    : m_Routine(std::move(routine)),
      m_StopEvent(nullptr, TRUE, FALSE, nullptr),
      m_nThreadId(0),
      m_nPriority(THREAD_PRIORITY_NORMAL)
{
}

CThread::~CThread()
{
    try
    {
        RequestStop();
        Wait(INFINITE);
    }
    catch (...)
    {
    }
}

void CThread::SetRoutine(Routine routine)
{
    if (IsRunning())
        ThrowWin(__LINE__, L"tavrin::CThread::SetRoutine", ERROR_BUSY);
    m_Routine = std::move(routine);
}

void CThread::Start(Routine routine)
{
    SetRoutine(std::move(routine));
    Start();
}

void CThread::Start()
{
    if (IsRunning())
        ThrowWin(__LINE__, L"tavrin::CThread::Start", ERROR_BUSY);

    m_hThread.Close();
    m_nThreadId = 0;
    m_pException.reset();
    m_StopEvent.Reset();

    // Created suspended so that the priority holds from the routine's first instruction.
    unsigned int id = 0;
    const uintptr_t created = ::_beginthreadex(nullptr, 0, &CThread::ThreadProc, this, CREATE_SUSPENDED, &id);
    if (created == 0)
    {
        const DWORD error = ::GetLastError();
        ThrowWin(__LINE__, L"_beginthreadex", error != ERROR_SUCCESS ? error : ERROR_NOT_ENOUGH_MEMORY);
    }
    m_hThread.Attach(reinterpret_cast<HANDLE>(created));
    m_nThreadId = id;

    if (m_nPriority != THREAD_PRIORITY_NORMAL && !::SetThreadPriority(m_hThread, m_nPriority))
    {
        // The thread has not run a single instruction of the routine. It is let go with a
        // thread id that tells ThreadProc to leave at once: terminating a thread that never ran
        // skips the runtime's thread start-up and breaks the process (seen under WoW64).
        const DWORD error = ::GetLastError();
        m_nThreadId = 0;
        if (::ResumeThread(m_hThread) != static_cast<DWORD>(-1))
            ::WaitForSingleObject(m_hThread, INFINITE);
        else
            ::TerminateThread(m_hThread, m_nExceptionExitCode);
        m_hThread.Close();
        ThrowWin(__LINE__, L"SetThreadPriority", error);
    }
    if (::ResumeThread(m_hThread) == static_cast<DWORD>(-1))
    {
        const DWORD error = ::GetLastError();
        ::TerminateThread(m_hThread, m_nExceptionExitCode);
        ::WaitForSingleObject(m_hThread, INFINITE);
        m_hThread.Close();
        m_nThreadId = 0;
        ThrowWin(__LINE__, L"ResumeThread", error);
    }
}

// True when `handle` is signalled within the time-out, false on time-out; a failed wait throws.
static bool WaitSignalled(HANDLE handle, unsigned long timeoutMs, unsigned int line)
{
    switch (::WaitForSingleObject(handle, timeoutMs))
    {
    case WAIT_OBJECT_0:
        return true;
    case WAIT_TIMEOUT:
        return false;
    default:
        ThrowWin(line, L"WaitForSingleObject", ::GetLastError());
    }
}

void CThread::Detach()
{
    try
    {
        m_hThread.Close();
    }
    catch (const CStdException&)
    {
        // The handle is forgotten either way.
    }
}

bool CThread::IsRunning() const
{
    return m_hThread.IsCreated() && ::WaitForSingleObject(m_hThread.GetHandle(), 0) == WAIT_TIMEOUT;
}

bool CThread::Wait(unsigned long timeoutMs) const
{
    if (!m_hThread.IsCreated())
        return true;
    return WaitSignalled(m_hThread.GetHandle(), timeoutMs, __LINE__);
}

void CThread::RequestStop()
{
    m_StopEvent.Set();
}

bool CThread::IsStopRequested() const
{
    return WaitForStopRequest(0);
}

bool CThread::WaitForStopRequest(unsigned long timeoutMs) const
{
    return WaitSignalled(m_StopEvent.GetHandle(), timeoutMs, __LINE__);
}

HANDLE CThread::GetStopEvent() const
{
    return m_StopEvent.GetHandle();
}

void CThread::SetPriority(int priority)
{
    if (IsRunning() && !::SetThreadPriority(m_hThread, priority))
        ThrowWin(__LINE__, L"SetThreadPriority", ::GetLastError());
    m_nPriority = priority;
}

int CThread::GetPriority() const
{
    if (!IsRunning())
        return m_nPriority;
    const int priority = ::GetThreadPriority(m_hThread.GetHandle());
    if (priority == THREAD_PRIORITY_ERROR_RETURN)
        ThrowWin(__LINE__, L"GetThreadPriority", ::GetLastError());
    return priority;
}

bool CThread::GetExitCode(unsigned long& code) const
{
    if (!m_hThread.IsCreated() || IsRunning())
        return false;
    DWORD exitCode = 0;
    if (!::GetExitCodeThread(m_hThread.GetHandle(), &exitCode))
        ThrowWin(__LINE__, L"GetExitCodeThread", ::GetLastError());
    code = exitCode;
    return true;
}

boost::shared_ptr<const CStdException> CThread::GetException() const
{
    // The thread's end orders its last write before this read.
    if (IsRunning())
        return boost::shared_ptr<const CStdException>();
    return m_pException;
}

HANDLE CThread::GetHandle() const
{
    return m_hThread.GetHandle();
}

unsigned int CThread::GetThreadId() const
{
    return m_nThreadId;
}

unsigned int CThread::Run()
{
    return m_Routine ? m_Routine() : 0u;
}

unsigned int __stdcall CThread::ThreadProc(void* param)
{
    CThread* self = static_cast<CThread*>(param);
    if (self->m_nThreadId != ::GetCurrentThreadId())
        return m_nExceptionExitCode; // abandoned by a failed Start before it was let run
    try
    {
        return self->Run();
    }
    catch (const CStdException& e)
    {
        try
        {
            self->m_pException = e.Clone();
        }
        catch (...)
        {
            // Out of memory for the clone: the exit code still tells the routine failed.
        }
    }
    catch (...)
    {
        try
        {
            self->m_pException.reset(new CWinException(__LINE__, TAVRIN_WFILE, L"tavrin::CThread::Run",
                                                       kErrorUnhandledException));
        }
        catch (...)
        {
        }
    }
    return m_nExceptionExitCode;
}

} // namespace tavrin
