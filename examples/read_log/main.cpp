// Reading a data log file back. A log file is written here through CLogFile itself (a
// communication class would do the same through its channel), then CLogFileReader yields its
// records in order: the kind, the local time, the exact bytes of data records and the text of
// text events. The channel name and the creation time come from the file name.
#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>
#include <tavrin/log/console.h>
#include <tavrin/log/logfile.h>
#include <tavrin/log/logreader.h>

#include "example_support.h"

using namespace tavrin;

int main()
{
    ustring capture, markdown;
    CConsole console(false, capture, markdown);
    try
    {
        const ustring folder = example::ExampleFolder();
        // Channel name, then the time of creation: the form the log-file server gives its files.
        const ustring path = folder + L"\\METER-2024.03.07-09.05.01.123.log";
        ::DeleteFileW(path);

        {
            CLogFile log(eLogFileDetailVerbose);
            if (!log.Open(path))
                return 1;
            const unsigned char request[] = {0x02, 'R', 'D', 0x03};
            const unsigned char reply[] = {0x02, '4', '2', '.', '5', 0x03};
            log.LogText(true, L"Session with meter %u", 7u);
            log.LogSentData(request, sizeof(request), true);
            log.LogReceivedData(reply, sizeof(reply), false);
        } // the destructor writes everything queued

        CLogFileReader reader(path);
        SYSTEMTIME created = {};
        reader.GetCreationTime(created);
        console.PrintF(CConsoleBase::SeverityInfo, false, L"Channel %ls, file created %04u-%02u-%02u %02u:%02u:%02u\r\n",
                       reader.GetChannelName().c_str(), created.wYear, created.wMonth, created.wDay, created.wHour,
                       created.wMinute, created.wSecond);
        static const wchar_t* const kKinds[] = {L"text", L"write", L"read", L"write error", L"damaged"};
        CLogFileReader::Record record;
        while (reader.Read(record))
        {
            const ustring body = record.nKind == CLogFileReader::Record::eText
                                     ? record.text
                                     : CLogFile::Bin2Hex(record.data.data(), static_cast<unsigned int>(record.data.size()));
            console.PrintF(CConsoleBase::SeverityInfo, false, L"line %u: %ls %ls: %ls\r\n",
                           static_cast<unsigned int>(record.nLine), record.bSynchronous ? L"SYNC" : L"ASYNC",
                           kKinds[record.nKind < 5 ? record.nKind : 4], body.c_str());
        }
        return 0;
    }
    catch (const CStdException& e)
    {
        e.ReportErrorConsole(console, TAVRIN_WFILE, __LINE__);
        return 1;
    }
}
