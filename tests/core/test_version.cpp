// The version an application compiles against, the version the loaded Tavrin.dll reports, and
// the version resource that Windows shows for the file: all three come from one number.
#include <tavrin/core/version.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace tavrin;

namespace {

std::wstring LoadedLibraryPath()
{
    const HMODULE module = ::GetModuleHandleW(L"Tavrin.dll");
    if (module == nullptr)
        return std::wstring();
    wchar_t path[MAX_PATH];
    const DWORD length = ::GetModuleFileNameW(module, path, MAX_PATH);
    return std::wstring(path, length);
}

// The version resource of a file, or nothing.
std::vector<unsigned char> ReadVersionResource(const std::wstring& path)
{
    DWORD handle = 0;
    const DWORD size = ::GetFileVersionInfoSizeW(path.c_str(), &handle);
    std::vector<unsigned char> data(size);
    if (size == 0 || !::GetFileVersionInfoW(path.c_str(), 0, size, data.data()))
        data.clear();
    return data;
}

std::wstring VersionString(std::vector<unsigned char>& resource, const wchar_t* name)
{
    void* value = nullptr;
    UINT length = 0;
    const std::wstring key = std::wstring(L"\\StringFileInfo\\040904b0\\") + name;
    if (!::VerQueryValueW(resource.data(), key.c_str(), &value, &length) || value == nullptr)
        return L"<missing>";
    std::wstring text(static_cast<const wchar_t*>(value), length);
    text.erase(text.find_last_not_of(L'\0') + 1); // the stored length may count the terminator
    return text;
}

} // namespace

TEST(Version, HeaderMacrosAgree)
{
    EXPECT_EQ(TAVRIN_VERSION, TAVRIN_VERSION_MAJOR * 10000 + TAVRIN_VERSION_MINOR * 100 + TAVRIN_VERSION_PATCH);
    EXPECT_EQ(std::string(TAVRIN_VERSION_STRING), std::to_string(TAVRIN_VERSION_MAJOR) + "." +
                                                      std::to_string(TAVRIN_VERSION_MINOR) + "." +
                                                      std::to_string(TAVRIN_VERSION_PATCH));
    // Each part must fit its two decimal places for the number to compare correctly.
    EXPECT_LT(TAVRIN_VERSION_MINOR, 100);
    EXPECT_LT(TAVRIN_VERSION_PATCH, 100);
}

TEST(Version, LoadedLibraryReportsTheHeaderVersion)
{
    EXPECT_EQ(GetLibraryVersion(), static_cast<unsigned long>(TAVRIN_VERSION));
    ASSERT_NE(GetLibraryVersionString(), nullptr);
    EXPECT_EQ(std::wstring(GetLibraryVersionString()), std::wstring(TAVRIN_WIDEN(TAVRIN_VERSION_STRING)));
}

TEST(Version, ResourceOfTheDllCarriesTheVersion)
{
    const std::wstring path = LoadedLibraryPath();
    ASSERT_FALSE(path.empty());
    std::vector<unsigned char> resource = ReadVersionResource(path);
    ASSERT_FALSE(resource.empty()) << "Tavrin.dll has no version resource";

    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    ASSERT_TRUE(::VerQueryValueW(resource.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
    ASSERT_GE(length, sizeof(VS_FIXEDFILEINFO));
    EXPECT_EQ(fixed->dwSignature, 0xFEEF04BDu);
    const DWORD versionMS = MAKELONG(TAVRIN_VERSION_MINOR, TAVRIN_VERSION_MAJOR);
    const DWORD versionLS = MAKELONG(0, TAVRIN_VERSION_PATCH);
    EXPECT_EQ(fixed->dwFileVersionMS, versionMS);
    EXPECT_EQ(fixed->dwFileVersionLS, versionLS);
    EXPECT_EQ(fixed->dwProductVersionMS, versionMS);
    EXPECT_EQ(fixed->dwProductVersionLS, versionLS);
    EXPECT_EQ(fixed->dwFileType, static_cast<DWORD>(VFT_DLL));

    const std::wstring version(TAVRIN_WIDEN(TAVRIN_VERSION_STRING));
    EXPECT_EQ(VersionString(resource, L"FileVersion"), version);
    EXPECT_EQ(VersionString(resource, L"ProductVersion"), version);
    EXPECT_EQ(VersionString(resource, L"ProductName"), L"Tavrin");
    EXPECT_EQ(VersionString(resource, L"OriginalFilename"), L"Tavrin.dll");
    EXPECT_EQ(VersionString(resource, L"FileDescription"), L"Tavrin support library for Windows desktop applications");
}
