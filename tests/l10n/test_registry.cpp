// Registry helpers against the real (Wine) registry. Every test works below a key of its own
// under HKEY_CURRENT_USER and deletes it afterwards.
#include <tavrin/l10n/registry.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

using namespace tavrin;

namespace {

// The default key of this test program, as the window-placement helpers use it.
const wchar_t* const g_pszProgramKey = L"SOFTWARE\\Vemko\\tavrin_l10n_tests";

class Registry : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_strKey.sprintf(L"SOFTWARE\\TavrinTests\\Registry%lu", ::GetCurrentProcessId());
        ::RegDeleteTreeW(HKEY_CURRENT_USER, m_strKey.c_str());
    }
    void TearDown() override
    {
        ::RegDeleteTreeW(HKEY_CURRENT_USER, m_strKey.c_str());
        ::RegDeleteKeyW(HKEY_CURRENT_USER, m_strKey.c_str());
        ::RegDeleteKeyW(HKEY_CURRENT_USER, L"SOFTWARE\\TavrinTests"); // only succeeds when empty
        ::RegDeleteTreeW(HKEY_CURRENT_USER, g_pszProgramKey);
        ::RegDeleteKeyW(HKEY_CURRENT_USER, g_pszProgramKey);
        ::RegDeleteKeyW(HKEY_CURRENT_USER, L"SOFTWARE\\Vemko"); // only when nothing else lives there
    }

    // Stores raw bytes of any type, bypassing the helpers under test.
    void WriteRaw(const wchar_t* name, DWORD type, const void* data, DWORD size)
    {
        HKEY key = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_CURRENT_USER, m_strKey.c_str(), 0, nullptr, 0, KEY_SET_VALUE,
                                                   nullptr, &key, nullptr));
        ASSERT_EQ(ERROR_SUCCESS, ::RegSetValueExW(key, name, 0, type, static_cast<const BYTE*>(data), size));
        ::RegCloseKey(key);
    }

    bool KeyExists(const ustring& key)
    {
        HKEY handle = nullptr;
        if (::RegOpenKeyExW(HKEY_CURRENT_USER, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS)
            return false;
        ::RegCloseKey(handle);
        return true;
    }

    ustring m_strKey;
};

WINDOWPLACEMENT SamplePlacement()
{
    WINDOWPLACEMENT wp = {};
    wp.length = sizeof(wp);
    wp.flags = WPF_RESTORETOMAXIMIZED;
    wp.showCmd = SW_SHOWMAXIMIZED;
    wp.ptMinPosition = {-32000, -32000};
    wp.ptMaxPosition = {-8, -1};
    wp.rcNormalPosition = {-1920, 15, -320, 1040};
    return wp;
}

} // namespace

TEST_F(Registry, DefaultKeyName)
{
    ustring key;
    ASSERT_TRUE(RegGetDefaultKeyName(nullptr, nullptr, L"Logs", key));
    EXPECT_EQ(ustring(L"SOFTWARE\\Vemko\\tavrin_l10n_tests\\Logs"), key);
    ASSERT_TRUE(RegGetDefaultKeyName(nullptr, nullptr, nullptr, key));
    EXPECT_EQ(ustring(g_pszProgramKey), key);
    ASSERT_TRUE(RegGetDefaultKeyName(L"Acme", L"Tool", nullptr, key));
    EXPECT_EQ(ustring(L"SOFTWARE\\Acme\\Tool"), key);
    ASSERT_TRUE(RegGetDefaultKeyName(L"Acme", nullptr, L"A\\B", key));
    EXPECT_EQ(ustring(L"SOFTWARE\\Acme\\tavrin_l10n_tests\\A\\B"), key);
}

