// Name resolution: address text to socket addresses, through GetAddrInfoW.
//
//     for (const SOCKET_ADDRESS_EX& a : ResolveAddress(L"localhost:8080"))
//         ... try a.GetFamily() (AF_INET or AF_INET6) with CWSASocket::Connect(a) ...
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/util/network.h>

#include <vector>

namespace tavrin {

// The addresses that `text` names, in the resolver's order of preference, each once, with their
// ports set. The text is one of:
//   "host"            a name ("localhost") or a numeric address ("127.0.0.1", "::1", "fe80::1%2");
//   "host:port"       a name or an IPv4 address with a port or service name ("web:80", "web:http");
//   "[v6]" "[v6]:port" an IPv6 address (or a name) in brackets, with or without a port;
//   ":port" "[]:port" no host: the wildcard addresses, for Bind.
// An IPv6 address with a port must be bracketed: text with two or more colons and no brackets
// is read as an address alone. Without a port the addresses get `defaultPort` (host byte order;
// the records hold it in network byte order, as Winsock does).
//
// `family` limits the result to AF_INET or AF_INET6 (AF_UNSPEC: both). `flags` are the AI_*
// hints of GetAddrInfoW (AI_NUMERICHOST, for example, refuses names instead of asking DNS).
//
// Throws CWinException:
// - function "GetAddrInfoW" with the resolver's code when resolution fails: WSAHOST_NOT_FOUND
//   (11001) for an unknown host, WSATRY_AGAIN (11002) when no name server could be asked,
//   WSATYPE_NOT_FOUND (10109) for an unknown service name, WSAEAFNOSUPPORT (10047) for a family
//   other than the three above, and so on (Wine hands some refusals on as its host resolver's
//   own negative code, for example -9 for an address of the other family);
// - function "tavrin::ResolveAddress" with WSAEINVAL (10022) for text that is not of the forms
//   above (null, empty, "[::1", "[::1]x", "host:" with an empty port, a numeric port above
//   65535), and with WSANO_DATA (11004) when the resolver answers with no IPv4 or IPv6 address.
TAVRIN_API std::vector<SOCKET_ADDRESS_EX> ResolveAddress(const wchar_t* text, int family = AF_UNSPEC,
                                                         unsigned short defaultPort = 0, int flags = 0);

} // namespace tavrin
