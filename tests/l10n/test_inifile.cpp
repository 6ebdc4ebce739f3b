// INI files on disk through the system's profile functions.
#include <tavrin/l10n/inifile.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace tavrin;

namespace {

class IniFile : public ::testing::Test
{
protected:
    void SetUp() override
    {
        wchar_t folder[MAX_PATH + 1] = {};
        ASSERT_NE(0u, ::GetTempPathW(MAX_PATH, folder));
        m_strPath.sprintf(L"%lstavrin_ini_%lu.ini", folder, ::GetCurrentProcessId());
        ::DeleteFileW(m_strPath.c_str());
    }
    void TearDown() override { ::DeleteFileW(m_strPath.c_str()); }

    // Writes the file's bytes directly (UTF-16LE with byte-order mark).
    void WriteFileText(const wchar_t* text)
    {
        HANDLE file = ::CreateFileW(m_strPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        ASSERT_NE(INVALID_HANDLE_VALUE, file);
        std::wstring content = std::wstring(1, L'\xFEFF') + text;
        DWORD written = 0;
        ::WriteFile(file, content.data(), static_cast<DWORD>(content.size() * sizeof(wchar_t)), &written, nullptr);
        ::CloseHandle(file);
    }

    ustring m_strPath;
};

} // namespace

TEST_F(IniFile, StringsAndNumbers)
{
    CIniFile ini(m_strPath.c_str());
    EXPECT_EQ(m_strPath, ini.GetPath());
    // Nothing there yet: defaults.
    EXPECT_EQ(ustring(L"none"), ini.GetString(L"Port", L"Name", L"none"));
    EXPECT_TRUE(ini.GetString(L"Port", L"Name").empty());
    EXPECT_EQ(-3, ini.GetInt(L"Port", L"Baud", -3));

    ASSERT_TRUE(ini.WriteString(L"Port", L"Name", L"COM3"));
    ASSERT_TRUE(ini.WriteInt(L"Port", L"Baud", 115200));
    ASSERT_TRUE(ini.WriteString(L"Port", L"Text", L"not a number"));
    ASSERT_TRUE(ini.WriteString(L"Other", L"Name", L"\x00dc" L"bung \x4e2d\x6587 \x20ac"));
    EXPECT_EQ(ustring(L"COM3"), ini.GetString(L"port", L"NAME", L"none")); // names ignore case
    EXPECT_EQ(115200, ini.GetInt(L"Port", L"Baud", 0));
    EXPECT_EQ(ustring(L"115200"), ini.GetString(L"Port", L"Baud"));
    EXPECT_EQ(0, ini.GetInt(L"Port", L"Text", 7));
    EXPECT_EQ(ustring(L"\x00dc" L"bung \x4e2d\x6587 \x20ac"), ini.GetString(L"Other", L"Name"));

    // A file the library created is UTF-16 with byte-order mark.
    HANDLE file = ::CreateFileW(m_strPath.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, file);
    wchar_t first = 0;
    DWORD read = 0;
    ::ReadFile(file, &first, sizeof(first), &read, nullptr);
    ::CloseHandle(file);
    EXPECT_EQ(L'\xFEFF', first);

    // Null section or key is refused instead of returning or deleting name lists.
    EXPECT_EQ(ustring(L"d"), ini.GetString(nullptr, L"Name", L"d"));
    EXPECT_EQ(ustring(L"d"), ini.GetString(L"Port", nullptr, L"d"));
    EXPECT_FALSE(ini.WriteString(nullptr, L"Name", L"x"));
    EXPECT_FALSE(ini.WriteString(L"Port", nullptr, L"x"));
    EXPECT_EQ(ustring(L"COM3"), ini.GetString(L"Port", L"Name"));

    // A copy works on the same file.
    CIniFile copy(ini);
    EXPECT_EQ(ustring(L"COM3"), copy.GetString(L"Port", L"Name"));
}

TEST_F(IniFile, LongValuesAreReadWhole)
{
    CIniFile ini(m_strPath.c_str());
    // Lengths around the first buffer (64) and its doublings.
    for (unsigned int length : {62u, 63u, 64u, 65u, 127u, 128u, 1000u, 5000u})
    {
        ustring value;
        for (unsigned int i = 0; i < length; ++i)
            value += static_cast<wchar_t>(L'A' + i % 26);
        ustring key = ustring().sprintf(L"Key%u", length);
        ASSERT_TRUE(ini.WriteString(L"Long", key.c_str(), value.c_str()));
        ustring read = ini.GetString(L"Long", key.c_str());
        EXPECT_EQ(length, read.size()) << "length " << length;
        EXPECT_EQ(value, read) << "length " << length;
    }
    // A long default comes back whole too.
    ustring longDefault(300u, L'z');
    EXPECT_EQ(longDefault, ini.GetString(L"Long", L"Missing", longDefault.c_str()));
}

TEST_F(IniFile, EnumerationAndDeletion)
{
    CIniFile ini(m_strPath.c_str());
    std::vector<ustring> names = {L"stale"};
    EXPECT_FALSE(ini.EnumSections(names)); // no file yet
    EXPECT_TRUE(names.empty());

    // Enough sections and keys that the name lists exceed the first buffer.
    std::vector<ustring> sections, keys;
    for (int i = 0; i < 12; ++i)
    {
        sections.push_back(ustring().sprintf(L"Section_%02d_with_a_long_name", i));
        keys.push_back(ustring().sprintf(L"Key_%02d_with_a_long_name", i));
    }
    for (const ustring& section : sections)
        for (const ustring& key : keys)
            ASSERT_TRUE(ini.WriteString(section.c_str(), key.c_str(), L"v"));

    ASSERT_TRUE(ini.EnumSections(names));
    EXPECT_EQ(sections, names); // file order
    ASSERT_TRUE(ini.EnumEntries(sections[3].c_str(), names));
    EXPECT_EQ(keys, names);
    EXPECT_FALSE(ini.EnumEntries(L"NoSuchSection", names));
    EXPECT_TRUE(names.empty());
    EXPECT_FALSE(ini.EnumEntries(nullptr, names));

    ASSERT_TRUE(ini.DeleteEntry(sections[3].c_str(), keys[0].c_str()));
    ASSERT_TRUE(ini.EnumEntries(sections[3].c_str(), names));
    EXPECT_EQ(keys.size() - 1u, names.size());
    EXPECT_EQ(keys[1], names.front());
    EXPECT_EQ(ustring(L"gone"), ini.GetString(sections[3].c_str(), keys[0].c_str(), L"gone"));
    EXPECT_EQ(ustring(L"v"), ini.GetString(sections[4].c_str(), keys[0].c_str(), L"gone"));

    ASSERT_TRUE(ini.DeleteSection(sections[0].c_str()));
    ASSERT_TRUE(ini.EnumSections(names));
    EXPECT_EQ(sections.size() - 1u, names.size());
    EXPECT_TRUE(std::find(names.begin(), names.end(), sections[0]) == names.end());
    EXPECT_FALSE(ini.EnumEntries(sections[0].c_str(), names));
    EXPECT_FALSE(ini.DeleteSection(nullptr));
    EXPECT_FALSE(ini.DeleteEntry(nullptr, L"x"));
    EXPECT_FALSE(ini.DeleteEntry(L"x", nullptr));
    ASSERT_TRUE(ini.EnumSections(names));
    EXPECT_EQ(sections.size() - 1u, names.size()); // the refused calls deleted nothing
}

TEST_F(IniFile, ReadsFilesWrittenByHand)
{
    WriteFileText(L"; settings\r\n[General]\r\nName = Value with spaces \r\nCount=12abc\r\n\r\n[Empty]\r\n");
    CIniFile ini(m_strPath.c_str());
    EXPECT_EQ(ustring(L"Value with spaces"), ini.GetString(L"General", L"Name"));
    EXPECT_EQ(12, ini.GetInt(L"General", L"Count", 0));
    std::vector<ustring> names;
    ASSERT_TRUE(ini.EnumSections(names));
    EXPECT_EQ((std::vector<ustring>{L"General", L"Empty"}), names);
    EXPECT_FALSE(ini.EnumEntries(L"Empty", names));
}

TEST(IniFileLine, TranslateSection)
{
    ustring name, value;
    EXPECT_EQ(CIniFile::Section, CIniFile::TranslateSection(L"  [ Serial Port ]\r\n", name, value));
    EXPECT_EQ(ustring(L"Serial Port"), name);
    EXPECT_TRUE(value.empty());

    EXPECT_EQ(CIniFile::Entry, CIniFile::TranslateSection(L"\tBaud = 9600 = fast ", name, value));
    EXPECT_EQ(ustring(L"Baud"), name);
    EXPECT_EQ(ustring(L"9600 = fast"), value);
    EXPECT_EQ(CIniFile::Entry, CIniFile::TranslateSection(L"Flag=", name, value));
    EXPECT_EQ(ustring(L"Flag"), name);
    EXPECT_TRUE(value.empty());

    EXPECT_EQ(CIniFile::Comment, CIniFile::TranslateSection(L"; note [x]=1", name, value));
    EXPECT_TRUE(name.empty());
    EXPECT_EQ(ustring(L"note [x]=1"), value);
    EXPECT_EQ(CIniFile::Comment, CIniFile::TranslateSection(L"#", name, value));

    EXPECT_EQ(CIniFile::Empty, CIniFile::TranslateSection(L" \t\r\n", name, value));
    EXPECT_EQ(CIniFile::Empty, CIniFile::TranslateSection(L"", name, value));
    EXPECT_EQ(CIniFile::Invalid, CIniFile::TranslateSection(L"[open", name, value));
    EXPECT_EQ(CIniFile::Invalid, CIniFile::TranslateSection(L"[", name, value));
    EXPECT_EQ(CIniFile::Invalid, CIniFile::TranslateSection(L"no equals sign", name, value));
    EXPECT_EQ(CIniFile::Invalid, CIniFile::TranslateSection(L"=value", name, value));
    EXPECT_TRUE(name.empty() && value.empty()); // cleared on every call
}
