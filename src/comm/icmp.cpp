// CICMP: echo requests through IcmpSendEcho and the texts of their status codes.
#include <tavrin/comm/icmp.h>

namespace tavrin {

namespace {

// Room that SendEcho adds to the request's size for the reply record (see the header).
#ifdef _WIN64
constexpr std::size_t kReplyRoom = sizeof(ICMP_ECHO_REPLY) + 8;
#else
constexpr std::size_t kReplyRoom = 28;
static_assert(sizeof(ICMP_ECHO_REPLY) == kReplyRoom, "the 32-bit reply record is 28 bytes");
#endif

constexpr std::size_t kMaxRequest = 65535;

// The line that the exception of a failing close records; part of the interface.
constexpr unsigned int kLineClose = 40;

} // namespace

CICMP::CICMP() : CHandle<-1>(::IcmpCreateFile()) {}

CICMP::~CICMP()
{
    // CHandle's destructor would release the handle with CloseHandle; it must find none left.
    try
    {
        Close();
    }
    catch (...)
    {
    }
}

bool CICMP::Close()
{
    if (!IsCreated())
        return false;
    if (!::IcmpCloseHandle(Detach()))
        throw CWinException(kLineClose, L"icmp", L"IcmpCloseHandle", static_cast<long>(::GetLastError()));
    return true;
}

DWORD CICMP::SendEcho(const in_addr& destination, const std::vector<unsigned char>& request,
                      std::vector<unsigned char>& reply, DWORD timeout, ip_option_information* const options)
{
    reply.assign(request.size() + kReplyRoom, 0);
    const WORD size = static_cast<WORD>(request.size() > kMaxRequest ? kMaxRequest : request.size());
    const DWORD replies =
        ::IcmpSendEcho(GetHandle(), destination.S_un.S_addr, const_cast<unsigned char*>(request.data()), size, options,
                       reply.data(), static_cast<DWORD>(reply.size()), timeout);
    const DWORD error = ::GetLastError();
    if (replies == 0)
        reply.clear();
    return error;
}

ustring CICMP::Status2String(DWORD status)
{
    static const struct
    {
        DWORD nStatus;
        const wchar_t* pszText;
    } texts[] = {
        {IP_SUCCESS, L"The status was success."},
        {IP_BUF_TOO_SMALL, L"The reply buffer was too small."},
        {IP_DEST_NET_UNREACHABLE, L"The destination network was unreachable."},
        {IP_DEST_HOST_UNREACHABLE, L"The destination host was unreachable."},
        {IP_DEST_PROT_UNREACHABLE, L"The destination protocol was unreachable."},
        {IP_DEST_PORT_UNREACHABLE, L"The destination port was unreachable."},
        {IP_NO_RESOURCES, L"Insufficient IP resources were available."},
        {IP_BAD_OPTION, L"A bad IP option was specified."},
        {IP_HW_ERROR, L"A hardware error occurred."},
        {IP_PACKET_TOO_BIG, L"The packet was too big."},
        {IP_REQ_TIMED_OUT, L"The request timed out."},
        {IP_BAD_REQ, L"A bad request."},
        {IP_BAD_ROUTE, L"A bad route."},
        // The missing parenthesis is the established text; applications compare against it.
        {IP_TTL_EXPIRED_TRANSIT, L"The time to live(TTL expired in transit."},
        {IP_TTL_EXPIRED_REASSEM, L"The time to live expired during fragment reassembly."},
        {IP_PARAM_PROBLEM, L"A parameter problem."},
        {IP_SOURCE_QUENCH, L"Datagrams are arriving too fast to be processed and datagrams may have been discarded."},
        {IP_OPTION_TOO_BIG, L"An IP option was too big."},
        {IP_BAD_DESTINATION, L"A bad destination."},
        {IP_GENERAL_FAILURE, L"A general failure."},
    };
    for (const auto& entry : texts)
        if (entry.nStatus == status)
            return entry.pszText;
    return ustring::sprintf_stc(L"Unknown status %u", status);
}

} // namespace tavrin
