// Path and file-system helpers of CFile, against the real file system (a private folder in
// the temporary folder).
#include <tavrin/core/file.h>

#include <gtest/gtest.h>
#include <tavrin_test.h>

#include <objbase.h>
#include <shlobj.h>
#include <shobjidl.h>

#include <cstring>
#include <functional>

using tavrin::CFile;
using tavrin::CWinException;
using tavrin::ustring;

using tavrintest::CatchWinException;
using tavrintest::RemoveTree;

namespace {

void WriteTextFile(const ustring& path, const char* text)
{
    HANDLE file = ::CreateFileW(CFile::OptAddFileNamePrefix(path), GENERIC_WRITE, 0, nullptr,
                                CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE) << "GetLastError " << ::GetLastError();
    DWORD written = 0;
    ::WriteFile(file, text, static_cast<DWORD>(std::strlen(text)), &written, nullptr);
    ::CloseHandle(file);
}

// A fresh folder of the test's own in the temporary folder, removed with its contents.
class FilePathTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ustring temp;
        CFile::GetTempPathW(temp);
        m_strRoot = temp + ustring::sprintf_stc(L"tavrin_paths_%lu_%lu", ::GetCurrentProcessId(), ::GetTickCount());
        RemoveTree(m_strRoot);
        ASSERT_TRUE(::CreateDirectoryW(m_strRoot, nullptr));
    }
    void TearDown() override { RemoveTree(m_strRoot); }

    ustring Sub(const wchar_t* relative) const { return m_strRoot + L"\\" + relative; }

    ustring m_strRoot; // no trailing backslash
};

struct Split
{
    ustring drive, dir, fname, ext;
};

Split SplitOf(const wchar_t* path)
{
    Split s;
    CFile::SplitPath(path, s.drive, s.dir, s.fname, s.ext);
    return s;
}

void ExpectSplit(const wchar_t* path, const wchar_t* drive, const wchar_t* dir, const wchar_t* fname, const wchar_t* ext)
{
    const Split s = SplitOf(path);
    EXPECT_EQ(s.drive, drive) << "path " << ustring(path).c_str();
    EXPECT_EQ(s.dir, dir) << "path " << ustring(path).c_str();
    EXPECT_EQ(s.fname, fname) << "path " << ustring(path).c_str();
    EXPECT_EQ(s.ext, ext) << "path " << ustring(path).c_str();
}

ustring Make(const wchar_t* drive, const wchar_t* dir, const wchar_t* fname, const wchar_t* ext)
{
    ustring out(L"stale");
    CFile::MakePath(out, drive, dir, fname, ext);
    return out;
}

ustring Update(const wchar_t* src, int srcParts, const wchar_t* dst, int dstParts)
{
    ustring out;
    CFile::UpdatePath(src, CFile::EPathComponents(srcParts), dst, CFile::EPathComponents(dstParts), out);
    return out;
}

} // namespace

