// The instance members of CFile: an owned file or device handle whose calls are reported to the
// data log file of the handle's channel.
//
// The source lines recorded by the exceptions of opening, the transfers, CancelIo and
// GetOverlappedResult are fixed numbers rather than __LINE__: applications and support staff
// match them against logged reports, so they must not move when this file is edited.
#include <tavrin/core/file.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include <exception>

namespace tavrin {

namespace {

const unsigned int kLineCreateFile = 118;
const unsigned int kLineReadFile = 205;
const unsigned int kLineWriteFile = 244;
const unsigned int kLineCancelIo = 916;
const unsigned int kLineGetOverlappedResult = 954;

// Characters that cannot be part of a log file's name (and the dot, which would only confuse
// the name's own date part).
const wchar_t kChannelNameForbidden[] = L"/\\:*?\"<>|.";

} // namespace

CFile::CFile() : m_bDeleteOnClose(false)
{
}

CFile::CFile(const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD creation,
             DWORD flagsAndAttributes, HANDLE templateFile, ELoggingMode loggingMode, LPDATAFORMATTER formatter)
    : m_bDeleteOnClose(false)
{
    Open(name, access, share, security, creation, flagsAndAttributes, templateFile, loggingMode, formatter, false);
}

CFile::CFile(DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD flagsAndAttributes, const wchar_t* prefix,
             ustring& name, bool deleteOnClose)
    : m_bDeleteOnClose(false)
{
    ustring folder;
    GetTempPathW(folder);
    // The system picks a unique number and creates the empty file, so no other caller can
    // take the name between choosing and opening it.
    GetTempFileNameW(folder, prefix ? prefix : L"tmp", 0, name);
    try
    {
        Open(name, access, share, security, OPEN_EXISTING, flagsAndAttributes, nullptr, eLoggingModeOff, nullptr,
             deleteOnClose);
    }
    catch (...)
    {
        ::DeleteFileW(OptAddFileNamePrefix(name));
        throw;
    }
}

CFile::~CFile()
{
    try
    {
        Close();
    }
    catch (...)
    {
    }
}

bool CFile::Close()
{
    const HANDLE oldHandle = GetHandle();
    const bool wasOpen = IsCreated();

    // Every step runs even when an earlier one fails; the first failure is passed on at the end.
    std::exception_ptr failure;
    bool closed = false;
    try
    {
        closed = CHandle<-1>::Close();
    }
    catch (...)
    {
        failure = std::current_exception();
    }

    if (m_bDeleteOnClose)
    {
        const ustring name = m_strFileName;
        m_strFileName.clear();
        m_bDeleteOnClose = false;
        try
        {
            DeleteFileW(name);
        }
        catch (...)
        {
            if (!failure)
                failure = std::current_exception();
        }
    }

    if (wasOpen)
    {
        CLogFileProxy proxy(LogChannel(oldHandle));
        if (proxy().IsOK())
        {
            proxy().LogText(false, L"The handle has been closed.");
            proxy().Close();
        }
    }

    if (failure)
        std::rethrow_exception(failure);
    return closed;
}

void CFile::Open(const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security, DWORD creation,
                 DWORD flagsAndAttributes, HANDLE templateFile, ELoggingMode loggingMode, LPDATAFORMATTER formatter,
                 bool deleteOnClose)
{
    if (IsCreated())
        Close();

    const HANDLE handle = ::CreateFileW(OptAddFileNamePrefix(name), access, share, security, creation,
                                       flagsAndAttributes, templateFile);
    if (handle == INVALID_HANDLE_VALUE)
        throw CWinException(kLineCreateFile, TAVRIN_WFILE, L"CreateFileW", static_cast<long>(::GetLastError()));
    Attach(handle);
    m_strFileName = name;
    m_bDeleteOnClose = deleteOnClose;

    if (loggingMode != eLoggingModeOff)
    {
        const unsigned int channel = LogChannel(handle);
        ustring channelName(name);
        channelName.removeForbiddenSymbols(kChannelNameForbidden);
        CLogFileServer::Ref().CreateLogFile(channel, channelName, formatter);
        LogChannelText(channel, false, L"\"%ls\" has been opened.", name ? name : L"");
    }
}

bool CFile::Read(void* buffer, unsigned int size, unsigned int& bytesRead, OVERLAPPED* overlapped)
{
    DWORD count = 0;
    const BOOL ok = ::ReadFile(GetHandle(), buffer, size, &count, overlapped);
    const DWORD error = ok ? ERROR_SUCCESS : ::GetLastError();
    bytesRead = count;
    const unsigned int channel = LogChannel(GetHandle());
    if (ok)
    {
        CLogFileProxy proxy(channel);
        proxy().LogReceivedData(buffer, bytesRead, true);
        return true;
    }
    if (error == ERROR_IO_PENDING)
    {
        CLogFileProxy proxy(channel);
        proxy().LogText(false, L"Pending read request initiated. Buffer size: %u.", size);
        proxy().AddPendingReadOperation(buffer, size, overlapped);
        return false;
    }
    ThrowLoggedWinError(channel, false, kLineReadFile, TAVRIN_WFILE, L"ReadFile", static_cast<long>(error),
                        L"ReadFile(DWORD nNumberOfBytesToRead=%u) failed. GetLastError()=%u.", size, error);
}

bool CFile::Write(const void* data, unsigned int size, unsigned int& bytesWritten, OVERLAPPED* overlapped)
{
    DWORD count = 0;
    const BOOL ok = ::WriteFile(GetHandle(), data, size, &count, overlapped);
    const DWORD error = ok ? ERROR_SUCCESS : ::GetLastError();
    bytesWritten = count;
    const unsigned int channel = LogChannel(GetHandle());
    if (ok)
    {
        CLogFileProxy proxy(channel);
        proxy().LogSentData(data, bytesWritten, true);
        return true;
    }
    if (error == ERROR_IO_PENDING)
    {
        CLogFileProxy proxy(channel);
        proxy().LogText(false, L"Pending write request initiated. Buffer size: %u.", size);
        proxy().AddPendingWriteOperation(data, size, overlapped);
        return false;
    }
    ThrowLoggedWinError(channel, false, kLineWriteFile, TAVRIN_WFILE, L"WriteFile", static_cast<long>(error),
                        L"WriteFile(DWORD nNumberOfBytesToWrite=%u) failed. GetLastError()=%u.", size, error);
}

void CFile::Flush()
{
    if (!::FlushFileBuffers(GetHandle()))
    {
        const DWORD error = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, __LINE__, TAVRIN_WFILE, L"FlushFileBuffers",
                            static_cast<long>(error), L"FlushFileBuffers() failed. GetLastError()=%u.", error);
    }
}

