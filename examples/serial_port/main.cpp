// A serial port. Open creates the port's data log file, and each configuration call is logged
// with the structure it set; the bytes written and read become data records. The port is the
// one named on the command line, or the first one the machine has.
//
//   serial_port [COM3]
#include <tavrin/comm/commport.h>
#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>
#include <tavrin/log/console.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include <string>

using namespace tavrin;

namespace {

ustring ReadUtf8File(const ustring& path)
{
    CFile file(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
               FILE_ATTRIBUTE_NORMAL, nullptr);
    std::string bytes(static_cast<std::size_t>(file.GetLength()), '\0');
    unsigned int read = 0;
    if (!bytes.empty())
        file.Read(&bytes[0], static_cast<unsigned int>(bytes.size()), read);
    bytes.resize(read);
    return ustring(bytes, CP_UTF8, 0);
}

// The newest "*.log" file of a folder.
ustring NewestLogFile(const ustring& folder)
{
    ustring newest;
    FILETIME newestTime = {};
    WIN32_FIND_DATAW data;
    HANDLE find = ::FindFirstFileW(ustring(folder + L"\\*.log"), &data);
    if (find == INVALID_HANDLE_VALUE)
        return newest;
    do
    {
        if (newest.empty() || ::CompareFileTime(&data.ftLastWriteTime, &newestTime) > 0)
        {
            newest = folder + L"\\" + data.cFileName;
            newestTime = data.ftLastWriteTime;
        }
    } while (::FindNextFileW(find, &data));
    ::FindClose(find);
    return newest;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    ustring capture, markdown;
    CConsole console(false, capture, markdown);
    try
    {
        // Discovery: every port the system publishes, COM9 before COM10.
        const std::vector<CCommPort::COMM_PORT_INFO> ports = CCommPort::EnumCommPorts();
        for (const CCommPort::COMM_PORT_INFO& info : ports)
            console.PrintF(CConsoleBase::SeverityInfo, false, L"Port %ls (%ls) %ls\r\n", info.strName.c_str(), info.strPath.c_str(),
                           info.strFriendlyName.c_str());
        ustring path;
        if (argc > 1)
            path = ustring(L"\\\\.\\") + argv[1];
        else if (!ports.empty())
            path = ports.front().strPath;
        else
        {
            console.Print(CConsoleBase::SeverityWarning, false, ustring(L"No serial port found.\r\n"));
            return 2;
        }

        ustring folder;
        CFile::GetTempPathW(folder);
        folder.trim_right(L'\\');
        folder += L"\\tavrin_example_logs";
        CLogFileServer& server = CLogFileServer::Ref();
        server.SetFolder(folder, false);
        server.SetDetail(eLogFileDetailVerbose);

        {
            CCommPort port;
            port.Open(path, 0); // Open, unlike the opening constructor, creates the log file

            DCB dcb = {};
            dcb.DCBlength = sizeof(dcb);
            port.GetCommState(dcb);
            dcb.BaudRate = CBR_115200;
            dcb.ByteSize = 8;
            dcb.Parity = NOPARITY;
            dcb.StopBits = ONESTOPBIT;
            port.SetCommState(dcb);

            // Every read ends after half a second at the latest, whatever the device does.
            COMMTIMEOUTS timeouts = {0, 0, 500, 0, 500};
            port.SetCommTimeouts(timeouts);

            const char request[] = "AT\r";
            unsigned int written = 0, read = 0;
            port.Write(request, sizeof(request) - 1, written);
            char reply[64];
            port.Read(reply, sizeof(reply), read);
            console.PrintF(CConsoleBase::SeverityInfo, false, L"%ls: wrote %u bytes, read %u\r\n", path.c_str(), written,
                           read);
        } // closing the port writes its log file to the end

        const ustring log = NewestLogFile(folder);
        console.PrintF(CConsoleBase::SeverityInfo, false, L"Data log file: %ls\r\n\r\n", log.c_str());
        console.Print(CConsoleBase::SeverityInfo, false, ReadUtf8File(log));
        return 0;
    }
    catch (const CStdException& e)
    {
        e.ReportErrorConsole(console, TAVRIN_WFILE, __LINE__);
        return 1;
    }
}
