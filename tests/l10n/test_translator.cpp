// Language files (load, save, malformed files) and the translator's text lookup and gathering.
#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>
#include <tavrin/l10n/translator.h>

#include <gtest/gtest.h>
#include <tavrin_test.h>

#include <string>
#include <vector>

using namespace tavrin;

namespace {

std::wstring TempPath(const wchar_t* name)
{
    wchar_t folder[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, folder);
    return std::wstring(folder) + L"tavrin_lng_" + std::to_wstring(::GetCurrentProcessId()) + L"_" + name;
}

// Writes raw bytes to a file.
void WriteBytes(const std::wstring& path, const std::vector<unsigned char>& bytes)
{
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    DWORD written = 0;
    if (!bytes.empty())
        ::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    ::CloseHandle(file);
    ASSERT_EQ(written, bytes.size());
}

// UTF-16LE bytes of a text, with the byte-order mark in front when asked.
std::vector<unsigned char> Utf16(const std::wstring& text, bool mark = true)
{
    std::vector<unsigned char> bytes;
    if (mark)
        bytes = {0xFF, 0xFE};
    for (wchar_t ch : text)
    {
        bytes.push_back(static_cast<unsigned char>(ch & 0xFF));
        bytes.push_back(static_cast<unsigned char>(ch >> 8));
    }
    return bytes;
}

// A language file with the given UTF-16 content, deleted at the end of the scope.
class CTempLanguageFile
{
public:
    CTempLanguageFile(const wchar_t* name, const std::vector<unsigned char>& bytes) : m_strPath(TempPath(name))
    {
        WriteBytes(m_strPath, bytes);
    }
    explicit CTempLanguageFile(const wchar_t* name) : m_strPath(TempPath(name)) {}
    ~CTempLanguageFile() { ::DeleteFileW(m_strPath.c_str()); }
    const wchar_t* Path() const { return m_strPath.c_str(); }

private:
    std::wstring m_strPath;
};

// Exposes the file-based loader.
class CLanguageFileProbe : public CLanguageFile
{
public:
    using CLanguageFile::LoadLanguageFile;
};

} // namespace

TEST(LanguageFile, LoadsPairsAndTranslates)
{
    const CTempLanguageFile file(L"pairs.lng", Utf16(L"[Open]\r\n[\x00D6" L"ffnen]\r\n[Empty]\r\n[]\r\n"));
    CTranslator translator;
    ASSERT_TRUE(translator.LoadLanguageFile(file.Path()));

    ustring text(L"Open");
    EXPECT_TRUE(translator.XlateEx(text));
    EXPECT_EQ(text, L"\x00D6" L"ffnen");
    EXPECT_EQ(translator.Xlate(L"Open"), L"\x00D6" L"ffnen");
    // No entry, or an empty translation: the text stays as it is.
    ustring save(L"Save");
    EXPECT_FALSE(translator.XlateEx(save));
    EXPECT_EQ(save, L"Save");
    ustring empty(L"Empty");
    EXPECT_FALSE(translator.XlateEx(empty));
    EXPECT_EQ(empty, L"Empty");
    EXPECT_EQ(translator.Xlate(L"Empty"), L"Empty");
    EXPECT_EQ(translator.Xlate(nullptr), L"");
    // Lookup is exact.
    EXPECT_EQ(translator.Xlate(L"open"), L"open");
    EXPECT_EQ(translator.GetTable().size(), 2u);
}

TEST(LanguageFile, LineEndsEscapesAndUnpairedLines)
{
    // "\r\n", a lone "\n" and a lone "\r" all end lines; empty lines do not count; escapes in
    // the brackets are line breaks; "]" inside a line needs no escape; a last line without
    // partner is ignored.
    const CTempLanguageFile file(
        L"ends.lng", Utf16(L"\r\n[One]\n[Eins]\r[Two\\r\\nLines]\r\n\r\n\n[Zwei\\nZeilen]\r\n[a]b]\r\n[c[d]\r\n[Orphan]"));
    CTranslator translator;
    ASSERT_TRUE(translator.LoadLanguageFile(file.Path()));
    const CLanguageFile::Table table = translator.GetTable();
    ASSERT_EQ(table.size(), 3u);
    EXPECT_EQ(table.at(L"One"), L"Eins");
    EXPECT_EQ(table.at(L"Two\r\nLines"), L"Zwei\nZeilen");
    EXPECT_EQ(table.at(L"a]b"), L"c[d");
    EXPECT_EQ(table.count(L"Orphan"), 0u);
}

