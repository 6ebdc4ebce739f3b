// tavrin-log export: the records of one or more files, in time order, as a Wireshark capture
// (-pcapng), as the raw bytes each way (-raw) or as CSV (-csv).
//
// In the capture each channel is an interface. A serial channel (any channel whose name is no
// network address) uses a user link type (USER0, 147, unless -dlt says otherwise) with one packet
// per data record and the direction in the packet's flags; its text events are packets of no
// bytes and no direction that carry the text as their comment. A socket channel, named by its
// peer's address ("127.0.0.1@5000"), becomes a TCP connection (or UDP with -link udp) between
// that address and the application's: handshake, the bytes each way, close; its text events
// become comments of the connection's next packet.
#include "capture.h"

#include <tavrin/log/logfile.h>

#include <algorithm>
#include <cstring>
#include <cwctype>
#include <map>

namespace tavrinlog {

namespace {

const std::uint64_t kUnixEpochTicks = 116444736000000000ull; // 1970-01-01 in FILETIME ticks
// The largest packet of a serial channel; longer records are split.
const std::size_t kMaxSerialPacket = 65535;

// ---------------------------------------------------------------- time

// The log's local times in UTC: with the fixed offset of -tz, or this computer's time zone with
// the daylight-saving rule of each record's date.
class CUtcClock
{
public:
    explicit CUtcClock(const CCommandLine& line) : m_bFixed(false), m_nOffsetMinutes(0), m_Zone()
    {
        ustring text;
        if (!line.Get(L"tz", text))
        {
            tavrin::CSystemTime::GetTimeZoneInformation(m_Zone);
            return;
        }
        // "+02:00", "-05:30", "+2", "0", "Z", "UTC".
        m_bFixed = true;
        text.trim();
        if (text.compareNoCase(L"Z") == 0 || text.compareNoCase(L"UTC") == 0 || text == L"0")
            return;
        const wchar_t* p = text.c_str();
        const int sign = *p == L'-' ? -1 : 1;
        if (*p != L'+' && *p != L'-')
            Fail(kExitUsage, L"option \"-tz\": \"%ls\" is no offset (+02:00, -05:30)", text.c_str());
        ++p;
        unsigned int hours = 0, minutes = 0, digits = 0;
        while (std::iswdigit(*p) && digits < 2)
            hours = hours * 10 + static_cast<unsigned int>(*p++ - L'0'), ++digits;
        if (digits != 0 && *p == L':' && std::iswdigit(p[1]) && std::iswdigit(p[2]))
        {
            minutes = static_cast<unsigned int>((p[1] - L'0') * 10 + (p[2] - L'0'));
            p += 3;
        }
        if (digits == 0 || *p != 0 || hours > 14 || minutes > 59)
            Fail(kExitUsage, L"option \"-tz\": \"%ls\" is no offset (+02:00, -05:30)", text.c_str());
        m_nOffsetMinutes = sign * static_cast<long>(hours * 60 + minutes);
    }

    // FILETIME ticks of the UTC time.
    std::uint64_t Ticks(const SYSTEMTIME& local) const
    {
        try
        {
            const tavrin::CSystemTime time(local);
            if (m_bFixed)
                return tavrin::CSystemTime::FT2ULL(time) - static_cast<std::int64_t>(m_nOffsetMinutes) * 600000000ll;
            return tavrin::CSystemTime::FT2ULL(time.LocalToUTC(m_Zone));
        }
        catch (const tavrin::CStdException&)
        {
            return 0;
        }
    }

    std::uint64_t Microseconds(const SYSTEMTIME& local) const
    {
        const std::uint64_t ticks = Ticks(local);
        return ticks > kUnixEpochTicks ? (ticks - kUnixEpochTicks) / 10 : 0;
    }