TEST_F(Registry, TypedRoundTrips)
{
    const wchar_t* key = m_strKey.c_str();
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key, L"Text", L"C:\\Logs \x00e4\x20ac"));
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key, L"Number", 0xFFFFFFFEul));
    std::vector<ustring> list = {L"first", L"second item", L"\x4e2d"};
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key, L"List", list));
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key, L"Empty", static_cast<const wchar_t*>(nullptr)));
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key, L"NoItems", std::vector<ustring>()));
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key, nullptr, L"default value"));

    ustring text;
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"Text", text, L"dflt"));
    EXPECT_EQ(ustring(L"C:\\Logs \x00e4\x20ac"), text);
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"empty", text, L"dflt")); // names ignore case
    EXPECT_TRUE(text.empty());
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, nullptr, text));
    EXPECT_EQ(ustring(L"default value"), text);

    unsigned long number = 0;
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"Number", number, 7ul));
    EXPECT_EQ(0xFFFFFFFEul, number);

    std::vector<ustring> readList = {L"stale"};
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"List", readList));
    EXPECT_EQ(list, readList);
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"NoItems", readList));
    EXPECT_TRUE(readList.empty());

    unsigned long type = 0;
    std::vector<unsigned char> bytes;
    EXPECT_EQ(ERROR_SUCCESS, RegGetKeyValue(HKEY_CURRENT_USER, key, L"Number", type, bytes));
    EXPECT_EQ(static_cast<unsigned long>(REG_DWORD), type);
    EXPECT_EQ((std::vector<unsigned char>{0xFE, 0xFF, 0xFF, 0xFF}), bytes);
    EXPECT_EQ(ERROR_SUCCESS, RegGetKeyValue(HKEY_CURRENT_USER, key, L"List", type, bytes));
    EXPECT_EQ(static_cast<unsigned long>(REG_MULTI_SZ), type);
    // "first", "second item", one CJK character, each with its NUL, plus the closing NUL.
    EXPECT_EQ((6u + 12u + 2u + 1u) * sizeof(wchar_t), bytes.size());

    // Raw bytes of any type, including an empty binary value.
    const unsigned char blob[] = {0x00, 0x01, 0x80, 0xFF, 0x00};
    WriteRaw(L"Blob", REG_BINARY, blob, sizeof(blob));
    WriteRaw(L"NoBytes", REG_BINARY, nullptr, 0);
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"Blob", bytes));
    EXPECT_EQ(std::vector<unsigned char>(blob, blob + sizeof(blob)), bytes);
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"NoBytes", bytes));
    EXPECT_TRUE(bytes.empty());
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"Text", bytes));
    EXPECT_EQ(std::wcslen(L"C:\\Logs \x00e4\x20ac") * 2u + 2u, bytes.size());

    // Overwriting changes type and data.
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key, L"Text", 5ul));
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"Text", number));
    EXPECT_EQ(5ul, number);
}

TEST_F(Registry, TypeMismatchesAndMissingValuesKeepDefaults)
{
    const wchar_t* key = m_strKey.c_str();
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key, L"Number", 42ul));
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key, L"Text", L"42"));

    ustring text = L"garbage";
    EXPECT_FALSE(RegGetValue(HKEY_CURRENT_USER, key, L"Number", text, L"fallback"));
    EXPECT_EQ(ustring(L"fallback"), text);
    EXPECT_FALSE(RegGetValue(HKEY_CURRENT_USER, key, L"Number", text));
    EXPECT_TRUE(text.empty());
    EXPECT_FALSE(RegGetValue(HKEY_CURRENT_USER, key, L"Missing", text, L"fallback"));
    EXPECT_EQ(ustring(L"fallback"), text);
    EXPECT_FALSE(RegGetValue(HKEY_CURRENT_USER, L"SOFTWARE\\TavrinTests\\NoSuchKey", L"Text", text, L"x"));
    EXPECT_EQ(ustring(L"x"), text);

    unsigned long number = 0;
    EXPECT_FALSE(RegGetValue(HKEY_CURRENT_USER, key, L"Text", number, 9ul));
    EXPECT_EQ(9ul, number);
    EXPECT_FALSE(RegGetValue(HKEY_CURRENT_USER, key, L"Missing", number, 10ul));
    EXPECT_EQ(10ul, number);

    std::vector<ustring> list = {L"stale"};
    EXPECT_FALSE(RegGetValue(HKEY_CURRENT_USER, key, L"Text", list));
    EXPECT_TRUE(list.empty());

    unsigned long type = 123;
    std::vector<unsigned char> bytes = {1, 2};
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegGetKeyValue(HKEY_CURRENT_USER, key, L"Missing", type, bytes));
    EXPECT_EQ(static_cast<unsigned long>(REG_NONE), type);
    EXPECT_TRUE(bytes.empty());
    EXPECT_FALSE(RegGetValue(HKEY_CURRENT_USER, key, L"Missing", bytes));

    // A DWORD value shorter than four bytes is no number.
    const unsigned char shortDword[] = {1, 2};
    WriteRaw(L"Short", REG_DWORD, shortDword, sizeof(shortDword));
    EXPECT_FALSE(RegGetValue(HKEY_CURRENT_USER, key, L"Short", number, 3ul));
    EXPECT_EQ(3ul, number);
}