TEST(LanguageFile, MalformedFilesLeaveTheTableAlone)
{
    CTranslator translator;
    translator.SetTranslation(L"Keep", L"Behalten");
    const CLanguageFile::Table before = translator.GetTable();

    // One line without brackets anywhere makes the whole load ineffective; the file was read.
    const CTempLanguageFile bad(L"bad.lng", Utf16(L"[Open]\r\n[Auf]\r\nno brackets\r\n[Keep]\r\n[X]\r\n"));
    EXPECT_TRUE(translator.LoadLanguageFile(bad.Path()));
    EXPECT_EQ(translator.GetTable(), before);
    const CTempLanguageFile shortLine(L"short.lng", Utf16(L"[Open]\r\n[Auf]\r\n[\r\n"));
    EXPECT_TRUE(translator.LoadLanguageFile(shortLine.Path()));
    EXPECT_EQ(translator.GetTable(), before);
    const CTempLanguageFile unclosed(L"unclosed.lng", Utf16(L"[Open]\r\n[Auf\r\n"));
    EXPECT_TRUE(translator.LoadLanguageFile(unclosed.Path()));
    EXPECT_EQ(translator.GetTable(), before);

    // No mark, too short, missing: false.
    const CTempLanguageFile noMark(L"nomark.lng", Utf16(L"[Open]\r\n[Auf]\r\n", false));
    EXPECT_FALSE(translator.LoadLanguageFile(noMark.Path()));
    const CTempLanguageFile bigEndian(L"be.lng", {0xFE, 0xFF, 0, '[', 0, 'a', 0, ']'});
    EXPECT_FALSE(translator.LoadLanguageFile(bigEndian.Path()));
    const CTempLanguageFile oneByte(L"one.lng", {0xFF});
    EXPECT_FALSE(translator.LoadLanguageFile(oneByte.Path()));
    const CTempLanguageFile nothing(L"empty.lng", {});
    EXPECT_FALSE(translator.LoadLanguageFile(nothing.Path()));
    EXPECT_FALSE(translator.LoadLanguageFile(TempPath(L"missing.lng").c_str()));
    EXPECT_FALSE(translator.LoadLanguageFile(nullptr));
    EXPECT_EQ(translator.GetTable(), before);

    // The mark alone is a valid, empty language file.
    const CTempLanguageFile markOnly(L"mark.lng", {0xFF, 0xFE});
    EXPECT_TRUE(translator.LoadLanguageFile(markOnly.Path()));
    EXPECT_EQ(translator.GetTable(), before);

    // The file loader reports the reason as an exception.
    CLanguageFileProbe probe;
    for (const CTempLanguageFile* file : {&noMark, &oneByte})
    {
        CFile handle(file->Path(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        try
        {
            probe.LoadLanguageFile(handle);
            ADD_FAILURE() << "no exception";
        }
        catch (const CWinException& e)
        {
            EXPECT_EQ(e.GetErrorCode(), ERROR_INVALID_DATA);
            EXPECT_EQ(e.GetFunction(), L"tavrin::CLanguageFile::LoadLanguageFile");
        }
    }
}

TEST(LanguageFile, LaterFilesOverwriteEqualKeys)
{
    const CTempLanguageFile first(L"first.lng", Utf16(L"[A]\r\n[1]\r\n[B]\r\n[2]\r\n"));
    const CTempLanguageFile second(L"second.lng", Utf16(L"[B]\r\n[22]\r\n[C]\r\n[3]\r\n[A]\r\n[11]\r\n[A]\r\n[111]\r\n"));
    CTranslator translator;
    ASSERT_TRUE(translator.LoadLanguageFile(first.Path()));
    ASSERT_TRUE(translator.LoadLanguageFile(second.Path()));
    const CLanguageFile::Table expected = {{L"A", L"111"}, {L"B", L"22"}, {L"C", L"3"}};
    EXPECT_EQ(translator.GetTable(), expected);
}

TEST(LanguageFile, SaveWritesTheExactFormatAndRoundTrips)
{
    CTranslator translator;
    translator.SetTranslation(L"b", L"");
    translator.SetTranslation(L"a\r\nline", L"x\ry\nz");
    translator.SetTranslation(L"[x]", L"\x042F");
    const CTempLanguageFile file(L"saved.lng");
    translator.SaveLanguageFile(file.Path());

    // Key order, brackets, escaped breaks, "\r\n" after each line, the mark in front.
    EXPECT_EQ(tavrintest::ReadFileBytes(file.Path()), Utf16(L"[[x]]\r\n[\x042F]\r\n"
                                            L"[a\\r\\nline]\r\n[x\\ry\\nz]\r\n"
                                            L"[b]\r\n[]\r\n"));

    CTranslator loaded;
    ASSERT_TRUE(loaded.LoadLanguageFile(file.Path()));
    EXPECT_EQ(loaded.GetTable(), translator.GetTable());

    // A bigger table crosses the 512-byte read chunks, one file ending exactly on a chunk.
    CTranslator big;
    for (int i = 0; i < 300; ++i)
        big.SetTranslation(ustring::sprintf_stc(L"Text %03d\nsecond line", i), ustring::sprintf_stc(L"T\x00E9xt %d", i));
    big.SaveLanguageFile(file.Path());
    CTranslator bigLoaded;
    ASSERT_TRUE(bigLoaded.LoadLanguageFile(file.Path()));
    EXPECT_EQ(bigLoaded.GetTable(), big.GetTable());

    // Mark (2 bytes) + "[ab]\r\n[cd]\r\n" (24 bytes) x 21 + "[x]" (6 bytes): exactly 512 bytes.
    std::wstring exact;
    for (int i = 0; i < 21; ++i)
        exact += ustring::sprintf_stc(L"[%lc%lc]\r\n[cd]\r\n", L'a' + i / 5, L'a' + i % 5);
    exact += L"[x]";
    ASSERT_EQ(Utf16(exact).size(), 512u);
    const CTempLanguageFile boundary(L"boundary.lng", Utf16(exact));
    CTranslator boundaryLoaded;
    ASSERT_TRUE(boundaryLoaded.LoadLanguageFile(boundary.Path()));
    EXPECT_EQ(boundaryLoaded.GetTable().size(), 21u);

    // An empty table is the mark alone; saving replaces what the file held.
    CTranslator none;
    none.SaveLanguageFile(file.Path());
    EXPECT_EQ(tavrintest::ReadFileBytes(file.Path()), (std::vector<unsigned char>{0xFF, 0xFE}));

    // A path that cannot be created throws.
    EXPECT_THROW(none.SaveLanguageFile(TempPath(L"no\\such\\folder\\x.lng").c_str()), CWinException);
}

TEST(Translator, GatheringCollectsUnknownTexts)
{
    CTranslator translator;
    EXPECT_EQ(translator.GetMode(), CTranslator::ModeTranslate);
    translator.SetTranslation(L"Known", L"Bekannt");

    EXPECT_EQ(translator.SetMode(CTranslator::ModeGather), CTranslator::ModeTranslate);
    ustring known(L"Known"), fresh(L"Fresh"), stamp(L"Built by SmartSVN 14"), empty;
    EXPECT_TRUE(translator.XlateEx(known));
    EXPECT_EQ(known, L"Known"); // gathering never translates
    EXPECT_TRUE(translator.XlateEx(fresh));
    EXPECT_EQ(fresh, L"Fresh");
    EXPECT_TRUE(translator.XlateEx(fresh)); // again: nothing changes
    EXPECT_TRUE(translator.XlateEx(stamp));
    EXPECT_TRUE(translator.XlateEx(empty));
    const CLanguageFile::Table expected = {{L"Fresh", L""}, {L"Known", L"Bekannt"}};
    EXPECT_EQ(translator.GetTable(), expected);

    // Any non-zero mode translates.
    EXPECT_EQ(translator.SetMode(static_cast<CTranslator::EMode>(7)), CTranslator::ModeGather);
    EXPECT_EQ(translator.Xlate(L"Known"), L"Bekannt");
    EXPECT_EQ(translator.Xlate(L"Fresh"), L"Fresh");
    EXPECT_EQ(translator.Xlate(L"Other"), L"Other");
    EXPECT_EQ(translator.GetTable().size(), 2u);

    translator.ClearTable();
    EXPECT_TRUE(translator.GetTable().empty());
}

TEST(LanguageFile, LargeFilesAndBackslashesLoadExactly)
{
    // 40,000 pairs (about 2.5 MB) across many read chunks, with escapes next to ordinary
    // backslashes: "\\\\n" is a backslash and a line feed, "\\\\x" two backslashes and x, and a
    // backslash at the end of the text stays.
    std::wstring content;
    for (int i = 0; i < 40000; ++i)
    {
        const std::wstring n = std::to_wstring(i);
        content += L"[key " + n + L"\\\\n" + n + L"]\r\n[value\\r " + n + L"\\\\x\\]" + (i % 3 ? L"\r\n" : L"\n");
    }
    const CTempLanguageFile file(L"large.lng", Utf16(content));
    CTranslator translator;
    ASSERT_TRUE(translator.LoadLanguageFile(file.Path()));
    const CLanguageFile::Table table = translator.GetTable();
    ASSERT_EQ(table.size(), 40000u);
    for (int i : {0, 1, 511, 12345, 39999})
    {
        const std::wstring n = std::to_wstring(i);
        const auto found = table.find(L"key " + n + L"\\\n" + n);
        ASSERT_NE(found, table.end()) << i;
        EXPECT_EQ(found->second, L"value\r " + n + L"\\\\x\\") << i;
    }

    // The same file with one bad line at its very end loads nothing.
    CTranslator other;
    const CTempLanguageFile bad(L"large_bad.lng", Utf16(content + L"[unclosed\r\n"));
    ASSERT_TRUE(other.LoadLanguageFile(bad.Path()));
    EXPECT_TRUE(other.GetTable().empty());
}