    ustring Iso(const SYSTEMTIME& local) const
    {
        const tavrin::CSystemTime utc(tavrin::CSystemTime::ULL2FT(Ticks(local)));
        return ustring::sprintf_stc(L"%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", utc.wYear, utc.wMonth, utc.wDay, utc.wHour,
                                    utc.wMinute, utc.wSecond, utc.wMilliseconds);
    }

private:
    bool m_bFixed;
    long m_nOffsetMinutes;
    TIME_ZONE_INFORMATION m_Zone;
};

std::string Utf8(const ustring& text)
{
    return ustring::WideCharToMultiByte(text, CP_UTF8);
}

// What a record that is no data says, for a comment or a warning.
ustring Describe(const LogRecord& record)
{
    if (record.nKind == LogRecord::eWriteError)
        return record.text + L": a write of the log failed here; that session logged nothing after it";
    ustring text = ustring::sprintf_stc(L"damaged record at line %I64u (%ls)", record.nLine, record.problem.c_str());
    if (!record.text.empty())
        text += L": " + NameControls(ustring(record.text.substr(0, 200)));
    return text;
}

// ---------------------------------------------------------------- CSV

std::string CsvField(const ustring& text)
{
    std::string field = Utf8(text);
    if (field.find_first_of(",\"\r\n") == std::string::npos)
        return field;
    std::string quoted = "\"";
    for (char ch : field)
    {
        if (ch == '"')
            quoted += '"';
        quoted += ch;
    }
    return quoted + "\"";
}

int ExportCsv(const ustring& path, std::vector<std::unique_ptr<CLogSource>>& sources, const CRecordFilter& filter,
              const CUtcClock& clock)
{
    COutputFile file(path);
    // The byte-order mark tells spreadsheet programs that the text is UTF-8.
    file.Write("\xEF\xBB\xBF" "channel,file,line,local time,UTC,kind,completed,bytes,data,text\r\n");
    CRecordStream stream(sources, true);
    LogRecord record;
    std::size_t source = 0;
    bool last = false;
    while (stream.Next(record, source, last))
    {
        if (!filter.Accept(record))
            continue;
        const bool data = record.nKind == LogRecord::eWrite || record.nKind == LogRecord::eRead;
        ustring text = record.nKind == LogRecord::eText ? record.text
                       : data                           ? record.formatted
                       : record.nKind == LogRecord::eDamaged ? record.problem + L": " + record.text
                                                             : record.text;
        std::string row = CsvField(sources[source]->GetChannel()) + "," + CsvField(sources[source]->GetPath()) + "," +
                          std::to_string(record.nLine) + ",";
        if (record.bHasTime)
            row += Utf8(FormatTime(record.time)) + "," + Utf8(clock.Iso(record.time));
        else
            row += ",";
        row += "," + Utf8(KindName(record.nKind)) + "," +
               (data ? (record.bSynchronous ? "sync" : "async") : "") + "," +
               (data || !record.data.empty() ? std::to_string(record.data.size()) : std::string()) + "," +
               Utf8(tavrin::CLogFile::Bin2Hex(record.data.data(), static_cast<unsigned int>(record.data.size()))) +
               "," + CsvField(text) + "\r\n";
        file.Write(row);
    }
    file.Commit();
    return kExitOk;
}

// ---------------------------------------------------------------- raw bytes

int ExportRaw(const ustring& base, std::vector<std::unique_ptr<CLogSource>>& sources, const CRecordFilter& filter)
{
    COutputFile sent(base + L"-sent.bin");
    COutputFile received(base + L"-received.bin");
    CRecordStream stream(sources, true);
    LogRecord record;
    std::size_t source = 0;
    bool last = false;
    while (stream.Next(record, source, last))
    {
        if (!filter.Accept(record) || record.data.empty())
            continue;
        if (record.nKind == LogRecord::eWrite)
            sent.Write(record.data.data(), record.data.size());
        else if (record.nKind == LogRecord::eRead)
            received.Write(record.data.data(), record.data.size());
    }
    sent.Commit();
    received.Commit();
    return kExitOk;
}

// ---------------------------------------------------------------- capture

enum ELink
{
    kLinkSerial,
    kLinkTcp,
    kLinkUdp
};

// The addresses and role that a socket channel's own text events name.
struct LoggedAddresses
{
    bool bLocal = false, bRemote = false, bRoleKnown = false, bLocalIsClient = true;
    Endpoint local = {}, remote = {};
};

// The text between `prefix` and the end of the event (without a closing full stop), when the
// event begins with `prefix`.
bool TextAfter(const ustring& event, const wchar_t* prefix, ustring& rest)
{
    const std::size_t length = std::wcslen(prefix);
    if (event.std::wstring::compare(0, length, prefix) != 0)
        return false;
    rest = event.substr(length);
    rest.trim();
    if (!rest.empty() && rest.back() == L'.')
        rest.pop_back();
    return true;
}

LoggedAddresses FindLoggedAddresses(const ustring& path)
{
    // The socket logs its addresses when it binds, connects or accepts, before any data.
    LoggedAddresses found;
    try
    {
        tavrin::CLogFileReader reader(path);
        LogRecord record;
        for (int i = 0; i < 1000 && reader.Read(record); ++i)
        {
            if (record.nKind == LogRecord::eWrite || record.nKind == LogRecord::eRead)
                break;
            if (record.nKind != LogRecord::eText)
                continue;
            ustring address;
            Endpoint endpoint;
            if ((TextAfter(record.text, L"The socket bound to the following address: ", address) ||
                 TextAfter(record.text, L"getsockname() succeeded. *pSockAddr=", address)) &&
                ParseEndpoint(address, endpoint))
            {
                found.local = endpoint;
                found.bLocal = true;
            }
            else if (TextAfter(record.text, L"The socket connected to the following address: ", address) &&
                     ParseEndpoint(address, endpoint))
            {
                found.remote = endpoint;
                found.bRemote = found.bRoleKnown = true;
                found.bLocalIsClient = true;
            }
            else if (TextAfter(record.text, L"New incoming connection has been accepted. Client address: ", address) &&
                     ParseEndpoint(address, endpoint))
            {
                found.remote = endpoint;
                found.bRemote = found.bRoleKnown = true;
                found.bLocalIsClient = false;
            }
        }
    }
    catch (const tavrin::CStdException&)
    {
        // The file was read once already; what cannot be read again only costs the addresses.
    }
    return found;
}

// One input file on its way into the capture.
struct Channel
{
    ELink eLink;
    std::uint32_t nInterface;
    Endpoint local, remote;
    bool bLocalIsClient;
    std::unique_ptr<CTcpConversation> tcp;
    std::unique_ptr<CUdpFlow> udp;
    std::vector<std::string> comments; // waiting for the channel's next packet
    std::uint64_t nLastTime;           // microseconds of its last packet
};

void SetMac(Endpoint& endpoint, std::uint8_t last)
{
    // Locally administered addresses: the frames are made up, not captured.
    const std::uint8_t mac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, last};
    std::memcpy(endpoint.mac, mac, 6);
}

Endpoint DefaultEndpoint(int family, std::uint16_t port)
{
    Endpoint endpoint = {};
    endpoint.nFamily = family;
    if (family == AF_INET6)
        endpoint.address[15] = 1; // ::1
    else
    {
        endpoint.address[0] = 127;
        endpoint.address[3] = 1;
    }
    endpoint.nPort = port;
    return endpoint;
}

class CCaptureExport
{
public:
    CCaptureExport(const CCommandLine& line, std::vector<std::unique_ptr<CLogSource>>& sources, COutputFile& file,
                   const CUtcClock& clock)
        : m_Sources(sources), m_Writer(file), m_Clock(clock), m_nDamaged(0)
    {
        ustring link = L"auto";
        line.Get(L"link", link);
        unsigned int dlt = kLinkTypeUser0;
        line.Get(L"dlt", dlt, kLinkTypeUser0, kLinkTypeUser15);
        const bool forced = link.compareNoCase(L"auto") != 0;
        ELink forcedLink = kLinkSerial;
        if (link.compareNoCase(L"tcp") == 0)
            forcedLink = kLinkTcp;
        else if (link.compareNoCase(L"udp") == 0)
            forcedLink = kLinkUdp;
        else if (forced && link.compareNoCase(L"serial") != 0)
            Fail(kExitUsage, L"option \"-link\": \"%ls\" is none of auto, tcp, udp, serial", link.c_str());
        Endpoint optionLocal = {}, optionRemote = {};
        ustring text;
        const bool hasLocal = line.Get(L"local", text);
        if (hasLocal && !ParseEndpoint(text, optionLocal))
            Fail(kExitUsage, L"option \"-local\": \"%ls\" is no address (127.0.0.1:49152, [::1]:49152)", text.c_str());
        const bool hasRemote = line.Get(L"remote", text);
        if (hasRemote && !ParseEndpoint(text, optionRemote))
            Fail(kExitUsage, L"option \"-remote\": \"%ls\" is no address (127.0.0.1:5000, [::1]:5000)", text.c_str());

        std::map<std::pair<ustring, int>, std::uint32_t> interfaces;
        for (std::size_t i = 0; i < sources.size(); ++i)
        {
            std::unique_ptr<Channel> channel(new Channel());
            channel->nLastTime = 0;
            const CLogSource& source = *sources[i];
            Endpoint named = {};
            const bool socket = forced ? forcedLink != kLinkSerial : ParseEndpoint(source.GetChannel(), named);
            channel->eLink = !socket ? kLinkSerial : forced ? forcedLink : kLinkTcp;
            if (socket)
                PlaceEndpoints(*channel, source, i, named, hasLocal ? &optionLocal : nullptr,
                               hasRemote ? &optionRemote : nullptr);
            const auto key = std::make_pair(source.GetChannel(), static_cast<int>(channel->eLink));
            const auto known = interfaces.find(key);
            if (known != interfaces.end())
                channel->nInterface = known->second;
            else
                channel->nInterface = interfaces[key] = m_Writer.AddInterface(
                    socket ? kLinkTypeEthernet : static_cast<std::uint16_t>(dlt), source.GetChannel(), source.GetPath());
            m_Channels.push_back(std::move(channel));
        }
    }

