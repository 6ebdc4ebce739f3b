// Writes the data log files that the tavrin-log tests read, through the library's own writer,
// and prints on standard output, as JSON, what each file must hold: its path, its channel and
// its records (kind, completion, bytes in hexadecimal, text).
//
//     tavrin_log_fixture.exe <folder>
//
// The channels:
//   COM7              a serial device: every kind and size, every byte value, text events with
//                     line breaks and text beyond ASCII, a formatter's text above the dumps
//   COM8              a serial device that speaks JSON lines, for a dissector on a user link type
//   127.0.0.1@5000    a TCP client: bind and connect events, an HTTP exchange, a 100 KB block,
//                     a read of 0 bytes and the close
//   [__1]@50001       the server side of an accepted IPv6 connection
#include <tavrin/core/ustring.h>
#include <tavrin/log/logfile.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace tavrin;

namespace {

std::string Json(const std::wstring& text)
{
    const std::string utf8 = ustring::WideCharToMultiByte(text, CP_UTF8);
    std::string out = "\"";
    for (unsigned char ch : utf8)
    {
        if (ch == '"' || ch == '\\')
            out += '\\', out += static_cast<char>(ch);
        else if (ch < 0x20)
        {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", ch);
            out += escape;
        }
        else
            out += static_cast<char>(ch);
    }
    return out + "\"";
}

std::string Hex(const std::vector<unsigned char>& data)
{
    std::string out;
    char cell[3];
    for (unsigned char byte : data)
    {
        std::snprintf(cell, sizeof(cell), "%02x", byte);
        out += cell;
    }
    return out;
}

ustring __stdcall Describe(const std::vector<unsigned char>& data)
{
    return ustring::sprintf_stc(L"frame of %u bytes\r\n", static_cast<unsigned int>(data.size()));
}

// One channel's file, and the JSON of what went into it.
class CChannel
{
public:
    CChannel(unsigned int channel, const wchar_t* name, CLogFile::LPDATAFORMATTER formatter)
        : m_nChannel(channel), m_strName(name), m_pFormatter(formatter)
    {
        if (!CLogFileServer::Ref().CreateLogFile(channel, name, formatter))
        {
            std::fprintf(stderr, "cannot create the log file of %ls\n", name);
            std::exit(1);
        }
        // The server names the file after the time; two channels created within the same
        // millisecond must not share one.
        ::Sleep(2);
    }

    void Text(const std::wstring& text)
    {
        CLogFileProxy proxy(m_nChannel);
        proxy().LogText(true, L"%ls", text.c_str());
        Add("text", true, {}, text);
    }

    void Data(bool sent, bool synchronous, const std::vector<unsigned char>& data)
    {
        CLogFileProxy proxy(m_nChannel);
        if (sent)
            proxy().LogSentData(data.data(), static_cast<unsigned int>(data.size()), synchronous);
        else
            proxy().LogReceivedData(data.data(), static_cast<unsigned int>(data.size()), synchronous);
        Add(sent ? "write" : "read", synchronous, data,
            m_pFormatter ? std::wstring(m_pFormatter(data)) : std::wstring());
    }

    void Data(bool sent, bool synchronous, const std::string& text)
    {
        Data(sent, synchronous, std::vector<unsigned char>(text.begin(), text.end()));
    }

    std::string Close(const ustring& folder)
    {
        CLogFileServer::Ref().CloseLogFile(m_nChannel);
        // The file closes (and writes what it queued) when the proxies let go of it.
        WIN32_FIND_DATAW data;
        const ustring mask = folder + L"\\" + m_strName + L"-*.log";
        HANDLE find = ::FindFirstFileW(mask, &data);
        ustring path;
        if (find != INVALID_HANDLE_VALUE)
        {
            path = folder + L"\\" + data.cFileName;
            ::FindClose(find);
        }
        return "{\"path\": " + Json(path) + ", \"channel\": " + Json(m_strName) + ", \"records\": [\n" + m_Records +
               "\n]}";
    }

private:
    void Add(const char* kind, bool synchronous, const std::vector<unsigned char>& data, const std::wstring& text)
    {
        if (!m_Records.empty())
            m_Records += ",\n";
        m_Records += std::string("{\"kind\": \"") + kind + "\", \"sync\": " + (synchronous ? "true" : "false") +
                     ", \"data\": \"" + Hex(data) + "\", \"text\": " + Json(text) + "}";
    }

