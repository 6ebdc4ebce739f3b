// tavrin-log: the pcapng file format and the network frames that carry a socket channel's bytes.
#pragma once

#include "tool.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tavrinlog {

// pcapng link types used here.
const std::uint16_t kLinkTypeEthernet = 1;
const std::uint16_t kLinkTypeUser0 = 147;
const std::uint16_t kLinkTypeUser15 = 162;

// Packet directions in the enhanced packet block's flags.
enum EDirection : std::uint32_t
{
    kDirectionNone = 0,
    kDirectionInbound = 1,
    kDirectionOutbound = 2
};

// A pcapng file of one section, written in the byte order of this machine (little endian).
class CPcapngWriter
{
public:
    // Writes the section header, naming the program that wrote it.
    explicit CPcapngWriter(COutputFile& file);
    // An interface description; its index is the number of interfaces added before it. Time
    // stamps of its packets are in microseconds.
    std::uint32_t AddInterface(std::uint16_t linkType, const ustring& name, const ustring& description);
    // One enhanced packet block: UTC time in microseconds since 1970, the frame, the direction
    // and comments (UTF-8 text; each longer than an option can hold is shortened).
    void WritePacket(std::uint32_t interfaceId, std::uint64_t microseconds, const std::uint8_t* frame,
                     std::size_t size, EDirection direction, const std::vector<std::string>& comments);

private:
    COutputFile& m_File;
    std::uint32_t m_nInterfaces;
    std::string m_Block;
};

// One side of a synthesized connection.
struct Endpoint
{
    int nFamily; // AF_INET or AF_INET6
    std::uint8_t address[16];
    std::uint16_t nPort;
    std::uint8_t mac[6];
};

// Reads an address as a socket names its channel or logs it: "127.0.0.1:5000",
// "[fe80::1%3]:80", their file-name forms "127.0.0.1@5000" and "[fe80__1%3]@80", or an address
// without a port. Only text that looks like an address is tried, so that "COM3" is never one.
// The port is 0 when the text has none.
bool ParseEndpoint(const ustring& text, Endpoint& endpoint);
// "127.0.0.1:5000" or "[::1]:5000".
ustring FormatEndpoint(const Endpoint& endpoint);

// A frame with the direction it travels: from the local side (the application that logged) or
// to it.
struct Frame
{
    std::vector<std::uint8_t> bytes;
    bool bFromLocal;
};

// The frames of a TCP connection between two endpoints: the handshake, the bytes each way with
// consistent sequence and acknowledgement numbers, and the close, every frame with correct IP
// and TCP checksums, so that Wireshark reassembles the stream and its dissectors work on it.
class CTcpConversation
{
public:
    CTcpConversation(const Endpoint& local, const Endpoint& remote, bool localIsClient, std::uint32_t seed);

    bool IsOpen() const { return m_bOpen; }
    void Open(std::vector<Frame>& out);
    // Data of any size; large blocks go out as several segments.
    void Send(bool fromLocal, const std::uint8_t* data, std::size_t size, std::vector<Frame>& out);
    // The local side closes first; both sides send FIN, the local side acknowledges the last.
    void Close(std::vector<Frame>& out);

private:
    struct Side
    {
        Endpoint endpoint;
        std::uint32_t nNext;   // next sequence number to send
        std::uint32_t nAcked;  // the highest sequence number of this side that the peer acknowledged
        std::uint16_t nIpId;
    };

    void Segment(Side& from, Side& to, std::uint8_t flags, const std::uint8_t* data, std::size_t size,
                 bool withOptions, std::vector<Frame>& out);

    Side m_Local;
    Side m_Remote;
    bool m_bLocalIsClient;
    bool m_bOpen;
};

// UDP datagrams between two endpoints.
class CUdpFlow
{
public:
    CUdpFlow(const Endpoint& local, const Endpoint& remote);
    // One datagram per block (several for a block larger than a datagram can hold).
    void Send(bool fromLocal, const std::uint8_t* data, std::size_t size, std::vector<Frame>& out);

private:
    Endpoint m_Local;
    Endpoint m_Remote;
    std::uint16_t m_nIpId[2];
};

// The largest payload of one frame here: an IPv4 packet's 65535 bytes less the IP and TCP
// headers.
const std::size_t kMaxSegment = 65495;
const std::size_t kMaxDatagram = 65507;

} // namespace tavrinlog
