// Registry helpers and saved window placement.
#include <tavrin/l10n/registry.h>
#include <tavrin/core/file.h>

#include <cstring>
#include <cwchar>

namespace tavrin {

namespace {

const wchar_t* const g_pszDefaultCompany = L"Vemko";
const wchar_t* const g_pszWindowPlacementKey = L"WindowPlacement";
const wchar_t* const g_pszWindowPlacementFormat = L"%u,%u,%d,%d,%d,%d,%d,%d,%d,%d";

// An open registry key, closed when the object goes.
class CRegKey
{
public:
    CRegKey() = default;
    CRegKey(const CRegKey&) = delete;
    CRegKey& operator=(const CRegKey&) = delete;
    ~CRegKey()
    {
        if (m_hKey)
            ::RegCloseKey(m_hKey);
    }

    // Opens an existing key; the Windows error code.
    long Open(HKEY root, const wchar_t* key, REGSAM access)
    {
        return ::RegOpenKeyExW(root, key ? key : L"", 0, access, &m_hKey);
    }

    // Opens the key, creating it and every missing key above it.
    long Create(HKEY root, const wchar_t* key, REGSAM access)
    {
        return ::RegCreateKeyExW(root, key ? key : L"", 0, nullptr, REG_OPTION_NON_VOLATILE, access, nullptr,
                                 &m_hKey, nullptr);
    }