TEST(FilePathText, OptAddFileNamePrefix)
{
    // The constants cross the library boundary as data.
    EXPECT_EQ(CFile::m_nMaxPathLong, 32767u);
    EXPECT_EQ(ustring(CFile::m_strFileNamespacePrefix), L"\\\\?\\");
    EXPECT_EQ(ustring(CFile::m_strUNC), L"UNC");

    EXPECT_EQ(CFile::OptAddFileNamePrefix(L"  C:/data/x.txt  "), L"\\\\?\\C:\\data\\x.txt");
    EXPECT_EQ(CFile::OptAddFileNamePrefix(L"\\\\srv\\share\\f"), L"\\\\?\\UNC\\srv\\share\\f");
    EXPECT_EQ(CFile::OptAddFileNamePrefix(L"//srv/share/f"), L"\\\\?\\UNC\\srv\\share\\f");
    // Short names get the prefix too.
    EXPECT_EQ(CFile::OptAddFileNamePrefix(L"c:\\"), L"\\\\?\\c:\\");
    // Relative, drive-relative, already prefixed and device names: only slashes and spaces.
    EXPECT_EQ(CFile::OptAddFileNamePrefix(L" rel/f.txt"), L"rel\\f.txt");
    EXPECT_EQ(CFile::OptAddFileNamePrefix(L"C:rel\\f.txt"), L"C:rel\\f.txt");
    EXPECT_EQ(CFile::OptAddFileNamePrefix(L"\\\\?\\C:\\f"), L"\\\\?\\C:\\f");
    EXPECT_EQ(CFile::OptAddFileNamePrefix(L"\\\\?\\UNC\\srv\\s"), L"\\\\?\\UNC\\srv\\s");
    EXPECT_EQ(CFile::OptAddFileNamePrefix(L"\\\\.\\COM1"), L"\\\\.\\COM1");
    EXPECT_EQ(CFile::OptAddFileNamePrefix(L"\\dir\\f"), L"\\dir\\f");
    EXPECT_EQ(CFile::OptAddFileNamePrefix(L"C:"), L"C:");
    EXPECT_EQ(CFile::OptAddFileNamePrefix(nullptr), L"");
    EXPECT_EQ(CFile::OptAddFileNamePrefix(L"   "), L"");
}

TEST(FilePathText, SplitPath)
{
    ExpectSplit(L"C:\\dir.v1\\file", L"C:", L"\\dir.v1\\", L"file", L"");
    ExpectSplit(L"name.tar.gz", L"", L"", L"name.tar", L".gz");
    ExpectSplit(L"C:/a/b.c", L"C:", L"\\a\\", L"b", L".c");
    ExpectSplit(L"\\\\srv\\share\\dir\\f.txt", L"", L"\\\\srv\\share\\dir\\", L"f", L".txt");
    ExpectSplit(L"C:file.txt", L"C:", L"", L"file", L".txt");     // drive-relative
    ExpectSplit(L"C:\\dir\\", L"C:", L"\\dir\\", L"", L"");       // trailing separator
    ExpectSplit(L"C:", L"C:", L"", L"", L"");
    ExpectSplit(L"..\\x", L"", L"..\\", L"x", L"");
    ExpectSplit(L"..\\x.ini", L"", L"..\\", L"x", L".ini");
    ExpectSplit(L".hidden", L"", L"", L"", L".hidden");
    ExpectSplit(L"a.", L"", L"", L"a", L".");
    ExpectSplit(L"\\\\?\\C:\\x\\y.z", L"\\\\?\\C:", L"\\x\\", L"y", L".z");
    ExpectSplit(L"", L"", L"", L"", L"");
    ExpectSplit(nullptr, L"", L"", L"", L"");

    // The outputs are overwritten, not appended to.
    ustring drive(L"X"), dir(L"Y"), fname(L"Z"), ext(L"W");
    CFile::SplitPath(L"f", drive, dir, fname, ext);
    EXPECT_EQ(drive, L"");
    EXPECT_EQ(dir, L"");
    EXPECT_EQ(fname, L"f");
    EXPECT_EQ(ext, L"");
}

