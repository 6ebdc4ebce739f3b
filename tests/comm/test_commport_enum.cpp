// Serial-port discovery: what the system publishes, each port once, in the order of the numbers.
#include "test_commport_support.h"

#include <tavrin/comm/commport.h>

#include <gtest/gtest.h>

#include <cwctype>

using namespace tavrin;
using namespace commtest;

namespace {

// The number in a port name, read here on its own ("COM10" -> 10); -1 without digits.
long PortNumber(const ustring& name)
{
    const std::size_t digit = name.find_first_of(L"0123456789");
    return digit == std::wstring::npos ? -1 : std::wcstol(name.c_str() + digit, nullptr, 10);
}

} // namespace

TEST(CommPortEnum, ListsThePublishedPortsOnceInTheOrderOfTheirNumbers)
{
    COMMTEST_PORT(first, 0);
    const std::vector<CCommPort::COMM_PORT_INFO> ports = CCommPort::EnumCommPorts();

    for (std::size_t i = 0; i < ports.size(); ++i)
    {
        const CCommPort::COMM_PORT_INFO& port = ports[i];
        EXPECT_FALSE(port.strName.empty());
        EXPECT_EQ(L"\\\\.\\" + port.strName, port.strPath);
        if (i > 0)
        {
            EXPECT_LE(PortNumber(ports[i - 1].strName), PortNumber(port.strName))
                << Narrow(ports[i - 1].strName) << " before " << Narrow(port.strName);
            EXPECT_NE(0, ports[i - 1].strName.compare(port.strName, ustring::npos, CaseInsensitive))
                << Narrow(port.strName) << " is listed twice";
        }
        // What the system itself says the DOS device is.
        wchar_t target[1024] = {};
        if (::QueryDosDeviceW(port.strName, target, 1024) != 0)
        {
            EXPECT_EQ(ustring(target), port.strDevice) << Narrow(port.strName);
        }
    }

    // The harness's ports, whose numbers cross from two digits to three, are all there.
    std::vector<ustring> listed;
    for (const CCommPort::COMM_PORT_INFO& port : ports)
        listed.push_back(port.strName);
    const std::vector<CTestPort> harness = HarnessPorts();
    std::vector<ustring> expected;
    for (const CTestPort& port : harness)
        expected.push_back(port.strName);
    std::vector<ustring> found;
    for (const ustring& name : listed)
    {
        if (std::find(expected.begin(), expected.end(), name) != expected.end())
            found.push_back(name);
    }
    EXPECT_EQ(expected, found) << "the harness's ports are not published, or not in number order (restart the "
                                  "prefix's Wine server so that its device manager reads HKLM\\Software\\Wine\\Ports)";

    // A listed port opens by the name it is listed with and carries data.
    const auto it = std::find_if(ports.begin(), ports.end(), [&first](const CCommPort::COMM_PORT_INFO& port) {
        return port.strName == first.strName;
    });
    ASSERT_NE(ports.end(), it);
    EXPECT_FALSE(it->strDevice.empty());
    COMMTEST_PEER(peer, first);
    CCommPort port(it->strPath, 0);
    unsigned int written = 0;
    ASSERT_TRUE(port.Write("enum", 4, written));
    EXPECT_EQ(std::vector<unsigned char>({'e', 'n', 'u', 'm'}), peer.Read(4));
}