bool CFile::DeviceIoControlLL(DWORD controlCode, const void* inBuffer, unsigned int inSize, void* outBuffer,
                              unsigned int outSize, unsigned int& bytesReturned, OVERLAPPED* overlapped)
{
    DWORD count = 0;
    const BOOL ok = ::DeviceIoControl(GetHandle(), controlCode, const_cast<void*>(inBuffer), inSize, outBuffer,
                                      outSize, &count, overlapped);
    const DWORD error = ok ? ERROR_SUCCESS : ::GetLastError();
    bytesReturned = count;
    const unsigned int channel = LogChannel(GetHandle());
    if (ok)
    {
        LogChannelText(channel, false,
                       L"DeviceIoControl(DWORD dwIoControlCode=0x%X, DWORD nInBufferSize=%u, DWORD nOutBufferSize=%u) "
                       L"succeeded. BytesReturned=%u.",
                       controlCode, inSize, outSize, bytesReturned);
        return true;
    }
    if (error == ERROR_IO_PENDING)
    {
        LogChannelText(channel, false, L"Pending DeviceIoControl request initiated. dwIoControlCode=0x%X.",
                       controlCode);
        return false;
    }
    ThrowLoggedWinError(channel, false, __LINE__, TAVRIN_WFILE, L"DeviceIoControl",
                        static_cast<long>(error),
                        L"DeviceIoControl(DWORD dwIoControlCode=0x%X) failed. GetLastError()=%u.", controlCode,
                        error);
}

bool CFile::DeviceIoControlLL(DWORD controlCode, const void* inBuffer, unsigned int inSize, OVERLAPPED* overlapped)
{
    unsigned int bytesReturned = 0;
    return DeviceIoControlLL(controlCode, inBuffer, inSize, nullptr, 0, bytesReturned, overlapped);
}

unsigned __int64 CFile::GetPosition()
{
    return Seek(0, FILE_CURRENT);
}