TEST(FilePathText, MakePath)
{
    EXPECT_EQ(Make(L"C:", L"\\dir", L"file", L"txt"), L"C:\\dir\\file.txt");
    EXPECT_EQ(Make(L" C: ", L" /dir/sub/ ", L" file ", L" .txt "), L"C:\\dir\\sub\\file.txt");
    EXPECT_EQ(Make(L"C:", nullptr, L"file", nullptr), L"C:file");
    EXPECT_EQ(Make(L"C:", L"", L"f", L""), L"C:f");
    EXPECT_EQ(Make(nullptr, L"dir", nullptr, nullptr), L"dir\\");
    EXPECT_EQ(Make(nullptr, nullptr, nullptr, nullptr), L"");
    EXPECT_EQ(Make(L"C:", L"\\", L"f", L"e"), L"C:\\f.e");
    // Doubled separators collapse everywhere but at the start, so UNC names survive.
    EXPECT_EQ(Make(L"C:", L"\\\\a\\\\b\\\\", L"\\f", L"e"), L"C:\\a\\b\\f.e");
    EXPECT_EQ(Make(nullptr, L"\\\\srv\\share", L"f", L"txt"), L"\\\\srv\\share\\f.txt");
    EXPECT_EQ(Make(nullptr, L"//srv//share/", L"f", nullptr), L"\\\\srv\\share\\f");
    EXPECT_EQ(Make(L"\\\\?\\C:", L"\\x\\", L"y", L".z"), L"\\\\?\\C:\\x\\y.z");

    // Split and make are inverse for canonical names.
    for (const wchar_t* path : {L"C:\\dir.v1\\file", L"name.tar.gz", L"\\\\srv\\share\\dir\\f.txt", L"C:file.txt",
                                L"C:\\dir\\", L"..\\x.ini", L"\\\\?\\C:\\x\\y.z", L"D:\\a\\b\\c\\d.e"})
    {
        const Split s = SplitOf(path);
        EXPECT_EQ(Make(s.drive, s.dir, s.fname, s.ext), path);
    }

    // The output may be one of the inputs.
    ustring same(L"\\dir");
    CFile::MakePath(same, L"C:", same, L"f", nullptr);
    EXPECT_EQ(same, L"C:\\dir\\f");
}

TEST(FilePathText, UpdatePath)
{
    const int folder = CFile::PathFolder;
    const int all = CFile::PathAll;
    const int dirNameExt = CFile::PathDirectory | CFile::PathNameExt;

    // A file beside another, or relative to its folder.
    EXPECT_EQ(Update(L"C:\\app\\bin\\tool.exe", folder, L"tool.ini", CFile::PathNameExt), L"C:\\app\\bin\\tool.ini");
    EXPECT_EQ(Update(L"C:\\app\\bin\\tool.exe", folder, L"..\\data\\x.ini", dirNameExt), L"C:\\app\\data\\x.ini");
    EXPECT_EQ(Update(L"C:\\app\\bin\\tool.exe", folder, L".\\sub\\x.ini", dirNameExt), L"C:\\app\\bin\\sub\\x.ini");
    EXPECT_EQ(Update(L"C:\\app\\bin\\tool.exe", folder, L"..\\..\\x.ini", dirNameExt), L"C:\\x.ini");
    EXPECT_EQ(Update(L"C:/app/bin/tool.exe", folder, L"./.././x.ini", dirNameExt), L"C:\\app\\x.ini");
    // ".." above the root has nowhere to go.
    EXPECT_EQ(Update(L"C:\\app\\tool.exe", folder, L"..\\..\\..\\x.ini", dirNameExt), L"C:\\x.ini");
    // ... nor above a UNC share.
    EXPECT_EQ(Update(L"\\\\srv\\share\\a\\f", folder, L"..\\..\\x", dirNameExt), L"\\\\srv\\share\\x");
    // A relative base keeps what it cannot resolve.
    EXPECT_EQ(Update(L"a\\f", folder, L"..\\..\\x", dirNameExt), L"..\\x");
    // Only leading dots are resolved; inner ones stay for the system.
    EXPECT_EQ(Update(L"C:\\a\\b\\f", folder, L"c\\..\\x", dirNameExt), L"C:\\a\\b\\c\\..\\x");
    // An absolute directory replaces the base directory.
    EXPECT_EQ(Update(L"C:\\app\\bin\\tool.exe", folder, L"\\etc\\x.ini", dirNameExt), L"C:\\etc\\x.ini");
    // A drive of dst wins when selected; an empty one does not erase src's.
    EXPECT_EQ(Update(L"C:\\app\\tool.exe", all, L"D:", CFile::PathDrive), L"D:\\app\\tool.exe");
    EXPECT_EQ(Update(L"C:\\app\\tool.exe", all, L"\\x\\", CFile::PathDrive), L"C:\\app\\tool.exe");
    // Replace only the extension, or drop parts not selected anywhere.
    EXPECT_EQ(Update(L"C:\\app\\tool.exe", all, L"x.log", CFile::PathExtension), L"C:\\app\\tool.log");
    EXPECT_EQ(Update(L"C:\\app\\tool.exe", CFile::PathNameExt, L"", 0), L"tool.exe");
    EXPECT_EQ(Update(L"C:\\app\\tool.exe", 0, L"D:\\x\\y.z", 0), L"");
}

