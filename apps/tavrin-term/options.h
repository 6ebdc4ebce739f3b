// The command line of tavrin-term.
#pragma once

#include "script.h"

#include <tavrin/log/console.h>
#include <tavrin/log/logfile.h>

namespace term {

struct Options
{
    enum EView
    {
        ViewText,
        ViewHex,
        ViewBoth
    };
    enum EColor
    {
        ColorAuto,
        ColorAlways,
        ColorNever
    };

    // Connection: exactly one of port, tcp and listen (none: the demonstration).
    ustring strPort;
    unsigned int nBaud = 115200;
    unsigned int nDataBits = 8;
    unsigned char nParity = NOPARITY;  // NOPARITY, ODDPARITY, EVENPARITY, MARKPARITY, SPACEPARITY
    unsigned char nStopBits = ONESTOPBIT; // ONESTOPBIT, ONE5STOPBITS, TWOSTOPBITS
    ustring strFlow = L"none";         // none, rtscts, xonxoff
    ustring strTcp;                    // host:port
    ustring strListen;                 // [host:]port

    bool bHelp = false;
    bool bList = false;
    bool bEcho = false;  // act as an echo device on the connection
    bool bDemo = false;  // no connection given: the built-in demonstration
    ustring strDemoSerial; // "COM5,COM6": the demonstration also runs over this port pair

    std::vector<Step> steps;
    unsigned int nTimeoutMs = 5000; // expectations before any -timeout, and connecting

    EView eView = ViewText;
    bool bTimestamps = false;
    EColor eColor = ColorAuto;
    bool bPlain = false;
    ustring strEol = L"\r"; // what Enter sends in the interactive console

    tavrin::ELogFileDetail eLogDetail = tavrin::eLogFileDetailVerbose;
    ustring strLogFolder; // empty: the library's default
    ustring strReport;
    ustring strLanguage;
    bool bReconnect = false;
    unsigned int nReconnectLimit = 0; // attempts per loss; 0: until stopped

    // A short description of the connection: "COM3 115200 8N1", "tcp 127.0.0.1:5000".
    ustring Describe() const;
};

// Reads the command line. Options come through CCommandLineParser; the script steps, which are
// repeatable and run in the order given, are taken from the argument vector in that order. False
// with `error` set for an unknown option, a missing or malformed value, or a conflict.
bool ParseOptions(int argc, wchar_t** argv, wchar_t** envp, Options& options, ustring& error);

// The bytes of a file to send (-file, and the interactive console's Ctrl+T f), at most
// kMaxFileBytes; false with `error` when it cannot be read or is larger.
const unsigned __int64 kMaxFileBytes = 64u * 1024u * 1024u;
bool ReadFileBytes(const ustring& path, Bytes& out, ustring& error);

// The -help text: usage lines and the table of options.
void PrintHelp(tavrin::CConsole& console, tavrin::CTable::EBorderStyle style);
// The table of options (option, meaning, default), translated.
tavrin::CTable OptionsTable(tavrin::CTable::EBorderStyle style);

} // namespace term
