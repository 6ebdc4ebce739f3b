// CCommPort: the wrapped communications functions, their texts and the formatters behind them.
//
// The source lines recorded by the exceptions are fixed numbers rather than __LINE__:
// applications and support staff match them against logged reports, so they must not move when
// this file is edited.
#include <tavrin/comm/commport.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include <cstddef>
#include <cstring>

namespace tavrin {

namespace {

const unsigned int kLineSetupComm = 48;
const unsigned int kLinePurgeComm = 71;
const unsigned int kLineEscapeCommFunction = 93;
const unsigned int kLineClearCommError = 116;
const unsigned int kLineClearCommBreak = 138;
const unsigned int kLineGetCommModemStatus = 161;
const unsigned int kLineGetCommProperties = 183;
const unsigned int kLineGetCommState = 205;
const unsigned int kLineSetCommState = 230;
const unsigned int kLineGetCommMask = 252;
const unsigned int kLineSetCommMask = 274;
const unsigned int kLineSetCommTimeouts = 300;
const unsigned int kLineGetCommTimeouts = 328;
const unsigned int kLineTransmitCommChar = 350;
const unsigned int kLineWaitCommEvent = 387;

// A port is always opened for both directions, unshared, and must already exist.
const DWORD kPortAccess = GENERIC_READ | GENERIC_WRITE;
const DWORD kPortShare = 0;
const DWORD kPortCreation = OPEN_EXISTING;

struct MaskName
{
    DWORD nMask;
    const wchar_t* pszName;
};

// The tables keep the order in which the names are shown, which is not the order of the bits.
const MaskName kCommErrors[] = {
    {CE_BREAK, L"CE_BREAK"},   {CE_FRAME, L"CE_FRAME"},       {CE_OVERRUN, L"CE_OVERRUN"},
    {CE_RXOVER, L"CE_RXOVER"}, {CE_RXPARITY, L"CE_RXPARITY"},
};
const MaskName kEventMask[] = {
    {EV_RXCHAR, L"EV_RXCHAR"}, {EV_RXFLAG, L"EV_RXFLAG"}, {EV_TXEMPTY, L"EV_TXEMPTY"},   {EV_CTS, L"EV_CTS"},
    {EV_DSR, L"EV_DSR"},       {EV_RLSD, L"EV_RLSD"},     {EV_BREAK, L"EV_BREAK"},       {EV_ERR, L"EV_ERR"},
    {EV_RING, L"EV_RING"},     {EV_PERR, L"EV_PERR"},     {EV_RX80FULL, L"EV_RX80FULL"}, {EV_EVENT1, L"EV_EVENT1"},
    {EV_EVENT2, L"EV_EVENT2"},
};
const MaskName kModemStatus[] = {
    {MS_CTS_ON, L"CTS"},
    {MS_DSR_ON, L"DSR"},
    {MS_RING_ON, L"RING"},
    {MS_RLSD_ON, L"RLSD"},
};

// Walks a table in its order. `marks` false: the names of the set bits joined by "|".
// `marks` true: every name, joined by ", ", each followed by "[x]" (set) or "[_]" (clear).
template <std::size_t N> ustring DescribeBits(const MaskName (&table)[N], DWORD value, bool marks)
{
    ustring text;
    for (const MaskName& entry : table)
    {
        const bool set = (value & entry.nMask) != 0;
        if (!set && !marks)
            continue;
        if (!text.empty())
            text += marks ? L", " : L"|";
        text += entry.pszName;
        if (marks)
            text += set ? L"[x]" : L"[_]";
    }
    return text;
}

// The flag word of a DCB or COMSTAT: its bit fields read as one 32-bit value, so that each flag
// is taken from the bit position the structure's layout gives it.
static_assert(offsetof(DCB, wReserved) == offsetof(DCB, BaudRate) + 2 * sizeof(DWORD),
              "the DCB's flag word follows BaudRate");
static_assert(offsetof(COMSTAT, cbInQue) == sizeof(DWORD), "the COMSTAT's flag word comes first");

DWORD FlagWord(const void* structure, std::size_t offset)
{
    DWORD word = 0;
    std::memcpy(&word, static_cast<const unsigned char*>(structure) + offset, sizeof(word));
    return word;
}

unsigned int Bits(DWORD word, unsigned int first, unsigned int count)
{
    return static_cast<unsigned int>((word >> first) & ((1u << count) - 1u));
}

// A DCB character as the unsigned number of its byte (the C runtime's wide printf knows no
// byte-sized conversion).
unsigned int CharCode(char c)
{
    return static_cast<unsigned char>(c);
}

} // namespace

// ---------------------------------------------------------------- construction and opening

CCommPort::CCommPort() {}

CCommPort::CCommPort(const wchar_t* name, DWORD flagsAndAttributes)
    : CFile(name, kPortAccess, kPortShare, nullptr, kPortCreation, flagsAndAttributes, nullptr, eLoggingModeOff,
            nullptr)
{
}

CCommPort::~CCommPort() {}

void CCommPort::Open(const wchar_t* name, DWORD flagsAndAttributes)
{
    CFile::Open(name, kPortAccess, kPortShare, nullptr, kPortCreation, flagsAndAttributes, nullptr, eLoggingModeOn,
                nullptr, false);
}

// ---------------------------------------------------------------- communications functions

void CCommPort::SetupComm(DWORD inQueue, DWORD outQueue)
{
    if (!::SetupComm(GetHandle(), inQueue, outQueue))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(
            LogChannel(GetHandle()), false, kLineSetupComm, TAVRIN_WFILE, L"SetupComm", static_cast<long>(err),
            L"SetupComm(DWORD dwInQueue=%u, DWORD dwOutQueue=%u) failed. GetLastError()=%u.", inQueue, outQueue, err);
    }
    LogChannelText(LogChannel(GetHandle()), false, L"SetupComm(DWORD dwInQueue=%u, DWORD dwOutQueue=%u) succeeded.",
                   inQueue, outQueue);
}

