// tavrin-log: pcapng blocks, and Ethernet, IPv4/IPv6, TCP and UDP frames built for the bytes of
// socket channels.
#include "capture.h"

#include <tavrin/util/network.h>

#include <algorithm>
#include <cstring>
#include <cwctype>

namespace tavrinlog {

namespace {

// ---------------------------------------------------------------- byte helpers

void Put16(std::string& out, std::uint16_t value)
{
    out.append(reinterpret_cast<const char*>(&value), 2);
}

void Put32(std::string& out, std::uint32_t value)
{
    out.append(reinterpret_cast<const char*>(&value), 4);
}

void Pad4(std::string& out)
{
    out.append((4 - out.size() % 4) % 4, '\0');
}

// One pcapng option: code, length, value padded to 32 bits.
void PutOption(std::string& block, std::uint16_t code, const void* value, std::size_t length)
{
    Put16(block, code);
    Put16(block, static_cast<std::uint16_t>(length));
    block.append(static_cast<const char*>(value), length);
    Pad4(block);
}

// Closes a block: fills in its total length at offset 4 and repeats it at the end.
void FinishBlock(std::string& block)
{
    Pad4(block);
    const std::uint32_t total = static_cast<std::uint32_t>(block.size() + 4);
    std::memcpy(&block[4], &total, 4);
    Put32(block, total);
}

// Network byte order into a frame.
void PutBig16(std::vector<std::uint8_t>& out, std::size_t at, std::uint32_t value)
{
    out[at] = static_cast<std::uint8_t>(value >> 8);
    out[at + 1] = static_cast<std::uint8_t>(value);
}

void PutBig32(std::vector<std::uint8_t>& out, std::size_t at, std::uint32_t value)
{
    PutBig16(out, at, value >> 16);
    PutBig16(out, at + 2, value & 0xFFFF);
}

// The Internet checksum's running sum of 16-bit big-endian words.
std::uint32_t SumWords(const std::uint8_t* data, std::size_t size, std::uint32_t sum = 0)
{
    for (std::size_t i = 0; i + 1 < size; i += 2)
        sum += static_cast<std::uint32_t>(data[i] << 8 | data[i + 1]);
    if (size % 2 != 0)
        sum += static_cast<std::uint32_t>(data[size - 1] << 8);
    return sum;
}

std::uint16_t FoldSum(std::uint32_t sum)
{
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum & 0xFFFF);
}

const std::uint8_t kProtocolTcp = 6;
const std::uint8_t kProtocolUdp = 17;
const std::size_t kEthernetHeader = 14;

// An Ethernet frame with an IP packet around the transport header and payload in `transport`;
// fills in the IP header, its checksum (IPv4) and the transport checksum at `checksumAt` (an
// offset into the transport part).
std::vector<std::uint8_t> BuildFrame(const Endpoint& from, const Endpoint& to, std::uint8_t protocol,
                                     const std::vector<std::uint8_t>& transport, std::size_t checksumAt,
                                     std::uint16_t& ipId)
{
    const bool v6 = from.nFamily == AF_INET6;
    const std::size_t ipHeader = v6 ? 40 : 20;
    std::vector<std::uint8_t> frame(kEthernetHeader + ipHeader + transport.size());
    std::memcpy(&frame[0], to.mac, 6);
    std::memcpy(&frame[6], from.mac, 6);
    PutBig16(frame, 12, v6 ? 0x86DD : 0x0800);
    std::uint8_t* ip = &frame[kEthernetHeader];
    std::uint32_t pseudo = 0;
    if (v6)
    {
        ip[0] = 0x60;
        PutBig16(frame, kEthernetHeader + 4, static_cast<std::uint32_t>(transport.size()));
        ip[6] = protocol;
        ip[7] = 64; // hop limit
        std::memcpy(ip + 8, from.address, 16);
        std::memcpy(ip + 24, to.address, 16);
        pseudo = SumWords(ip + 8, 32);
        pseudo += static_cast<std::uint32_t>(transport.size() >> 16) + static_cast<std::uint32_t>(transport.size() & 0xFFFF);
        pseudo += protocol;
    }
    else
    {
        ip[0] = 0x45;
        PutBig16(frame, kEthernetHeader + 2, static_cast<std::uint32_t>(ipHeader + transport.size()));
        PutBig16(frame, kEthernetHeader + 4, ipId++);
        PutBig16(frame, kEthernetHeader + 6, 0x4000); // don't fragment
        ip[8] = 128;                                  // Windows' time to live
        ip[9] = protocol;
        std::memcpy(ip + 12, from.address, 4);
        std::memcpy(ip + 16, to.address, 4);
        PutBig16(frame, kEthernetHeader + 10, FoldSum(SumWords(ip, 20)));
        pseudo = SumWords(ip + 12, 8) + protocol + static_cast<std::uint32_t>(transport.size());
    }
    std::uint8_t* l4 = &frame[kEthernetHeader + ipHeader];
    std::memcpy(l4, transport.data(), transport.size());
    std::uint16_t checksum = FoldSum(SumWords(l4, transport.size(), pseudo));
    // A UDP checksum of 0 means "none"; the same sum is sent as all ones.
    if (protocol == kProtocolUdp && checksum == 0)
        checksum = 0xFFFF;
    PutBig16(frame, kEthernetHeader + ipHeader + checksumAt, checksum);
    return frame;
}

const std::uint8_t kFin = 0x01;
const std::uint8_t kSyn = 0x02;
const std::uint8_t kPsh = 0x08;
const std::uint8_t kAck = 0x10;
// Window scale announced in the handshake: the window field's 65535 stands for about 16 MB.
const std::uint8_t kWindowShift = 8;
const std::uint32_t kWindow = 65535u << kWindowShift;

} // namespace

