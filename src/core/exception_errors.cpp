// Reader of DATA\Win32Errors.txt, the Win32 error texts shipped beside the library. It is the
// second source of CWinException's messages, after the system's own message tables.
//
// The file is UTF-16LE with a byte-order mark; each line is "code,message", the code decimal or
// "0x" hexadecimal. Messages are single lines: a real line break inside one is written as the
// two characters "\r".
#include <tavrin/core/exception.h>
#include <tavrin/core/object.h>

#include <cerrno>
#include <cwchar>
#include <map>
#include <vector>

namespace tavrin {

namespace {

typedef std::map<long, ustring> ErrorTable;

// The file's bytes, or nothing when it cannot be opened or read.
std::vector<unsigned char> ReadFileBytes(const wchar_t* path)
{
    std::vector<unsigned char> bytes;
    CHandle<-1> file(::CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                   FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file.IsCreated())
        return bytes;

    unsigned char block[512];
    for (;;)
    {
        DWORD read = 0;
        if (!::ReadFile(file, block, sizeof(block), &read, nullptr))
        {
            bytes.clear();
            break;
        }
        if (read == 0)
            break;
        bytes.insert(bytes.end(), block, block + read);
    }
    return bytes;
}

// Parses the code field ("31", "0x1F", " 0X1f "); false when it is not a number.
bool ParseCode(ustring text, long& code)
{
    text.trim(L' ');
    if (text.empty())
        return false;
    int radix = 10;
    const wchar_t* digits = text.c_str();
    if (text.size() > 2 && text[0] == L'0' && (text[1] == L'x' || text[1] == L'X'))
    {
        radix = 16;
        digits += 2;
    }
    wchar_t* end = nullptr;
    errno = 0;
    const __int64 value = _wcstoi64(digits, &end, radix);
    if (end == digits || *end != L'\0' || errno == ERANGE)
        return false;
    // Codes above 0x7FFFFFFF (HRESULTs) are stored as the 32-bit pattern they have in a long.
    code = static_cast<long>(static_cast<unsigned long>(value));
    return true;
}

// Builds the code-to-text table of an error file; the first line of a code wins.
ErrorTable ParseErrorFile(const wchar_t* path)
{
    ErrorTable table;
    const std::vector<unsigned char> bytes = ReadFileBytes(path);
    if (bytes.size() < 2 || bytes[0] != 0xFF || bytes[1] != 0xFE)
        return table;

    ustring text;
    text.reserve((bytes.size() - 2) / 2);
    for (size_t i = 2; i + 1 < bytes.size(); i += 2)
    {
        const wchar_t ch = static_cast<wchar_t>(bytes[i] | (bytes[i + 1] << 8));
        if (ch != L'\r')
            text.push_back(ch);
    }

    size_t start = 0;
    while (start < text.size())
    {
        size_t end = text.find(L'\n', start);
        if (end == std::wstring::npos)
            end = text.size();
        const size_t comma = text.find(L',', start);
        long code = 0;
        if (comma != std::wstring::npos && comma < end &&
            ParseCode(ustring(text.substr(start, comma - start)), code) &&
            table.find(code) == table.end())
        {
            ustring message(text.substr(comma + 1, end - comma - 1));
            message.trim(L' ');
            message.replace(ustring(L"\\r"), ustring(L"\r"));
            table.emplace(code, message);
        }
        start = end + 1;
    }
    return table;
}

bool Lookup(const ErrorTable& table, long code, ustring& out)
{
    const ErrorTable::const_iterator found = table.find(code);
    if (found == table.end())
        return false;
    out = found->second;
    return true;
}

// "<folder of Tavrin.dll>\DATA\Win32Errors.txt".
ustring LibraryErrorFilePath()
{
    std::vector<wchar_t> buffer(MAX_PATH);
    for (;;)
    {
        const DWORD length =
            ::GetModuleFileNameW(TAVRIN_MODULE, buffer.data(), static_cast<DWORD>(buffer.size()));
        if (length == 0)
            return ustring();
        if (length < buffer.size())
        {
            ustring path(buffer.data(), length);
            const size_t slash = path.find_last_of(L"\\/");
            path.erase(slash == std::wstring::npos ? 0 : slash + 1);
            path += L"DATA\\Win32Errors.txt";
            return path;
        }
        buffer.resize(buffer.size() * 2);
    }
}

} // namespace

bool detail::LookupWin32ErrorTextInFile(const wchar_t* path, long code, ustring& out)
{
    if (path == nullptr)
        return false;
    return Lookup(ParseErrorFile(path), code, out);
}

bool detail::LookupWin32ErrorText(long code, ustring& out)
{
    // Built once, under the thread-safe initialisation of the local static; read-only afterwards.
    static const ErrorTable table = ParseErrorFile(LibraryErrorFilePath().c_str());
    return Lookup(table, code, out);
}

} // namespace tavrin