void CCommPort::PurgeComm(DWORD flags)
{
    if (!::PurgeComm(GetHandle(), flags))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, kLinePurgeComm, TAVRIN_WFILE, L"PurgeComm",
                            static_cast<long>(err), L"PurgeComm(DWORD dwFlags=0x%X) failed. GetLastError()=%u.", flags,
                            err);
    }
    LogChannelText(LogChannel(GetHandle()), false, L"PurgeComm(DWORD dwFlags=0x%X) succeeded.", flags);
}

void CCommPort::EscapeCommFunction(DWORD func)
{
    if (!::EscapeCommFunction(GetHandle(), func))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, kLineEscapeCommFunction, TAVRIN_WFILE,
                            L"EscapeCommFunction", static_cast<long>(err),
                            L"EscapeCommFunction(DWORD dwFunc=0x%X) failed. GetLastError()=%u.", func, err);
    }
    LogChannelText(LogChannel(GetHandle()), false, L"EscapeCommFunction(DWORD dwFunc=0x%X) succeeded.", func);
}

void CCommPort::ClearCommError(DWORD& errors, COMSTAT& stat)
{
    if (!::ClearCommError(GetHandle(), &errors, &stat))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, kLineClearCommError, TAVRIN_WFILE, L"ClearCommError",
                            static_cast<long>(err), L"ClearCommError() failed. GetLastError()=%u.", err);
    }
    const ustring errorText = CE_ERRORS(errors);
    const ustring statText = COMSTAT2MultiString(stat);
    LogChannelText(LogChannel(GetHandle()), false,
                   L"ClearCommError(LPDWORD lpErrors, LPCOMSTAT lpStat) succeeded. *lpErrors = %ls%ls, *lpStat = %ls",
                   errors != 0 ? L"[!]" : L"", errorText.c_str(), statText.c_str());
}

void CCommPort::ClearCommBreak()
{
    if (!::ClearCommBreak(GetHandle()))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, kLineClearCommBreak, TAVRIN_WFILE, L"ClearCommBreak",
                            static_cast<long>(err), L"ClearCommBreak() failed. GetLastError()=%u.", err);
    }
    LogChannelText(LogChannel(GetHandle()), false, L"ClearCommBreak() succeeded.");
}

void CCommPort::GetCommModemStatus(DWORD& modemStat) const
{
    if (!::GetCommModemStatus(GetHandle(), &modemStat))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, kLineGetCommModemStatus, TAVRIN_WFILE,
                            L"GetCommModemStatus", static_cast<long>(err),
                            L"GetCommModemStatus() failed. GetLastError()=%u.", err);
    }
    const ustring text = ModemStatus2String(modemStat);
    LogChannelText(LogChannel(GetHandle()), false,
                   L"GetCommModemStatus(LPDWORD lpModemStat) succeeded. *lpModemStat=0x%X (%ls).", modemStat,
                   text.c_str());
}