TEST(FilePathText, IsParentFolder)
{
    EXPECT_TRUE(CFile::IsParentFolder(L"C:\\Data", L"c:\\data\\sub\\f.txt"));
    EXPECT_TRUE(CFile::IsParentFolder(L"C:/data/", L"C:\\DATA\\sub"));
    EXPECT_TRUE(CFile::IsParentFolder(L"C:\\data\\\\", L"C:\\data"));   // itself, trailing separators
    EXPECT_TRUE(CFile::IsParentFolder(L"\\\\srv\\share", L"\\\\SRV\\Share\\x"));
    EXPECT_FALSE(CFile::IsParentFolder(L"C:\\data\\sub", L"C:\\data"));  // child above parent
    EXPECT_FALSE(CFile::IsParentFolder(L"C:\\ab", L"C:\\abc\\x"));       // components, not prefixes
    EXPECT_FALSE(CFile::IsParentFolder(L"C:\\data", L"D:\\data\\x"));
    EXPECT_FALSE(CFile::IsParentFolder(L"\\\\srv\\share", L"\\srv\\share\\x"));
}

TEST_F(FilePathTest, ResolvePath)
{
    for (const wchar_t* name : {L"alpha", L"Gamma", L"beta", L"Gamma\\v1", L"Gamma\\V2", L"Gamma\\v10"})
        ASSERT_TRUE(::CreateDirectoryW(Sub(name), nullptr));
    WriteTextFile(Sub(L"zzz"), "a file, not a folder");

    ustring path = m_strRoot + L"\\<FOLDER_LAST_ALP>\\<FOLDER_LAST_ALP>\\cfg.ini";
    EXPECT_TRUE(CFile::ResolvePath(path));
    EXPECT_EQ(path, m_strRoot + L"\\Gamma\\V2\\cfg.ini");

    ustring noMarker = L"C:\\x\\y";
    EXPECT_TRUE(CFile::ResolvePath(noMarker));
    EXPECT_EQ(noMarker, L"C:\\x\\y");

    // A folder without sub-folders, and a folder that does not exist, cannot be resolved.
    ustring empty = m_strRoot + L"\\alpha\\<FOLDER_LAST_ALP>\\f";
    EXPECT_FALSE(CFile::ResolvePath(empty));
    EXPECT_EQ(empty, m_strRoot + L"\\alpha\\<FOLDER_LAST_ALP>\\f");
    ustring missing = m_strRoot + L"\\none\\<FOLDER_LAST_ALP>";
    EXPECT_FALSE(CFile::ResolvePath(missing));

    // The first marker is resolved even when a later one fails.
    ustring partly = m_strRoot + L"/<FOLDER_LAST_ALP>/v1/<FOLDER_LAST_ALP>";
    EXPECT_FALSE(CFile::ResolvePath(partly));
    EXPECT_EQ(partly, m_strRoot + L"/Gamma/v1/<FOLDER_LAST_ALP>");
}