    void Run(const CRecordFilter& filter)
    {
        CRecordStream stream(m_Sources, true);
        LogRecord record;
        std::size_t source = 0;
        bool last = false;
        while (stream.Next(record, source, last))
        {
            Channel& channel = *m_Channels[source];
            if (filter.Accept(record))
                Add(channel, *m_Sources[source], record);
            if (last)
                Finish(channel);
        }
        if (m_nDamaged != 0)
            ErrorConsole().Warn(L"%I64u damaged records or write errors were left out of the capture (see the "
                                L"packet comments and the warnings above)",
                                m_nDamaged);
    }

private:
    void PlaceEndpoints(Channel& channel, const CLogSource& source, std::size_t index, const Endpoint& named,
                        const Endpoint* optionLocal, const Endpoint* optionRemote)
    {
        // The peer from the file name where it has one, else from the channel's own events, else
        // from -remote; this side from the events, else from -local. What none of them says is
        // made up on the loopback address.
        const LoggedAddresses logged = FindLoggedAddresses(source.GetPath());
        const bool namedOk = named.nFamily != 0;
        channel.remote = namedOk          ? named
                         : logged.bRemote ? logged.remote
                         : optionRemote   ? *optionRemote
                                          : DefaultEndpoint(AF_INET, static_cast<std::uint16_t>(5000 + index));
        if (channel.remote.nPort == 0)
            channel.remote.nPort = logged.bRemote && logged.remote.nPort != 0 ? logged.remote.nPort
                                   : optionRemote && optionRemote->nPort != 0 ? optionRemote->nPort
                                                                             : static_cast<std::uint16_t>(5000 + index);
        channel.local = logged.bLocal ? logged.local
                        : optionLocal ? *optionLocal
                                      : DefaultEndpoint(channel.remote.nFamily, 0);
        if (channel.local.nFamily != channel.remote.nFamily)
        {
            ErrorConsole().Warn(L"%ls: this side's address %ls is of another family than the peer's %ls; using the "
                                L"loopback address",
                                source.GetPath().c_str(), FormatEndpoint(channel.local).c_str(),
                                FormatEndpoint(channel.remote).c_str());
            channel.local = DefaultEndpoint(channel.remote.nFamily, channel.local.nPort);
        }
        if (channel.local.nPort == 0)
            channel.local.nPort = static_cast<std::uint16_t>(49152 + index % 16000);
        SetMac(channel.local, 1);
        SetMac(channel.remote, 2);
        channel.bLocalIsClient = logged.bRoleKnown ? logged.bLocalIsClient : true;
        if (channel.eLink == kLinkTcp)
            channel.tcp.reset(new CTcpConversation(channel.local, channel.remote, channel.bLocalIsClient,
                                                   static_cast<std::uint32_t>(index + 1)));
        else
            channel.udp.reset(new CUdpFlow(channel.local, channel.remote));
    }

