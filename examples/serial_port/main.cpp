// A serial port. Open creates the port's data log file, and each configuration call is logged
// with the structure it set; the bytes written and read become data records. The port is the
// one named on the command line, or the first one the machine has. When a second port is named,
// it is taken for the far end of a null-modem cable and plays the device that answers.
//
//   serial_port [COM3 [COM4]]
#include <tavrin/comm/commport.h>
#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>
#include <tavrin/log/console.h>
#include <tavrin/log/logcall.h>
#include <tavrin/log/logfile.h>

#include "example_support.h"

#include <string>

using namespace tavrin;

namespace {

// 115200 baud, 8 data bits, no parity, one stop bit; no read waits longer than half a second,
// whatever the device does.
void Configure(CCommPort& port)
{
    DCB dcb = {};
    dcb.DCBlength = sizeof(dcb);
    port.GetCommState(dcb);
    dcb.BaudRate = CBR_115200;
    dcb.ByteSize = 8;
    dcb.Parity = NOPARITY;
    dcb.StopBits = ONESTOPBIT;
    port.SetCommState(dcb);
    COMMTIMEOUTS timeouts = {0, 0, 500, 0, 500};
    port.SetCommTimeouts(timeouts);
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
            console.PrintF(CConsoleBase::SeverityInfo, false, L"Port %ls %ls\r\n", info.strName.c_str(),
                           info.strFriendlyName.c_str());
        ustring name, path;
        if (argc > 1)
            name = argv[1];
        else if (!ports.empty())
            name = ports.front().strName;
        else
        {
            console.Print(CConsoleBase::SeverityWarning, false, ustring(L"No serial port found.\r\n"));
            return 2;
        }
        path = L"\\\\.\\" + name; // COM10 and above open only in this form

        const ustring folder = example::ExampleFolder();
        CLogFileServer& server = CLogFileServer::Ref();
        server.SetFolder(folder, false);
        server.SetDetail(eLogFileDetailVerbose);

        ustring log;
        {
            CCommPort port;
            port.Open(path, 0); // Open, unlike the opening constructor, creates the log file
            server.GetLogFilePath(LogChannel(port.GetHandle()), log);
            Configure(port);
            CCommPort device;
            if (argc > 2)
            {
                device.Open(ustring(L"\\\\.\\") + argv[2], 0);
                Configure(device);
            }

            const char request[] = "AT\r";
            unsigned int written = 0, read = 0;
            port.Write(request, sizeof(request) - 1, written);
            if (device.IsCreated())
            {
                char heard[16];
                unsigned int count = 0;
                device.Read(heard, sizeof(heard), count);
                const char answer[] = "OK\r\n";
                device.Write(answer, sizeof(answer) - 1, count);
            }
            char reply[64];
            port.Read(reply, sizeof(reply), read);
            console.PrintF(CConsoleBase::SeverityInfo, false, L"%ls: wrote %u bytes, read %u: %hs\r\n", path.c_str(),
                           written, read, std::string(reply, read).c_str());
        } // closing the ports writes their log files to the end

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
