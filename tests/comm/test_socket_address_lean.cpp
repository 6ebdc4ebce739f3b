// A caller built with WIN32_LEAN_AND_MEAN, whose <windows.h> does not pull in <winspool.h> and
// so has no SetPort macro, must reach the same SOCKET_ADDRESS_EX::SetPort as every other caller.
// This file only links if the library exports the member under its own name.
#define WIN32_LEAN_AND_MEAN
#include <tavrin/util/network.h>

#if defined(_WINSPOOL_) || defined(SetPort)
#error "this translation unit must see <windows.h> without <winspool.h>"
#endif

#include <gtest/gtest.h>

using tavrin::SOCKET_ADDRESS_EX;

TEST(SocketAddressLean, SetPortKeepsItsOwnNameWithoutWinspool)
{
    sockaddr_in v4 = {};
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    SOCKET_ADDRESS_EX address(v4);
    EXPECT_TRUE(address.SetPort(htons(8080)));
    EXPECT_EQ(htons(8080), address.GetPort());
    tavrin::ustring text;
    EXPECT_TRUE(address.AddressToStringEx(text));
    EXPECT_EQ(L"127.0.0.1:8080", text);
    SOCKET_ADDRESS_EX empty;
    EXPECT_FALSE(empty.SetPort(1));

    // The export is the undecorated member, in both widths; the macro's name is gone.
    const HMODULE library = ::GetModuleHandleW(L"Tavrin.dll");
    ASSERT_NE(nullptr, library);
    EXPECT_NE(nullptr, ::GetProcAddress(library, "_ZN6tavrin17SOCKET_ADDRESS_EX7SetPortEm"));
    EXPECT_EQ(nullptr, ::GetProcAddress(library, "_ZN6tavrin17SOCKET_ADDRESS_EX8SetPortWEm"));
    EXPECT_EQ(nullptr, ::GetProcAddress(library, "_ZN6tavrin17SOCKET_ADDRESS_EX8SetPortAEm"));
}