    // Writes frames at the record's time, each a microsecond after the one before on its
    // channel, the first carrying the comments that wait.
    void Write(Channel& channel, std::uint64_t time, const std::uint8_t* bytes, std::size_t size, EDirection direction)
    {
        if (channel.nLastTime != 0 && time <= channel.nLastTime)
            time = channel.nLastTime + 1;
        channel.nLastTime = time;
        m_Writer.WritePacket(channel.nInterface, time, bytes, size, direction, channel.comments);
        channel.comments.clear();
    }

    void WriteFrames(Channel& channel, std::uint64_t time, const std::vector<Frame>& frames)
    {
        for (const Frame& frame : frames)
            Write(channel, time, frame.bytes.data(), frame.bytes.size(),
                  frame.bFromLocal ? kDirectionOutbound : kDirectionInbound);
    }

    void Add(Channel& channel, const CLogSource& source, const LogRecord& record)
    {
        const std::uint64_t time = record.bHasTime ? m_Clock.Microseconds(record.time) : channel.nLastTime;
        const bool data = record.nKind == LogRecord::eWrite || record.nKind == LogRecord::eRead;
        if (!data && record.nKind != LogRecord::eText)
        {
            ++m_nDamaged;
            ErrorConsole().Warn(L"%ls: %ls; left out", source.GetPath().c_str(), Describe(record).c_str());
        }
        // What a record that is no data says; with the time where it goes with a later packet.
        const std::string comment = data ? std::string() : Utf8(record.nKind == LogRecord::eText ? record.text : Describe(record));
        const std::string stamp = record.bHasTime ? Utf8(FormatTime(record.time)) + " " : std::string();
        const bool sent = record.nKind == LogRecord::eWrite;
        if (channel.eLink == kLinkSerial)
        {
            if (!data)
            {
                // An event of its own, at its own time: a packet without bytes or direction.
                channel.comments.push_back(comment);
                Write(channel, time, nullptr, 0, kDirectionNone);
                return;
            }
            const std::size_t parts = std::max<std::size_t>(1, (record.data.size() + kMaxSerialPacket - 1) / kMaxSerialPacket);
            for (std::size_t part = 0; part < parts; ++part)
            {
                if (parts > 1)
                    channel.comments.push_back(ustring::WideCharToMultiByte(
                        ustring::sprintf_stc(L"part %u of %u of a record of %u bytes", static_cast<unsigned int>(part + 1),
                                             static_cast<unsigned int>(parts), static_cast<unsigned int>(record.data.size())),
                        CP_UTF8));
                const std::size_t offset = part * kMaxSerialPacket;
                const std::size_t size = std::min(kMaxSerialPacket, record.data.size() - offset);
                Write(channel, time, record.data.data() + offset, size, sent ? kDirectionOutbound : kDirectionInbound);
            }
            return;
        }

        std::vector<Frame> frames;
        if (channel.tcp && !channel.tcp->IsOpen())
            channel.tcp->Open(frames);
        if (!data)
            channel.comments.push_back(stamp + comment);
        else if (record.data.empty() && channel.tcp)
            channel.comments.push_back(stamp + (sent ? "a write of 0 bytes" : "a read of 0 bytes"));
        else if (channel.tcp)
            channel.tcp->Send(sent, record.data.data(), record.data.size(), frames);
        else
            channel.udp->Send(sent, record.data.data(), record.data.size(), frames);
        WriteFrames(channel, time, frames);
    }

