// Handles and synchronization objects, exercised across real threads.
#include <tavrin/core/object.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace tavrin;

namespace {

// A process-unique kernel object name.
std::wstring UniqueName(const wchar_t* what)
{
    static std::atomic<int> counter(0);
    return L"tavrin-test-" + std::wstring(what) + L"-" + std::to_wstring(::GetCurrentProcessId()) +
           L"-" + std::to_wstring(++counter);
}

bool IsSignalled(HANDLE handle)
{
    return ::WaitForSingleObject(handle, 0) == WAIT_OBJECT_0;
}

// A handle owner over plain numbers that records its closes.
class CNumberHandle : public CAHandle<unsigned int, -1>
{
public:
    explicit CNumberHandle(unsigned int value = 0xFFFFFFFFu) : CAHandle<unsigned int, -1>(value) {}
    bool Close() override
    {
        if (!IsCreated())
            return false;
        ++m_nCloses;
        Detach();
        return true;
    }
    int m_nCloses = 0;
};

template <class T>
void ExpectWinError(T&& action, const wchar_t* function, long code)
{
    try
    {
        action();
        ADD_FAILURE() << "no exception";
    }
    catch (const CWinException& e)
    {
        EXPECT_EQ(e.GetFunction(), function);
        EXPECT_EQ(e.GetErrorCode(), code);
    }
}

} // namespace

TEST(ObjectHandle, AttachDetachAndInvalidValues)
{
    CNumberHandle none;
    EXPECT_FALSE(none.IsCreated());
    EXPECT_EQ(none.GetHandle(), 0xFFFFFFFFu);
    EXPECT_FALSE(none.Close());

    // 0 is a valid number for an owner whose invalid value is -1.
    CNumberHandle zero(0);
    EXPECT_TRUE(zero.IsCreated());
    EXPECT_FALSE(zero.Attach(5)); // refused: a handle is held, and it stays
    EXPECT_EQ(static_cast<unsigned int>(zero), 0u);
    EXPECT_EQ(zero.Detach(), 0u);
    EXPECT_FALSE(zero.IsCreated());
    EXPECT_TRUE(zero.Attach(5));
    EXPECT_EQ(zero.GetHandle(), 5u);
    EXPECT_TRUE(zero.Close());
    EXPECT_FALSE(zero.Close());
    EXPECT_EQ(zero.m_nCloses, 1);

    CHandle<0> nullOwner;
    EXPECT_FALSE(nullOwner.IsCreated());
    EXPECT_EQ(nullOwner.GetHandle(), nullptr);
    CHandle<-1> fileOwner;
    EXPECT_FALSE(fileOwner.IsCreated());
    EXPECT_EQ(fileOwner.GetHandle(), INVALID_HANDLE_VALUE);
    EXPECT_TRUE(fileOwner.Attach(nullptr)); // null is an ordinary value here
    EXPECT_TRUE(fileOwner.IsCreated());
    EXPECT_EQ(fileOwner.Detach(), nullptr);
}

TEST(ObjectHandle, CloseReleasesOnceAndDestructorCloses)
{
    HANDLE raw = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_NE(raw, nullptr);
    HANDLE duplicate = nullptr;
    ASSERT_TRUE(::DuplicateHandle(::GetCurrentProcess(), raw, ::GetCurrentProcess(), &duplicate, 0,
                                  FALSE, DUPLICATE_SAME_ACCESS));
    {
        CHandle<0> owner(raw);
        EXPECT_TRUE(owner.IsCreated());
        EXPECT_EQ(static_cast<HANDLE>(owner), raw);
        EXPECT_TRUE(owner.Close());
        EXPECT_FALSE(owner.IsCreated());
        EXPECT_FALSE(owner.Close());
        DWORD flags = 0;
        EXPECT_FALSE(::GetHandleInformation(raw, &flags));

        EXPECT_TRUE(owner.Attach(duplicate));
    } // the destructor closes the duplicate
    DWORD flags = 0;
    EXPECT_FALSE(::GetHandleInformation(duplicate, &flags));
}

TEST(ObjectHandle, FailingCloseThrowsAndForgetsTheHandle)
{
    CHandle<0> bogus(reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(0x7654320)));
    ExpectWinError([&] { bogus.Close(); }, L"CloseHandle", ERROR_INVALID_HANDLE);
    EXPECT_FALSE(bogus.IsCreated());
    EXPECT_FALSE(bogus.Close());
}