TEST_F(FilePathTest, LongPathsAreCreatedUsedAndDeleted)
{
    // Nine components of 40 characters: well beyond MAX_PATH.
    ustring deep = m_strRoot;
    for (int i = 0; i < 9; ++i)
        deep += ustring::sprintf_stc(L"\\level%d_%ls", i, std::wstring(32, L'x').c_str());
    ASSERT_GT(deep.size(), 360u);

    EXPECT_FALSE(CFile::FileExists(deep));
    CFile::CreateFolder(deep + L"\\");
    bool isFolder = false;
    ASSERT_TRUE(CFile::FileExists(deep, isFolder));
    EXPECT_TRUE(isFolder);
    CFile::CreateFolder(deep); // already there: nothing happens

    const ustring file = deep + L"\\data.bin";
    WriteTextFile(file, "0123456789");
    ASSERT_TRUE(CFile::FileExists(file, isFolder));
    EXPECT_FALSE(isFolder);
    EXPECT_EQ(CFile::GetLength(file), 10u);

    const ustring copy = deep + L"\\copy.bin";
    CFile::CopyFileW(file, copy, true);
    EXPECT_EQ(CFile::GetLength(copy), 10u);
    const CWinException exists = CatchWinException([&] { CFile::CopyFileW(file, copy, true); });
    EXPECT_EQ(exists.GetFunction(), L"CopyFileW");
    EXPECT_EQ(exists.GetErrorCode(), ERROR_FILE_EXISTS);
    CFile::CopyFileW(file, copy, false); // overwriting is allowed

    const ustring moved = deep + L"\\moved.bin";
    CFile::MoveFileW(copy, moved);
    EXPECT_FALSE(CFile::FileExists(copy));
    EXPECT_TRUE(CFile::FileExists(moved));
    const CWinException moveOnto = CatchWinException([&] { CFile::MoveFileW(file, moved); });
    EXPECT_EQ(moveOnto.GetFunction(), L"MoveFileW");
    EXPECT_EQ(moveOnto.GetErrorCode(), ERROR_ALREADY_EXISTS);

    CFile::SetAttributes(moved, FILE_ATTRIBUTE_READONLY);
    EXPECT_NE(CFile::GetAttributes(moved) & FILE_ATTRIBUTE_READONLY, 0u);
    const CWinException readOnly = CatchWinException([&] { CFile::DeleteFileW(moved); });
    EXPECT_EQ(readOnly.GetFunction(), L"DeleteFileW");
    EXPECT_EQ(readOnly.GetErrorCode(), ERROR_ACCESS_DENIED);
    CFile::SetAttributes(moved, FILE_ATTRIBUTE_NORMAL);
    CFile::DeleteFileW(moved);
    CFile::DeleteFileW(file);
    EXPECT_FALSE(CFile::FileExists(moved));
    EXPECT_FALSE(CFile::FileExists(file));
    EXPECT_NE(CFile::GetAttributes(deep) & FILE_ATTRIBUTE_DIRECTORY, 0u);

    // The folder chain can be removed again through the long form.
    ustring folder = deep;
    while (folder.size() > m_strRoot.size())
    {
        ASSERT_TRUE(::RemoveDirectoryW(CFile::OptAddFileNamePrefix(folder))) << ::GetLastError();
        folder.erase(folder.rfind(L'\\'));
    }
    EXPECT_FALSE(CFile::FileExists(m_strRoot + L"\\level0_" + ustring(32u, L'x')));
}

