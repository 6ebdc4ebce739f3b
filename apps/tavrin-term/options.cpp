#include "options.h"

#include <tavrin/core/file.h>
#include <tavrin/util/commandlineparser.h>

#include <cwchar>

using namespace tavrin;

namespace term {

namespace {

enum EValue
{
    ValueNone,     // a switch
    ValueRequired, // the next item, unless it is an option itself (then the value is missing)
    ValueOptional, // the next item when it is not an option
    ValueStep      // the next item whatever it is: "-send -x" sends "-x"
};

struct OptionInfo
{
    const wchar_t* name;
    EValue value;
    const wchar_t* argument; // shown in the help after the name
    const wchar_t* meaning;
    const wchar_t* defaultText;
};

// Every option, in the order of the help.
const OptionInfo kOptions[] = {
    {L"port", ValueRequired, L"<name>", TERM_TEXT(L"serial port to open (COM3, \\\\.\\COM10)"), L""},
    {L"baud", ValueRequired, L"<rate>", TERM_TEXT(L"baud rate of the serial port"), L"115200"},
    {L"data", ValueRequired, L"<5-8>", TERM_TEXT(L"data bits"), L"8"},
    {L"parity", ValueRequired, L"<none|odd|even|mark|space>", TERM_TEXT(L"parity"), L"none"},
    {L"stop", ValueRequired, L"<1|1.5|2>", TERM_TEXT(L"stop bits"), L"1"},
    {L"flow", ValueRequired, L"<none|rtscts|xonxoff>", TERM_TEXT(L"flow control"), L"none"},
    {L"tcp", ValueRequired, L"<host:port>", TERM_TEXT(L"connect to a TCP server"), L""},
    {L"listen", ValueRequired, L"<[host:]port>", TERM_TEXT(L"TCP server: one connection at a time, the next one after it closes"), L""},
    {L"list", ValueNone, L"", TERM_TEXT(L"list the serial ports of this machine and end"), L""},
    {L"echo", ValueNone, L"", TERM_TEXT(L"be an echo device on the connection: every byte received is sent back"), L""},
    {L"send", ValueStep, L"<text>", TERM_TEXT(L"send text (its escapes are listed below)"), L""},
    {L"hex", ValueStep, L"<bytes>", TERM_TEXT(L"send bytes given in hexadecimal (\"0A 1B\")"), L""},
    {L"file", ValueStep, L"<path>", TERM_TEXT(L"send the bytes of a file"), L""},
    {L"expect", ValueStep, L"<text>", TERM_TEXT(L"wait until the device has sent this text (escapes as -send)"), L""},
    {L"expect-hex", ValueStep, L"<bytes>", TERM_TEXT(L"wait until the device has sent these bytes"), L""},
    {L"timeout", ValueStep, L"<ms>", TERM_TEXT(L"time limit of the expectations after it, and of connecting"), L"5000"},
    {L"wait", ValueStep, L"<ms>", TERM_TEXT(L"show what arrives for this long"), L""},
    {L"view", ValueRequired, L"<text|hex|both>", TERM_TEXT(L"traffic as text with control characters by name, as a hex dump, or both"), L"text"},
    {L"timestamps", ValueNone, L"", TERM_TEXT(L"time stamp on every traffic line"), TERM_TEXT(L"off")},
    {L"color", ValueRequired, L"<auto|always|never>", TERM_TEXT(L"colours (the variable NO_COLOR also switches them off)"), L"auto"},
    {L"plain", ValueNone, L"", TERM_TEXT(L"plain UTF-8 lines on standard output, for pipes"), TERM_TEXT(L"off")},
    {L"eol", ValueRequired, L"<cr|lf|crlf>", TERM_TEXT(L"what the Enter key sends"), L"cr"},
    {L"log", ValueRequired, L"<off|normal|verbose>", TERM_TEXT(L"detail of the data log file"), L"verbose"},
    {L"logdir", ValueRequired, L"<folder>", TERM_TEXT(L"folder of the data log files"), L"Documents\\_Debug"},
    {L"report", ValueRequired, L"<file.md>", TERM_TEXT(L"write the session as Markdown"), L""},
    {L"reconnect", ValueOptional, L"[<count>]", TERM_TEXT(L"when the connection is lost, try again with a growing pause, at most count times (0: until Ctrl+C)"), TERM_TEXT(L"off")},
    {L"lang", ValueRequired, L"<en|de|file.lng>", TERM_TEXT(L"language of the program's texts"), TERM_TEXT(L"the user's")},
    {L"demo", ValueNone, L"", TERM_TEXT(L"the demonstration against the built-in echo device (also without any option)"), L""},
    {L"help", ValueNone, L"", TERM_TEXT(L"this help"), L""},
};

const OptionInfo* FindOption(const ustring& name)
{
    for (const OptionInfo& info : kOptions)
        if (ustring(info.name).compareNoCase(name) == 0)
            return &info;
    return nullptr;
}

// The name of an option item ("-port", "/port", "--port"), by CCommandLineParser's own rule.
bool OptionName(const wchar_t* item, ustring& name)
{
    name.clear();
    wchar_t* argv[] = {const_cast<wchar_t*>(L"tavrin-term"), const_cast<wchar_t*>(item), nullptr};
    wchar_t* envp[] = {nullptr};
    CCommandLineParser::VariableMap names;
    if (item == nullptr || !CCommandLineParser(argv, envp).GetAllVariables(CCommandLineParser::CommandLineParameter, names) ||
        names.size() != 1)
        return false;
    name = names.begin()->first;
    return true;
}

bool ParseUnsigned(const ustring& text, unsigned int& value)
{
    if (text.empty() || text.size() > 9)
        return false;
    for (wchar_t ch : static_cast<const std::wstring&>(text))
        if (ch < L'0' || ch > L'9')
            return false;
    value = static_cast<unsigned int>(std::wcstoul(text.c_str(), nullptr, 10));
    return true;
}

} // namespace

bool ReadFileBytes(const ustring& path, Bytes& out, ustring& error)
{
    out.clear();
    try
    {
        CFile file(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        const unsigned __int64 length = file.GetLength();
        if (length > kMaxFileBytes)
        {
            error = TrF(L"%ls is larger than 64 MB", path.c_str());
            return false;
        }
        out.resize(static_cast<size_t>(length));
        unsigned int got = 0;
        if (length > 0)
            file.Read(out.data(), static_cast<unsigned int>(length), got);
        out.resize(got);
        return true;
    }
    catch (const CStdException& e)
    {
        ustring message;
        e.GetErrorMessage(message);
        message.trim({L' ', L'\r', L'\n'});
        error = TrF(L"%ls cannot be read: %ls", path.c_str(), message.c_str());
        return false;
    }
}

namespace {

bool AddStep(const ustring& name, const ustring& value, Options& options, unsigned int& timeoutMs, ustring& error)
{
    Step step;
    step.strSource = L"-" + name + L" " + value;
    if (name == L"send" || name == L"expect")
    {
        if (!ParseEscapes(value, step.bytes, error))
        {
            error = L"-" + name + L": " + error;
            return false;
        }
        step.eKind = name == L"send" ? Step::Send : Step::Expect;
    }
    else if (name == L"hex" || name == L"expect-hex")
    {
        if (!ParseHexText(value, step.bytes))
        {
            error = TrF(L"-%ls: \"%ls\" is not hexadecimal bytes such as \"0A 1B\"", name.c_str(), value.c_str());
            return false;
        }
        step.eKind = name == L"hex" ? Step::Send : Step::Expect;
    }
    else if (name == L"file")
    {
        // Read now: a missing file is a mistake on the command line, found before connecting.
        if (!ReadFileBytes(value, step.bytes, error))
        {
            error = L"-file: " + error;
            return false;
        }
        step.eKind = Step::Send;
    }
    else if (name == L"timeout" || name == L"wait")
    {
        unsigned int ms = 0;
        if (!ParseUnsigned(value, ms))
        {
            error = TrF(L"-%ls: \"%ls\" is not a number of milliseconds", name.c_str(), value.c_str());
            return false;
        }
        if (name == L"timeout")
        {
            timeoutMs = ms;
            return true;
        }
        step.eKind = Step::Wait;
        step.nTimeoutMs = ms;
    }
    if (step.eKind == Step::Expect)
    {
        if (step.bytes.empty())
        {
            error = TrF(L"-%ls: nothing to expect", name.c_str());
            return false;
        }
        step.nTimeoutMs = timeoutMs;
    }
    options.steps.push_back(step);
    return true;
}

bool Choose(const ustring& name, const ustring& value, const wchar_t* const* choices, int& index, ustring& error)
{
    for (int i = 0; choices[i] != nullptr; ++i)
    {
        if (value.compareNoCase(choices[i]) == 0)
        {
            index = i;
            return true;
        }
    }
    ustring list;
    for (int i = 0; choices[i] != nullptr; ++i)
        list += (i > 0 ? L", " : L"") + ustring(choices[i]);
    error = TrF(L"-%ls: \"%ls\" is not one of %ls", name.c_str(), value.c_str(), list.c_str());
    return false;
}

} // namespace

ustring Options::Describe() const
{
    if (!strPort.empty())
    {
        static const wchar_t parityLetters[] = L"NOEMS";
        static const wchar_t* const stopTexts[] = {L"1", L"1.5", L"2"};
        return ustring::sprintf_stc(L"%ls %u %u%lc%ls", strPort.c_str(), nBaud, nDataBits,
                                    parityLetters[nParity < 5 ? nParity : 0], stopTexts[nStopBits < 3 ? nStopBits : 0]);
    }
    if (!strTcp.empty())
        return L"tcp " + strTcp;
    if (!strListen.empty())
        return L"tcp-listen " + strListen;
    return ustring();
}

bool ParseOptions(int argc, wchar_t** argv, wchar_t** envp, Options& options, ustring& error)
{
    error.clear();
    options = Options();
    const CCommandLineParser parser(argv, envp);
    const auto cl = CCommandLineParser::CommandLineParameter;

    // The walk in order: unknown options, missing values and the steps. CCommandLineParser keeps
    // one value per name (the last), which cannot express a script that sends and expects in turn.
    // An expectation takes the -timeout before it; those before the first -timeout take the first
    // one given, so that "-expect OK -timeout 500" means what it says. Connecting takes it too.
    for (int i = 1; i + 1 < argc; ++i)
    {
        ustring name;
        if (OptionName(argv[i], name) && name.compareNoCase(L"timeout") == 0)
        {
            ParseUnsigned(argv[i + 1], options.nTimeoutMs); // a malformed value is reported below
            break;
        }
    }
    unsigned int timeoutMs = options.nTimeoutMs;
    for (int i = 1; i < argc; ++i)
    {
        ustring name;
        if (!OptionName(argv[i], name))
        {
            error = TrF(L"\"%ls\" is not an option (options begin with - or /; values follow their option)", argv[i]);
            return false;
        }
        name.strlwr();
        const OptionInfo* info = FindOption(name);
        if (info == nullptr)
        {
            error = TrF(L"unknown option -%ls (-help lists them)", name.c_str());
            return false;
        }
        ustring ignored;
        const bool nextIsOption = i + 1 < argc && OptionName(argv[i + 1], ignored);
        switch (info->value)
        {
        case ValueNone:
            break;
        case ValueOptional:
            if (i + 1 < argc && !nextIsOption)
                ++i;
            break;
        case ValueRequired:
            if (i + 1 >= argc || nextIsOption)
            {
                error = TrF(L"-%ls needs a value: %ls", name.c_str(), info->argument);
                return false;
            }
            ++i;
            break;
        case ValueStep:
            if (i + 1 >= argc)
            {
                error = TrF(L"-%ls needs a value: %ls", name.c_str(), info->argument);
                return false;
            }
            if (!AddStep(name, argv[++i], options, timeoutMs, error))
                return false;
            break;
        }
    }

    bool flag = false;
    options.bHelp = parser.GetVariable(cl, L"help", flag, true) || parser.GetVariable(cl, L"?", flag, true);
    options.bList = parser.GetVariable(cl, L"list", flag, true);
    options.bEcho = parser.GetVariable(cl, L"echo", flag, true);
    options.bDemo = parser.GetVariable(cl, L"demo", flag, true);
    options.bTimestamps = parser.GetVariable(cl, L"timestamps", flag, true);
    options.bPlain = parser.GetVariable(cl, L"plain", flag, true);

    parser.GetVariable(cl, L"port", options.strPort);
    parser.GetVariable(cl, L"tcp", options.strTcp);
    parser.GetVariable(cl, L"listen", options.strListen);
    parser.GetVariable(cl, L"logdir", options.strLogFolder);
    parser.GetVariable(cl, L"report", options.strReport);
    parser.GetVariable(cl, L"lang", options.strLanguage);
    parser.GetVariable(CCommandLineParser::EnvironmentVariable, L"TAVRIN_TERM_SERIAL_PAIR", options.strDemoSerial);

    ustring value;
    if (parser.GetVariable(cl, L"baud", value) && (!ParseUnsigned(value, options.nBaud) || options.nBaud == 0))
    {
        error = TrF(L"-baud: \"%ls\" is not a baud rate", value.c_str());
        return false;
    }
    if (parser.GetVariable(cl, L"data", value) && (!ParseUnsigned(value, options.nDataBits) || options.nDataBits < 5 || options.nDataBits > 8))
    {
        error = TrF(L"-data: \"%ls\" is not 5, 6, 7 or 8", value.c_str());
        return false;
    }
    int index = 0;
    if (parser.GetVariable(cl, L"parity", value))
    {
        static const wchar_t* const choices[] = {L"none", L"odd", L"even", L"mark", L"space", nullptr};
        if (!Choose(L"parity", value, choices, index, error))
            return false;
        options.nParity = static_cast<unsigned char>(index);
    }
    if (parser.GetVariable(cl, L"stop", value))
    {
        static const wchar_t* const choices[] = {L"1", L"1.5", L"2", nullptr};
        if (!Choose(L"stop", value, choices, index, error))
            return false;
        options.nStopBits = static_cast<unsigned char>(index);
    }
    if (parser.GetVariable(cl, L"flow", value))
    {
        static const wchar_t* const choices[] = {L"none", L"rtscts", L"xonxoff", nullptr};
        if (!Choose(L"flow", value, choices, index, error))
            return false;
        options.strFlow = choices[index];
    }
    if (parser.GetVariable(cl, L"view", value))
    {
        static const wchar_t* const choices[] = {L"text", L"hex", L"both", nullptr};
        if (!Choose(L"view", value, choices, index, error))
            return false;
        options.eView = static_cast<Options::EView>(index);
    }
    if (parser.GetVariable(cl, L"color", value))
    {
        static const wchar_t* const choices[] = {L"auto", L"always", L"never", nullptr};
        if (!Choose(L"color", value, choices, index, error))
            return false;
        options.eColor = static_cast<Options::EColor>(index);
    }
    // https://no-color.org: a non-empty NO_COLOR switches colours off unless asked for explicitly.
    if (options.eColor == Options::ColorAuto && parser.GetVariable(CCommandLineParser::EnvironmentVariable, L"NO_COLOR", value))
        options.eColor = Options::ColorNever;
    if (parser.GetVariable(cl, L"eol", value))
    {
        static const wchar_t* const choices[] = {L"cr", L"lf", L"crlf", nullptr};
        static const wchar_t* const sequences[] = {L"\r", L"\n", L"\r\n"};
        if (!Choose(L"eol", value, choices, index, error))
            return false;
        options.strEol = sequences[index];
    }
    if (parser.GetVariable(cl, L"log", value))
    {
        static const wchar_t* const choices[] = {L"off", L"normal", L"verbose", nullptr};
        if (!Choose(L"log", value, choices, index, error))
            return false;
        options.eLogDetail = static_cast<ELogFileDetail>(index);
    }
    if (parser.GetVariable(cl, L"reconnect", value, true))
    {
        options.bReconnect = true;
        if (!value.empty() && !ParseUnsigned(value, options.nReconnectLimit))
        {
            error = TrF(L"-reconnect: \"%ls\" is not a number of attempts", value.c_str());
            return false;
        }
    }

    const int connections = !options.strPort.empty() + !options.strTcp.empty() + !options.strListen.empty();
    if (connections > 1)
    {
        error = Tr(L"give one of -port, -tcp and -listen");
        return false;
    }
    if (connections == 0 && !options.bHelp && !options.bList)
    {
        if (options.bEcho || !options.steps.empty())
        {
            error = Tr(L"-echo and the script options need a connection: -port, -tcp or -listen");
            return false;
        }
        options.bDemo = true;
    }
    if (options.bEcho && !options.steps.empty())
    {
        error = Tr(L"an echo device runs no script: leave out -echo or the script options");
        return false;
    }
    return true;
}

CTable OptionsTable(CTable::EBorderStyle style)
{
    CTable table(true, style, Tr(L"Options"));
    table.SetMaxColumnWidth(60);
    table.InsertRow(std::vector<ustring>{Tr(L"option"), Tr(L"meaning"), Tr(L"default")});
    for (const OptionInfo& info : kOptions)
    {
        ustring option = L"-" + ustring(info.name);
        if (*info.argument)
            option += L" " + ustring(info.argument);
        table.InsertRow(std::vector<ustring>{option, Tr(info.meaning), *info.defaultText ? Tr(info.defaultText) : ustring()});
    }
    return table;
}

void PrintHelp(CConsole& console, CTable::EBorderStyle style)
{
    console.Print(ConsoleFont::BoldFont(ConsoleFont::Bold), CConsoleBase::SeverityInfo, false,
                  Tr(L"tavrin-term: a console for devices on a serial port or TCP that logs every byte") + L"\r\n");
    console.Print(CConsoleBase::SeverityInfo, false,
                  Tr(L"Usage:") + L"\r\n"
                  L"  tavrin-term -port COM3 [-baud 9600] [-parity even] ...\r\n"
                  L"  tavrin-term -tcp 192.168.1.20:5000 -send \"*IDN?\\r\\n\" -expect \"\\r\\n\" -timeout 2000\r\n"
                  L"  tavrin-term -listen 5000 -echo\r\n"
                  L"  tavrin-term                      " + Tr(L"(the demonstration)") + L"\r\n");
    console.Print(CConsoleBase::SeverityInfo, false, OptionsTable(style), ustring());
    console.Print(CConsoleBase::SeverityInfo, false,
                  Tr(L"Escapes in the texts of -send and -expect:") +
                      L" \\r (CR) \\n (LF) \\t (HT) \\e (ESC) \\0 (NUL) \\\\ (\\) \\xNN (" + Tr(L"the byte NN in hexadecimal") + L")\r\n");
    console.Print(CConsoleBase::SeverityInfo, false,
                  Tr(L"Steps (-send, -hex, -file, -expect, -expect-hex, -wait) run in the order given; then the program ends.") + L"\r\n" +
                  Tr(L"Without steps the console is interactive: keys go to the device, Ctrl+T then a key is a local command (Ctrl+T ? lists them), Ctrl+C ends.") + L"\r\n" +
                  Tr(L"Exit codes: 0 every expectation met, 1 an expectation not met in time, 2 connection failed or lost, 3 bad command line, 4 interrupted, 5 report not written.") + L"\r\n");
}

} // namespace term
