// CCommPort::EnumCommPorts: the serial ports that the system publishes.
//
// Windows publishes a serial port in two places: its driver writes the device map
// (HKLM\HARDWARE\DEVICEMAP\SERIALCOMM, value "\Device\SerialN" = "COMn") and links the DOS
// device name COMn to the device (QueryDosDeviceW). Some drivers (virtual and Bluetooth ports)
// do only one of the two, so both are read. Friendly names come from the Plug and Play records
// of the Ports device class, which SetupAPI reaches; it is bound at run time because the names
// are a courtesy that a system without them must not turn into a failure to load.
#include <tavrin/comm/commport.h>
#include <tavrin/core/exception.h>
#include <tavrin/core/library.h>
#include <tavrin/l10n/registry.h>

#include <setupapi.h>

#include <algorithm>
#include <cwctype>

namespace tavrin {

namespace {

const wchar_t kSerialDeviceMap[] = L"HARDWARE\\DEVICEMAP\\SERIALCOMM";

// {4D36E978-E325-11CE-BFC1-08002BE10318}, the device setup class "Ports (COM & LPT)".
const GUID kPortsClass = {0x4D36E978, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

typedef std::vector<CCommPort::COMM_PORT_INFO> PortList;

// "COM" followed by digits only, in any case: the DOS device names of serial ports.
bool IsComName(const ustring& name)
{
    if (name.size() < 4 || ustring(name.substr(0, 3)).compare(L"COM", ustring::npos, CaseInsensitive) != 0)
        return false;
    return std::all_of(name.begin() + 3, name.end(), [](wchar_t ch) { return std::iswdigit(ch) != 0; });
}

CCommPort::COMM_PORT_INFO* FindPort(PortList& ports, const ustring& name)
{
    for (CCommPort::COMM_PORT_INFO& port : ports)
    {
        if (port.strName.compare(name, ustring::npos, CaseInsensitive) == 0)
            return &port;
    }
    return nullptr;
}

void AddPort(PortList& ports, const ustring& name, const ustring& device)
{
    if (CCommPort::COMM_PORT_INFO* known = FindPort(ports, name))
    {
        if (known->strDevice.empty())
            known->strDevice = device;
        return;
    }
    CCommPort::COMM_PORT_INFO port;
    port.strName = name;
    port.strPath = L"\\\\.\\" + name;
    port.strDevice = device;
    ports.push_back(port);
}

void ReadDeviceMap(PortList& ports)
{
    std::vector<ustring> devices;
    if (!RegEnumValues(HKEY_LOCAL_MACHINE, kSerialDeviceMap, devices))
        return;
    for (const ustring& device : devices)
    {
        ustring name;
        if (RegGetValue(HKEY_LOCAL_MACHINE, kSerialDeviceMap, device, name) && !name.empty())
            AddPort(ports, name, device);
    }
}

// QueryDosDeviceW into a buffer that grows until the whole answer fits. False (with the
// system's error) on any other failure.
bool QueryDosDevice(const wchar_t* name, ustring& out, DWORD& error)
{
    std::vector<wchar_t> buffer(name ? MAX_PATH : 16384);
    for (;;)
    {
        const DWORD length = ::QueryDosDeviceW(name, buffer.data(), static_cast<DWORD>(buffer.size()));
        if (length != 0)
        {
            out.assign(buffer.data(), length);
            return true;
        }
        error = ::GetLastError();
        // A few hundred thousand code units hold every DOS device of any real system; a limit
        // keeps a misbehaving answer from growing the buffer for ever.
        if (error != ERROR_INSUFFICIENT_BUFFER || buffer.size() >= (1u << 22))
            return false;
        buffer.resize(buffer.size() * 2);
    }
}

void ReadDosDevices(PortList& ports)
{
    ustring all;
    DWORD error = 0;
    if (!QueryDosDevice(nullptr, all, error))
        throw CWinException(__LINE__, TAVRIN_WFILE, L"QueryDosDeviceW", static_cast<long>(error));
    std::vector<ustring> names;
    ustring::split(all, names);
    for (const ustring& name : names)
    {
        if (!IsComName(name))
            continue;
        ustring targets;
        std::vector<ustring> devices;
        if (QueryDosDevice(name, targets, error))
            ustring::split(targets, devices);
        AddPort(ports, name, devices.empty() ? ustring() : devices.front());
    }
}

// The SetupAPI functions that the friendly names need.
class CSetupApiPorts : public CLibrary
{
public:
    CSetupApiPorts() : CLibrary(L"setupapi.dll")
    {
        m_bBound = GetProcAddress("SetupDiGetClassDevsW", m_pfnGetClassDevs) &&
                   GetProcAddress("SetupDiEnumDeviceInfo", m_pfnEnumDeviceInfo) &&
                   GetProcAddress("SetupDiOpenDevRegKey", m_pfnOpenDevRegKey) &&
                   GetProcAddress("SetupDiGetDeviceRegistryPropertyW", m_pfnGetDeviceRegistryProperty) &&
                   GetProcAddress("SetupDiDestroyDeviceInfoList", m_pfnDestroyDeviceInfoList);
    }

    // Fills in the friendly name of every listed port that the Ports class knows.
    void ReadFriendlyNames(PortList& ports) const
    {
        if (!m_bBound)
            return;
        const HDEVINFO set = m_pfnGetClassDevs(&kPortsClass, nullptr, nullptr, DIGCF_PRESENT);
        if (set == INVALID_HANDLE_VALUE)
            return;
        SP_DEVINFO_DATA device = {};
        device.cbSize = sizeof(device);
        for (DWORD index = 0; m_pfnEnumDeviceInfo(set, index, &device); ++index)
        {
            CCommPort::COMM_PORT_INFO* port = FindPort(ports, PortName(set, device));
            if (port != nullptr)
                port->strFriendlyName = FriendlyName(set, device);
        }
        m_pfnDestroyDeviceInfoList(set);
    }

private:
    typedef HDEVINFO(WINAPI* PFNGETCLASSDEVS)(const GUID*, PCWSTR, HWND, DWORD);
    typedef BOOL(WINAPI* PFNENUMDEVICEINFO)(HDEVINFO, DWORD, PSP_DEVINFO_DATA);
    typedef HKEY(WINAPI* PFNOPENDEVREGKEY)(HDEVINFO, PSP_DEVINFO_DATA, DWORD, DWORD, DWORD, REGSAM);
    typedef BOOL(WINAPI* PFNGETDEVICEREGISTRYPROPERTY)(HDEVINFO, PSP_DEVINFO_DATA, DWORD, PDWORD, PBYTE, DWORD, PDWORD);
    typedef BOOL(WINAPI* PFNDESTROYDEVICEINFOLIST)(HDEVINFO);

    // The port name ("COM3") that the device's own key records; empty when it has none (a
    // printer port of the same class, for instance).
    ustring PortName(HDEVINFO set, SP_DEVINFO_DATA& device) const
    {
        ustring name;
        const HKEY key = m_pfnOpenDevRegKey(set, &device, DICS_FLAG_GLOBAL, 0, DIREG_DEV, KEY_QUERY_VALUE);
        if (key == INVALID_HANDLE_VALUE || key == nullptr)
            return name;
        RegGetValue(key, L"", L"PortName", name);
        ::RegCloseKey(key);
        return name;
    }

    ustring FriendlyName(HDEVINFO set, SP_DEVINFO_DATA& device) const
    {
        std::vector<BYTE> buffer(512);
        DWORD needed = 0;
        if (!m_pfnGetDeviceRegistryProperty(set, &device, SPDRP_FRIENDLYNAME, nullptr, buffer.data(),
                                            static_cast<DWORD>(buffer.size()), &needed))
        {
            if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER || needed <= buffer.size())
                return ustring();
            buffer.resize(needed);
            if (!m_pfnGetDeviceRegistryProperty(set, &device, SPDRP_FRIENDLYNAME, nullptr, buffer.data(),
                                                static_cast<DWORD>(buffer.size()), &needed))
                return ustring();
        }
        const wchar_t* text = reinterpret_cast<const wchar_t*>(buffer.data());
        return ustring(text, static_cast<unsigned int>(wcsnlen(text, buffer.size() / sizeof(wchar_t))));
    }

    bool m_bBound = false;
    PFNGETCLASSDEVS m_pfnGetClassDevs = nullptr;
    PFNENUMDEVICEINFO m_pfnEnumDeviceInfo = nullptr;
    PFNOPENDEVREGKEY m_pfnOpenDevRegKey = nullptr;
    PFNGETDEVICEREGISTRYPROPERTY m_pfnGetDeviceRegistryProperty = nullptr;
    PFNDESTROYDEVICEINFOLIST m_pfnDestroyDeviceInfoList = nullptr;
};

} // namespace

std::vector<CCommPort::COMM_PORT_INFO> CCommPort::EnumCommPorts()
{
    PortList ports;
    ReadDeviceMap(ports);
    ReadDosDevices(ports);
    CSetupApiPorts().ReadFriendlyNames(ports);

    // By number (COM9 before COM10); names that share a number, or carry none, keep a fixed
    // order among themselves.
    std::sort(ports.begin(), ports.end(), [](const COMM_PORT_INFO& a, const COMM_PORT_INFO& b) {
        return a.strName.compare(b.strName, ustring::npos, CaseInsensitive) < 0;
    });
    std::stable_sort(ports.begin(), ports.end(), [](const COMM_PORT_INFO& a, const COMM_PORT_INFO& b) {
        return LessStrWN()(a.strName, b.strName);
    });
    return ports;
}

} // namespace tavrin
