// The application side of the replay tests: a TCP client on the library's logged socket that
// runs a script against a device, and so leaves a data log file of the session.
//
//     tavrin_log_replay_client.exe <port> <script> <log folder>
//
// The script has one step a line (bytes in hexadecimal):
//   send <hex>      the application sends the bytes
//   expect <hex>    the application waits for exactly these bytes (at most 20 s)
//   eof             the application waits for the device to close the connection (at most 20 s)
//   pause <ms>      the application does nothing for a while
//   delay <ms>      (for the device: it waits before its next answer; the client ignores it)
// It connects to 127.0.0.1:<port>, runs the steps, closes, and prints one line a step that
// waits: "expect <step> ok|differs|timeout|closed <ms>", the milliseconds counted from the end of
// the step before. Exit code 0 when every expectation was met, 1 when one was not, 2 for a wrong
// command line or script, 3 when the connection failed.
#include <tavrin/comm/socket.h>
#include <tavrin/core/exception.h>
#include <tavrin/log/logfile.h>
#include <tavrin/util/systemtime.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using namespace tavrin;

namespace {

const unsigned __int64 kWaitMs = 20000;

struct Step
{
    std::string strVerb;
    std::vector<unsigned char> data;
    unsigned long nMs;
};

bool ParseHex(const std::string& text, std::vector<unsigned char>& out)
{
    std::vector<unsigned char> bytes;
    return ustring::Hex2Bin(ustring(text, CP_UTF8), bytes) && (out.swap(bytes), true);
}

bool ReadScript(const wchar_t* path, std::vector<Step>& steps)
{
    std::ifstream file(ustring::WideCharToMultiByte(path, CP_ACP));
    std::string line;
    while (std::getline(file, line))
    {
        std::istringstream words(line);
        Step step;
        std::string argument;
        words >> step.strVerb >> argument;
        step.nMs = 0;
        if (step.strVerb.empty() || step.strVerb[0] == '#')
            continue;
        if (step.strVerb == "send" || step.strVerb == "expect")
        {
            if (!ParseHex(argument, step.data))
                return false;
        }
        else if (step.strVerb == "pause" || step.strVerb == "delay")
            step.nMs = std::stoul(argument);
        else if (step.strVerb != "eof")
            return false;
        steps.push_back(step);
    }
    return !steps.empty();
}

// Receives into `buffer` until it holds `count` bytes (0: until the peer closes), for at most
// kWaitMs; each receive gives up by itself after that long (SO_RCVTIMEO).
const char* ReceiveUntil(CWSASocket& socket, std::vector<unsigned char>& buffer, std::size_t count)
{
    CStopWatch clock;
    while (buffer.size() < count || count == 0)
    {
        if (static_cast<unsigned __int64>(clock.GetElapsedTime().GetTimeSpan()) >= kWaitMs)
            return "timeout";
        unsigned char chunk[65536];
        unsigned int received = 0;
        DWORD flags = 0;
        try
        {
            socket.Recv(chunk, sizeof(chunk), received, flags);
        }
        catch (const CWinException& e)
        {
            if (e.GetErrorCode() == WSAETIMEDOUT)
                return "timeout";
            throw;
        }
        if (received == 0)
            return "closed";
        buffer.insert(buffer.end(), chunk, chunk + received);
    }
    return nullptr;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    std::vector<Step> steps;
    if (argc != 4 || !ReadScript(argv[2], steps))
    {
        std::fprintf(stderr, "usage: tavrin_log_replay_client <port> <script> <log folder>\n");
        return 2;
    }
    CLogFileServer::Ref().SetFolder(argv[3], false);
    CLogFileServer::Ref().SetDetail(eLogFileDetailVerbose);
    int result = 0;
    try
    {
        CWSASocket socket;
        socket.Create(AF_INET, SOCK_STREAM, IPPROTO_TCP);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<u_short>(_wtoi(argv[1])));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socket.Connect(&address, sizeof(address));
        socket.SetSockOpt<DWORD>(SOL_SOCKET, SO_RCVTIMEO, static_cast<DWORD>(kWaitMs));
        CStopWatch clock;
        std::vector<unsigned char> buffer;
        for (std::size_t i = 0; i < steps.size(); ++i)
        {
            const Step& step = steps[i];
            if (step.strVerb == "send")
            {
                unsigned int sent = 0;
                socket.Send(step.data.data(), static_cast<unsigned int>(step.data.size()), sent);
            }
            else if (step.strVerb == "pause")
                ::Sleep(step.nMs);
            else if (step.strVerb == "expect" || step.strVerb == "eof")
            {
                const bool eof = step.strVerb == "eof";
                const char* failure = ReceiveUntil(socket, buffer, eof ? 0 : step.data.size());
                const char* outcome = eof ? (failure && std::string(failure) == "closed" ? "ok" : "timeout")
                                          : failure ? failure
                                          : std::equal(step.data.begin(), step.data.end(), buffer.begin()) ? "ok"
                                                                                                           : "differs";
                if (!eof && !failure)
                    buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(step.data.size()));
                std::printf("expect %u %s %s\n", static_cast<unsigned int>(i), outcome,
                            std::to_string(clock.GetElapsedTime().GetTimeSpan()).c_str());
                std::fflush(stdout);
                if (std::string(outcome) != "ok")
                    result = 1;
                if (failure)
                    break;
            }
            clock.Reset();
        }
        socket.Close();
    }
    catch (const CStdException& e)
    {
        ustring message;
        e.GetErrorMessage(message);
        std::fprintf(stderr, "%ls: %ls (%ls)\n", e.GetFunction().c_str(), message.c_str(), e.GetErrorCodeStr().c_str());
        result = 3;
    }
    return result;
}
