// CCommPort: a serial (COM) port whose every call is recorded in the data log file of its
// channel, and the discovery of the ports that the system publishes.
//
// A port is a CFile opened on a device name; reading, writing, overlapped I/O, CancelIo and
// closing are CFile's. Each communications member below calls the Windows function of the same
// name on the port's handle, logs one line to the channel's data log file (the handle value,
// see LogChannel) whether it succeeded or failed, and throws CWinException (the Windows
// function's name, the error code) when it failed. The port stays open after any failure.
//
//     CLogFileServer::Ref().SetDetail(eLogFileDetailVerbose);
//     CCommPort port;
//     port.Open(L"\\\\.\\COM3", 0);              // logged: "\\.\COM3" has been opened.
//     DCB dcb = {sizeof(dcb)};
//     port.GetCommState(dcb);
//     dcb.BaudRate = 115200;
//     port.SetCommState(dcb);                     // logged with the whole DCB
//     COMMTIMEOUTS timeouts = {0, 0, 500, 0, 500};
//     port.SetCommTimeouts(timeouts);             // no read or write waits longer than 500 ms
//     unsigned int got = 0;
//     port.Read(buffer, sizeof(buffer), got);     // logged as a SYNC READ record
//
// Names: COM1 to COM9 open by their bare names as well, COM10 and above only in the device form
// "\\.\COM10"; EnumCommPorts hands out that form.
//
// What a caller sees when the peer or the device disappears
// ---------------------------------------------------------
// Nothing in this class waits by itself: every wait is bounded by the timeouts the caller set,
// or by the caller's own wait on an overlapped operation. (Wine's behaviour below was measured
// on a pseudo-terminal whose other side was killed.)
// - Synchronous reads wait as the port's COMMTIMEOUTS say. A read that runs out of time returns
//   true with fewer bytes than asked for, 0 when nothing came, and is logged as a SYNC READ
//   record of that size. A peer that is gone does not cut that wait short under Wine: every
//   read runs to its timeout and returns 0 bytes. With all timeouts 0 (what Wine and many
//   drivers start with) a synchronous read waits for data for ever, even after the peer is
//   gone: set timeouts, or use overlapped I/O, whenever the peer may go silent.
// - The other calls fail and throw CWinException with the system's code after logging their
//   failure lines; the code depends on the driver (Windows' USB serial drivers typically report
//   ERROR_BAD_COMMAND (22) or ERROR_GEN_FAILURE (31) once the adapter is unplugged; Wine reports
//   ERROR_NOT_READY (21) for writes and for every communications function).
// - A pending overlapped read or write ends when the peer goes (under Wine within milliseconds:
//   reads with ERROR_BROKEN_PIPE (109), writes with ERROR_NOT_READY (21)): its event is
//   signalled and GetOverlappedResult throws the error. GetOverlappedResult then ends the
//   operation's pending record in the log file: bytes that it moved before the failure (part of
//   a long write, say) are logged as an ASYNC record of that size, and an operation that moved
//   none, like any event wait, is dropped without a record. Later overlapped reads fail the same
//   way at once. Under Wine an overlapped read that runs out of its timeouts ends like this
//   too, with ERROR_TIMEOUT (1460), where Windows completes it with the bytes that came.
// - CancelIo cancels the pending operations that the calling thread issued on the port. Each
//   of them still completes: with its result if it finished first (logged as usual), otherwise
//   with ERROR_OPERATION_ABORTED (995), which GetOverlappedResult throws and whose pending
//   record is dropped as above. Wait for each cancelled operation (GetOverlappedResult with
//   `wait` true, or its event) before its buffer or OVERLAPPED goes away.
// - A pending WaitCommEvent (see there) ends the same way. On a pseudo-terminal under Wine every
//   pending wait ends at once with 995 and a zero mask, because Wine watches modem lines that a
//   pseudo-terminal lacks.
// - Close never waits for the peer: it closes the handle, logs "The handle has been closed."
//   and closes the log file, which drops every pending record still registered. Cancel and
//   complete pending operations first so that none completes into freed memory.
// - Opening again: a device whose peer is gone may fail to open, or open and then fail every
//   call (Wine opens a published port whose pseudo-terminal has disappeared onto its own device
//   object, and every communications call fails with ERROR_INVALID_FUNCTION (1)); under Wine an
//   open of a port whose peer has just gone can also block. Close a port before its peer goes
//   away where both ends are under your control.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/file.h>
#include <tavrin/core/ustring.h>
#include <tavrin/log/logcall.h>

#include <vector>

namespace tavrin {

class TAVRIN_API CCommPort : public CFile
{
public:
    // One serial port that the system publishes.
    struct COMM_PORT_INFO
    {
        ustring strName;         // "COM3", as the system names the port
        ustring strPath;         // "\\.\COM3", the name to open it by
        ustring strDevice;       // the system's device behind it ("\Device\Serial2"); empty when unknown
        ustring strFriendlyName; // "USB Serial Port (COM3)"; empty when the system has none
    };

