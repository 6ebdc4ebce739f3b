// Logging a channel. A CFile opened with a logging mode gets a data log file of its own: the
// log-file server creates it in the log folder, and every call on the file and every byte it
// moves is recorded there by a worker thread, so the caller never waits for the disk.
#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>
#include <tavrin/log/console.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include "example_support.h"

#include <string>

using namespace tavrin;

int main()
{
    ustring capture, markdown;
    CConsole console(false, capture, markdown);
    try
    {
        const ustring folder = example::ExampleFolder();

        // Nothing is logged until the application chooses a detail level; Verbose also records
        // the text events (the open and the close).
        CLogFileServer& server = CLogFileServer::Ref();
        server.SetFolder(folder, false);
        server.SetDetail(eLogFileDetailVerbose);

        const ustring path = folder + L"\\channel.dat";
        ustring log;
        {
            CFile channel(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                          nullptr, CFile::eLoggingModeOn);
            const char request[] = "PING 1\r\n";
            unsigned int written = 0;
            channel.Write(request, sizeof(request) - 1, written);
            channel.Seek(0, FILE_BEGIN);
            char reply[16] = {};
            unsigned int read = 0;
            channel.Read(reply, sizeof(reply), read);
            // The file's channel is its handle value.
            server.GetLogFilePath(LogChannel(channel.GetHandle()), log);
        } // closing the file writes everything queued and closes its log file

        console.PrintF(CConsoleBase::SeverityInfo, false, L"Data log file: %ls\r\n\r\n", log.c_str());
        console.Print(CConsoleBase::SeverityInfo, false, example::ReadUtf8File(log));
        return 0;
    }
    catch (const CStdException& e)
    {
        e.ReportErrorConsole(console, TAVRIN_WFILE, __LINE__);
        return 1;
    }
}