    HKEY Get() const { return m_hKey; }

private:
    HKEY m_hKey = nullptr;
};

// Writes one value, creating the key first when needed.
bool WriteRaw(HKEY root, const wchar_t* key, const wchar_t* valueName, DWORD type, const void* data, size_t bytes)
{
    CRegKey hKey;
    if (hKey.Create(root, key, KEY_SET_VALUE) != ERROR_SUCCESS)
        return false;
    return ::RegSetValueExW(hKey.Get(), valueName, 0, type, static_cast<const BYTE*>(data),
                            static_cast<DWORD>(bytes)) == ERROR_SUCCESS;
}

// Registry bytes as UTF-16 text (an odd trailing byte is dropped).
ustring BytesToText(const std::vector<unsigned char>& data)
{
    ustring text;
    text.resize(data.size() / sizeof(wchar_t));
    if (!text.empty())
        std::memcpy(&text[0u], data.data(), text.size() * sizeof(wchar_t));
    return text;
}

// Enumerates the key's subkey names (subKeys true) or value names into `out`.
bool EnumNames(HKEY root, const wchar_t* key, bool subKeys, std::vector<ustring>& out)
{
    out.clear();
    CRegKey hKey;
    if (hKey.Open(root, key, KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS) != ERROR_SUCCESS)
        return false;
    DWORD maxSubKeyLength = 0, maxValueNameLength = 0;
    if (::RegQueryInfoKeyW(hKey.Get(), nullptr, nullptr, nullptr, nullptr, &maxSubKeyLength, nullptr, nullptr,
                           &maxValueNameLength, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
        return false;
    std::vector<wchar_t> name((subKeys ? maxSubKeyLength : maxValueNameLength) + 1u);
    for (DWORD index = 0;; ++index)
    {
        DWORD length = static_cast<DWORD>(name.size());
        long result = subKeys ? ::RegEnumKeyExW(hKey.Get(), index, name.data(), &length, nullptr, nullptr, nullptr, nullptr)
                              : ::RegEnumValueW(hKey.Get(), index, name.data(), &length, nullptr, nullptr, nullptr, nullptr);
        if (result == ERROR_NO_MORE_ITEMS)
            return true;
        if (result == ERROR_MORE_DATA)
        {
            // A name added since the size query: grow and ask again for the same index.
            name.resize(name.size() * 2u);
            --index;
            continue;
        }
        if (result != ERROR_SUCCESS)
        {
            out.clear();
            return false;
        }
        out.emplace_back(name.data(), static_cast<unsigned int>(length));
    }
}

} // namespace

bool RegGetDefaultKeyName(const wchar_t* company, const wchar_t* product, const wchar_t* subkey, ustring& out)
{
    ustring productName;
    if (product)
        productName = product;
    else
    {
        wchar_t modulePath[MAX_PATH + 1] = {};
        DWORD length = ::GetModuleFileNameW(nullptr, modulePath, MAX_PATH);
        if (length == 0)
            return false;
        ustring drive, dir, ext;
        CFile::SplitPath(modulePath, drive, dir, productName, ext);
    }
    if (!company)
        company = g_pszDefaultCompany;
    if (subkey)
        out.sprintf(L"SOFTWARE\\%ls\\%ls\\%ls", company, productName.c_str(), subkey);
    else
        out.sprintf(L"SOFTWARE\\%ls\\%ls", company, productName.c_str());
    return true;
}

long RegGetKeyValue(HKEY root, const wchar_t* key, const wchar_t* valueName, unsigned long& type,
                    std::vector<unsigned char>& data)
{
    type = REG_NONE;
    data.clear();
    CRegKey hKey;
    long result = hKey.Open(root, key, KEY_QUERY_VALUE);
    if (result != ERROR_SUCCESS)
        return result;
    for (;;)
    {
        DWORD valueType = REG_NONE;
        DWORD size = static_cast<DWORD>(data.size());
        result = ::RegQueryValueExW(hKey.Get(), valueName, nullptr, &valueType, data.empty() ? nullptr : data.data(),
                                    &size);
        // The first round (no buffer) only learns the size; a value that grew in between is
        // asked for again with the larger size.
        if (result == ERROR_MORE_DATA || (result == ERROR_SUCCESS && data.empty() && size > 0))
        {
            data.resize(size);
            continue;
        }
        if (result != ERROR_SUCCESS)
        {
            data.clear();
            return result;
        }
        data.resize(size);
        type = valueType;
        return ERROR_SUCCESS;
    }
}

bool RegGetValue(HKEY root, const wchar_t* key, const wchar_t* valueName, ustring& out, const wchar_t* defaultValue)
{
    out = defaultValue;
    unsigned long type = REG_NONE;
    std::vector<unsigned char> data;
    if (RegGetKeyValue(root, key, valueName, type, data) != ERROR_SUCCESS || (type != REG_SZ && type != REG_EXPAND_SZ))
        return false;
    ustring text = BytesToText(data);
    size_t end = text.find(L'\0');
    if (end != std::wstring::npos)
        text.resize(end);
    out = std::move(text);
    return true;
}

bool RegGetValue(HKEY root, const wchar_t* key, const wchar_t* valueName, unsigned long& out, unsigned long defaultValue)
{
    out = defaultValue;
    unsigned long type = REG_NONE;
    std::vector<unsigned char> data;
    if (RegGetKeyValue(root, key, valueName, type, data) != ERROR_SUCCESS || type != REG_DWORD ||
        data.size() < sizeof(DWORD))
        return false;
    DWORD value = 0;
    std::memcpy(&value, data.data(), sizeof(value));
    out = value;
    return true;
}

bool RegGetValue(HKEY root, const wchar_t* key, const wchar_t* valueName, std::vector<unsigned char>& out)
{
    unsigned long type = REG_NONE;
    return RegGetKeyValue(root, key, valueName, type, out) == ERROR_SUCCESS;
}

bool RegGetValue(HKEY root, const wchar_t* key, const wchar_t* valueName, std::vector<ustring>& out)
{
    out.clear();
    unsigned long type = REG_NONE;
    std::vector<unsigned char> data;
    if (RegGetKeyValue(root, key, valueName, type, data) != ERROR_SUCCESS || type != REG_MULTI_SZ)
        return false;
    ustring text = BytesToText(data);
    // The list reader needs the closing NUL inside the text; values written by other programs
    // do not always carry it.
    if (text.empty() || text.back() != L'\0')
        text += L'\0';
    ustring::split(text, out);
    return true;
}

bool RegWriteValue(HKEY root, const wchar_t* key, const wchar_t* valueName, const wchar_t* value)
{
    if (!value)
        value = L"";
    return WriteRaw(root, key, valueName, REG_SZ, value, (std::wcslen(value) + 1u) * sizeof(wchar_t));
}

bool RegWriteValue(HKEY root, const wchar_t* key, const wchar_t* valueName, const std::vector<ustring>& value)
{
    ustring text;
    ustring::join(value, text);
    // The string's own terminator is the list's closing NUL.
    return WriteRaw(root, key, valueName, REG_MULTI_SZ, text.c_str(), (text.size() + 1u) * sizeof(wchar_t));
}

bool RegWriteValue(HKEY root, const wchar_t* key, const wchar_t* valueName, unsigned long value)
{
    DWORD data = value;
    return WriteRaw(root, key, valueName, REG_DWORD, &data, sizeof(data));
}

bool RegCreateKeyW(HKEY root, const wchar_t* key)
{
    CRegKey hKey;
    return hKey.Create(root, key, KEY_READ) == ERROR_SUCCESS;
}

bool RegDeleteKeyW(HKEY root, const wchar_t* key)
{
    if (!key || !*key)
        return false;
    if (::RegDeleteTreeW(root, key) != ERROR_SUCCESS)
        return false;
    // Systems that only empty the named key leave it for this call.
    long result = ::RegDeleteKeyW(root, key);
    return result == ERROR_SUCCESS || result == ERROR_FILE_NOT_FOUND;
}

bool RegDeleteValueW(HKEY root, const wchar_t* key, const wchar_t* valueName)
{
    CRegKey hKey;
    if (hKey.Open(root, key, KEY_SET_VALUE) != ERROR_SUCCESS)
        return false;
    return ::RegDeleteValueW(hKey.Get(), valueName) == ERROR_SUCCESS;
}

bool RegEnumSubKeys(HKEY root, const wchar_t* key, std::vector<ustring>& out)
{
    return EnumNames(root, key, true, out);
}

bool RegEnumValues(HKEY root, const wchar_t* key, std::vector<ustring>& out)
{
    return EnumNames(root, key, false, out);
}

// The key under HKEY_CURRENT_USER that holds the saved placements of the application's windows.
static bool WindowPlacementKey(ustring& key)
{
    return RegGetDefaultKeyName(nullptr, nullptr, g_pszWindowPlacementKey, key);
}

bool WriteWindowPlacement(const wchar_t* name, const WINDOWPLACEMENT& placement)
{
    ustring key;
    if (!name || !WindowPlacementKey(key))
        return false;
    ustring text;
    text.sprintf(g_pszWindowPlacementFormat, placement.flags, placement.showCmd,
                 static_cast<int>(placement.ptMinPosition.x), static_cast<int>(placement.ptMinPosition.y),
                 static_cast<int>(placement.ptMaxPosition.x), static_cast<int>(placement.ptMaxPosition.y),
                 static_cast<int>(placement.rcNormalPosition.left), static_cast<int>(placement.rcNormalPosition.top),
                 static_cast<int>(placement.rcNormalPosition.right), static_cast<int>(placement.rcNormalPosition.bottom));
    return RegWriteValue(HKEY_CURRENT_USER, key, name, text.c_str());
}

bool ReadWindowPlacement(const wchar_t* name, WINDOWPLACEMENT& placement)
{
    ustring key;
    if (!name || !WindowPlacementKey(key))
        return false;
    ustring text;
    if (!RegGetValue(HKEY_CURRENT_USER, key, name, text, L"") || text.empty())
        return false;
    placement = WINDOWPLACEMENT();
    placement.length = sizeof(WINDOWPLACEMENT);
    // LONG and UINT are 32 bits on every Windows target, which is what %d and %u read.
    unsigned int flags = 0, showCmd = 0;
    int minX = 0, minY = 0, maxX = 0, maxY = 0, left = 0, top = 0, right = 0, bottom = 0;
    int fields = std::swscanf(text.c_str(), g_pszWindowPlacementFormat, &flags, &showCmd, &minX, &minY, &maxX, &maxY,
                              &left, &top, &right, &bottom);
    placement.flags = flags;
    placement.showCmd = showCmd;
    placement.ptMinPosition.x = minX;
    placement.ptMinPosition.y = minY;
    placement.ptMaxPosition.x = maxX;
    placement.ptMaxPosition.y = maxY;
    placement.rcNormalPosition.left = left;
    placement.rcNormalPosition.top = top;
    placement.rcNormalPosition.right = right;
    placement.rcNormalPosition.bottom = bottom;
    return fields == 10;
}

} // namespace tavrin