TEST_F(FilePathTest, CreateFolder)
{
    // Forward slashes, a trailing separator and several missing levels at once.
    CFile::CreateFolder(m_strRoot + L"/a/b/c/");
    bool isFolder = false;
    EXPECT_TRUE(CFile::FileExists(Sub(L"a\\b\\c"), isFolder));
    EXPECT_TRUE(isFolder);

    // A component that is a file: code 87 named after the member, nothing created behind it.
    WriteTextFile(Sub(L"a\\file"), "x");
    for (const wchar_t* below : {L"a\\file\\x\\y", L"a\\file"})
    {
        const CWinException e = CatchWinException([&] { CFile::CreateFolder(Sub(below)); });
        EXPECT_EQ(e.GetErrorCode(), ERROR_INVALID_PARAMETER);
        EXPECT_EQ(e.GetFunction(), L"CFile::CreateDirectory");
        EXPECT_EQ(e.GetLine(), 854u);
    }
    EXPECT_FALSE(CFile::FileExists(Sub(L"a\\file\\x")));

    // A folder that cannot be made (invalid name character) names CreateDirectoryW.
    const CWinException bad = CatchWinException([&] { CFile::CreateFolder(Sub(L"a\\bad|name\\x")); });
    EXPECT_EQ(bad.GetFunction(), L"CreateDirectoryW");
    EXPECT_EQ(bad.GetLine(), 873u);
    EXPECT_NE(bad.GetErrorCode(), 0);

    // Roots and existing folders: nothing to do.
    CFile::CreateFolder(L"C:\\");
    CFile::CreateFolder(L"\\");
    CFile::CreateFolder(m_strRoot);
}

TEST_F(FilePathTest, FileExists)
{
    bool isFolder = false;
    EXPECT_TRUE(CFile::FileExists(L"C:\\", isFolder)); // a root is no directory entry
    EXPECT_TRUE(isFolder);
    EXPECT_TRUE(CFile::FileExists(L"C:/"));
    EXPECT_FALSE(CFile::FileExists(nullptr));
    EXPECT_FALSE(CFile::FileExists(L""));
    EXPECT_FALSE(CFile::FileExists(Sub(L"missing.txt")));
    EXPECT_FALSE(CFile::FileExists(Sub(L"missing\\deeper")));

    isFolder = false;
    EXPECT_TRUE(CFile::FileExists(m_strRoot + L"\\", isFolder));
    EXPECT_TRUE(isFolder);
    WriteTextFile(Sub(L"f.txt"), "abc");
    isFolder = true;
    EXPECT_TRUE(CFile::FileExists(Sub(L"f.txt"), isFolder));
    EXPECT_FALSE(isFolder);
}

TEST_F(FilePathTest, FailuresNameTheSystemCall)
{
    const ustring missing = Sub(L"missing.txt");
    struct Case
    {
        const wchar_t* function;
        std::function<void()> call;
    };
    const Case cases[] = {
        {L"DeleteFileW", [&] { CFile::DeleteFileW(missing); }},
        {L"GetFileAttributesW", [&] { CFile::GetAttributes(missing); }},
        {L"SetFileAttributesW", [&] { CFile::SetAttributes(missing, FILE_ATTRIBUTE_NORMAL); }},
        {L"GetFileAttributesExW", [&] { CFile::GetLength(missing); }},
        {L"CopyFileW", [&] { CFile::CopyFileW(missing, Sub(L"copy.txt"), false); }},
        {L"MoveFileW", [&] { CFile::MoveFileW(missing, Sub(L"moved.txt")); }},
    };
    for (const Case& c : cases)
    {
        const CWinException e = CatchWinException(c.call);
        EXPECT_EQ(e.GetFunction(), c.function);
        EXPECT_EQ(e.GetErrorCode(), ERROR_FILE_NOT_FOUND) << ustring(c.function).c_str();
    }
}