// ---------------------------------------------------------------- pcapng

CPcapngWriter::CPcapngWriter(COutputFile& file) : m_File(file), m_nInterfaces(0)
{
    std::string& block = m_Block;
    block.clear();
    Put32(block, 0x0A0D0D0A);
    Put32(block, 0);
    Put32(block, 0x1A2B3C4D); // byte-order magic
    Put16(block, 1);          // version 1.0
    Put16(block, 0);
    Put32(block, 0xFFFFFFFF); // section length unknown
    Put32(block, 0xFFFFFFFF);
    const char application[] = "tavrin-log";
    PutOption(block, 4, application, sizeof(application) - 1); // shb_userappl
    PutOption(block, 0, nullptr, 0);
    FinishBlock(block);
    m_File.Write(block);
}

std::uint32_t CPcapngWriter::AddInterface(std::uint16_t linkType, const ustring& name, const ustring& description)
{
    std::string& block = m_Block;
    block.clear();
    Put32(block, 1);
    Put32(block, 0);
    Put16(block, linkType);
    Put16(block, 0);
    Put32(block, 0); // no snapshot length limit
    const std::string utf8Name = ustring::WideCharToMultiByte(name, CP_UTF8);
    const std::string utf8Description = ustring::WideCharToMultiByte(description, CP_UTF8);
    PutOption(block, 2, utf8Name.data(), std::min<std::size_t>(utf8Name.size(), 0xFFFF)); // if_name
    PutOption(block, 3, utf8Description.data(), std::min<std::size_t>(utf8Description.size(), 0xFFFF));
    const std::uint8_t microseconds = 6;
    PutOption(block, 9, &microseconds, 1); // if_tsresol
    PutOption(block, 0, nullptr, 0);
    FinishBlock(block);
    m_File.Write(block);
    return m_nInterfaces++;
}

void CPcapngWriter::WritePacket(std::uint32_t interfaceId, std::uint64_t microseconds, const std::uint8_t* frame,
                                std::size_t size, EDirection direction, const std::vector<std::string>& comments)
{
    std::string& block = m_Block;
    block.clear();
    Put32(block, 6);
    Put32(block, 0);
    Put32(block, interfaceId);
    Put32(block, static_cast<std::uint32_t>(microseconds >> 32));
    Put32(block, static_cast<std::uint32_t>(microseconds));
    Put32(block, static_cast<std::uint32_t>(size));
    Put32(block, static_cast<std::uint32_t>(size));
    block.append(reinterpret_cast<const char*>(frame), size);
    Pad4(block);
    for (const std::string& comment : comments)
    {
        // An option holds at most 65535 bytes; cut at a character boundary.
        std::size_t length = std::min<std::size_t>(comment.size(), 0xFFFC);
        while (length < comment.size() && length > 0 && (static_cast<unsigned char>(comment[length]) & 0xC0) == 0x80)
            --length;
        PutOption(block, 1, comment.data(), length); // opt_comment
    }
    if (direction != kDirectionNone)
    {
        const std::uint32_t flags = direction;
        PutOption(block, 2, &flags, 4); // epb_flags
    }
    if (!comments.empty() || direction != kDirectionNone)
        PutOption(block, 0, nullptr, 0);
    FinishBlock(block);
    m_File.Write(block);
}

