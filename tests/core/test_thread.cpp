// CThread: life cycle, exit codes, captured exceptions, stop requests and priorities.
#include <tavrin/core/thread.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <vector>

using tavrin::CEvent;
using tavrin::CStdException;
using tavrin::CThread;
using tavrin::CWinException;

namespace {

const unsigned long kLongWait = 10000; // a generous bound; only reached when something hangs

// A routine that blocks until released, so the test controls when the thread ends.
class Gate
{
public:
    Gate() : m_Event(nullptr, TRUE, FALSE, nullptr) {}
    void Open() { m_Event.Set(); }
    bool Pass() const { return ::WaitForSingleObject(m_Event.GetHandle(), kLongWait) == WAIT_OBJECT_0; }

private:
    CEvent m_Event;
};

// Derived thread: the routine is the override, and the derived destructor joins first.
class CCountingThread : public CThread
{
public:
    explicit CCountingThread(std::atomic<int>& ticks) : m_ticks(ticks) {}
    ~CCountingThread() override
    {
        RequestStop();
        Wait();
    }

protected:
    unsigned int Run() override
    {
        while (!WaitForStopRequest(1))
            ++m_ticks;
        return 7;
    }

private:
    std::atomic<int>& m_ticks;
};

} // namespace

TEST(Thread, NeverStarted)
{
    CThread thread;
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.Wait(0));
    unsigned long code = 123;
    EXPECT_FALSE(thread.GetExitCode(code));
    EXPECT_EQ(code, 123u);
    EXPECT_FALSE(thread.GetException());
    EXPECT_EQ(thread.GetHandle(), nullptr);
    EXPECT_EQ(thread.GetThreadId(), 0u);
    EXPECT_EQ(thread.GetPriority(), THREAD_PRIORITY_NORMAL);
    EXPECT_FALSE(thread.IsStopRequested());
    EXPECT_NE(thread.GetStopEvent(), nullptr);

    // Without a routine the thread just ends with 0.
    thread.Start();
    ASSERT_TRUE(thread.Wait(kLongWait));
    ASSERT_TRUE(thread.GetExitCode(code));
    EXPECT_EQ(code, 0u);
}

TEST(Thread, RunsRoutineAndReportsExitCode)
{
    Gate gate;
    std::atomic<DWORD> routineThreadId{0};
    CThread thread([&] {
        routineThreadId = ::GetCurrentThreadId();
        return gate.Pass() ? 42u : 0u;
    });
    thread.Start();

    EXPECT_TRUE(thread.IsRunning());
    EXPECT_FALSE(thread.Wait(0));
    unsigned long code = 0;
    EXPECT_FALSE(thread.GetExitCode(code));
    EXPECT_FALSE(thread.GetException());
    EXPECT_NE(thread.GetHandle(), nullptr);

    // A second start of a running thread and a routine swap are refused.
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        try
        {
            if (attempt == 0)
                thread.Start();
            else
                thread.SetRoutine([] { return 0u; });
            ADD_FAILURE() << "accepted while running";
        }
        catch (const CWinException& e)
        {
            EXPECT_EQ(e.GetErrorCode(), ERROR_BUSY);
            EXPECT_EQ(e.GetFunction(), attempt == 0 ? L"tavrin::CThread::Start" : L"tavrin::CThread::SetRoutine");
        }
    }

    gate.Open();
    ASSERT_TRUE(thread.Wait(kLongWait));
    EXPECT_FALSE(thread.IsRunning());
    ASSERT_TRUE(thread.GetExitCode(code));
    EXPECT_EQ(code, 42u);
    EXPECT_EQ(routineThreadId.load(), thread.GetThreadId());
    EXPECT_NE(routineThreadId.load(), ::GetCurrentThreadId());
}

