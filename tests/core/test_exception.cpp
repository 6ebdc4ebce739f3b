// Exceptions: code texts, messages, sources, snapshots, cloning, reporters' text.
#include <tavrin/core/exception.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

using namespace tavrin;

namespace {

// A temporary file deleted when the test ends.
class CTempFile
{
public:
    explicit CTempFile(const std::vector<unsigned char>& bytes)
    {
        wchar_t folder[MAX_PATH] = {};
        ::GetTempPathW(MAX_PATH, folder);
        wchar_t name[MAX_PATH] = {};
        ::GetTempFileNameW(folder, L"ter", 0, name);
        m_strPath = name;
        FILE* file = _wfopen(name, L"wb");
        if (file != nullptr)
        {
            if (!bytes.empty())
                std::fwrite(bytes.data(), 1, bytes.size(), file);
            std::fclose(file);
        }
    }
    ~CTempFile() { ::DeleteFileW(m_strPath.c_str()); }
    const wchar_t* Path() const { return m_strPath.c_str(); }

private:
    std::wstring m_strPath;
};

// UTF-16LE bytes of a text, with or without the byte-order mark.
std::vector<unsigned char> Utf16(const std::wstring& text, bool bom = true)
{
    std::vector<unsigned char> bytes;
    if (bom)
    {
        bytes.push_back(0xFF);
        bytes.push_back(0xFE);
    }
    for (wchar_t ch : text)
    {
        bytes.push_back(static_cast<unsigned char>(ch & 0xFF));
        bytes.push_back(static_cast<unsigned char>((ch >> 8) & 0xFF));
    }
    return bytes;
}

ustring MessageOf(const CStdException& e, bool* result = nullptr)
{
    ustring message;
    const bool ok = e.GetErrorMessage(message);
    if (result != nullptr)
        *result = ok;
    return message;
}

ustring SourceOf(const CStdException& e)
{
    ustring source;
    EXPECT_TRUE(e.GetSource(source));
    return source;
}

} // namespace

TEST(ExceptionWin, CodeTextIsDecimalOrHexForHResults)
{
    EXPECT_EQ(CWinException(1, L"f.cpp", L"CreateFileW", 5).GetErrorCodeStr(), L"5");
    EXPECT_EQ(CWinException(1, L"f.cpp", L"CreateFileW", 0).GetErrorCodeStr(), L"0");
    EXPECT_EQ(CWinException(1, L"f.cpp", L"CoCreateInstance", static_cast<long>(0x80070005u))
                  .GetErrorCodeStr(),
              L"0x80070005");
    EXPECT_EQ(CWinException(1, L"f.cpp", L"x", 2147483647L).GetErrorCodeStr(), L"2147483647");
    EXPECT_EQ(CWinException(1, L"f.cpp", L"x", -1).GetErrorCodeStr(), L"0xFFFFFFFF");
}

