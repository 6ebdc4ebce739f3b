// Exceptions crossing the boundary of Tavrin.dll: thrown by library code, caught here, and
// handed from one thread to another through Clone() and Throw().
#include <tavrin/core/exception.h>
#include <tavrin/core/object.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>

using namespace tavrin;

namespace {

std::wstring AbsentEventName()
{
    return L"tavrin-boundary-absent-" + std::to_wstring(::GetCurrentProcessId());
}

} // namespace

TEST(Boundary, LibraryThrowCaughtByBaseAndByMostDerivedType)
{
    // Raised inside Tavrin.dll (its source file is the library's), caught by the base class.
    try
    {
        CEvent missing(EVENT_ALL_ACCESS, FALSE, AbsentEventName().c_str());
        FAIL() << "OpenEventW of an absent event succeeded";
    }
    catch (const CStdException& e)
    {
        EXPECT_EQ(e.GetFunction(), L"OpenEventW");
        // Named as in the source tree, whatever folder the library was built in (and under
        // ccache the compiler sees paths relative to the build folder).
        EXPECT_EQ(e.GetFileName(), L"src/core/object.cpp");
        EXPECT_GT(e.GetLine(), 0u);
        const CWinException* win = dynamic_cast<const CWinException*>(&e);
        ASSERT_NE(win, nullptr);
        EXPECT_EQ(win->GetErrorCode(), ERROR_FILE_NOT_FOUND);
        ustring source;
        EXPECT_TRUE(e.GetSource(source));
        EXPECT_EQ(source, L"Win API");
    }

    // The same by the most-derived type, from a close inside the library.
    try
    {
        CHandle<-1> bogus(reinterpret_cast<HANDLE>(static_cast<std::intptr_t>(0x1234560)));
        bogus.Close();
        FAIL() << "closing a bogus handle succeeded";
    }
    catch (const CWinException& e)
    {
        EXPECT_EQ(e.GetFunction(), L"CloseHandle");
        EXPECT_EQ(e.GetErrorCode(), ERROR_INVALID_HANDLE);
        EXPECT_EQ(e.GetFileName(), L"src/core/object.cpp");
    }

    // A library exception is not mistaken for an unrelated class of the hierarchy.
    bool caughtAsOther = false;
    try
    {
        try
        {
            CMutex mutex;
            mutex.Unlock(); // not owned
        }
        catch (const CCommException&)
        {
            caughtAsOther = true;
        }
    }
    catch (const CWinException& e)
    {
        EXPECT_EQ(e.GetFunction(), L"ReleaseMutex");
        EXPECT_EQ(e.GetErrorCode(), ERROR_NOT_OWNER);
    }
    EXPECT_FALSE(caughtAsOther);
}

TEST(Boundary, HeaderCodeNamesItsHeaderRelativeToTheSourceTree)
{
    // Inline code of a public header, compiled into this program.
    try
    {
        CLocker<CCriticalSection> locker(nullptr);
        FAIL() << "a locker of no object was made";
    }
    catch (const CWinException& e)
    {
        EXPECT_EQ(e.GetFileName(), L"include/tavrin/core/object.h");
        EXPECT_EQ(e.GetErrorCode(), ERROR_INVALID_PARAMETER);
    }
}

TEST(Boundary, CloneHandsAFailureToAnotherThread)
{
    // The worker catches a library failure and hands over a clone.
    boost::shared_ptr<const CStdException> failure;
    std::thread worker([&] {
        try
        {
            CEvent missing(EVENT_ALL_ACCESS, FALSE, AbsentEventName().c_str());
        }
        catch (const CStdException& e)
        {
            failure = e.Clone();
        }
    });
    worker.join();
    ASSERT_TRUE(failure);

    // Re-thrown here by its dynamic type.
    try
    {
        failure->Throw();
    }
    catch (const CWinException& e)
    {
        EXPECT_EQ(e.GetFunction(), L"OpenEventW");
        EXPECT_EQ(e.GetErrorCode(), ERROR_FILE_NOT_FOUND);
        EXPECT_NE(static_cast<const CStdException*>(&e), failure.get()); // a copy is thrown
    }
    catch (...)
    {
        ADD_FAILURE() << "the clone was not re-thrown as CWinException";
    }

    // And the other way round: a clone made here, re-thrown and caught on a fresh thread.
    const CWinException local(__LINE__, TAVRIN_WFILE, L"CreateFileW", ERROR_SHARING_VIOLATION);
    boost::shared_ptr<const CStdException> clone = local.Clone();
    long caughtCode = 0;
    std::thread([&] {
        try
        {
            clone->Throw();
        }
        catch (const CWinException& e)
        {
            caughtCode = e.GetErrorCode();
        }
        catch (...)
        {
        }
    }).join();
    EXPECT_EQ(caughtCode, ERROR_SHARING_VIOLATION);
    EXPECT_EQ(clone.use_count(), 1);
}