// ---------------------------------------------------------------- addresses

bool ParseEndpoint(const ustring& input, Endpoint& endpoint)
{
    ustring text = input;
    text.trim();
    // Only what has the shape of an address: a dotted quad or a bracketed or colon-rich IPv6
    // text, with an optional ":port" or "@port".
    const std::size_t at = text.find_last_of(L"@");
    ustring host = at == std::wstring::npos ? text : ustring(text.substr(0, at));
    ustring port = at == std::wstring::npos ? ustring() : ustring(text.substr(at + 1));
    if (at == std::wstring::npos)
    {
        const std::size_t close = text.rfind(L']');
        const std::size_t colon = text.rfind(L':');
        const bool bracketed = !text.empty() && text[0] == L'[';
        if (bracketed && close != std::wstring::npos && colon != std::wstring::npos && colon == close + 1)
        {
            host = text.substr(0, close + 1);
            port = text.substr(colon + 1);
        }
        else if (!bracketed && colon != std::wstring::npos && text.find(L':') == colon)
        {
            host = text.substr(0, colon); // IPv4 with port: exactly one colon
            port = text.substr(colon + 1);
        }
    }
    if (!port.empty() && (port.size() > 5 || port.find_first_not_of(L"0123456789") != std::wstring::npos))
        return false;
    const unsigned long portNumber = port.empty() ? 0 : std::wcstoul(port.c_str(), nullptr, 10);
    if (portNumber > 65535)
        return false;
    host.unwrap(L'[', L']');
    // The file-name form of IPv6 text has "_" for ":".
    if (host.find(L'_') != std::wstring::npos && host.find(L'.') == std::wstring::npos)
        host.replace(ustring(L"_"), ustring(L":"));

    std::memset(&endpoint, 0, sizeof(endpoint));
    in_addr v4;
    in6_addr v6;
    if (std::count(host.begin(), host.end(), L'.') == 3 && host.find(L':') == std::wstring::npos &&
        host.find_first_not_of(L"0123456789.") == std::wstring::npos && tavrin::ValidateIPv4(host, v4) != tavrin::AddressInvalid)
    {
        endpoint.nFamily = AF_INET;
        std::memcpy(endpoint.address, &v4, 4);
    }
    else if (host.find(L':') != std::wstring::npos && tavrin::ValidateIPv6(host, v6) != tavrin::AddressInvalid)
    {
        endpoint.nFamily = AF_INET6;
        std::memcpy(endpoint.address, &v6, 16);
    }
    else
        return false;
    endpoint.nPort = static_cast<std::uint16_t>(portNumber);
    return true;
}

ustring FormatEndpoint(const Endpoint& endpoint)
{
    tavrin::SOCKET_ADDRESS_EX address;
    if (endpoint.nFamily == AF_INET6)
    {
        sockaddr_in6 v6 = {};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(endpoint.nPort);
        std::memcpy(&v6.sin6_addr, endpoint.address, 16);
        address = v6;
    }
    else
    {
        sockaddr_in v4 = {};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(endpoint.nPort);
        std::memcpy(&v4.sin_addr, endpoint.address, 4);
        address = v4;
    }
    ustring text;
    address.AddressToStringEx(text, false);
    return text;
}

// ---------------------------------------------------------------- TCP

CTcpConversation::CTcpConversation(const Endpoint& local, const Endpoint& remote, bool localIsClient,
                                   std::uint32_t seed)
    : m_bLocalIsClient(localIsClient), m_bOpen(false)
{
    m_Local = Side{local, seed * 2654435761u + 0x1000, 0, static_cast<std::uint16_t>(seed * 7)};
    m_Remote = Side{remote, seed * 40503u + 0x7000000, 0, static_cast<std::uint16_t>(seed * 13)};
    m_Local.nAcked = m_Local.nNext;
    m_Remote.nAcked = m_Remote.nNext;
}