void CCommPort::GetCommProperties(COMMPROP& prop) const
{
    if (!::GetCommProperties(GetHandle(), &prop))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, kLineGetCommProperties, TAVRIN_WFILE, L"GetCommProperties",
                            static_cast<long>(err), L"GetCommProperties() failed. GetLastError()=%u.", err);
    }
    const ustring text = COMMPROP2MultiString(prop);
    LogChannelText(LogChannel(GetHandle()), false,
                   L"GetCommProperties(LPCOMMPROP lpCommProp) succeeded. *lpCommProp = %ls", text.c_str());
}

void CCommPort::GetCommState(DCB& dcb) const
{
    if (!::GetCommState(GetHandle(), &dcb))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, kLineGetCommState, TAVRIN_WFILE, L"GetCommState",
                            static_cast<long>(err), L"GetCommState() failed. GetLastError()=%u.", err);
    }
    const ustring text = DCB2MultiString(dcb);
    LogChannelText(LogChannel(GetHandle()), false, L"GetCommState(LPDCB lpDCB) succeeded. *lpDCB = %ls", text.c_str());
}

void CCommPort::SetCommState(const DCB& dcb)
{
    // The Windows function takes a non-const pointer; it gets a copy.
    DCB copy = dcb;
    if (!::SetCommState(GetHandle(), &copy))
    {
        const DWORD err = ::GetLastError();
        const ustring text = DCB2MultiString(dcb);
        ThrowLoggedWinError(
            LogChannel(GetHandle()), false, kLineSetCommState, TAVRIN_WFILE, L"SetCommState", static_cast<long>(err),
            L"SetCommState(LPDCB lpDCB) failed. GetLastError()=%u. *lpDCB = %ls\r\n", err, text.c_str());
    }
    const ustring text = DCB2MultiString(dcb);
    LogChannelText(LogChannel(GetHandle()), false, L"SetCommState(LPDCB lpDCB) succeeded. *lpDCB = %ls", text.c_str());
}

void CCommPort::GetCommMask(DWORD& evtMask)
{
    if (!::GetCommMask(GetHandle(), &evtMask))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, kLineGetCommMask, TAVRIN_WFILE, L"GetCommMask",
                            static_cast<long>(err), L"GetCommMask() failed. GetLastError()=%u.", err);
    }
    const ustring text = EvtMask2String(evtMask);
    LogChannelText(LogChannel(GetHandle()), false, L"GetCommMask(LPDWORD lpEvtMask) succeeded. *lpEvtMask=0x%X (%ls).",
                   evtMask, text.c_str());
}

void CCommPort::SetCommMask(DWORD evtMask)
{
    if (!::SetCommMask(GetHandle(), evtMask))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, kLineSetCommMask, TAVRIN_WFILE, L"SetCommMask",
                            static_cast<long>(err), L"SetCommMask(DWORD dwEvtMask=0x%X) failed. GetLastError()=%u.",
                            evtMask, err);
    }
    const ustring text = EvtMask2String(evtMask);
    LogChannelText(LogChannel(GetHandle()), false, L"SetCommMask(DWORD dwEvtMask=0x%X (%ls)) succeeded.", evtMask,
                   text.c_str());
}

void CCommPort::SetCommTimeouts(const COMMTIMEOUTS& timeouts)
{
    // The Windows function takes a non-const pointer; it gets a copy.
    COMMTIMEOUTS copy = timeouts;
    if (!::SetCommTimeouts(GetHandle(), &copy))
    {
        const DWORD err = ::GetLastError();
        const ustring text = COMMTIMEOUTS2MultiString(timeouts);
        ThrowLoggedWinError(
            LogChannel(GetHandle()), false, kLineSetCommTimeouts, TAVRIN_WFILE, L"SetCommTimeouts",
            static_cast<long>(err),
            L"SetCommTimeouts(LPCOMMTIMEOUTS lpCommTimeouts) failed. GetLastError() = %u. *lpCommTimeouts = %ls", err,
            text.c_str());
    }
    const ustring text = COMMTIMEOUTS2MultiString(timeouts);
    LogChannelText(LogChannel(GetHandle()), false,
                   L"SetCommTimeouts(LPCOMMTIMEOUTS lpCommTimeouts) succeeded. *lpCommTimeouts = %ls", text.c_str());
}

