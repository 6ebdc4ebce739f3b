// Owned operating-system handles and the synchronization objects built on them.
//
// Each wrapper acquires its object in its constructor and releases it in its destructor; a
// wrapper that exists holds a valid handle. Failing system calls are thrown as CWinException
// naming the Windows function, with GetLastError (WSAGetLastError for the Winsock calls).
//
//     CCriticalSection cs;
//     {
//         CLocker<CCriticalSection> lock(&cs);   // released at the end of the scope
//         ...
//     }
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/exception.h>

#include <cstdint>
#include <cstdlib>
#include <type_traits>

namespace tavrin {

namespace detail {

// Closes a kernel handle; throws CWinException("CloseHandle", GetLastError()) when that fails.
TAVRIN_API void CloseKernelHandle(HANDLE handle);

// The handle value that stands for "no handle" for a handle type.
template <class T>
inline T HandleFromValue(std::intptr_t value)
{
    if constexpr (std::is_pointer<T>::value)
        return reinterpret_cast<T>(value);
    else
        return static_cast<T>(value);
}

} // namespace detail

// Polymorphic owner of one handle of type T whose "no handle" value is `invalid`.
// Not copyable: exactly one owner closes a handle.
template <class T, std::intptr_t invalid>
class CAHandle
{
public:
    explicit CAHandle(T handle = detail::HandleFromValue<T>(invalid))
        : m_hInvalid(detail::HandleFromValue<T>(invalid)), m_hHandle(handle)
    {
    }
    CAHandle(const CAHandle&) = delete;
    CAHandle& operator=(const CAHandle&) = delete;
    virtual ~CAHandle() {}

    virtual operator T() const { return m_hHandle; }
    // Takes ownership of `handle`; refuses (false, nothing changed) while a handle is held.
    virtual bool Attach(T handle)
    {
        if (IsCreated())
            return false;
        m_hHandle = handle;
        return true;
    }
    // Gives up ownership: returns the handle and holds nothing.
    virtual T Detach()
    {
        T handle = m_hHandle;
        m_hHandle = m_hInvalid;
        return handle;
    }
    virtual bool IsCreated() const { return m_hHandle != m_hInvalid; }
    // Releases the handle: true when one was released, false when nothing was held.
    virtual bool Close() = 0;
    virtual T GetHandle() const { return m_hHandle; }

protected:
    T m_hInvalid;
    T m_hHandle;
};

template <class T, std::intptr_t invalid>
bool CAHandle<T, invalid>::Close()
{
    return false;
}

// Owner of a kernel HANDLE. CHandle<0> for handles where null means none, CHandle<-1> for those
// where INVALID_HANDLE_VALUE does (files, for example).
template <std::intptr_t invalid>
class CHandle : public CAHandle<HANDLE, invalid>
{
public:
    explicit CHandle(HANDLE handle = detail::HandleFromValue<HANDLE>(invalid))
        : CAHandle<HANDLE, invalid>(handle)
    {
    }
    ~CHandle() override
    {
        try
        {
            Close();
        }
        catch (...)
        {
        }
    }

    // CloseHandle. The handle is forgotten whatever the result, so a failing close throws
    // CWinException("CloseHandle") but is never retried.
    bool Close() override
    {
        if (!this->IsCreated())
            return false;
        detail::CloseKernelHandle(this->Detach());
        return true;
    }
};

// In-process lock. Recursive for the owning thread, like every Windows critical section.
class TAVRIN_API CCriticalSection
{
public:
    CCriticalSection();
    // A contended Lock spins that many times before it waits: for locks that several threads
    // take for a few hundred nanoseconds each, where waiting in the kernel costs far more.
    explicit CCriticalSection(unsigned long spinCount);
    CCriticalSection(const CCriticalSection&) = delete;
    CCriticalSection& operator=(const CCriticalSection&) = delete;
    virtual ~CCriticalSection();

    // wait true: enters, blocking, and returns true; false: tries once and tells whether it
    // entered.
    bool Lock(bool wait = true);
    void Unlock();

protected:
    CRITICAL_SECTION m_cs;
};

// Kernel mutex, unnamed or named (shared across processes).
class TAVRIN_API CMutex : public CHandle<0>
{
public:
    // Unnamed, not owned, default security.
    CMutex();
    CMutex(SECURITY_ATTRIBUTES* attributes, BOOL initialOwner, const wchar_t* name);
    // As above; `alreadyExisted` tells whether the named mutex existed before (ERROR_ALREADY_EXISTS).
    CMutex(SECURITY_ATTRIBUTES* attributes, BOOL initialOwner, const wchar_t* name,
           bool& alreadyExisted);
    ~CMutex() override;

    // true when acquired, including an abandoned mutex (its holder died: the state it guards is
    // taken as it is); false on time-out; anything else throws ("WaitForSingleObject").
    bool Lock(unsigned long timeoutMs = INFINITE);
    // ReleaseMutex; throws when this thread does not own the mutex.
    void Unlock();
};

// Kernel event.
class TAVRIN_API CEvent : public CHandle<0>
{
public:
    // Unnamed, auto-reset, non-signalled.
    CEvent();
    // Opens an existing named event (OpenEventW); throws ERROR_FILE_NOT_FOUND when there is none.
    CEvent(unsigned long access, BOOL inherit, const wchar_t* name);
    // Creates (or opens, when the name exists) an event (CreateEventW).
    CEvent(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
           const wchar_t* name);
    ~CEvent() override;

