// Winsock start-up shared by the library's network sources (not part of its interface).
#pragma once

namespace tavrin {
namespace detail {

// Starts Winsock 2.2 once for the process. Everything that calls Winsock on the caller's behalf
// (address text, name resolution, sockets) calls this first, so that applications never have to
// call WSAStartup themselves.
void EnsureWinsock();

} // namespace detail
} // namespace tavrin