void CTcpConversation::Segment(Side& from, Side& to, std::uint8_t flags, const std::uint8_t* data, std::size_t size,
                               bool withOptions, std::vector<Frame>& out)
{
    const std::size_t header = withOptions ? 28 : 20;
    std::vector<std::uint8_t> tcp(header + size);
    PutBig16(tcp, 0, from.endpoint.nPort);
    PutBig16(tcp, 2, to.endpoint.nPort);
    PutBig32(tcp, 4, from.nNext);
    PutBig32(tcp, 8, (flags & kAck) ? to.nNext : 0);
    tcp[12] = static_cast<std::uint8_t>((header / 4) << 4);
    tcp[13] = flags;
    PutBig16(tcp, 14, 0xFFFF); // window (scaled after the handshake)
    if (withOptions)
    {
        // MSS, then NOP and the window scale.
        tcp[20] = 2;
        tcp[21] = 4;
        PutBig16(tcp, 22, static_cast<std::uint32_t>(kMaxSegment));
        tcp[24] = 1;
        tcp[25] = 3;
        tcp[26] = 3;
        tcp[27] = kWindowShift;
    }
    if (size != 0)
        std::memcpy(&tcp[header], data, size);
    out.push_back(Frame{BuildFrame(from.endpoint, to.endpoint, kProtocolTcp, tcp, 16, from.nIpId), &from == &m_Local});
    from.nNext += static_cast<std::uint32_t>(size) + ((flags & (kSyn | kFin)) ? 1 : 0);
    if (flags & kAck)
        to.nAcked = to.nNext;
}

void CTcpConversation::Open(std::vector<Frame>& out)
{
    Side& client = m_bLocalIsClient ? m_Local : m_Remote;
    Side& server = m_bLocalIsClient ? m_Remote : m_Local;
    Segment(client, server, kSyn, nullptr, 0, true, out);
    Segment(server, client, kSyn | kAck, nullptr, 0, true, out);
    Segment(client, server, kAck, nullptr, 0, false, out);
    m_bOpen = true;
}

void CTcpConversation::Send(bool fromLocal, const std::uint8_t* data, std::size_t size, std::vector<Frame>& out)
{
    Side& from = fromLocal ? m_Local : m_Remote;
    Side& to = fromLocal ? m_Remote : m_Local;
    for (std::size_t done = 0; done < size;)
    {
        const std::size_t chunk = std::min(size - done, kMaxSegment);
        // The receiver acknowledges before the sender would overrun the window it announced.
        if (from.nNext - from.nAcked + chunk > kWindow)
            Segment(to, from, kAck, nullptr, 0, false, out);
        Segment(from, to, static_cast<std::uint8_t>(kAck | (done + chunk == size ? kPsh : 0)), data + done, chunk,
                false, out);
        done += chunk;
    }
}

void CTcpConversation::Close(std::vector<Frame>& out)
{
    Segment(m_Local, m_Remote, kFin | kAck, nullptr, 0, false, out);
    Segment(m_Remote, m_Local, kFin | kAck, nullptr, 0, false, out);
    Segment(m_Local, m_Remote, kAck, nullptr, 0, false, out);
    m_bOpen = false;
}

// ---------------------------------------------------------------- UDP

CUdpFlow::CUdpFlow(const Endpoint& local, const Endpoint& remote) : m_Local(local), m_Remote(remote)
{
    m_nIpId[0] = 0x100;
    m_nIpId[1] = 0x8100;
}

void CUdpFlow::Send(bool fromLocal, const std::uint8_t* data, std::size_t size, std::vector<Frame>& out)
{
    const Endpoint& from = fromLocal ? m_Local : m_Remote;
    const Endpoint& to = fromLocal ? m_Remote : m_Local;
    std::size_t done = 0;
    do
    {
        const std::size_t chunk = std::min(size - done, kMaxDatagram);
        std::vector<std::uint8_t> udp(8 + chunk);
        PutBig16(udp, 0, from.nPort);
        PutBig16(udp, 2, to.nPort);
        PutBig16(udp, 4, static_cast<std::uint32_t>(udp.size()));
        if (chunk != 0)
            std::memcpy(&udp[8], data + done, chunk);
        out.push_back(Frame{BuildFrame(from, to, kProtocolUdp, udp, 6, m_nIpId[fromLocal ? 0 : 1]), fromLocal});
        done += chunk;
    } while (done < size);
}

} // namespace tavrinlog