TEST_F(Registry, TextLayoutsFromOtherWriters)
{
    const wchar_t* key = m_strKey.c_str();
    // Expandable text is returned as stored.
    const wchar_t expand[] = L"%SystemRoot%\\x";
    WriteRaw(L"Expand", REG_EXPAND_SZ, expand, sizeof(expand));
    // Text with an embedded NUL is cut there; text without a terminator is taken whole.
    const wchar_t embedded[] = L"abc\0def";
    WriteRaw(L"Embedded", REG_SZ, embedded, sizeof(embedded));
    WriteRaw(L"Unterminated", REG_SZ, L"xyz", 3 * sizeof(wchar_t));
    // A list without its closing NUL, and one with an odd byte count.
    WriteRaw(L"OpenList", REG_MULTI_SZ, L"a\0bc", 4 * sizeof(wchar_t));
    WriteRaw(L"OddList", REG_MULTI_SZ, L"a\0b\0\0", 5 * sizeof(wchar_t) + 1);

    ustring text;
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"Expand", text));
    EXPECT_EQ(ustring(expand), text);
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"Embedded", text));
    EXPECT_EQ(ustring(L"abc"), text);
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"Unterminated", text));
    EXPECT_EQ(ustring(L"xyz"), text);

    std::vector<ustring> list;
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"OpenList", list));
    EXPECT_EQ((std::vector<ustring>{L"a", L"bc"}), list);
    EXPECT_TRUE(RegGetValue(HKEY_CURRENT_USER, key, L"OddList", list));
    EXPECT_EQ((std::vector<ustring>{L"a", L"b"}), list);
}

TEST_F(Registry, KeysAndValuesCreateEnumerateDelete)
{
    ustring sub1 = m_strKey + L"\\Sub1";
    ustring deep = m_strKey + L"\\Sub2\\Deep\\Deeper";
    EXPECT_TRUE(RegCreateKeyW(HKEY_CURRENT_USER, sub1.c_str()));
    EXPECT_TRUE(RegCreateKeyW(HKEY_CURRENT_USER, sub1.c_str())); // already there
    EXPECT_TRUE(RegCreateKeyW(HKEY_CURRENT_USER, deep.c_str()));
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, deep.c_str(), L"v", 1ul));
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, m_strKey.c_str(), L"Alpha", L"1"));
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, m_strKey.c_str(), L"Beta", 2ul));

    std::vector<ustring> names = {L"stale"};
    ASSERT_TRUE(RegEnumSubKeys(HKEY_CURRENT_USER, m_strKey.c_str(), names));
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<ustring>{L"Sub1", L"Sub2"}), names);
    ASSERT_TRUE(RegEnumValues(HKEY_CURRENT_USER, m_strKey.c_str(), names));
    std::sort(names.begin(), names.end());
    EXPECT_EQ((std::vector<ustring>{L"Alpha", L"Beta"}), names);
    ASSERT_TRUE(RegEnumValues(HKEY_CURRENT_USER, sub1.c_str(), names));
    EXPECT_TRUE(names.empty());
    ASSERT_TRUE(RegEnumSubKeys(HKEY_CURRENT_USER, sub1.c_str(), names));
    EXPECT_TRUE(names.empty());

    // Many long names: more than any first guess of a buffer.
    for (int i = 0; i < 40; ++i)
        ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, sub1.c_str(), ustring(200u, wchar_t(L'a' + i % 26)).append(std::to_wstring(i)).c_str(),
                                  static_cast<unsigned long>(i)));
    ASSERT_TRUE(RegEnumValues(HKEY_CURRENT_USER, sub1.c_str(), names));
    EXPECT_EQ(40u, names.size());
    EXPECT_TRUE(std::all_of(names.begin(), names.end(), [](const ustring& n) { return n.size() >= 201u; }));

    names = {L"stale"};
    EXPECT_FALSE(RegEnumSubKeys(HKEY_CURRENT_USER, L"SOFTWARE\\TavrinTests\\NoSuchKey", names));
    EXPECT_TRUE(names.empty());
    EXPECT_FALSE(RegEnumValues(HKEY_CURRENT_USER, L"SOFTWARE\\TavrinTests\\NoSuchKey", names));

    EXPECT_TRUE(RegDeleteValueW(HKEY_CURRENT_USER, m_strKey.c_str(), L"Alpha"));
    EXPECT_FALSE(RegDeleteValueW(HKEY_CURRENT_USER, m_strKey.c_str(), L"Alpha"));
    EXPECT_FALSE(RegDeleteValueW(HKEY_CURRENT_USER, L"SOFTWARE\\TavrinTests\\NoSuchKey", L"Alpha"));
    ASSERT_TRUE(RegEnumValues(HKEY_CURRENT_USER, m_strKey.c_str(), names));
    EXPECT_EQ((std::vector<ustring>{L"Beta"}), names);

    // A key with a subtree goes as a whole; roots are refused.
    EXPECT_FALSE(tavrin::RegDeleteKeyW(HKEY_CURRENT_USER, nullptr));
    EXPECT_FALSE(tavrin::RegDeleteKeyW(HKEY_CURRENT_USER, L""));
    EXPECT_TRUE(tavrin::RegDeleteKeyW(HKEY_CURRENT_USER, (m_strKey + L"\\Sub2").c_str()));
    EXPECT_FALSE(KeyExists(m_strKey + L"\\Sub2"));
    EXPECT_TRUE(KeyExists(sub1));
    EXPECT_FALSE(tavrin::RegDeleteKeyW(HKEY_CURRENT_USER, (m_strKey + L"\\Sub2").c_str()));
    EXPECT_TRUE(tavrin::RegDeleteKeyW(HKEY_CURRENT_USER, m_strKey.c_str()));
    EXPECT_FALSE(KeyExists(m_strKey));
}