TEST(ObjectCriticalSection, TryLockFromAnotherThread)
{
    // The same lock whether a contended Lock spins first or not.
    CCriticalSection plain;
    CCriticalSection spinning(4000);
    for (CCriticalSection* section : {&plain, &spinning})
    {
    CCriticalSection& cs = *section;
    EXPECT_TRUE(cs.Lock(true));
    EXPECT_TRUE(cs.Lock(false)); // recursive for the owner
    cs.Unlock();

    bool enteredWhileHeld = true;
    std::thread([&] { enteredWhileHeld = cs.Lock(false); }).join();
    EXPECT_FALSE(enteredWhileHeld);
    cs.Unlock();

    bool enteredWhenFree = false;
    std::thread([&] {
        enteredWhenFree = cs.Lock(false);
        if (enteredWhenFree)
            cs.Unlock();
    }).join();
    EXPECT_TRUE(enteredWhenFree);
    }
}

TEST(ObjectLocker, CriticalSectionSerialisesThreads)
{
    CCriticalSection cs;
    long counter = 0; // deliberately not atomic: only the lock protects it
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i)
            {
                CLocker<CCriticalSection> lock(&cs);
                const long seen = counter;
                if ((i & 1023) == 0)
                    ::SwitchToThread(); // invite a lost update if the lock were absent
                counter = seen + 1;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 80000);

    // The locker holds the section for its scope and releases it afterwards.
    bool otherEntered = true;
    {
        CLocker<CCriticalSection> lock(&cs);
        std::thread([&] { otherEntered = cs.Lock(false); }).join();
    }
    EXPECT_FALSE(otherEntered);
    bool enteredAfter = false;
    std::thread([&] {
        enteredAfter = cs.Lock(false);
        if (enteredAfter)
            cs.Unlock();
    }).join();
    EXPECT_TRUE(enteredAfter);
}

TEST(ObjectLocker, MutexLockerAndFailures)
{
    CMutex mutex;
    bool lockedElsewhere = true;
    {
        CLocker<CMutex> lock(&mutex);
        std::thread([&] { lockedElsewhere = mutex.Lock(0); }).join();
    }
    EXPECT_FALSE(lockedElsewhere);
    bool lockedAfter = false;
    std::thread([&] {
        lockedAfter = mutex.Lock(0);
        if (lockedAfter)
            mutex.Unlock();
    }).join();
    EXPECT_TRUE(lockedAfter);

    ExpectWinError([] { CLocker<CMutex> lock(nullptr); },
                   L"tavrin::CLocker<class tavrin::CMutex>::CLocker", ERROR_INVALID_PARAMETER);
    ExpectWinError([] { CLocker<CCriticalSection> lock(nullptr); },
                   L"tavrin::CLocker<class tavrin::CCriticalSection>::CLocker",
                   ERROR_INVALID_PARAMETER);

    // A mutex without a handle cannot be waited for: the wait's own failure surfaces.
    CMutex closed;
    EXPECT_TRUE(closed.Close());
    ExpectWinError([&] { CLocker<CMutex> lock(&closed); }, L"WaitForSingleObject",
                   ERROR_INVALID_HANDLE);
}

TEST(ObjectMutex, NamedTwiceAndOwnership)
{
    const std::wstring name = UniqueName(L"mutex");
    bool existed = true;
    CMutex first(nullptr, FALSE, name.c_str(), existed);
    EXPECT_FALSE(existed);
    CMutex second(nullptr, FALSE, name.c_str(), existed);
    EXPECT_TRUE(existed);
    EXPECT_NE(first.GetHandle(), second.GetHandle());

    // Both wrappers lock the same kernel object.
    EXPECT_TRUE(first.Lock(0));
    bool secondElsewhere = true;
    std::thread([&] { secondElsewhere = second.Lock(0); }).join();
    EXPECT_FALSE(secondElsewhere);
    first.Unlock();

    // Releasing a mutex that this thread does not own fails.
    ExpectWinError([&] { first.Unlock(); }, L"ReleaseMutex", ERROR_NOT_OWNER);

    // Created owned: another thread times out.
    CMutex owned(nullptr, TRUE, nullptr);
    bool ownedElsewhere = true;
    std::thread([&] { ownedElsewhere = owned.Lock(50); }).join();
    EXPECT_FALSE(ownedElsewhere);
    owned.Unlock();

    // A name that belongs to an event is refused.
    const std::wstring eventName = UniqueName(L"event-not-mutex");
    CEvent event(nullptr, TRUE, FALSE, eventName.c_str());
    ExpectWinError([&] { CMutex clash(nullptr, FALSE, eventName.c_str()); }, L"CreateMutexW",
                   ERROR_INVALID_HANDLE);
}