void CCommPort::GetCommTimeouts(COMMTIMEOUTS& timeouts)
{
    if (!::GetCommTimeouts(GetHandle(), &timeouts))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, kLineGetCommTimeouts, TAVRIN_WFILE, L"GetCommTimeouts",
                            static_cast<long>(err), L"GetCommTimeouts() failed. GetLastError()=%u.", err);
    }
    LogChannelText(LogChannel(GetHandle()), false,
                   L"GetCommTimeouts(LPCOMMTIMEOUTS lpCommTimeouts) succeeded.\r\n"
                   L"*lpCommTimeouts={ReadIntervalTimeout=%u,ReadTotalTimeoutMultiplier=%u,ReadTotalTimeoutConstant=%u,"
                   L"WriteTotalTimeoutMultiplier=%u,WriteTotalTimeoutConstant=%u}.",
                   timeouts.ReadIntervalTimeout, timeouts.ReadTotalTimeoutMultiplier, timeouts.ReadTotalTimeoutConstant,
                   timeouts.WriteTotalTimeoutMultiplier, timeouts.WriteTotalTimeoutConstant);
}

void CCommPort::TransmitCommChar(char c)
{
    // Logged sign-extended: bytes 0x80 to 0xFF show as 4294967168 to 4294967295.
    const unsigned int logged = static_cast<unsigned int>(static_cast<int>(static_cast<signed char>(c)));
    if (!::TransmitCommChar(GetHandle(), c))
    {
        const DWORD err = ::GetLastError();
        ThrowLoggedWinError(LogChannel(GetHandle()), false, kLineTransmitCommChar, TAVRIN_WFILE, L"TransmitCommChar",
                            static_cast<long>(err), L"TransmitCommChar(char cChar=%u) failed. GetLastError()=%u.",
                            logged, err);
    }
    LogChannelText(LogChannel(GetHandle()), false, L"TransmitCommChar(char cChar=%u) succeeded.", logged);
}

bool CCommPort::WaitCommEvent(DWORD& evtMask, OVERLAPPED* overlapped)
{
    if (::WaitCommEvent(GetHandle(), &evtMask, overlapped))
    {
        const ustring text = EvtMask2String(evtMask);
        LogChannelText(LogChannel(GetHandle()), false,
                       L"WaitCommEvent(LPDWORD lpEvtMask) succeeded. *lpEvtMask=0x%X (%ls).", evtMask, text.c_str());
        return true;
    }
    const DWORD err = ::GetLastError();
    if (err == ERROR_IO_PENDING)
    {
        // One proxy for both: the log file must not see the completion before the registration.
        CLogFileProxy proxy(LogChannel(GetHandle()));
        proxy().LogText(false, L"Pending WaitCommEvent initiated.");
        proxy().AddPendingWaitOperation(&evtMask, overlapped);
        return false;
    }
    ThrowLoggedWinError(LogChannel(GetHandle()), false, kLineWaitCommEvent, TAVRIN_WFILE, L"WaitCommEvent",
                        static_cast<long>(err), L"WaitCommEvent() failed. GetLastError()=%u.", err);
}

// ---------------------------------------------------------------- formatters

ustring CCommPort::CE_ERRORS(DWORD errors)
{
    return L"{" + DescribeBits(kCommErrors, errors, false) + L"}";
}

ustring CCommPort::EvtMask2String(DWORD mask)
{
    return CommEventMaskText(mask);
}

ustring CCommPort::ModemStatus2String(DWORD status)
{
    return DescribeBits(kModemStatus, status, true);
}

ustring CCommPort::DCB2MultiString(const DCB& dcb)
{
    const DWORD flags = FlagWord(&dcb, offsetof(DCB, BaudRate) + sizeof(DWORD));
    return ustring::sprintf_stc(L"\r\n{\r\n"
                                L"  BaudRate          = %u;\r\n"
                                L"  fBinary           = %u;\r\n"
                                L"  fParity           = %u;\r\n"
                                L"  fOutxCtsFlow      = %u;\r\n"
                                L"  fOutxDsrFlow      = %u;\r\n"
                                L"  fDtrControl       = %u;\r\n"
                                L"  fDsrSensitivity   = %u;\r\n"
                                L"  fTXContinueOnXoff = %u;\r\n"
                                L"  fOutX             = %u;\r\n"
                                L"  fInX              = %u;\r\n"
                                L"  fErrorChar        = %u;\r\n"
                                L"  fNull             = %u;\r\n"
                                L"  fRtsControl       = %u;\r\n"
                                L"  fAbortOnError     = %u;\r\n"
                                L"  XonLim            = %u;\r\n"
                                L"  XoffLim           = %u;\r\n"
                                L"  ByteSize          = %u;\r\n"
                                L"  Parity            = %u;\r\n"
                                L"  StopBits          = %u;\r\n"
                                L"  XonChar           = %u;\r\n"
                                L"  XoffChar          = %u;\r\n"
                                L"  ErrorChar         = %u;\r\n"
                                L"  EofChar           = %u;\r\n"
                                L"  EvtChar           = %u;\r\n"
                                L"}",
                                static_cast<unsigned int>(dcb.BaudRate), Bits(flags, 0, 1), Bits(flags, 1, 1),
                                Bits(flags, 2, 1), Bits(flags, 3, 1), Bits(flags, 4, 2), Bits(flags, 6, 1),
                                Bits(flags, 7, 1), Bits(flags, 8, 1), Bits(flags, 9, 1), Bits(flags, 10, 1),
                                Bits(flags, 11, 1), Bits(flags, 12, 2), Bits(flags, 14, 1),
                                static_cast<unsigned int>(dcb.XonLim), static_cast<unsigned int>(dcb.XoffLim),
                                static_cast<unsigned int>(dcb.ByteSize), static_cast<unsigned int>(dcb.Parity),
                                static_cast<unsigned int>(dcb.StopBits), CharCode(dcb.XonChar), CharCode(dcb.XoffChar),
                                CharCode(dcb.ErrorChar), CharCode(dcb.EofChar), CharCode(dcb.EvtChar));
}