TEST(ExceptionWin, FieldsSourceAndCodeReplacement)
{
    const CWinException e(42, L"C:\\src\\file.cpp", L"CreateMutexW", ERROR_ACCESS_DENIED);
    EXPECT_EQ(e.GetLine(), 42u);
    EXPECT_EQ(e.GetFileName(), L"C:\\src\\file.cpp");
    EXPECT_EQ(e.GetFunction(), L"CreateMutexW");
    EXPECT_EQ(e.GetErrorCode(), 5);
    EXPECT_EQ(SourceOf(e), L"Win API");

    const CWinException replaced(e, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(replaced.GetErrorCode(), 2);
    EXPECT_EQ(replaced.GetLine(), 42u);
    EXPECT_EQ(replaced.GetFunction(), L"CreateMutexW");
    EXPECT_EQ(e.GetErrorCode(), 5); // the original is untouched

    const CWinException empty(0, nullptr, nullptr, 0);
    EXPECT_TRUE(empty.GetFileName().empty());
    EXPECT_TRUE(empty.GetFunction().empty());

    CWinException assigned(1, L"a", L"b", 1);
    assigned = e;
    EXPECT_EQ(assigned.GetFunction(), L"CreateMutexW");
    EXPECT_EQ(assigned.GetErrorCode(), 5);
}

TEST(ExceptionWin, MessagesFromSystemAndUnknownFallback)
{
    bool ok = false;
    const ustring accessDenied = MessageOf(CWinException(1, L"f", L"g", ERROR_ACCESS_DENIED), &ok);
    EXPECT_TRUE(ok);
    EXPECT_FALSE(accessDenied.empty());
    EXPECT_NE(accessDenied.find(L"Unknown error"), 0u);

    // No system message table and no error-file line knows this code.
    const ustring unknown = MessageOf(CWinException(1, L"f", L"g", static_cast<long>(0xDEADBEEFu)), &ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(unknown, L"Unknown error: -559038737 (0xDEADBEEF).");

    const ustring positive = MessageOf(CWinException(1, L"f", L"g", 0x0ABCDEF1), &ok);
    EXPECT_FALSE(ok);
    EXPECT_EQ(positive, L"Unknown error: 180150001 (0xABCDEF1).");
}

TEST(ExceptionWin, ShippedErrorFileBesideTheLibraryIsFound)
{
    // The build generates DATA\Win32Errors.txt next to Tavrin.dll.
    ustring text;
    ASSERT_TRUE(detail::LookupWin32ErrorText(ERROR_FILE_NOT_FOUND, text));
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(text.find(L'\n'), std::wstring::npos);
    EXPECT_FALSE(detail::LookupWin32ErrorText(static_cast<long>(0xDEADBEEFu), text));
}

TEST(ExceptionErrorFile, ParsesCodesMessagesAndEscapes)
{
    // Leading line feeds, CR LF and LF line ends, spaces around both fields, hex in either case,
    // HRESULT-sized codes, a first-line-wins duplicate and junk lines.
    const CTempFile file(Utf16(L"\n\n"
                               L"0x1F , Some text \r\n"
                               L"5,Access is denied.\n"
                               L"  7  ,First line\\rSecond line\r\n"
                               L"0X1f,shadowed duplicate\r\n"
                               L"no comma here\r\n"
                               L"abc,not a number\r\n"
                               L"12x,trailing junk in the code\r\n"
                               L"0x80070005,HRESULT text\r\n"
                               L"-2,negative\r\n"
                               L"8,\r\n"
                               L"9,comma, inside, the message"));
    ustring text;
    EXPECT_TRUE(detail::LookupWin32ErrorTextInFile(file.Path(), 31, text));
    EXPECT_EQ(text, L"Some text");
    EXPECT_TRUE(detail::LookupWin32ErrorTextInFile(file.Path(), 5, text));
    EXPECT_EQ(text, L"Access is denied.");
    EXPECT_TRUE(detail::LookupWin32ErrorTextInFile(file.Path(), 7, text));
    EXPECT_EQ(text, L"First line\rSecond line");
    EXPECT_TRUE(detail::LookupWin32ErrorTextInFile(file.Path(), static_cast<long>(0x80070005u), text));
    EXPECT_EQ(text, L"HRESULT text");
    EXPECT_TRUE(detail::LookupWin32ErrorTextInFile(file.Path(), -2, text));
    EXPECT_EQ(text, L"negative");
    EXPECT_TRUE(detail::LookupWin32ErrorTextInFile(file.Path(), 8, text));
    EXPECT_EQ(text, L"");
    EXPECT_TRUE(detail::LookupWin32ErrorTextInFile(file.Path(), 9, text));
    EXPECT_EQ(text, L"comma, inside, the message");

    text = L"unchanged";
    EXPECT_FALSE(detail::LookupWin32ErrorTextInFile(file.Path(), 12, text));
    EXPECT_FALSE(detail::LookupWin32ErrorTextInFile(file.Path(), 0, text));
    EXPECT_EQ(text, L"unchanged");
}

TEST(ExceptionErrorFile, MissingBomMissingFileAndLongFiles)
{
    ustring text;
    const CTempFile noBom(Utf16(L"0x1F , Some text\r\n", false));
    EXPECT_FALSE(detail::LookupWin32ErrorTextInFile(noBom.Path(), 31, text));

    const CTempFile bigEndianBom({0xFE, 0xFF, 0x00, L'5', 0x00, L',', 0x00, L'x'});
    EXPECT_FALSE(detail::LookupWin32ErrorTextInFile(bigEndianBom.Path(), 5, text));

    const CTempFile empty(std::vector<unsigned char>{});
    EXPECT_FALSE(detail::LookupWin32ErrorTextInFile(empty.Path(), 0, text));

    const CTempFile onlyBom(Utf16(L""));
    EXPECT_FALSE(detail::LookupWin32ErrorTextInFile(onlyBom.Path(), 0, text));

    EXPECT_FALSE(detail::LookupWin32ErrorTextInFile(L"C:\\no\\such\\folder\\Win32Errors.txt", 31, text));
    EXPECT_FALSE(detail::LookupWin32ErrorTextInFile(nullptr, 31, text));

    // Many 512-byte blocks; the wanted line lies far beyond the first block and its last code
    // unit is the file's last.
    std::wstring many;
    for (int code = 1000; code < 1400; ++code)
        many += std::to_wstring(code) + L",Message number " + std::to_wstring(code) + L"\r\n";
    many += L"4242,last line without a line end";
    const CTempFile big(Utf16(many));
    EXPECT_TRUE(detail::LookupWin32ErrorTextInFile(big.Path(), 1399, text));
    EXPECT_EQ(text, L"Message number 1399");
    EXPECT_TRUE(detail::LookupWin32ErrorTextInFile(big.Path(), 4242, text));
    EXPECT_EQ(text, L"last line without a line end");

    // A trailing odd byte is no half character.
    std::vector<unsigned char> odd = Utf16(L"3,abc");
    odd.push_back(0x41);
    const CTempFile oddFile(odd);
    EXPECT_TRUE(detail::LookupWin32ErrorTextInFile(oddFile.Path(), 3, text));
    EXPECT_EQ(text, L"abc");
}

TEST(ExceptionComm, ReplyTableAndCodeText)
{
    const CCommException dup(3, L"port.cpp", L"tavrin::CReceiver::Send", L"{2,,dup loop}", L"Receiver");
    EXPECT_EQ(MessageOf(dup), L"Dup loop");
    EXPECT_EQ(dup.GetErrorCodeStr(), L"dup loop");
    EXPECT_EQ(dup.GetErrorCodeRaw(), L"{2,,dup loop}");
    EXPECT_EQ(SourceOf(dup), L"Receiver");

    bool ok = false;
    const CCommException other(3, L"p", L"f", L"{5,,something else}", nullptr);
    EXPECT_EQ(MessageOf(other, &ok), L"{5,,something else}");
    EXPECT_TRUE(ok);
    EXPECT_EQ(other.GetErrorCodeStr(), L"something else");
    EXPECT_EQ(SourceOf(other), L"");

    const CCommException table(3, L"p", L"f", L"{22,Unable to retrieve sourcetable}", L"s");
    EXPECT_EQ(MessageOf(table), L"Unable to retrieve sourcetable");
    EXPECT_EQ(table.GetErrorCodeStr(), L"Unable to retrieve sourcetable");

    EXPECT_EQ(MessageOf(CCommException(1, L"p", L"f", L"{2,,wrong command}", L"s")), L"Wrong command");
    EXPECT_EQ(MessageOf(CCommException(1, L"p", L"f", L"{2,,1st parameter missed}", L"s")),
              L"1st parameter missed");
    EXPECT_EQ(MessageOf(CCommException(1, L"p", L"f", L"{2,,can't lock}", L"s")), L"Can't lock");
    EXPECT_EQ(MessageOf(CCommException(1, L"p", L"f", L"{2,,data transfer delay}", L"s")),
              L"Data transfer delay");

    // Matching is exact: case and surrounding spaces count, but the code text is cleaned.
    const CCommException spaced(1, L"p", L"f", L"  {2,,wrong command}  ", L"s");
    EXPECT_EQ(MessageOf(spaced), L"  {2,,wrong command}  ");
    EXPECT_EQ(spaced.GetErrorCodeStr(), L"wrong command");
    EXPECT_EQ(MessageOf(CCommException(1, L"p", L"f", L"{2,,Wrong command}", L"s")), L"{2,,Wrong command}");

    const CCommException empty(1, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(MessageOf(empty), L"");
    EXPECT_EQ(empty.GetErrorCodeStr(), L"");
    EXPECT_EQ(empty.GetErrorCodeRaw(), L"");
    EXPECT_EQ(CCommException(1, L"p", L"f", L"{123}", L"s").GetErrorCodeStr(), L"");
    EXPECT_EQ(CCommException(1, L"p", L"f", L"plain reply", L"s").GetErrorCodeStr(), L"plain reply");
}

TEST(ExceptionCfgMgr, NamesAndFallback)
{
    bool ok = false;
    const CCfgMgrException last(1, L"f", L"CM_Get_DevNode_Status", 59);
    EXPECT_EQ(MessageOf(last, &ok), L"CR_INVALID_STRUCTURE_SIZE");
    EXPECT_TRUE(ok);
    EXPECT_EQ(last.GetErrorCodeStr(), L"0x3B");
    EXPECT_EQ(last.GetErrorCode(), 59ul);
    EXPECT_EQ(SourceOf(last), L"CfgMgr");

    const CCfgMgrException beyond(1, L"f", L"g", 60);
    EXPECT_EQ(MessageOf(beyond, &ok), L"CONFIGRET = 0x3C");
    EXPECT_FALSE(ok);
    EXPECT_EQ(beyond.GetErrorCodeStr(), L"0x3C");

    EXPECT_EQ(MessageOf(CCfgMgrException(1, L"f", L"g", 0)), L"CR_SUCCESS");
    EXPECT_EQ(MessageOf(CCfgMgrException(1, L"f", L"g", 19)), L"CR_FAILURE");
    EXPECT_EQ(MessageOf(CCfgMgrException(1, L"f", L"g", 31)), L"CR_INVALID_DATA");
    EXPECT_EQ(MessageOf(CCfgMgrException(1, L"f", L"g", 0xFFFFFFFFul), &ok), L"CONFIGRET = 0xFFFFFFFF");
    EXPECT_FALSE(ok);
}

TEST(ExceptionMatrix, KindsTextsAndSource)
{
    const struct
    {
        CMatrixException::EException kind;
        const wchar_t* code;
        const wchar_t* message;
    } cases[] = {
        {CMatrixException::Success, L"0", L"Success"},
        {CMatrixException::InvalidMatrixDimension, L"1", L"Invalid Matrix Dimension"},
        {CMatrixException::IncompatibleMatrixDimension, L"2", L"Incompatible Matrix Dimension"},
        {CMatrixException::InvalidIndex, L"3", L"Invalid Index"},
        {CMatrixException::DivisionByZero, L"4", L"Division by Zero"},
    };
    for (const auto& c : cases)
    {
        const CMatrixException e(7, L"matrix", L"tavrin::matrix::resize", c.kind);
        bool ok = false;
        EXPECT_EQ(MessageOf(e, &ok), c.message);
        EXPECT_TRUE(ok);
        EXPECT_EQ(e.GetErrorCodeStr(), c.code);
        EXPECT_EQ(e.GetErrorCode(), c.kind);
        EXPECT_EQ(SourceOf(e), L"Matrix Library");
    }
    bool ok = true;
    MessageOf(CMatrixException(7, L"matrix", L"f", static_cast<CMatrixException::EException>(9)), &ok);
    EXPECT_FALSE(ok);
}

TEST(ExceptionInfo, SnapshotAndClear)
{
    const CWinException e(77, L"w.cpp", L"ReadFile", ERROR_HANDLE_EOF);
    CStdException::CExInfo info(e);
    EXPECT_EQ(info.GetLine(), 77u);
    EXPECT_EQ(info.GetFileName(), L"w.cpp");
    EXPECT_EQ(info.GetFunction(), L"ReadFile");
    EXPECT_EQ(info.GetErrorCodeStr(), L"38");
    EXPECT_EQ(info.GetSource(), L"Win API");
    EXPECT_EQ(info.GetErrorMessage(), MessageOf(e));

    // The fall-back text is kept although GetErrorMessage reports false.
    const CStdException::CExInfo unknown(CCfgMgrException(1, L"c", L"f", 99));
    EXPECT_EQ(unknown.GetErrorMessage(), L"CONFIGRET = 0x63");

    CStdException::CExInfo copy(info);
    info.Clear();
    EXPECT_EQ(info.GetLine(), 0u);
    EXPECT_TRUE(info.GetFileName().empty());
    EXPECT_TRUE(info.GetFunction().empty());
    EXPECT_TRUE(info.GetErrorCodeStr().empty());
    EXPECT_TRUE(info.GetSource().empty());
    EXPECT_TRUE(info.GetErrorMessage().empty());
    EXPECT_EQ(copy.GetFunction(), L"ReadFile");

    const CStdException::CExInfo blank;
    EXPECT_EQ(blank.GetLine(), 0u);
    EXPECT_TRUE(blank.GetErrorMessage().empty());
}

TEST(ExceptionClone, ThrowKeepsTheDynamicType)
{
    const CCommException comm(5, L"c.cpp", L"Send", L"{2,,dup loop}", L"Receiver");
    boost::shared_ptr<const CStdException> clone = comm.Clone();
    ASSERT_TRUE(clone);
    EXPECT_NE(clone.get(), static_cast<const CStdException*>(&comm));
    try
    {
        clone->Throw();
        FAIL() << "Throw returned";
    }
    catch (const CWinException&)
    {
        FAIL() << "caught as the wrong class";
    }
    catch (const CCommException& e)
    {
        EXPECT_EQ(e.GetErrorCodeRaw(), L"{2,,dup loop}");
        EXPECT_EQ(e.GetLine(), 5u);
        EXPECT_EQ(e.GetFunction(), L"Send");
    }

    const CCfgMgrException cfg(6, L"d.cpp", L"CM_Locate_DevNodeW", 13);
    try
    {
        cfg.Clone()->Throw();
    }
    catch (const CCfgMgrException& e)
    {
        EXPECT_EQ(e.GetErrorCode(), 13ul);
    }

    const CMatrixException matrix(8, L"matrix", L"tavrin::invert", CMatrixException::DivisionByZero);
    try
    {
        matrix.Clone()->Throw();
    }
    catch (const CMatrixException& e)
    {
        EXPECT_EQ(e.GetErrorCode(), CMatrixException::DivisionByZero);
        EXPECT_EQ(e.GetFunction(), L"tavrin::invert");
    }
}

TEST(ExceptionSEH, NamesUnknownCodesAndBuffers)
{
    wchar_t buffer[64] = {};
    EXPECT_TRUE(CStdException::SEHCodeToString(0xC0000094u, buffer, 64));
    EXPECT_STREQ(buffer, L"EXCEPTION_INT_DIVIDE_BY_ZERO");
    EXPECT_TRUE(CStdException::SEHCodeToString(0xC0000005u, buffer, 64));
    EXPECT_STREQ(buffer, L"EXCEPTION_ACCESS_VIOLATION");
    EXPECT_TRUE(CStdException::SEHCodeToString(0x80000001u, buffer, 64));
    EXPECT_STREQ(buffer, L"EXCEPTION_GUARD_PAGE");
    EXPECT_TRUE(CStdException::SEHCodeToString(0xC00000FDu, buffer, 64));
    EXPECT_STREQ(buffer, L"EXCEPTION_STACK_OVERFLOW");

    EXPECT_FALSE(CStdException::SEHCodeToString(0xC0000007u, buffer, 64));
    EXPECT_STREQ(buffer, L"EXCEPTION_UNKNOWN_0xC0000007");
    EXPECT_FALSE(CStdException::SEHCodeToString(0u, buffer, 64));
    EXPECT_STREQ(buffer, L"EXCEPTION_UNKNOWN_0x0");

    // The C++ runtime's own code is unnamed but understood.
    EXPECT_TRUE(CStdException::SEHCodeToString(0xE06D7363u, buffer, 64));
    EXPECT_STREQ(buffer, L"EXCEPTION_UNKNOWN_0xE06D7363");

    // "EXCEPTION_BREAKPOINT" is 20 code units: it needs 21 with the terminator.
    wchar_t exact[21] = {};
    EXPECT_TRUE(CStdException::SEHCodeToString(0x80000003u, exact, 21));
    EXPECT_STREQ(exact, L"EXCEPTION_BREAKPOINT");
    wchar_t small[20];
    std::fill(small, small + 20, L'#');
    EXPECT_FALSE(CStdException::SEHCodeToString(0x80000003u, small, 20));
    EXPECT_EQ(small[0], L'\0');
    EXPECT_FALSE(CStdException::SEHCodeToString(0xE06D7363u, small, 20));
    EXPECT_FALSE(CStdException::SEHCodeToString(0xC0000094u, nullptr, 64));
    EXPECT_FALSE(CStdException::SEHCodeToString(0xC0000094u, buffer, 0));
}

TEST(ExceptionAppName, FallsBackToTheExecutableName)
{
    CStdException::SetAppName(nullptr);
    EXPECT_EQ(CStdException::GetAppName(), L"tavrin_core_tests");

    CStdException::SetAppName(L"Tool");
    EXPECT_EQ(CStdException::GetAppName(), L"Tool");

    CStdException::SetAppName(L"");
    EXPECT_EQ(CStdException::GetAppName(), L"tavrin_core_tests");
}

TEST(ExceptionConsoleLog, RowsAppearOnlyWhenTheyHaveSomethingToSay)
{
    // No source and no function: "Error code:", "File name:" and "Line:" only.
    const CCommException bare(12, L"x.cpp", nullptr, L"{2,,dup loop}", nullptr);
    const CStdException::CExInfo info(bare);
    EXPECT_EQ(detail::ComposeExceptionLog(info, nullptr, 0),
              L"< C++ EXCEPTION LOG >\r\n"
              L"Dup loop\r\n"
              L"Error code:  dup loop\r\n"
              L"File name:   x.cpp\r\n"
              L"Line:        12\r\n");

    EXPECT_EQ(detail::ComposeExceptionLog(info, L"main.cpp", 99),
              L"< C++ EXCEPTION LOG >\r\n"
              L"Dup loop\r\n"
              L"Error code:  dup loop\r\n"
              L"File name:   x.cpp\r\n"
              L"Line:        12\r\n"
              L"File name 2: main.cpp\r\n"
              L"Line 2:      99\r\n");

    // An error code text equal to the message is not repeated; source and function appear.
    const CCommException same(3, L"y.cpp", L"tavrin::CReceiver::Get",
                              L"{22,Unable to retrieve sourcetable}", L"Receiver");
    EXPECT_EQ(detail::ComposeExceptionLog(CStdException::CExInfo(same), nullptr, 0),
              L"< C++ EXCEPTION LOG >\r\n"
              L"Unable to retrieve sourcetable\r\n"
              L"Source:      Receiver\r\n"
              L"Function:    tavrin::CReceiver::Get\r\n"
              L"File name:   y.cpp\r\n"
              L"Line:        3\r\n");

    // An empty snapshot still has its line.
    EXPECT_EQ(detail::ComposeExceptionLog(CStdException::CExInfo(), L"", 0),
              L"< C++ EXCEPTION LOG >\r\n\r\n"
              L"Line:        0\r\n"
              L"File name 2: \r\n");
}