TEST(ObjectMutex, HeldByAnotherThreadTimesOutAndAbandonedCountsAsAcquired)
{
    CMutex mutex;
    CEvent held(nullptr, TRUE, FALSE, nullptr);
    CEvent release(nullptr, TRUE, FALSE, nullptr);
    std::thread holder([&] {
        mutex.Lock(INFINITE);
        held.Set();
        ::WaitForSingleObject(release, INFINITE);
        mutex.Unlock();
    });
    ASSERT_EQ(::WaitForSingleObject(held, 10000), WAIT_OBJECT_0);
    EXPECT_FALSE(mutex.Lock(0));
    EXPECT_FALSE(mutex.Lock(20));
    release.Set();
    EXPECT_TRUE(mutex.Lock(10000));
    mutex.Unlock();
    holder.join();

    // The holder ends without releasing: the next waiter acquires the abandoned mutex.
    std::thread([&] { mutex.Lock(INFINITE); }).join();
    EXPECT_TRUE(mutex.Lock(10000));
    mutex.Unlock(); // owned for real, so the release succeeds
    bool freeAgain = false;
    std::thread([&] {
        freeAgain = mutex.Lock(0);
        if (freeAgain)
            mutex.Unlock();
    }).join();
    EXPECT_TRUE(freeAgain);
}

TEST(ObjectEvent, SetResetWaitAndOpenByName)
{
    const std::wstring name = UniqueName(L"event");
    CEvent manual(nullptr, TRUE, FALSE, name.c_str());
    EXPECT_FALSE(IsSignalled(manual));

    CEvent opened(EVENT_ALL_ACCESS, FALSE, name.c_str());
    EXPECT_NE(opened.GetHandle(), manual.GetHandle());
    opened.Set();
    EXPECT_TRUE(IsSignalled(manual));
    EXPECT_TRUE(IsSignalled(manual)); // manual reset: stays signalled
    manual.Reset();
    EXPECT_FALSE(IsSignalled(opened));

    CEvent automatic;
    automatic.Set();
    EXPECT_TRUE(IsSignalled(automatic));
    EXPECT_FALSE(IsSignalled(automatic)); // auto reset: one wait consumes it

    CEvent initiallySet(nullptr, FALSE, TRUE, nullptr);
    EXPECT_TRUE(IsSignalled(initiallySet));

    // Set on one thread wakes a waiter on another.
    CEvent ready(nullptr, FALSE, FALSE, nullptr);
    DWORD waited = WAIT_FAILED;
    std::thread waiter([&] { waited = ::WaitForSingleObject(ready, 10000); });
    ready.Set();
    waiter.join();
    EXPECT_EQ(waited, WAIT_OBJECT_0);

    ExpectWinError([] { CEvent missing(EVENT_ALL_ACCESS, FALSE, UniqueName(L"absent").c_str()); },
                   L"OpenEventW", ERROR_FILE_NOT_FOUND);

    CEvent closed;
    EXPECT_TRUE(closed.Close());
    ExpectWinError([&] { closed.Set(); }, L"SetEvent", ERROR_INVALID_HANDLE);
    ExpectWinError([&] { closed.Reset(); }, L"ResetEvent", ERROR_INVALID_HANDLE);
}

TEST(ObjectOverlapped, RecordUsesItsOwnEvent)
{
    COverlapped overlapped(nullptr, TRUE, FALSE, nullptr);
    EXPECT_EQ(overlapped.hEvent, overlapped.GetEvent().GetHandle());
    EXPECT_EQ(overlapped.Internal, 0u);
    EXPECT_EQ(overlapped.InternalHigh, 0u);
    EXPECT_EQ(overlapped.Offset, 0u);
    EXPECT_EQ(overlapped.OffsetHigh, 0u);

    overlapped.SetEvent();
    EXPECT_TRUE(IsSignalled(overlapped.hEvent));
    EXPECT_TRUE(IsSignalled(overlapped.GetEvent()));
    overlapped.ResetEvent();
    EXPECT_FALSE(IsSignalled(overlapped.hEvent));

    COverlapped automatic;
    EXPECT_NE(automatic.hEvent, nullptr);
    automatic.GetEvent().Set();
    EXPECT_TRUE(IsSignalled(automatic.hEvent));
    EXPECT_FALSE(IsSignalled(automatic.hEvent));

    // The record is what overlapped I/O fills: a pipe write completes through it.
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    ASSERT_TRUE(::CreatePipe(&readEnd, &writeEnd, nullptr, 0));
    CHandle<0> readOwner(readEnd);
    CHandle<0> writeOwner(writeEnd);
    DWORD written = 0;
    EXPECT_TRUE(::WriteFile(writeOwner, "abc", 3, &written, nullptr));
    char buffer[3] = {};
    DWORD read = 0;
    EXPECT_TRUE(::ReadFile(readOwner, buffer, 3, &read, &overlapped));
    EXPECT_EQ(read, 3u);
    EXPECT_TRUE(IsSignalled(overlapped.GetEvent())); // completion signalled the member event
    EXPECT_EQ(overlapped.InternalHigh, 3u);
}