TEST(Thread, CapturesEscapingExceptions)
{
    // A library exception keeps its type, code and origin through the clone.
    boost::shared_ptr<const CStdException> failure;
    {
        CThread thread([]() -> unsigned int { throw CWinException(321, L"worker.cpp", L"ReadFile", ERROR_HANDLE_EOF); });
        thread.Start();
        ASSERT_TRUE(thread.Wait(kLongWait));
        unsigned long code = 0;
        ASSERT_TRUE(thread.GetExitCode(code));
        EXPECT_EQ(code, CThread::m_nExceptionExitCode);
        failure = thread.GetException();
    }
    ASSERT_TRUE(failure); // outlives the thread object
    try
    {
        failure->Throw();
        ADD_FAILURE() << "Throw returned";
    }
    catch (const CWinException& e)
    {
        EXPECT_EQ(e.GetErrorCode(), ERROR_HANDLE_EOF);
        EXPECT_EQ(e.GetFunction(), L"ReadFile");
        EXPECT_EQ(e.GetLine(), 321u);
        EXPECT_EQ(e.GetFileName(), L"worker.cpp");
    }

    // Anything else is reported as an unhandled exception of the routine.
    std::vector<CThread::Routine> foreign = {
        []() -> unsigned int { throw std::runtime_error("boom"); },
        []() -> unsigned int { throw 17; },
    };
    for (auto& routine : foreign)
    {
        CThread thread(routine);
        thread.Start();
        ASSERT_TRUE(thread.Wait(kLongWait));
        const auto caught = thread.GetException();
        ASSERT_TRUE(caught);
        const auto* win = dynamic_cast<const CWinException*>(caught.get());
        ASSERT_NE(win, nullptr);
        EXPECT_EQ(win->GetErrorCode(), 574);
        EXPECT_EQ(win->GetFunction(), L"tavrin::CThread::Run");
    }
}

TEST(Thread, RestartResetsStateAndStopRequest)
{
    std::atomic<int> runs{0};
    CThread thread;
    thread.SetRoutine([&]() -> unsigned int {
        if (++runs == 1)
            throw CWinException(1, L"f", L"first", 5);
        // Runs until the owner asks it to stop.
        while (!thread.WaitForStopRequest(kLongWait))
        {
        }
        return 2;
    });

    thread.Start();
    ASSERT_TRUE(thread.Wait(kLongWait));
    ASSERT_TRUE(thread.GetException());

    thread.RequestStop(); // left over from the first run: Start clears it
    thread.Start();
    EXPECT_FALSE(thread.IsStopRequested());
    EXPECT_FALSE(thread.GetException());
    EXPECT_FALSE(thread.Wait(20)); // still waiting for its stop request
    thread.RequestStop();
    EXPECT_TRUE(thread.IsStopRequested());
    ASSERT_TRUE(thread.Wait(kLongWait));
    unsigned long code = 0;
    ASSERT_TRUE(thread.GetExitCode(code));
    EXPECT_EQ(code, 2u);
    EXPECT_FALSE(thread.GetException());
    EXPECT_EQ(runs.load(), 2);

    // The stop event serves waits on several objects as well.
    EXPECT_EQ(::WaitForSingleObject(thread.GetStopEvent(), 0), WAIT_OBJECT_0);
}

TEST(Thread, DetachLetsARunningThreadGoAndTheObjectStartsAgain)
{
    // The routine tells its owner that it is done, then waits to be let end, touching nothing
    // of the thread object any more.
    CEvent done(nullptr, FALSE, FALSE, nullptr);
    CEvent release(nullptr, TRUE, FALSE, nullptr);
    const HANDLE doneHandle = done.GetHandle();
    const HANDLE releaseHandle = release.GetHandle();
    std::atomic<int> ended{0};
    CThread thread([doneHandle, releaseHandle, &ended]() -> unsigned int {
        ::SetEvent(doneHandle);
        ::WaitForSingleObject(releaseHandle, kLongWait);
        ++ended;
        return 7;
    });
    thread.Start();
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(doneHandle, kLongWait));
    thread.Detach();
    EXPECT_EQ(nullptr, thread.GetHandle());
    EXPECT_FALSE(thread.IsRunning());
    EXPECT_TRUE(thread.Wait(0));
    unsigned long code = 0;
    EXPECT_FALSE(thread.GetExitCode(code));
    EXPECT_EQ(0, ended.load()); // let go, not waited for

    // Started again while the first run has not ended yet.
    thread.Start();
    release.Set();
    ASSERT_TRUE(thread.Wait(kLongWait));
    ASSERT_TRUE(thread.GetExitCode(code));
    EXPECT_EQ(7u, code);
    EXPECT_GE(ended.load(), 1);
    thread.Detach(); // an ended thread is let go the same way
    EXPECT_EQ(nullptr, thread.GetHandle());
}

