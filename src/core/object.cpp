// Handles and synchronization objects.
#include <tavrin/core/object.h>

#include <cstring>

namespace tavrin {

namespace {

[[noreturn]] void ThrowLastError(unsigned int line, const wchar_t* function)
{
    throw CWinException(line, TAVRIN_WFILE, function, static_cast<long>(::GetLastError()));
}

[[noreturn]] void ThrowLastWSAError(unsigned int line, const wchar_t* function)
{
    throw CWinException(line, TAVRIN_WFILE, function, static_cast<long>(::WSAGetLastError()));
}

} // namespace

void detail::CloseKernelHandle(HANDLE handle)
{
    if (!::CloseHandle(handle))
        ThrowLastError(__LINE__, L"CloseHandle");
}

// ------------------------------------------------------------------------------------------------
// CCriticalSection

CCriticalSection::CCriticalSection()
{
    ::InitializeCriticalSection(&m_cs);
}

CCriticalSection::CCriticalSection(unsigned long spinCount)
{
    ::InitializeCriticalSectionAndSpinCount(&m_cs, spinCount);
}

CCriticalSection::~CCriticalSection()
{
    ::DeleteCriticalSection(&m_cs);
}

bool CCriticalSection::Lock(bool wait)
{
    if (wait)
    {
        ::EnterCriticalSection(&m_cs);
        return true;
    }
    return ::TryEnterCriticalSection(&m_cs) != FALSE;
}

void CCriticalSection::Unlock()
{
    ::LeaveCriticalSection(&m_cs);
}

// ------------------------------------------------------------------------------------------------
// CMutex

CMutex::CMutex() : CMutex(nullptr, FALSE, nullptr) {}

CMutex::CMutex(SECURITY_ATTRIBUTES* attributes, BOOL initialOwner, const wchar_t* name)
{
    HANDLE handle = ::CreateMutexW(attributes, initialOwner, name);
    if (handle == nullptr)
        ThrowLastError(__LINE__, L"CreateMutexW");
    Attach(handle);
}

CMutex::CMutex(SECURITY_ATTRIBUTES* attributes, BOOL initialOwner, const wchar_t* name,
               bool& alreadyExisted)
{
    HANDLE handle = ::CreateMutexW(attributes, initialOwner, name);
    if (handle == nullptr)
        ThrowLastError(__LINE__, L"CreateMutexW");
    alreadyExisted = ::GetLastError() == ERROR_ALREADY_EXISTS;
    Attach(handle);
}

CMutex::~CMutex() = default;

bool CMutex::Lock(unsigned long timeoutMs)
{
    switch (::WaitForSingleObject(GetHandle(), timeoutMs))
    {
    case WAIT_OBJECT_0:
    case WAIT_ABANDONED:
        return true;
    case WAIT_TIMEOUT:
        return false;
    default:
        ThrowLastError(__LINE__, L"WaitForSingleObject");
    }
}

void CMutex::Unlock()
{
    if (!::ReleaseMutex(GetHandle()))
        ThrowLastError(__LINE__, L"ReleaseMutex");
}

// ------------------------------------------------------------------------------------------------
// CEvent

CEvent::CEvent() : CEvent(nullptr, FALSE, FALSE, nullptr) {}

CEvent::CEvent(unsigned long access, BOOL inherit, const wchar_t* name)
{
    HANDLE handle = ::OpenEventW(access, inherit, name);
    if (handle == nullptr)
        ThrowLastError(__LINE__, L"OpenEventW");
    Attach(handle);
}

CEvent::CEvent(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
               const wchar_t* name)
{
    HANDLE handle = ::CreateEventW(attributes, manualReset, initialState, name);
    if (handle == nullptr)
        ThrowLastError(__LINE__, L"CreateEventW");
    Attach(handle);
}

CEvent::~CEvent() = default;

void CEvent::Set()
{
    if (!::SetEvent(GetHandle()))
        ThrowLastError(__LINE__, L"SetEvent");
}

void CEvent::Reset()
{
    if (!::ResetEvent(GetHandle()))
        ThrowLastError(__LINE__, L"ResetEvent");
}

// ------------------------------------------------------------------------------------------------
// CWSAEvent

CWSAEvent::CWSAEvent()
{
    WSAEVENT handle = ::WSACreateEvent();
    if (handle == WSA_INVALID_EVENT)
        ThrowLastWSAError(__LINE__, L"WSACreateEvent");
    Attach(handle);
}

CWSAEvent::~CWSAEvent()
{
    // CHandle's destructor would close with CloseHandle; the Winsock event is closed here first.
    try
    {
        Close();
    }
    catch (...)
    {
    }
}

void CWSAEvent::Set()
{
    if (!::WSASetEvent(GetHandle()))
        ThrowLastError(__LINE__, L"SetEvent");
}

void CWSAEvent::Reset()
{
    if (!::WSAResetEvent(GetHandle()))
        ThrowLastError(__LINE__, L"ResetEvent");
}

bool CWSAEvent::Close()
{
    if (!IsCreated())
        return false;
    if (!::WSACloseEvent(GetHandle()))
        ThrowLastWSAError(__LINE__, L"WSACloseEvent");
    Detach();
    return true;
}

// ------------------------------------------------------------------------------------------------
// COverlapped, CWSAOverlapped

COverlapped::COverlapped() : COverlapped(nullptr, FALSE, FALSE, nullptr) {}

COverlapped::COverlapped(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                         const wchar_t* name)
    : OVERLAPPED(), m_Event(attributes, manualReset, initialState, name)
{
    std::memset(static_cast<OVERLAPPED*>(this), 0, sizeof(OVERLAPPED));
    hEvent = m_Event.GetHandle();
}

COverlapped::~COverlapped() = default;

void COverlapped::SetEvent()
{
    m_Event.Set();
}

void COverlapped::ResetEvent()
{
    m_Event.Reset();
}

CWSAOverlapped::CWSAOverlapped() : WSAOVERLAPPED(), m_Event()
{
    std::memset(static_cast<WSAOVERLAPPED*>(this), 0, sizeof(WSAOVERLAPPED));
    hEvent = m_Event.GetHandle();
}

CWSAOverlapped::~CWSAOverlapped() = default;

void CWSAOverlapped::SetEvent()
{
    m_Event.Set();
}

void CWSAOverlapped::ResetEvent()
{
    m_Event.Reset();
}

// ------------------------------------------------------------------------------------------------
// CServiceHandle

CServiceHandle::CServiceHandle(SC_HANDLE handle) : CAHandle<SC_HANDLE, 0>(handle) {}

CServiceHandle::~CServiceHandle()
{
    try
    {
        Close();
    }
    catch (...)
    {
    }
}

bool CServiceHandle::Close()
{
    if (!IsCreated())
        return false;
    if (!::CloseServiceHandle(Detach()))
        ThrowLastError(__LINE__, L"CloseServiceHandle");
    return true;
}

} // namespace tavrin
