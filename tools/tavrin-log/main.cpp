// tavrin-log: reads the library's data log files back.
//
//     tavrin-log cat    [options] file...        records as text, file after file
//     tavrin-log merge  [options] file...        several channels' records on one time line
//     tavrin-log stats  [options] file...        counts, bytes, times, gaps and errors
//     tavrin-log export -pcapng|-raw|-csv <out> [options] file...
//     tavrin-log replay -listen <port>|-port <COMx> [options] file   the recorded device, played back
#include "tool.h"

#include <cstdio>

using namespace tavrinlog;
using tavrin::ustring;

namespace {

struct Command
{
    const wchar_t* pszName;
    ECommand eCommand;
    int (*pfnRun)(const CCommandLine&);
    const wchar_t* pszSummary;
};

const Command kCommands[] = {
    {L"cat", kCat, &RunCat, L"records as text, file after file"},
    {L"merge", kMerge, &RunMerge, L"the records of several files on one time line"},
    {L"stats", kStats, &RunStats, L"records and bytes each way, first and last time, gaps, errors"},
    {L"export", kExport, &RunExport, L"into a Wireshark capture (-pcapng), raw byte files (-raw) or CSV (-csv)"},
    {L"replay", kReplay, &RunReplay, L"be the recorded device: a TCP server (-listen) or a serial port (-port)"},
};

ustring Usage(const ustring& program)
{
    ustring text = ustring::sprintf_stc(L"Reads data log files back.\r\n\r\nUsage: %ls <command> [options] file...\r\n"
                                        L"Files may hold wildcards (COM3-*.log).\r\n\r\nCommands:\r\n",
                                        program.c_str());
    for (const Command& command : kCommands)
        text += ustring::sprintf_stc(L"  %-8ls %ls\r\n", command.pszName, command.pszSummary);
    text += L"\r\nOptions:\r\n";
    for (const OptionSpec& option : CCommandLine::Options())
    {
        ustring commands;
        for (const Command& command : kCommands)
            if (option.nCommands & command.eCommand)
                commands += (commands.empty() ? L"" : L",") + ustring(command.pszName);
        const ustring form = ustring(L"-") + option.pszName + (option.pszValue ? ustring(L" ") + option.pszValue : ustring());
        text += ustring::sprintf_stc(L"  %-22ls %ls (%ls)\r\n", form.c_str(), option.pszHelp,
                                     option.nCommands == kAllCommands ? L"all" : commands.c_str());
    }
    text += L"\r\nExit codes: 0 done, 1 a file could not be read or written or is no data log (or the replay's "
            L"port could not be opened), 2 wrong command line, 3 the application did not do what the recording "
            L"says (replay).\r\n";
    return text;
}

int Run(int argc, wchar_t** argv, wchar_t** envp)
{
    const CCommandLine line(argc, argv, envp);
    tavrin::CCommandLineParser names(argv, nullptr);
    const ustring program = names.GetExecutableFName().empty() ? ustring(L"tavrin-log") : names.GetExecutableFName();
    if (line.GetCommand().empty() || line.Has(L"help"))
    {
        CStdOut out(true);
        out.Write(Usage(program));
        return line.Has(L"help") ? kExitOk : kExitUsage;
    }
    for (const Command& command : kCommands)
    {
        if (line.GetCommand().compareNoCase(command.pszName) != 0)
            continue;
        line.Validate(command.eCommand, command.pszName);
        return command.pfnRun(line);
    }
    Fail(kExitUsage, L"unknown command \"%ls\"; \"%ls -help\" lists the commands", line.GetCommand().c_str(),
         program.c_str());
}

} // namespace

int wmain(int argc, wchar_t** argv, wchar_t** envp)
{
    // Socket channels' addresses are read with Winsock's own text conversion.
    WSADATA wsa;
    ::WSAStartup(MAKEWORD(2, 2), &wsa);
    int result = kExitFailure;
    try
    {
        result = Run(argc, argv, envp);
    }
    catch (const CToolError& e)
    {
        ErrorConsole().Print(tavrin::CConsoleBase::SeverityError, false, L"tavrin-log: " + e.GetMessage() + L"\r\n");
        result = e.GetExitCode();
    }
    catch (const tavrin::CStdException& e)
    {
        e.ReportErrorConsole(ErrorConsole());
        result = kExitFailure;
    }
    catch (const std::exception& e)
    {
        ErrorConsole().Print(tavrin::CConsoleBase::SeverityError, false,
                             L"tavrin-log: " + ustring(std::string(e.what()), CP_UTF8) + L"\r\n");
        result = kExitFailure;
    }
    ::WSACleanup();
    return result;
}