    unsigned int m_nChannel;
    ustring m_strName;
    CLogFile::LPDATAFORMATTER m_pFormatter;
    std::string m_Records;
};

std::vector<unsigned char> Pattern(std::size_t size, unsigned int seed)
{
    std::vector<unsigned char> bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(i * 131 + seed);
    return bytes;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 2)
    {
        std::fprintf(stderr, "usage: tavrin_log_fixture <folder>\n");
        return 2;
    }
    const ustring folder = argv[1];
    CLogFileServer::Ref().SetFolder(folder, false);
    CLogFileServer::Ref().SetDetail(eLogFileDetailVerbose);
    std::vector<std::string> files;

    {
        CChannel com(0x10, L"COM7", &Describe);
        com.Text(L"\"\\\\.\\COM7\" has been opened.");
        const std::size_t sizes[] = {0, 1, 31, 32, 33, 4096};
        unsigned int seed = 0;
        for (std::size_t size : sizes)
        {
            com.Data(true, true, Pattern(size, ++seed));
            com.Data(false, false, Pattern(size, ++seed));
        }
        std::vector<unsigned char> every(256);
        for (unsigned int i = 0; i < 256; ++i)
            every[i] = static_cast<unsigned char>(i);
        com.Data(false, true, every);
        com.Text(L"two\r\nlines, Gr\u00FC\u00DFe \u20AC");
        com.Data(true, false, std::string("AT+CSQ\r"));
        com.Data(false, true, std::string("+CSQ: 17,99\r\nOK\r\n"));
        com.Text(L"The handle has been closed.");
        files.push_back(com.Close(folder));
    }
    {
        CChannel json(0x11, L"COM8", nullptr);
        json.Data(true, true, std::string("{\"cmd\": \"get\", \"id\": 1}"));
        json.Data(false, true, std::string("{\"temperature\": 21.5, \"unit\": \"celsius\"}"));
        json.Data(true, true, std::string("{\"cmd\": \"stop\"}"));
        files.push_back(json.Close(folder));
    }
    {
        CChannel client(0x12, L"127.0.0.1@5000", nullptr);
        client.Text(L"The socket bound to the following address: 127.0.0.1:50123.");
        client.Text(L"The socket connected to the following address: 127.0.0.1:5000.");
        client.Data(true, true, std::string("GET /index.html HTTP/1.1\r\nHost: 127.0.0.1:5000\r\n\r\n"));
        client.Text(L"Pending read request initiated. Buffer size: 4096.");
        const std::string body = "<html><body>hello</body></html>";
        client.Data(false, false,
                    "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Length: " + std::to_string(body.size()) +
                        "\r\n\r\n" + body);
        client.Data(true, true, Pattern(100000, 7));
        client.Data(false, true, Pattern(3, 9));
        client.Data(false, true, std::vector<unsigned char>());
        client.Text(L"The socket was closed.");
        files.push_back(client.Close(folder));
    }
    {
        CChannel server(0x13, L"[__1]@50001", nullptr);
        server.Text(L"New incoming connection has been accepted. Client address: [::1]:50001");
        server.Text(L"getsockname() succeeded. *pSockAddr=[::1]:47000.");
        server.Data(false, true, std::string("ping\n"));
        server.Data(true, true, std::string("pong\n"));
        server.Data(false, false, Pattern(70000, 3));
        server.Data(true, true, Pattern(33, 4));
        files.push_back(server.Close(folder));
    }

    std::printf("[\n");
    for (std::size_t i = 0; i < files.size(); ++i)
        std::printf("%s%s\n", files[i].c_str(), i + 1 < files.size() ? "," : "");
    std::printf("]\n");
    return 0;
}
