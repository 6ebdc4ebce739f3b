// The process-wide translator: "xRU.lng" beside the executable, loaded once; string resources
// loaded through it (ustring::xload).
#include <tavrin/core/exception.h>
#include <tavrin/l10n/translator.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace tavrin;

namespace {

// Keys no other test or program uses, so that a language file beside the shared test binaries
// cannot change what they see.
const wchar_t* const kProbe = L"tavrin probe: translator instance";
const wchar_t* const kProbeTranslation = L"loaded beside the executable";

std::wstring LanguageFilePath()
{
    wchar_t exe[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring path(exe);
    return path.substr(0, path.find_last_of(L'\\') + 1) + L"xRU.lng";
}

void WriteLanguageFile(const std::wstring& path, const std::wstring& text)
{
    std::vector<unsigned char> bytes = {0xFF, 0xFE};
    for (wchar_t ch : text)
    {
        bytes.push_back(static_cast<unsigned char>(ch & 0xFF));
        bytes.push_back(static_cast<unsigned char>(ch >> 8));
    }
    HANDLE file = ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    DWORD written = 0;
    ::WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    ::CloseHandle(file);
}

// Puts the language file beside the executable before the first test can reach the translator,
// and removes it after the last.
class CLanguageFileEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        WriteLanguageFile(LanguageFilePath(), std::wstring(L"[") + kProbe + L"]\r\n[" + kProbeTranslation + L"]\r\n");
    }
    void TearDown() override { ::DeleteFileW(LanguageFilePath().c_str()); }
};

::testing::Environment* const g_pLanguageFileEnvironment =
    ::testing::AddGlobalTestEnvironment(new CLanguageFileEnvironment);

HINSTANCE TavrinModule()
{
    return ::GetModuleHandleW(L"Tavrin.dll");
}

} // namespace

TEST(TranslatorInstance, LoadsTheFileBesideTheExecutableOnce)
{
    // Several threads reach the translator at once; every one of them sees the loaded table.
    std::atomic<int> translated(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&translated] {
            if (CTranslatorInstance::Ref().Xlate(kProbe) == kProbeTranslation)
                ++translated;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(translated.load(), 4);
    EXPECT_TRUE(CTranslatorInstance::IsInitialized());
    EXPECT_EQ(&CTranslatorInstance::Ref(), &CTranslatorInstance::Ref());
    EXPECT_EQ(CTranslatorInstance::Ref().GetMode(), CTranslator::ModeTranslate);

    // The file is read on the first use only: what changes on disk later is not seen.
    WriteLanguageFile(LanguageFilePath(), std::wstring(L"[") + kProbe + L"]\r\n[changed]\r\n");
    EXPECT_EQ(CTranslatorInstance::Ref().Xlate(kProbe), kProbeTranslation);
}

TEST(TranslatorInstance, XloadTranslatesStringResources)
{
    ASSERT_NE(TavrinModule(), nullptr);
    CTranslator& translator = CTranslatorInstance::Ref();

    ustring text;
    EXPECT_TRUE(text.xload(TavrinModule(), 101));
    EXPECT_EQ(text, L"Win API");

    translator.SetTranslation(L"Win API", L"Windows-Schnittstelle");
    translator.SetTranslation(L"Matrix Library", L"Matrixbibliothek");
    EXPECT_TRUE(text.xload(TavrinModule(), 101));
    EXPECT_EQ(text, L"Windows-Schnittstelle");
    EXPECT_EQ(ustring::xload_stc(TavrinModule(), 104), L"Matrixbibliothek");
    EXPECT_EQ(ustring::load_stc(TavrinModule(), 101), L"Win API"); // load alone does not translate
    EXPECT_EQ(ustring::xload_stc(TavrinModule(), 102), L"Receiver"); // no translation: as loaded

    // The exceptions' sources reach the user through the translator.
    ustring source;
    EXPECT_TRUE(CWinException(1, L"f.cpp", L"CreateFileW", 5).GetSource(source));
    EXPECT_EQ(source, L"Windows-Schnittstelle");

    // A missing resource: false, empty, and nothing reaches the translator.
    text = L"old";
    EXPECT_FALSE(text.xload(TavrinModule(), 9999));
    EXPECT_TRUE(text.empty());
    EXPECT_EQ(ustring::xload_stc(TavrinModule(), 9999), L"");

    // In gathering mode the loaded resources are collected.
    EXPECT_EQ(translator.SetMode(CTranslator::ModeGather), CTranslator::ModeTranslate);
    EXPECT_TRUE(text.xload(TavrinModule(), 105));
    EXPECT_EQ(text, L"Success"); // gathering leaves the text as loaded
    EXPECT_FALSE(text.xload(TavrinModule(), 9999));
    translator.SetMode(CTranslator::ModeTranslate);
    const CLanguageFile::Table table = translator.GetTable();
    ASSERT_EQ(table.count(L"Success"), 1u);
    EXPECT_EQ(table.at(L"Success"), L"");
    EXPECT_EQ(table.count(L""), 0u);

    // Back to untranslated for whatever runs next in this process.
    translator.SetTranslation(L"Win API", L"");
    translator.SetTranslation(L"Matrix Library", L"");
    EXPECT_EQ(ustring::xload_stc(TavrinModule(), 101), L"Win API");
}
