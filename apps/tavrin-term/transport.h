// The connection to the device: one interface for a serial port, a TCP client and a TCP server.
// Every transport is built on the library's logged classes, so each connection leaves its own
// data log file with every byte and call.
#pragma once

#include "options.h"

#include <tavrin/comm/commport.h>
#include <tavrin/comm/socket.h>
#include <tavrin/core/object.h>

#include <memory>

namespace term {

class CTransport
{
public:
    virtual ~CTransport() = default;

    // Opens the port, connects, or waits for the next client. Waits at most `timeoutMs` (a
    // server waits for its client until stopped); false when `stop` was signalled first. Throws
    // CStdException when the connection cannot be made.
    virtual bool Open(HANDLE stop, unsigned int timeoutMs) = 0;
    // Closes the connection (a server keeps listening for the next client). Never throws.
    virtual void Close() = 0;
    virtual bool IsOpen() const = 0;

    // Starts a read unless one is running; returns the event that its completion signals.
    virtual HANDLE BeginRead() = 0;
    // After that event: the bytes read (none when the read ended without data). Throws
    // CStdException when the connection failed or the peer ended it.
    virtual void EndRead(Bytes& data) = 0;
    // Sends every byte, waiting at most `timeoutMs`; throws when that fails or takes longer.
    virtual void Write(const unsigned char* data, size_t size, HANDLE stop, unsigned int timeoutMs) = 0;
    // Sends a break (serial ports only): false when the transport has none.
    virtual bool SendBreak() { return false; }

    // "COM3", "127.0.0.1:5000": what the user connected to.
    virtual ustring Peer() const = 0;
    // The name that the data log file of the current connection begins with.
    virtual ustring LogName() const = 0;
    // A server takes the next client after a connection ends.
    virtual bool IsServer() const { return false; }
    // A hint for the user after a failure of this transport with `error`.
    virtual ustring Hint(long error) const = 0;
};

// Serial port (CCommPort, overlapped).
class CSerialTransport : public CTransport
{
public:
    CSerialTransport(const ustring& port, const Options& options);
    ~CSerialTransport() override;

    bool Open(HANDLE stop, unsigned int timeoutMs) override;
    void Close() override;
    bool IsOpen() const override { return m_Port.IsCreated(); }
    HANDLE BeginRead() override;
    void EndRead(Bytes& data) override;
    void Write(const unsigned char* data, size_t size, HANDLE stop, unsigned int timeoutMs) override;
    bool SendBreak() override;
    ustring Peer() const override { return m_strPort; }
    ustring LogName() const override;
    ustring Hint(long error) const override;

    // The name to open: COM1 to COM9 as they are, anything higher in the device form \\.\COM10.
    static ustring DeviceName(const ustring& port);

private:
    void FinishPending();

    ustring m_strPort;
    const Options& m_Options;
    tavrin::CCommPort m_Port;
    tavrin::COverlapped m_ReadOv;
    tavrin::COverlapped m_WriteOv;
    unsigned char m_Buffer[4096];
    bool m_bReadPending;
};

// TCP: a client that connects to host:port, or a server that accepts one client at a time.
class CTcpTransport : public CTransport
{
public:
    CTcpTransport(const ustring& address, bool server);
    ~CTcpTransport() override;

    bool Open(HANDLE stop, unsigned int timeoutMs) override;
    void Close() override;
    bool IsOpen() const override { return m_Socket.IsCreated(); }
    HANDLE BeginRead() override;
    void EndRead(Bytes& data) override;
    void Write(const unsigned char* data, size_t size, HANDLE stop, unsigned int timeoutMs) override;
    ustring Peer() const override;
    ustring LogName() const override;
    bool IsServer() const override { return m_bServer; }
    ustring Hint(long error) const override;

    // The server's own address once it listens (its port, when 0 was asked for).
    tavrin::SOCKET_ADDRESS_EX ListeningAddress();

private:
    bool Connect(HANDLE stop, unsigned int timeoutMs);
    bool Accept(HANDLE stop);
    void Listen();
    // Closes the socket and waits (bounded) for its pending operations to end.
    void Abort();

    ustring m_strAddress;
    bool m_bServer;
    tavrin::CWSASocket m_Listener;
    tavrin::CWSASocket m_Socket;
    tavrin::SOCKET_ADDRESS_EX m_Peer;
    tavrin::COverlapped m_ReadOv;
    tavrin::COverlapped m_WriteOv;
    unsigned char m_Buffer[4096];
    DWORD m_nReadFlags;
    bool m_bReadPending;
    bool m_bWritePending;
};

// The transport that the options ask for.
std::unique_ptr<CTransport> MakeTransport(const Options& options);

} // namespace term