TEST(Thread, Priority)
{
    Gate gate, started;
    std::atomic<int> seen{THREAD_PRIORITY_ERROR_RETURN};
    CThread thread([&] {
        seen = ::GetThreadPriority(::GetCurrentThread());
        started.Open();
        return gate.Pass() ? 0u : 1u;
    });

    // Set before the start: in force from the routine's first instruction.
    thread.SetPriority(THREAD_PRIORITY_BELOW_NORMAL);
    EXPECT_EQ(thread.GetPriority(), THREAD_PRIORITY_BELOW_NORMAL);
    thread.Start();
    ASSERT_TRUE(started.Pass());
    EXPECT_EQ(seen.load(), THREAD_PRIORITY_BELOW_NORMAL);
    EXPECT_EQ(thread.GetPriority(), THREAD_PRIORITY_BELOW_NORMAL);

    thread.SetPriority(THREAD_PRIORITY_ABOVE_NORMAL);
    EXPECT_EQ(thread.GetPriority(), THREAD_PRIORITY_ABOVE_NORMAL);
    EXPECT_EQ(::GetThreadPriority(thread.GetHandle()), THREAD_PRIORITY_ABOVE_NORMAL);

    // An invalid value on a running thread is the system's error.
    try
    {
        thread.SetPriority(12345);
        ADD_FAILURE() << "invalid priority accepted";
    }
    catch (const CWinException& e)
    {
        EXPECT_EQ(e.GetFunction(), L"SetThreadPriority");
        EXPECT_NE(e.GetErrorCode(), 0);
    }
    EXPECT_EQ(thread.GetPriority(), THREAD_PRIORITY_ABOVE_NORMAL);

    gate.Open();
    ASSERT_TRUE(thread.Wait(kLongWait));

    // A priority the system refuses at start leaves no thread behind.
    CThread refused([] { return 0u; });
    refused.SetPriority(12345);
    try
    {
        refused.Start();
        ADD_FAILURE() << "invalid priority accepted at start";
    }
    catch (const CWinException& e)
    {
        EXPECT_EQ(e.GetFunction(), L"SetThreadPriority");
    }
    EXPECT_FALSE(refused.IsRunning());
    EXPECT_EQ(refused.GetHandle(), nullptr);
}

TEST(Thread, DestructorStopsAndJoins)
{
    std::atomic<bool> finished{false};
    {
        auto thread = std::make_unique<CThread>();
        CThread* self = thread.get();
        thread->SetRoutine([self, &finished] {
            while (!self->WaitForStopRequest(kLongWait))
            {
            }
            finished = true;
            return 0u;
        });
        thread->Start();
        EXPECT_TRUE(thread->IsRunning());
    } // destroyed while running
    EXPECT_TRUE(finished.load());

    std::atomic<int> ticks{0};
    {
        CCountingThread counting(ticks);
        counting.Start();
        while (ticks.load() < 3)
            ::Sleep(1);
    }
    const int after = ticks.load();
    ::Sleep(20);
    EXPECT_EQ(ticks.load(), after); // the override ran on its own thread and has ended
}

TEST(Thread, ManyThreadsKeepTheirOwnResults)
{
    const int count = 8;
    std::vector<std::unique_ptr<CThread>> threads;
    for (int i = 0; i < count; ++i)
    {
        threads.push_back(std::make_unique<CThread>([i]() -> unsigned int {
            if (i % 2)
                throw CWinException(static_cast<unsigned int>(i), L"t", L"odd", 1000 + i);
            return 100u + i;
        }));
        threads.back()->Start();
    }
    for (int i = 0; i < count; ++i)
    {
        ASSERT_TRUE(threads[i]->Wait(kLongWait));
        unsigned long code = 0;
        ASSERT_TRUE(threads[i]->GetExitCode(code));
        const auto failure = threads[i]->GetException();
        if (i % 2)
        {
            EXPECT_EQ(code, CThread::m_nExceptionExitCode);
            ASSERT_TRUE(failure);
            EXPECT_EQ(dynamic_cast<const CWinException&>(*failure).GetErrorCode(), 1000 + i);
        }
        else
        {
            EXPECT_EQ(code, 100u + i);
            EXPECT_FALSE(failure);
        }
    }
}