ustring CCommPort::COMMTIMEOUTS2MultiString(const COMMTIMEOUTS& timeouts)
{
    return ustring::sprintf_stc(L"\r\n{\r\n"
                                L"  ReadIntervalTimeout         = %u;\r\n"
                                L"  ReadTotalTimeoutMultiplier  = %u;\r\n"
                                L"  ReadTotalTimeoutConstant    = %u;\r\n"
                                L"  WriteTotalTimeoutMultiplier = %u;\r\n"
                                L"  WriteTotalTimeoutConstant   = %u;\r\n"
                                L"}",
                                timeouts.ReadIntervalTimeout, timeouts.ReadTotalTimeoutMultiplier,
                                timeouts.ReadTotalTimeoutConstant, timeouts.WriteTotalTimeoutMultiplier,
                                timeouts.WriteTotalTimeoutConstant);
}

ustring CCommPort::COMSTAT2MultiString(const COMSTAT& stat)
{
    const DWORD flags = FlagWord(&stat, 0);
    return ustring::sprintf_stc(L"\r\n{\r\n"
                                L"  fCtsHold  = %u;\r\n"
                                L"  fDsrHold  = %u;\r\n"
                                L"  fRlsdHold = %u;\r\n"
                                L"  fXoffHold = %u;\r\n"
                                L"  fXoffSent = %u;\r\n"
                                L"  fEof      = %u;\r\n"
                                L"  fTxim     = %u;\r\n"
                                L"  cbInQue   = %u;\r\n"
                                L"  cbOutQue  = %u;\r\n"
                                L"}",
                                Bits(flags, 0, 1), Bits(flags, 1, 1), Bits(flags, 2, 1), Bits(flags, 3, 1),
                                Bits(flags, 4, 1), Bits(flags, 5, 1), Bits(flags, 6, 1), stat.cbInQue, stat.cbOutQue);
}

ustring CCommPort::COMMPROP2MultiString(const COMMPROP& prop)
{
    return ustring::sprintf_stc(
        L"\r\n{\r\n"
        L"  dwMaxTxQueue        = %u;\r\n"
        L"  dwMaxRxQueue        = %u;\r\n"
        L"  dwMaxBaud           = 0x%X;\r\n"
        L"  dwProvSubType       = %u;\r\n"
        L"  dwProvCapabilities  = 0x%X;\r\n"
        L"  dwSettableParams    = 0x%X;\r\n"
        L"  dwSettableBaud      = 0x%X;\r\n"
        L"  wSettableData       = 0x%X;\r\n"
        L"  wSettableStopParity = 0x%X;\r\n"
        L"  dwCurrentTxQueue    = %u;\r\n"
        L"  dwCurrentRxQueue    = %u;\r\n"
        L"}",
        prop.dwMaxTxQueue, prop.dwMaxRxQueue, prop.dwMaxBaud, prop.dwProvSubType, prop.dwProvCapabilities,
        prop.dwSettableParams, prop.dwSettableBaud, static_cast<unsigned int>(prop.wSettableData),
        static_cast<unsigned int>(prop.wSettableStopParity), prop.dwCurrentTxQueue, prop.dwCurrentRxQueue);
}

// The one description of event masks: the port's own, and the log file's for completed waits.
ustring CommEventMaskText(unsigned long mask)
{
    return DescribeBits(kEventMask, mask, false);
}

} // namespace tavrin