TEST_F(Registry, WindowPlacementRoundTrip)
{
    WINDOWPLACEMENT written = SamplePlacement();
    ASSERT_TRUE(WriteWindowPlacement(L"MainWindow", written));

    ustring text;
    ASSERT_TRUE(RegGetValue(HKEY_CURRENT_USER, (ustring(g_pszProgramKey) + L"\\WindowPlacement").c_str(), L"MainWindow", text));
    EXPECT_EQ(ustring(L"2,3,-32000,-32000,-8,-1,-1920,15,-320,1040"), text);

    WINDOWPLACEMENT read;
    std::memset(&read, 0xCC, sizeof(read));
    ASSERT_TRUE(ReadWindowPlacement(L"MainWindow", read));
    EXPECT_EQ(44u, read.length);
    EXPECT_EQ(0, std::memcmp(&written, &read, sizeof(read)));

    // Another window keeps its own value.
    WINDOWPLACEMENT other = {};
    other.showCmd = SW_SHOWNORMAL;
    other.rcNormalPosition = {10, 20, 30, 40};
    ASSERT_TRUE(WriteWindowPlacement(L"Other", other));
    ASSERT_TRUE(ReadWindowPlacement(L"MainWindow", read));
    EXPECT_EQ(-1920, read.rcNormalPosition.left);
    ASSERT_TRUE(ReadWindowPlacement(L"Other", read));
    EXPECT_EQ(44u, read.length); // set by the reader, whatever the writer had
    EXPECT_EQ(40, read.rcNormalPosition.bottom);
}

TEST_F(Registry, WindowPlacementRejectsBadInput)
{
    WINDOWPLACEMENT wp = SamplePlacement();
    EXPECT_FALSE(WriteWindowPlacement(nullptr, wp));
    EXPECT_FALSE(ReadWindowPlacement(nullptr, wp));
    EXPECT_FALSE(ReadWindowPlacement(L"NeverWritten", wp));

    ustring key = ustring(g_pszProgramKey) + L"\\WindowPlacement";
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key.c_str(), L"Nine", L"1,2,3,4,5,6,7,8,9"));
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key.c_str(), L"Empty", L""));
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key.c_str(), L"Words", L"1,2,three,4,5,6,7,8,9,10"));
    ASSERT_TRUE(RegWriteValue(HKEY_CURRENT_USER, key.c_str(), L"Number", 5ul));
    EXPECT_FALSE(ReadWindowPlacement(L"Nine", wp));
    EXPECT_EQ(44u, wp.length); // partly filled
    EXPECT_EQ(9, wp.rcNormalPosition.right);
    EXPECT_EQ(0, wp.rcNormalPosition.bottom);
    EXPECT_FALSE(ReadWindowPlacement(L"Empty", wp));
    EXPECT_FALSE(ReadWindowPlacement(L"Words", wp));
    EXPECT_FALSE(ReadWindowPlacement(L"Number", wp));
}
