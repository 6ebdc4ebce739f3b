// ICMP echo (ping) over IPv4 through the echo interface of the IP helper library.
//
//     CICMP icmp;
//     std::vector<unsigned char> request(32, 0x5A), reply;
//     in_addr to;
//     ValidateIPv4(L"127.0.0.1", to);
//     const DWORD error = icmp.SendEcho(to, request, reply, 1000, nullptr);
//     if (!reply.empty())
//     {
//         const ICMP_ECHO_REPLY& first = *reinterpret_cast<const ICMP_ECHO_REPLY*>(reply.data());
//         ... first.Status, first.RoundTripTime, first.DataSize ...
//     }
//     else
//         ... CICMP::Status2String(error) ...
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/object.h>
#include <tavrin/core/ustring.h>

#include <iphlpapi.h>
#include <icmpapi.h>

#include <vector>

namespace tavrin {

// An ICMP handle (IcmpCreateFile). It is owned like a kernel handle, with -1 as "none", but
// released with IcmpCloseHandle.
class TAVRIN_API CICMP : public CHandle<-1>
{
public:
    // IcmpCreateFile. A failure is not reported: IsCreated() is then false and every SendEcho
    // fails.
    CICMP();
    // Closes the handle; a failing close is swallowed.
    ~CICMP() override;

    // IcmpCloseHandle. False when no handle is held. The handle is forgotten whatever the result;
    // a failing close throws CWinException("IcmpCloseHandle", GetLastError()).
    bool Close() override;

    // Sends one echo request to `destination` and waits at most `timeout` milliseconds for the
    // replies. `options` (may be null) sets TTL, type of service and flags.
    //
    // `reply` is sized before the call to hold one reply record and the echoed data:
    // - 32-bit build: the request's size + 28, one 28-byte ICMP_ECHO_REPLY and the data
    //   (a 32-byte request gives a 60-byte reply buffer);
    // - 64-bit build: the request's size + 48, its own 40-byte ICMP_ECHO_REPLY, the data and the
    //   8 bytes of an ICMP error message that the 64-bit interface asks room for (a 32-byte
    //   request gives 80 bytes); 28 bytes would not even hold its record.
    // After a reply it begins with ICMP_ECHO_REPLY records (the layout of the build's width),
    // each with its own Status for Status2String; the data follow. When no reply came, `reply`
    // is empty.
    //
    // At most 65535 bytes are sent: a longer request is cut to 65535 (its reply buffer is sized
    // from the whole request all the same). An IPv4 echo carries at most 65507 bytes, so longer
    // requests fail.
    //
    // Returns GetLastError() as it stands after the call, in every case: after a failure the
    // reason (IP_REQ_TIMED_OUT 11010 when nothing answered in time, IP_GENERAL_FAILURE 11050,
    // ...), after a success whatever the thread's last error then holds (not a count of
    // replies). Nothing is thrown.
    virtual DWORD SendEcho(const in_addr& destination, const std::vector<unsigned char>& request,
                           std::vector<unsigned char>& reply, DWORD timeout, ip_option_information* const options);

    // The English sentence for an echo status (IP_SUCCESS, IP_BUF_TOO_SMALL, ...), or
    // "Unknown status <n>".
    static ustring Status2String(DWORD status);
};

} // namespace tavrin
