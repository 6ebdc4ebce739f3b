// Logging of wrapped system calls to a channel's data log file.
//
// Classes that wrap Windows calls on a handle or socket (files, serial ports, sockets) report
// each call to the data log file of their channel: a success text, or a failure text followed
// by a CWinException. These helpers give that pattern one shape:
//
//     if (!::PurgeComm(GetHandle(), flags))
//     {
//         const DWORD err = ::GetLastError(); // read before anything else can change it
//         ThrowLoggedWinError(LogChannel(GetHandle()), false, 71, TAVRIN_WFILE, L"PurgeComm", err,
//                             L"PurgeComm(DWORD dwFlags=0x%X) failed. GetLastError()=%u.", flags, err);
//     }
//     LogChannelText(LogChannel(GetHandle()), false, L"PurgeComm(DWORD dwFlags=0x%X) succeeded.", flags);
//
// A channel without a log file (or whose detail level filters the text) costs a lookup and no
// formatting. Logging never throws; only ThrowLoggedWinError throws, and only its
// CWinException.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/ustring.h>

#include <cstdarg>

namespace tavrin {

// The channel number of a handle or socket: its value, as an unsigned 32-bit number. Kernel
// handle and socket values fit in 32 bits on 64-bit Windows as well.
inline unsigned int LogChannel(HANDLE handle)
{
    return static_cast<unsigned int>(reinterpret_cast<UINT_PTR>(handle));
}
inline unsigned int LogChannel(SOCKET socket)
{
    return static_cast<unsigned int>(socket);
}

// Queues a printf-style text event on the channel's data log file (CLogFileProxy and
// CLogFile::LogTextV). Never throws.
TAVRIN_API void LogChannelText(unsigned int channel, bool important, const wchar_t* format, ...);
TAVRIN_API void LogChannelTextV(unsigned int channel, bool important, const wchar_t* format, va_list args);

// Logs the printf-style failure text to the channel, then throws
// CWinException(line, file, function, error). `error` must have been read right after the
// failing call, before the text's arguments were built.
[[noreturn]] TAVRIN_API void ThrowLoggedWinError(unsigned int channel, bool important, unsigned int line,
                                                 const wchar_t* file, const wchar_t* function, long error,
                                                 const wchar_t* format, ...);

// Names of the serial-port event bits (EV_RXCHAR ... EV_EVENT2) set in `mask`, in the order of
// their values, joined by "|"; unknown bits are ignored and 0 gives the empty text. A completed
// event wait is logged with this text, and the serial port (CCommPort, beside whose tables it
// lives) describes its masks with it.
TAVRIN_API ustring CommEventMaskText(unsigned long mask);

} // namespace tavrin