unsigned __int64 CFile::Seek(__int64 distance, DWORD method)
{
    LONG high = static_cast<LONG>(distance >> 32);
    // A low part of 0xFFFFFFFF is a valid position too; only the last error tells a failure.
    ::SetLastError(NO_ERROR);
    const DWORD low = ::SetFilePointer(GetHandle(), static_cast<LONG>(distance & 0xFFFFFFFF), &high, method);
    const DWORD error = (low == INVALID_SET_FILE_POINTER) ? ::GetLastError() : NO_ERROR;
    if (error != NO_ERROR)
    {
        ThrowLoggedWinError(LogChannel(GetHandle()), false, __LINE__, TAVRIN_WFILE, L"SetFilePointer",
                            static_cast<long>(error),
                            L"SetFilePointer(LONGLONG liDistanceToMove=%I64d, DWORD dwMoveMethod=%u) failed. "
                            L"GetLastError()=%u.",
                            distance, method, error);
    }
    return (static_cast<unsigned __int64>(static_cast<DWORD>(high)) << 32) | low;
}

unsigned __int64 CFile::GetLength()
{
    DWORD high = 0;
    ::SetLastError(NO_ERROR);
    const DWORD low = ::GetFileSize(GetHandle(), &high);
    const DWORD error = (low == INVALID_FILE_SIZE) ? ::GetLastError() : NO_ERROR;
    if (error != NO_ERROR)
    {
        ThrowLoggedWinError(LogChannel(GetHandle()), false, __LINE__, TAVRIN_WFILE, L"GetFileSize",
                            static_cast<long>(error), L"GetFileSize() failed. GetLastError()=%u.", error);
    }
    return (static_cast<unsigned __int64>(high) << 32) | low;
}

void CFile::SetLength(unsigned __int64 length)
{
    Seek(static_cast<__int64>(length), FILE_BEGIN);
    if (!::SetEndOfFile(GetHandle()))
    {
        const DWORD error = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, __LINE__, TAVRIN_WFILE, L"SetEndOfFile",
                            static_cast<long>(error),
                            L"SetEndOfFile(ULONGLONG Length=%I64u) failed. GetLastError()=%u.", length, error);
    }
}

void CFile::CancelIo()
{
    const unsigned int channel = LogChannel(GetHandle());
    if (!::CancelIo(GetHandle()))
    {
        const DWORD error = ::GetLastError();
        ThrowLoggedWinError(channel, false, kLineCancelIo, TAVRIN_WFILE, L"CancelIo", static_cast<long>(error),
                            L"CancelIo() failed. GetLastError()=%u.", error);
    }
    LogChannelText(channel, false, L"CancelIo succeeded.");
}

bool CFile::GetOverlappedResult(OVERLAPPED* overlapped, unsigned int& bytes, bool wait)
{
    DWORD count = 0;
    const BOOL ok = ::GetOverlappedResult(GetHandle(), overlapped, &count, wait ? TRUE : FALSE);
    const DWORD error = ok ? ERROR_SUCCESS : ::GetLastError();
    bytes = count;
    const unsigned int channel = LogChannel(GetHandle());
    if (ok)
    {
        CLogFileProxy proxy(channel);
        proxy().CommitPendingOperation(overlapped, bytes);
        return true;
    }
    // Only ERROR_IO_PENDING means "still running" here. ERROR_IO_INCOMPLETE, which a transfer
    // still in progress reports when not waited for, is thrown like any other error: callers
    // that poll without waiting rely on that distinction.
    if (error == ERROR_IO_PENDING)
    {
        LogChannelText(channel, false, L"GetOverlappedResult() failed. GetLastError()=%u, bWait=%ls.", error,
                       wait ? L"TRUE" : L"FALSE");
        return false;
    }
    // Any other error but ERROR_IO_INCOMPLETE ends the operation (ERROR_OPERATION_ABORTED after
    // CancelIo, a device that went away): its pending record goes, leaving a record of the bytes
    // that it moved before it ended.
    if (error != ERROR_IO_INCOMPLETE)
    {
        CLogFileProxy proxy(channel);
        proxy().AbortPendingOperation(overlapped, bytes);
    }
    ThrowLoggedWinError(channel, false, kLineGetOverlappedResult, TAVRIN_WFILE, L"GetOverlappedResult",
                        static_cast<long>(error), L"GetOverlappedResult() failed. GetLastError()=%u, bWait=%ls.",
                        error, wait ? L"TRUE" : L"FALSE");
}

} // namespace tavrin