    // An unopened port.
    CCommPort();
    // Opens `name` at once, for reading and writing, unshared, OPEN_EXISTING, with the caller's
    // flags and attributes (e.g. FILE_FLAG_OVERLAPPED). Creates no data log file: the calls are
    // logged only when the application gives the channel one itself
    // (CLogFileServer::CreateLogFile(LogChannel(port.GetHandle()), ...)). Throws like CFile::Open.
    CCommPort(const wchar_t* name, DWORD flagsAndAttributes);
    // Closes the port (CFile's destructor); never throws.
    ~CCommPort() override;

    // CFile's own opening stays available.
    using CFile::Open;
    // Opens `name` like the opening constructor, but creates the channel's data log file (named
    // after `name`) and logs the open to it. A port already open is closed first. Throws like
    // CFile::Open ("CreateFileW").
    virtual void Open(const wchar_t* name, DWORD flagsAndAttributes);

    // ---------------------------------------------------------------- communications functions
    // Each throws CWinException named after the Windows function when that fails.
    void SetupComm(DWORD inQueue, DWORD outQueue);
    void PurgeComm(DWORD flags);
    // SETXOFF, SETXON, SETRTS, CLRRTS, SETDTR, CLRDTR, SETBREAK, CLRBREAK. A break is set here
    // (SETBREAK); there is ClearCommBreak but no SetCommBreak.
    void EscapeCommFunction(DWORD func);
    // The errors (CE_*) and status since the last call; both are logged decoded, the line marked
    // "[!]" when there were errors.
    void ClearCommError(DWORD& errors, COMSTAT& stat);
    void ClearCommBreak();
    // MS_CTS_ON, MS_DSR_ON, MS_RING_ON, MS_RLSD_ON.
    void GetCommModemStatus(DWORD& modemStat) const;
    void GetCommProperties(COMMPROP& prop) const;
    void GetCommState(DCB& dcb) const;
    // The whole DCB is logged, on failure too.
    void SetCommState(const DCB& dcb);
    void GetCommMask(DWORD& evtMask);
    void SetCommMask(DWORD evtMask);
    void SetCommTimeouts(const COMMTIMEOUTS& timeouts);
    void GetCommTimeouts(COMMTIMEOUTS& timeouts);
    // Sends `c` ahead of the output queue. The character is logged sign-extended: 0xFF shows as
    // 4294967295.
    void TransmitCommChar(char c);
    // Waits for one of the events of SetCommMask. True when an event has happened (`evtMask`
    // says which). On a port opened with FILE_FLAG_OVERLAPPED and a non-null `overlapped` the
    // wait may continue in the background: false, logged as "Pending WaitCommEvent initiated."
    // and registered with the log file, which logs the mask (with detail Verbose) when
    // GetOverlappedResult completes the wait. `evtMask` and `overlapped` must then stay valid
    // until the wait has completed. (Wine 8 in its WoW64 mode, which runs 32-bit programs on
    // wine64, crashes the program in any WaitCommEvent on a serial port.)
    bool WaitCommEvent(DWORD& evtMask, OVERLAPPED* overlapped);

    // ---------------------------------------------------------------- discovery
    // The serial ports that the system publishes: the device map
    // HKLM\HARDWARE\DEVICEMAP\SERIALCOMM and the DOS devices named COM<number>
    // (QueryDosDeviceW), each port once, ordered by their numbers (COM9 before COM10;
    // LessStrWN), with the friendly names of the system's Ports device class where it has them.
    // No port is opened to find out whether it is really there. Under Wine, the ports defined
    // under HKLM\Software\Wine\Ports (as winecfg does) are published when Wine's device
    // manager starts; a bare dosdevices\comN link opens, but is not published. An unreadable
    // device map counts as empty; throws CWinException("QueryDosDeviceW") when the system
    // refuses to list its DOS devices.
    static std::vector<COMM_PORT_INFO> EnumCommPorts();

private:
    // "{CE_BREAK|CE_OVERRUN}": the set error bits in table order, "{}" for none.
    static ustring CE_ERRORS(DWORD errors);
    // "EV_RXCHAR|EV_TXEMPTY|EV_RING": the set event bits in table order, empty for none. The
    // log file describes completed event waits with the same text (CommEventMaskText).
    static ustring EvtMask2String(DWORD mask);
    // "CTS[x], DSR[x], RING[_], RLSD[_]": all four lines, always.
    static ustring ModemStatus2String(DWORD status);
    // Multi-line dumps: a line break, "{", one "  Field = value;" line per field, "}".
    static ustring DCB2MultiString(const DCB& dcb);
    static ustring COMMTIMEOUTS2MultiString(const COMMTIMEOUTS& timeouts);
    static ustring COMSTAT2MultiString(const COMSTAT& stat);
    static ustring COMMPROP2MultiString(const COMMPROP& prop);
};

} // namespace tavrin