    void Set();
    void Reset();
};

// Winsock event (WSACreateEvent); needs Winsock to be initialised (WSAStartup).
class TAVRIN_API CWSAEvent : public CHandle<0>
{
public:
    CWSAEvent();
    ~CWSAEvent() override;

    void Set();
    void Reset();
    // WSACloseEvent. Unlike CHandle, a failing close keeps the handle.
    bool Close() override;
};

// OVERLAPPED record whose event is its own member event.
class TAVRIN_API COverlapped : public OVERLAPPED
{
public:
    // All zero: unnamed, auto-reset, non-signalled.
    COverlapped();
    COverlapped(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                const wchar_t* name);
    COverlapped(const COverlapped&) = delete;
    COverlapped& operator=(const COverlapped&) = delete;
    virtual ~COverlapped();

    void SetEvent();
    void ResetEvent();
    CEvent& GetEvent() { return m_Event; }
    const CEvent& GetEvent() const { return m_Event; }

protected:
    CEvent m_Event;
};

// WSAOVERLAPPED record whose event is its own member Winsock event.
class TAVRIN_API CWSAOverlapped : public WSAOVERLAPPED
{
public:
    CWSAOverlapped();
    CWSAOverlapped(const CWSAOverlapped&) = delete;
    CWSAOverlapped& operator=(const CWSAOverlapped&) = delete;
    virtual ~CWSAOverlapped();

    void SetEvent();
    void ResetEvent();
    CWSAEvent& GetEvent() { return m_Event; }
    const CWSAEvent& GetEvent() const { return m_Event; }

protected:
    CWSAEvent m_Event;
};

// Service-control-manager or service handle.
class TAVRIN_API CServiceHandle : public CAHandle<SC_HANDLE, 0>
{
public:
    explicit CServiceHandle(SC_HANDLE handle = nullptr);
    ~CServiceHandle() override;

    // CloseServiceHandle. The handle is forgotten whatever the result; a failure throws.
    bool Close() override;
};

namespace detail {

inline bool LockerAcquire(CCriticalSection& cs)
{
    return cs.Lock(true);
}
inline bool LockerAcquire(CMutex& mutex)
{
    return mutex.Lock(INFINITE);
}

template <class T>
struct LockerName;
template <>
struct LockerName<CCriticalSection>
{
    static const wchar_t* Get() { return L"tavrin::CLocker<class tavrin::CCriticalSection>::CLocker"; }
};
template <>
struct LockerName<CMutex>
{
    static const wchar_t* Get() { return L"tavrin::CLocker<class tavrin::CMutex>::CLocker"; }
};

} // namespace detail

// Holds a CCriticalSection or CMutex locked for its own lifetime. A mutex is waited for without
// a time-out. A lock that cannot be taken throws CWinException with code ERROR_ACCESS_DENIED
// (a null object: ERROR_INVALID_PARAMETER).
template <class T>
class CLocker
{
public:
    explicit CLocker(T* object) : m_pObject(object)
    {
        if (m_pObject == nullptr)
            throw CWinException(__LINE__, TAVRIN_WFILE, detail::LockerName<T>::Get(),
                                ERROR_INVALID_PARAMETER);
        if (!detail::LockerAcquire(*m_pObject))
            throw CWinException(__LINE__, TAVRIN_WFILE, detail::LockerName<T>::Get(),
                                ERROR_ACCESS_DENIED);
    }
    CLocker(const CLocker&) = delete;
    CLocker& operator=(const CLocker&) = delete;
    virtual ~CLocker()
    {
        try
        {
            m_pObject->Unlock();
        }
        catch (...)
        {
        }
    }

protected:
    T* m_pObject;
};

// Base of classes whose members lock themselves through CLocker<T> on SyncObject().
template <class T>
class CMultiThreadObject
{
public:
    CMultiThreadObject() = default;
    CMultiThreadObject(const CMultiThreadObject&) = delete;
    CMultiThreadObject& operator=(const CMultiThreadObject&) = delete;
    virtual ~CMultiThreadObject() {}

    T& SyncObject() const { return m_SyncObject; }

protected:
    mutable T m_SyncObject;
};

// Process-wide single instance of T, created on first use by Ref(), destroyed at process exit,
// and created again when used after that (from another object's exit-time destruction, for
// example). T needs a default constructor.
//
// The instance belongs to the module whose code instantiates Ref(). A singleton that the
// library and its callers must share is reached through an exported function of the library,
// never by instantiating Ref() on both sides of the DLL boundary.
template <class T>
class CPhoenixSingleton
{
public:
    static T& Ref()
    {
        T* instance = m_ptr;
        if (instance != nullptr)
            return *instance;
        return MakeInstance();
    }

protected:
    static T& MakeInstance()
    {
        static CMutex mtx;
        CLocker<CMutex> lock(&mtx);
        if (m_ptr == nullptr)
        {
            T* instance = new T();
            // Publish only the fully built object to the lock-free readers of Ref().
            ::InterlockedExchangePointer(reinterpret_cast<void* volatile*>(&m_ptr), instance);
            std::atexit(&CPhoenixSingleton::KillPhoenixSingleton);
        }
        return *m_ptr;
    }

    static void KillPhoenixSingleton()
    {
        T* instance = m_ptr;
        m_ptr = nullptr;
        delete instance;
    }

    static T* volatile m_ptr;
};

template <class T>
T* volatile CPhoenixSingleton<T>::m_ptr = nullptr;

} // namespace tavrin