    // After the channel's last record: the connection closes, and comments still waiting go
    // with the closing packets (or, without a connection, with a packet of their own).
    void Finish(Channel& channel)
    {
        std::vector<Frame> frames;
        if (channel.tcp && channel.tcp->IsOpen())
            channel.tcp->Close(frames);
        else if (channel.udp && !channel.comments.empty())
            channel.udp->Send(true, nullptr, 0, frames);
        else if (!channel.comments.empty())
            Write(channel, channel.nLastTime, nullptr, 0, kDirectionNone);
        WriteFrames(channel, channel.nLastTime, frames);
    }

    std::vector<std::unique_ptr<CLogSource>>& m_Sources;
    CPcapngWriter m_Writer;
    const CUtcClock& m_Clock;
    std::vector<std::unique_ptr<Channel>> m_Channels;
    std::uint64_t m_nDamaged;
};

} // namespace

int RunExport(const CCommandLine& line)
{
    ustring pcapng, raw, csv;
    const int outputs = (line.Get(L"pcapng", pcapng) ? 1 : 0) + (line.Get(L"raw", raw) ? 1 : 0) +
                        (line.Get(L"csv", csv) ? 1 : 0);
    if (outputs != 1)
        Fail(kExitUsage, L"export: give one of -pcapng <file>, -raw <base> and -csv <file>");
    // The options are checked before anything is read or written.
    const CRecordFilter filter(line);
    const CUtcClock clock(line);
    std::vector<std::unique_ptr<CLogSource>> sources = OpenSources(line);
    if (!csv.empty())
        return ExportCsv(csv, sources, filter, clock);
    if (!raw.empty())
        return ExportRaw(raw, sources, filter);
    COutputFile file(pcapng);
    CCaptureExport capture(line, sources, file, clock);
    capture.Run(filter);
    file.Commit();
    return kExitOk;
}

} // namespace tavrinlog
