// CCommPort on a real serial device: the texts that its calls log, with the decoded masks and
// the structure dumps, and the failures that they throw after logging.
#include "test_commport_support.h"

#include <tavrin/comm/commport.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include <gtest/gtest.h>

using namespace tavrin;
using namespace commtest;
using tavrintest::CatchWinException;

namespace {

// The file name and extension of a path.
ustring NameOf(const ustring& path)
{
    ustring drive, dir, name, ext;
    CFile::SplitPath(path, drive, dir, name, ext);
    return name + ext;
}

std::string Format(const char* format, ...)
{
    char text[4096];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

// The dumps as the port must log them, built here from the structures' named fields.
template <class T> unsigned U(T value)
{
    return static_cast<unsigned>(value);
}

std::string DcbDump(const DCB& d)
{
    return Format("\r\n{\r\n  BaudRate          = %u;\r\n  fBinary           = %u;\r\n  fParity           = %u;\r\n"
                  "  fOutxCtsFlow      = %u;\r\n  fOutxDsrFlow      = %u;\r\n  fDtrControl       = %u;\r\n"
                  "  fDsrSensitivity   = %u;\r\n  fTXContinueOnXoff = %u;\r\n  fOutX             = %u;\r\n"
                  "  fInX              = %u;\r\n  fErrorChar        = %u;\r\n  fNull             = %u;\r\n"
                  "  fRtsControl       = %u;\r\n  fAbortOnError     = %u;\r\n  XonLim            = %u;\r\n"
                  "  XoffLim           = %u;\r\n  ByteSize          = %u;\r\n  Parity            = %u;\r\n"
                  "  StopBits          = %u;\r\n  XonChar           = %u;\r\n  XoffChar          = %u;\r\n"
                  "  ErrorChar         = %u;\r\n  EofChar           = %u;\r\n  EvtChar           = %u;\r\n}",
                  U(d.BaudRate), U(d.fBinary), U(d.fParity), U(d.fOutxCtsFlow), U(d.fOutxDsrFlow), U(d.fDtrControl),
                  U(d.fDsrSensitivity), U(d.fTXContinueOnXoff), U(d.fOutX), U(d.fInX), U(d.fErrorChar), U(d.fNull),
                  U(d.fRtsControl), U(d.fAbortOnError), U(d.XonLim), U(d.XoffLim), U(d.ByteSize), U(d.Parity),
                  U(d.StopBits), static_cast<unsigned char>(d.XonChar), static_cast<unsigned char>(d.XoffChar),
                  static_cast<unsigned char>(d.ErrorChar), static_cast<unsigned char>(d.EofChar),
                  static_cast<unsigned char>(d.EvtChar));
}

std::string TimeoutsDump(const COMMTIMEOUTS& t)
{
    return Format("\r\n{\r\n  ReadIntervalTimeout         = %u;\r\n  ReadTotalTimeoutMultiplier  = %u;\r\n"
                  "  ReadTotalTimeoutConstant    = %u;\r\n  WriteTotalTimeoutMultiplier = %u;\r\n"
                  "  WriteTotalTimeoutConstant   = %u;\r\n}",
                  U(t.ReadIntervalTimeout), U(t.ReadTotalTimeoutMultiplier), U(t.ReadTotalTimeoutConstant),
                  U(t.WriteTotalTimeoutMultiplier), U(t.WriteTotalTimeoutConstant));
}

std::string ComstatDump(const COMSTAT& s)
{
    return Format("\r\n{\r\n  fCtsHold  = %u;\r\n  fDsrHold  = %u;\r\n  fRlsdHold = %u;\r\n  fXoffHold = %u;\r\n"
                  "  fXoffSent = %u;\r\n  fEof      = %u;\r\n  fTxim     = %u;\r\n  cbInQue   = %u;\r\n"
                  "  cbOutQue  = %u;\r\n}",
                  U(s.fCtsHold), U(s.fDsrHold), U(s.fRlsdHold), U(s.fXoffHold), U(s.fXoffSent), U(s.fEof), U(s.fTxim),
                  U(s.cbInQue), U(s.cbOutQue));
}

std::string PropDump(const COMMPROP& p)
{
    return Format("\r\n{\r\n  dwMaxTxQueue        = %u;\r\n  dwMaxRxQueue        = %u;\r\n"
                  "  dwMaxBaud           = 0x%X;\r\n  dwProvSubType       = %u;\r\n"
                  "  dwProvCapabilities  = 0x%X;\r\n  dwSettableParams    = 0x%X;\r\n"
                  "  dwSettableBaud      = 0x%X;\r\n  wSettableData       = 0x%X;\r\n"
                  "  wSettableStopParity = 0x%X;\r\n  dwCurrentTxQueue    = %u;\r\n  dwCurrentRxQueue    = %u;\r\n}",
                  U(p.dwMaxTxQueue), U(p.dwMaxRxQueue), U(p.dwMaxBaud), U(p.dwProvSubType), U(p.dwProvCapabilities),
                  U(p.dwSettableParams), U(p.dwSettableBaud), U(p.wSettableData), U(p.wSettableStopParity),
                  U(p.dwCurrentTxQueue), U(p.dwCurrentRxQueue));
}

// A pseudo-terminal has neither error counters nor modem lines, so the device never makes
// ClearCommError report errors or GetCommModemStatus succeed. Those two formatters are reached
// through their exported entry points instead: an explicit instantiation may name a private
// member, and hands its address out through a friend.
template <class Tag, typename Tag::type Member> struct CExported
{
    friend typename Tag::type Get(Tag) { return Member; }
};
struct CeErrorsTag
{
    typedef ustring (*type)(DWORD);
    friend type Get(CeErrorsTag);
};
struct ModemStatusTag
{
    typedef ustring (*type)(DWORD);
    friend type Get(ModemStatusTag);
};
template struct CExported<CeErrorsTag, &CCommPort::CE_ERRORS>;
template struct CExported<ModemStatusTag, &CCommPort::ModemStatus2String>;

} // namespace

TEST(CommPortFormatters, ErrorAndModemMasksFollowTheirTables)
{
    const auto errors = Get(CeErrorsTag());
    const struct
    {
        DWORD value;
        const wchar_t* text;
    } errorCases[] = {
        {0, L"{}"},
        {CE_BREAK | CE_OVERRUN, L"{CE_BREAK|CE_OVERRUN}"}, // table order, not bit order
        {0x100, L"{}"},
        {0x1F, L"{CE_BREAK|CE_FRAME|CE_OVERRUN|CE_RXOVER|CE_RXPARITY}"},
        {CE_RXPARITY | CE_RXOVER | 0x8000, L"{CE_RXOVER|CE_RXPARITY}"},
    };
    for (const auto& c : errorCases)
        EXPECT_EQ(c.text, errors(c.value)) << c.value;

    const auto modem = Get(ModemStatusTag());
    const struct
    {
        DWORD value;
        const wchar_t* text;
    } modemCases[] = {
        {0, L"CTS[_], DSR[_], RING[_], RLSD[_]"},
        {0x30, L"CTS[x], DSR[x], RING[_], RLSD[_]"},
        {0xF0, L"CTS[x], DSR[x], RING[x], RLSD[x]"},
        {MS_RLSD_ON | 0x0F, L"CTS[_], DSR[_], RING[_], RLSD[x]"},
    };
    for (const auto& c : modemCases)
        EXPECT_EQ(c.text, modem(c.value)) << c.value;
}

TEST(CommPortTexts, SuccessfulCallsLogDecodedMasksAndDumps)
{
    COMMTEST_PORT(testPort, 2);
    CLogScene scene(L"comm-texts");
    COMMTEST_PEER(peer, testPort);

    std::vector<std::string> expected;
    {
        CCommPort port;
        port.Open(testPort.strPath, 0);
        expected.push_back("\"" + Narrow(testPort.strPath) + "\" has been opened.");

        // Event masks: the set bits in table order; the log file's own text for completed waits
        // is the same.
        const struct
        {
            DWORD mask;
            const char* text;
        } masks[] = {
            {0, ""},
            {0x105, "EV_RXCHAR|EV_TXEMPTY|EV_RING"},
            {0x2000, ""},
            {EV_ERR | EV_RXCHAR, "EV_RXCHAR|EV_ERR"},
            {0x1FFF, "EV_RXCHAR|EV_RXFLAG|EV_TXEMPTY|EV_CTS|EV_DSR|EV_RLSD|EV_BREAK|EV_ERR|EV_RING|EV_PERR|"
                     "EV_RX80FULL|EV_EVENT1|EV_EVENT2"},
        };
        for (const auto& m : masks)
        {
            EXPECT_EQ(Narrow(CommEventMaskText(m.mask)), m.text);
            port.SetCommMask(m.mask);
            expected.push_back(
                Format("SetCommMask(DWORD dwEvtMask=0x%X (%s)) succeeded.", static_cast<unsigned>(m.mask), m.text));
            DWORD got = 0xDEADBEEF;
            port.GetCommMask(got);
            EXPECT_EQ(m.mask, got);
            expected.push_back(Format("GetCommMask(LPDWORD lpEvtMask) succeeded. *lpEvtMask=0x%X (%s).",
                                      static_cast<unsigned>(got), got == m.mask ? m.text : "?"));
        }

        // Timeouts: the multi-line dump going in, the one-line form coming back.
        const COMMTIMEOUTS timeouts = {1, 2, 3, 4, 5};
        port.SetCommTimeouts(timeouts);
        expected.push_back("SetCommTimeouts(LPCOMMTIMEOUTS lpCommTimeouts) succeeded. *lpCommTimeouts = " +
                           TimeoutsDump(timeouts));
        COMMTIMEOUTS back = {};
        port.GetCommTimeouts(back);
        EXPECT_EQ(0, std::memcmp(&timeouts, &back, sizeof(back)));
        expected.push_back(Format("GetCommTimeouts(LPCOMMTIMEOUTS lpCommTimeouts) succeeded.\r\n*lpCommTimeouts={"
                                  "ReadIntervalTimeout=%u,ReadTotalTimeoutMultiplier=%u,ReadTotalTimeoutConstant=%u,"
                                  "WriteTotalTimeoutMultiplier=%u,WriteTotalTimeoutConstant=%u}.",
                                  static_cast<unsigned>(back.ReadIntervalTimeout),
                                  static_cast<unsigned>(back.ReadTotalTimeoutMultiplier),
                                  static_cast<unsigned>(back.ReadTotalTimeoutConstant),
                                  static_cast<unsigned>(back.WriteTotalTimeoutMultiplier),
                                  static_cast<unsigned>(back.WriteTotalTimeoutConstant)));

        // A state round trip: what goes in is logged as given, what comes back as read. (A
        // pseudo-terminal keeps 8 data bits without parity whatever it is told.)
        DCB dcb = RawDcb(19200);
        dcb.ByteSize = 7;
        dcb.Parity = EVENPARITY;
        dcb.fParity = 1;
        dcb.StopBits = TWOSTOPBITS;
        port.SetCommState(dcb);
        expected.push_back("SetCommState(LPDCB lpDCB) succeeded. *lpDCB = " + DcbDump(dcb));
        const CCommPort& constPort = port; // the readers of state are const
        DCB read = {};
        read.DCBlength = sizeof(read);
        constPort.GetCommState(read);
        EXPECT_EQ(19200u, read.BaudRate);
        EXPECT_EQ(TWOSTOPBITS, read.StopBits);
        EXPECT_EQ(1u, read.fBinary);
        expected.push_back("GetCommState(LPDCB lpDCB) succeeded. *lpDCB = " + DcbDump(read));
        port.SetCommState(RawDcb());
        expected.push_back("SetCommState(LPDCB lpDCB) succeeded. *lpDCB = " + DcbDump(RawDcb()));

        COMMPROP prop = {};
        constPort.GetCommProperties(prop);
        expected.push_back("GetCommProperties(LPCOMMPROP lpCommProp) succeeded. *lpCommProp = " + PropDump(prop));

        port.SetupComm(4096, 2048);
        expected.push_back("SetupComm(DWORD dwInQueue=4096, DWORD dwOutQueue=2048) succeeded.");
        port.PurgeComm(PURGE_RXCLEAR | PURGE_TXCLEAR);
        expected.push_back("PurgeComm(DWORD dwFlags=0xC) succeeded.");
        port.EscapeCommFunction(SETBREAK);
        expected.push_back("EscapeCommFunction(DWORD dwFunc=0x8) succeeded.");
        port.ClearCommBreak();
        expected.push_back("ClearCommBreak() succeeded.");

        // Characters go out sign-extended in the log, as themselves on the line.
        const struct
        {
            char c;
            const char* logged;
        } chars[] = {{'A', "65"}, {'\x7F', "127"}, {'\x80', "4294967168"}, {'\xFF', "4294967295"}};
        std::vector<unsigned char> sent;
        for (const auto& c : chars)
        {
            port.TransmitCommChar(c.c);
            expected.push_back(Format("TransmitCommChar(char cChar=%s) succeeded.", c.logged));
            sent.push_back(static_cast<unsigned char>(c.c));
        }
        EXPECT_EQ(sent, peer.Read(sent.size()));

        // Bytes waiting in the input queue show in the status; no errors, no marker.
        ASSERT_TRUE(peer.Write(Pattern(5, 0x30)));
        DWORD errors = 0;
        COMSTAT stat = {};
        ASSERT_TRUE(logtest::WaitUntil([&] {
            port.ClearCommError(errors, stat);
            expected.push_back("ClearCommError(LPDWORD lpErrors, LPCOMSTAT lpStat) succeeded. *lpErrors = {}, "
                               "*lpStat = " +
                               ComstatDump(stat));
            return stat.cbInQue == 5;
        }));
        EXPECT_EQ(0u, errors);
        port.Close();
        expected.push_back("The handle has been closed.");
    }
    EXPECT_TRUE(SameEvents(expected, scene.Events()));
}

// A DCB that a pseudo-terminal refuses under Wine (DTR handshaking) is still logged whole, as
// given: the five characters as unsigned numbers, the two-bit fields with their full values.
TEST(CommPortTexts, StateDumpShowsTwoBitFieldsAndCharactersAsGiven)
{
    COMMTEST_PORT(testPort, 2);
    CLogScene scene(L"comm-dcb");
    DCB dcb = {};
    dcb.DCBlength = sizeof(dcb);
    dcb.BaudRate = 57600;
    dcb.fBinary = 1;
    dcb.fOutxCtsFlow = 1;
    dcb.fDtrControl = DTR_CONTROL_HANDSHAKE; // 2
    dcb.fTXContinueOnXoff = 1;
    dcb.fNull = 1;
    dcb.fRtsControl = RTS_CONTROL_TOGGLE; // 3
    dcb.fAbortOnError = 1;
    dcb.XonLim = 100;
    dcb.XoffLim = 200;
    dcb.ByteSize = 8;
    dcb.Parity = MARKPARITY;
    dcb.StopBits = ONE5STOPBITS;
    dcb.XonChar = '\xFE';
    dcb.XoffChar = '\x80';
    dcb.ErrorChar = '?';
    dcb.EofChar = 0x1A;
    dcb.EvtChar = '\xFF';
    const std::string dump = "\r\n{\r\n"
                             "  BaudRate          = 57600;\r\n"
                             "  fBinary           = 1;\r\n"
                             "  fParity           = 0;\r\n"
                             "  fOutxCtsFlow      = 1;\r\n"
                             "  fOutxDsrFlow      = 0;\r\n"
                             "  fDtrControl       = 2;\r\n"
                             "  fDsrSensitivity   = 0;\r\n"
                             "  fTXContinueOnXoff = 1;\r\n"
                             "  fOutX             = 0;\r\n"
                             "  fInX              = 0;\r\n"
                             "  fErrorChar        = 0;\r\n"
                             "  fNull             = 1;\r\n"
                             "  fRtsControl       = 3;\r\n"
                             "  fAbortOnError     = 1;\r\n"
                             "  XonLim            = 100;\r\n"
                             "  XoffLim           = 200;\r\n"
                             "  ByteSize          = 8;\r\n"
                             "  Parity            = 3;\r\n"
                             "  StopBits          = 1;\r\n"
                             "  XonChar           = 254;\r\n"
                             "  XoffChar          = 128;\r\n"
                             "  ErrorChar         = 63;\r\n"
                             "  EofChar           = 26;\r\n"
                             "  EvtChar           = 255;\r\n"
                             "}";
    EXPECT_EQ(dump, DcbDump(dcb)); // the test's own formatter agrees with the worked text

    std::string logged;
    {
        CCommPort port;
        port.Open(testPort.strPath, 0);
        try
        {
            port.SetCommState(dcb);
            logged = "SetCommState(LPDCB lpDCB) succeeded. *lpDCB = " + dump;
        }
        catch (const CWinException& e)
        {
            EXPECT_EQ(230u, e.GetLine());
            EXPECT_EQ(L"SetCommState", e.GetFunction());
            logged = Format("SetCommState(LPDCB lpDCB) failed. GetLastError()=%ld. *lpDCB = ", e.GetErrorCode());
            logged += dump + "\r\n";
        }
        port.SetCommState(RawDcb()); // the port stays usable after a refused state
    }
    const std::vector<std::string> events = scene.Events();
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(logged, events[1]);
}

// Failures made by the device itself: each logs its failure line with the code it throws, before
// the exception reaches the caller, and leaves the port open.
TEST(CommPortFailures, DeviceRefusalsAreLoggedThenThrown)
{
    COMMTEST_PORT(testPort, 2);
    CLogScene scene(L"comm-refusals");

    DCB badSize = RawDcb();
    badSize.ByteSize = 3;
    DCB badParity = RawDcb();
    badParity.Parity = 9;

    CCommPort port;
    port.Open(testPort.strPath, 0);
    const unsigned int channel = LogChannel(port.GetHandle());
    const struct
    {
        std::function<void()> call;
        const wchar_t* function;
        unsigned int line;
        std::string text; // with one %ld for the code
    } cases[] = {
        // A pseudo-terminal has no modem lines: Wine refuses to read or drive them.
        {[&] {
             DWORD status = 0;
             port.GetCommModemStatus(status);
         },
         L"GetCommModemStatus", 161, "GetCommModemStatus() failed. GetLastError()=%ld."},
        {[&] { port.EscapeCommFunction(SETDTR); }, L"EscapeCommFunction", 93,
         "EscapeCommFunction(DWORD dwFunc=0x5) failed. GetLastError()=%ld."},
        {[&] { port.EscapeCommFunction(99); }, L"EscapeCommFunction", 93,
         "EscapeCommFunction(DWORD dwFunc=0x63) failed. GetLastError()=%ld."},
        {[&] { port.SetCommState(badSize); }, L"SetCommState", 230,
         "SetCommState(LPDCB lpDCB) failed. GetLastError()=%ld. *lpDCB = " + DcbDump(badSize) + "\r\n"},
        {[&] { port.SetCommState(badParity); }, L"SetCommState", 230,
         "SetCommState(LPDCB lpDCB) failed. GetLastError()=%ld. *lpDCB = " + DcbDump(badParity) + "\r\n"},
    };
    std::vector<std::string> expected = {"\"" + Narrow(testPort.strPath) + "\" has been opened."};
    for (const auto& c : cases)
    {
        const CWinException e = CatchWinException(c.call);
        EXPECT_EQ(c.function, e.GetFunction());
        EXPECT_EQ(c.line, e.GetLine());
        EXPECT_EQ(L"commport.cpp", NameOf(e.GetFileName()));
        EXPECT_NE(0, e.GetErrorCode());
        expected.push_back(Format(c.text.c_str(), e.GetErrorCode()));
        // Logged after the catch: the failure line must already be ahead of it.
        LogChannelText(channel, false, L"caught %ls", e.GetFunction().c_str());
        expected.push_back("caught " + Narrow(e.GetFunction()));
    }
    // Still open and working.
    DCB dcb = {};
    dcb.DCBlength = sizeof(dcb);
    port.GetCommState(dcb);
    port.Close();

    std::vector<std::string> events = scene.Events();
    ASSERT_EQ(expected.size() + 2, events.size());
    events.resize(expected.size());
    EXPECT_TRUE(SameEvents(expected, events));
}

// On a closed port every member fails with ERROR_INVALID_HANDLE; the lines go to the channel of
// the invalid handle, which is given a log file here to see them.
TEST(CommPortFailures, EveryMemberOfAClosedPortThrowsWithItsLineAndText)
{
    CLogScene scene(L"comm-closed");
    const unsigned int channel = LogChannel(INVALID_HANDLE_VALUE);
    ASSERT_TRUE(CLogFileServer::Ref().CreateLogFile(channel, L"closed", nullptr));

    CCommPort port;
    ASSERT_FALSE(port.IsCreated());
    DWORD value = 0;
    COMSTAT stat = {};
    COMMPROP prop = {};
    DCB dcb = RawDcb(9600);
    COMMTIMEOUTS timeouts = {7, 8, 9, 10, 11};
    const struct
    {
        std::function<void()> call;
        const wchar_t* function;
        unsigned int line;
        std::string text;
    } cases[] = {
        {[&] { port.SetupComm(1, 2); }, L"SetupComm", 48,
         "SetupComm(DWORD dwInQueue=1, DWORD dwOutQueue=2) failed. GetLastError()=6."},
        {[&] { port.PurgeComm(0xF); }, L"PurgeComm", 71, "PurgeComm(DWORD dwFlags=0xF) failed. GetLastError()=6."},
        {[&] { port.EscapeCommFunction(SETBREAK); }, L"EscapeCommFunction", 93,
         "EscapeCommFunction(DWORD dwFunc=0x8) failed. GetLastError()=6."},
        {[&] { port.ClearCommError(value, stat); }, L"ClearCommError", 116,
         "ClearCommError() failed. GetLastError()=6."},
        {[&] { port.ClearCommBreak(); }, L"ClearCommBreak", 138, "ClearCommBreak() failed. GetLastError()=6."},
        {[&] { port.GetCommModemStatus(value); }, L"GetCommModemStatus", 161,
         "GetCommModemStatus() failed. GetLastError()=6."},
        {[&] { port.GetCommProperties(prop); }, L"GetCommProperties", 183,
         "GetCommProperties() failed. GetLastError()=6."},
        {[&] { port.GetCommState(dcb); }, L"GetCommState", 205, "GetCommState() failed. GetLastError()=6."},
        {[&] { port.SetCommState(dcb); }, L"SetCommState", 230,
         "SetCommState(LPDCB lpDCB) failed. GetLastError()=6. *lpDCB = " + DcbDump(dcb) + "\r\n"},
        {[&] { port.GetCommMask(value); }, L"GetCommMask", 252, "GetCommMask() failed. GetLastError()=6."},
        {[&] { port.SetCommMask(0x105); }, L"SetCommMask", 274,
         "SetCommMask(DWORD dwEvtMask=0x105) failed. GetLastError()=6."},
        {[&] { port.SetCommTimeouts(timeouts); }, L"SetCommTimeouts", 300,
         "SetCommTimeouts(LPCOMMTIMEOUTS lpCommTimeouts) failed. GetLastError() = 6. *lpCommTimeouts = " +
             TimeoutsDump(timeouts)},
        {[&] { port.GetCommTimeouts(timeouts); }, L"GetCommTimeouts", 328,
         "GetCommTimeouts() failed. GetLastError()=6."},
        {[&] { port.TransmitCommChar('\xFF'); }, L"TransmitCommChar", 350,
         "TransmitCommChar(char cChar=4294967295) failed. GetLastError()=6."},
        {[&] { port.WaitCommEvent(value, nullptr); }, L"WaitCommEvent", 387,
         "WaitCommEvent() failed. GetLastError()=6."},
    };
    std::vector<std::string> expected;
    for (const auto& c : cases)
    {
        const CWinException e = CatchWinException(c.call);
        EXPECT_EQ(c.function, e.GetFunction());
        EXPECT_EQ(c.line, e.GetLine()) << Narrow(c.function);
        EXPECT_EQ(ERROR_INVALID_HANDLE, e.GetErrorCode()) << Narrow(c.function);
        EXPECT_EQ(L"commport.cpp", NameOf(e.GetFileName()));
        expected.push_back(c.text);
    }
    EXPECT_TRUE(CLogFileServer::Ref().CloseLogFile(channel));
    EXPECT_TRUE(SameEvents(expected, scene.Events()));
}