TEST(FilePathModule, GetModuleFileNameW)
{
    ustring full, nameExt, name, folder;
    ASSERT_TRUE(CFile::GetModuleFileNameW(nullptr, full));
    ASSERT_TRUE(CFile::GetModuleFileNameW(nullptr, nameExt, CFile::ModuleNameExt));
    ASSERT_TRUE(CFile::GetModuleFileNameW(nullptr, name, CFile::ModuleName));
    ASSERT_TRUE(CFile::GetModuleFileNameW(nullptr, folder, CFile::ModuleFolder));
    wchar_t system[MAX_PATH] = {};
    ASSERT_NE(::GetModuleFileNameW(nullptr, system, MAX_PATH), 0u);
    EXPECT_EQ(full, system);
    EXPECT_EQ(name + L".exe", nameExt) << nameExt.c_str();
    EXPECT_EQ(folder.back(), L'\\');
    EXPECT_EQ(folder + nameExt, full);
    EXPECT_TRUE(CFile::FileExists(full));

    // The library's own module, found through an address inside it.
    HMODULE library = nullptr;
    ASSERT_TRUE(::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                     reinterpret_cast<LPCWSTR>(&CFile::OptAddFileNamePrefix), &library));
    ustring libraryName;
    ASSERT_TRUE(CFile::GetModuleFileNameW(library, libraryName, CFile::ModuleNameExt));
    EXPECT_EQ(libraryName.compareNoCase(L"Tavrin.dll"), 0) << libraryName.c_str();

    ustring out(L"stale");
    EXPECT_FALSE(CFile::GetModuleFileNameW(nullptr, out, CFile::EModuleFileName(7)));
    EXPECT_TRUE(out.empty());

    // A handle that is no module.
    const HINSTANCE bogus = reinterpret_cast<HINSTANCE>(static_cast<INT_PTR>(0x10));
    EXPECT_FALSE(CFile::GetModuleFileNameW(bogus, out, CFile::ModulePath, true));
    EXPECT_TRUE(out.empty());
    const CWinException e = CatchWinException([&] { CFile::GetModuleFileNameW(bogus, out); });
    EXPECT_EQ(e.GetFunction(), L"GetModuleFileNameW");
    EXPECT_EQ(e.GetLine(), 728u);
    EXPECT_NE(e.GetErrorCode(), 0);
}

TEST(FilePathSpecial, SpecialFoldersAndLocations)
{
    ustring appData;
    CFile::GetSpecialFolderPath(CSIDL_APPDATA, appData);
    ASSERT_FALSE(appData.empty());
    bool isFolder = false;
    EXPECT_TRUE(CFile::FileExists(appData, isFolder));
    EXPECT_TRUE(isFolder);

    ustring joined;
    ASSERT_TRUE(CFile::GetSpecialFolderPathEx(CSIDL_APPDATA, L"Company/Product", joined));
    EXPECT_EQ(joined, appData + L"\\Company\\Product");
    ASSERT_TRUE(CFile::GetSpecialFolderPathEx(CSIDL_APPDATA, nullptr, joined));
    EXPECT_EQ(joined, appData);

    ustring location;
    ASSERT_TRUE(tavrin::GetSpecialFolderLocation(CSIDL_APPDATA, location));
    EXPECT_EQ(location.compareNoCase(appData), 0);

    // An identifier no shell knows.
    const int unknown = 0x7F;
    EXPECT_FALSE(CFile::GetSpecialFolderPathEx(unknown, L"x", joined));
    EXPECT_FALSE(tavrin::GetSpecialFolderLocation(unknown, location));
    EXPECT_FALSE(CFile::FileExists(unknown, L"x", L"txt"));
    const CWinException e = CatchWinException([&] { CFile::GetSpecialFolderPath(unknown, joined); });
    EXPECT_EQ(e.GetFunction(), L"SHGetSpecialFolderPath");
    EXPECT_NE(e.GetErrorCode(), 0);
    EXPECT_EQ(CatchWinException([&] { CFile::GetLength(unknown, L"x", L"txt"); }).GetFunction(), L"SHGetSpecialFolderPath");

    // A file in a special folder, named by folder, name and extension.
    const ustring name = ustring::sprintf_stc(L"tavrin_special_%lu", ::GetCurrentProcessId());
    const ustring path = appData + L"\\" + name + L".tmp";
    WriteTextFile(path, "12345");
    EXPECT_TRUE(CFile::FileExists(CSIDL_APPDATA, name, L"tmp"));
    isFolder = true;
    EXPECT_TRUE(CFile::FileExists(CSIDL_APPDATA, name, L".tmp", isFolder));
    EXPECT_FALSE(isFolder);
    EXPECT_EQ(CFile::GetLength(CSIDL_APPDATA, name, L"tmp"), 5u);
    CFile::DeleteFileW(path);
    EXPECT_FALSE(CFile::FileExists(CSIDL_APPDATA, name, L"tmp"));
}