TEST(ObjectWSAEvent, CreateSetResetClose)
{
    WSADATA data;
    ASSERT_EQ(::WSAStartup(MAKEWORD(2, 2), &data), 0);
    {
        CWSAEvent event;
        EXPECT_TRUE(event.IsCreated());
        EXPECT_FALSE(IsSignalled(event));
        event.Set();
        EXPECT_TRUE(IsSignalled(event));
        EXPECT_TRUE(IsSignalled(event)); // Winsock events are manual-reset
        event.Reset();
        EXPECT_FALSE(IsSignalled(event));
        EXPECT_TRUE(event.Close());
        EXPECT_FALSE(event.IsCreated());
        EXPECT_FALSE(event.Close());

        CWSAOverlapped overlapped;
        EXPECT_EQ(overlapped.hEvent, overlapped.GetEvent().GetHandle());
        EXPECT_EQ(overlapped.Offset, 0u);
        overlapped.SetEvent();
        EXPECT_TRUE(IsSignalled(overlapped.hEvent));
        overlapped.ResetEvent();
        EXPECT_FALSE(IsSignalled(overlapped.hEvent));
    }
    ::WSACleanup();
}

TEST(ObjectServiceHandle, OwnsAServiceManagerHandle)
{
    CServiceHandle none;
    EXPECT_FALSE(none.IsCreated());
    EXPECT_FALSE(none.Close());

    SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    ASSERT_NE(manager, nullptr) << ::GetLastError();
    CServiceHandle owner(manager);
    EXPECT_TRUE(owner.IsCreated());
    EXPECT_TRUE(owner.Close());
    EXPECT_FALSE(owner.IsCreated());
    EXPECT_FALSE(owner.Close());
}

namespace {

class CCounter : public CMultiThreadObject<CMutex>
{
public:
    void Add()
    {
        CLocker<CMutex> lock(&SyncObject());
        const int seen = m_nValue;
        if ((seen & 255) == 0)
            ::SwitchToThread();
        m_nValue = seen + 1;
    }
    int Get() const
    {
        CLocker<CMutex> lock(&SyncObject());
        return m_nValue;
    }

private:
    int m_nValue = 0;
};

} // namespace

TEST(ObjectMultiThreadObject, MembersLockThemselves)
{
    CCounter counter;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 3000; ++i)
                counter.Add();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(counter.Get(), 9000);
}

namespace {

std::atomic<int> g_nProbeConstructions(0);
std::atomic<int> g_nProbeDestructions(0);

class CProbe
{
public:
    CProbe()
    {
        ++g_nProbeConstructions;
        // A slow constructor widens the window in which racing threads find no instance yet.
        ::Sleep(30);
        m_nGeneration = g_nProbeConstructions;
    }
    virtual ~CProbe() { ++g_nProbeDestructions; }
    int m_nGeneration;
};

// Gives the test the exit-time clean-up to run early.
struct CProbeSingleton : CPhoenixSingleton<CProbe>
{
    using CPhoenixSingleton<CProbe>::KillPhoenixSingleton;
};

} // namespace

TEST(ObjectPhoenixSingleton, RacingThreadsShareOneInstanceWhichRisesAgain)
{
    CEvent start(nullptr, TRUE, FALSE, nullptr);
    std::vector<CProbe*> seen(6, nullptr);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < seen.size(); ++t)
        threads.emplace_back([&, t] {
            ::WaitForSingleObject(start, INFINITE);
            seen[t] = &CPhoenixSingleton<CProbe>::Ref();
        });
    start.Set();
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(g_nProbeConstructions, 1);
    for (CProbe* instance : seen)
        EXPECT_EQ(instance, seen[0]);
    EXPECT_EQ(&CPhoenixSingleton<CProbe>::Ref(), seen[0]);
    EXPECT_EQ(CPhoenixSingleton<CProbe>::Ref().m_nGeneration, 1);

    // Destroyed (as at exit), then used again: a new instance is born.
    CProbeSingleton::KillPhoenixSingleton();
    EXPECT_EQ(g_nProbeDestructions, 1);
    CProbe& reborn = CPhoenixSingleton<CProbe>::Ref();
    EXPECT_EQ(g_nProbeConstructions, 2);
    EXPECT_EQ(reborn.m_nGeneration, 2);
    EXPECT_EQ(&CPhoenixSingleton<CProbe>::Ref(), &reborn);
}