TEST_F(FilePathTest, TempNames)
{
    ustring temp;
    CFile::GetTempPathW(temp);
    EXPECT_EQ(temp.back(), L'\\');
    EXPECT_TRUE(CFile::FileExists(temp));

    // unique 0: the system picks the number and creates the file.
    ustring created;
    CFile::GetTempFileNameW(m_strRoot, L"tvr", 0, created);
    EXPECT_TRUE(CFile::IsParentFolder(m_strRoot, created));
    ustring drive, dir, fname, ext;
    CFile::SplitPath(created, drive, dir, fname, ext);
    EXPECT_EQ(fname.substr(0, 3), L"tvr");
    EXPECT_EQ(ext.compareNoCase(L".tmp"), 0);
    EXPECT_TRUE(CFile::FileExists(created));

    // Any other number only forms the name.
    ustring formed;
    CFile::GetTempFileNameW(m_strRoot, L"tvr", 0xBEEF, formed);
    CFile::SplitPath(formed, drive, dir, fname, ext);
    EXPECT_EQ(fname.compareNoCase(L"tvrBEEF"), 0) << fname.c_str();
    EXPECT_FALSE(CFile::FileExists(formed));

    const CWinException e = CatchWinException([&] { CFile::GetTempFileNameW(Sub(L"missing"), L"tvr", 0, formed); });
    EXPECT_EQ(e.GetFunction(), L"GetTempFileName");
    EXPECT_NE(e.GetErrorCode(), 0);
}

TEST_F(FilePathTest, CreateShortcut)
{
    const ustring target = Sub(L"target.txt");
    WriteTextFile(target, "target");
    const ustring link = Sub(L"target.lnk");
    tavrin::CreateShortcut(link, target, L"A test link", m_strRoot);
    ASSERT_TRUE(CFile::FileExists(link));

    // Read the link back through the shell.
    ASSERT_TRUE(SUCCEEDED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)));
    {
        IShellLinkW* shellLink = nullptr;
        ASSERT_TRUE(SUCCEEDED(::CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW,
                                                 reinterpret_cast<void**>(&shellLink))));
        IPersistFile* file = nullptr;
        ASSERT_TRUE(SUCCEEDED(shellLink->QueryInterface(IID_IPersistFile, reinterpret_cast<void**>(&file))));
        EXPECT_TRUE(SUCCEEDED(file->Load(link, STGM_READ)));
        wchar_t buffer[MAX_PATH] = {};
        EXPECT_TRUE(SUCCEEDED(shellLink->GetPath(buffer, MAX_PATH, nullptr, 0)));
        EXPECT_EQ(ustring(buffer).compareNoCase(target), 0) << ustring(buffer).c_str();
        buffer[0] = L'\0';
        EXPECT_TRUE(SUCCEEDED(shellLink->GetDescription(buffer, MAX_PATH)));
        EXPECT_EQ(ustring(buffer), L"A test link");
        buffer[0] = L'\0';
        EXPECT_TRUE(SUCCEEDED(shellLink->GetWorkingDirectory(buffer, MAX_PATH)));
        EXPECT_EQ(ustring(buffer).compareNoCase(m_strRoot), 0);
        file->Release();
        shellLink->Release();
    }
    ::CoUninitialize();

    // A link in a folder that does not exist cannot be saved.
    const CWinException e = CatchWinException([&] { tavrin::CreateShortcut(Sub(L"missing\\x.lnk"), target); });
    EXPECT_EQ(e.GetFunction(), L"IPersistFile::Save");
    EXPECT_LT(e.GetErrorCode(), 0); // an HRESULT
}
