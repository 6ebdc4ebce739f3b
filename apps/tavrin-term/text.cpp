#include "text.h"

#include <tavrin/core/file.h>
#include <tavrin/core/locale.h>
#include <tavrin/l10n/translator.h>

#include <cwctype>

using namespace tavrin;

namespace term {

ustring Tr(const wchar_t* text)
{
    return CTranslatorInstance::Ref().Xlate(text);
}

ustring TrF(const wchar_t* format, ...)
{
    const ustring translated = Tr(format);
    va_list args;
    va_start(args, format);
    ustring text = ustring::vsprintf_stc(translated.c_str(), args);
    va_end(args);
    return text;
}

bool LoadLanguage(const ustring& choice, ustring& path)
{
    path.clear();
    ustring name(choice);
    name.trim();
    const bool explicitChoice = !name.empty();
    if (!explicitChoice)
    {
        // The user's interface language, when a file for it ships beside the program.
        if (!CLocale::GetLocaleInfoW(::GetUserDefaultUILanguage(), LOCALE_SISO639LANGNAME, name))
            return true;
    }
    if (ustring(name).strlwr() == L"en")
        return true; // the program's own language

    ustring extension;
    {
        ustring drive, dir, fname;
        CFile::SplitPath(name.c_str(), drive, dir, fname, extension);
    }
    if (ustring(extension).strlwr() == L".lng")
    {
        path = name;
    }
    else
    {
        ustring folder;
        CFile::GetModuleFileNameW(nullptr, folder, CFile::ModuleFolder, true);
        CFile::MakePath(path, nullptr, folder.c_str(), (L"tavrin-term." + ustring(name).strlwr()).c_str(), L".lng");
    }
    if (!explicitChoice && !CFile::FileExists(path.c_str()))
        return true;
    return CFile::FileExists(path.c_str()) && CTranslatorInstance::Ref().LoadLanguageFile(path.c_str());
}

namespace {

void AppendUtf8(Bytes& out, const ustring& text)
{
    if (text.empty())
        return;
    const std::string utf8 = ustring::WideCharToMultiByte(text, CP_UTF8, 0);
    out.insert(out.end(), utf8.begin(), utf8.end());
}

int HexDigit(wchar_t ch)
{
    if (ch >= L'0' && ch <= L'9')
        return ch - L'0';
    if (ch >= L'a' && ch <= L'f')
        return ch - L'a' + 10;
    if (ch >= L'A' && ch <= L'F')
        return ch - L'A' + 10;
    return -1;
}

} // namespace

bool ParseEscapes(const ustring& text, Bytes& out, ustring& error)
{
    out.clear();
    error.clear();
    ustring run; // literal characters waiting to be encoded as UTF-8
    for (size_t i = 0; i < text.size(); ++i)
    {
        const wchar_t ch = text[i];
        if (ch != L'\\')
        {
            run += ch;
            continue;
        }
        AppendUtf8(out, run);
        run.clear();
        if (i + 1 >= text.size())
        {
            error = TrF(L"the text ends in a lone backslash (write %ls for one)", L"\\\\");
            out.clear();
            return false;
        }
        const wchar_t code = text[++i];
        switch (code)
        {
        case L'r': out.push_back(0x0D); break;
        case L'n': out.push_back(0x0A); break;
        case L't': out.push_back(0x09); break;
        case L'e': out.push_back(0x1B); break;
        case L'0': out.push_back(0x00); break;
        case L'\\': out.push_back(L'\\'); break;
        case L'x':
        case L'X':
        {
            const int high = i + 1 < text.size() ? HexDigit(text[i + 1]) : -1;
            const int low = i + 2 < text.size() ? HexDigit(text[i + 2]) : -1;
            if (high < 0 || low < 0)
            {
                error = TrF(L"%ls must be followed by two hexadecimal digits (at position %u)", L"\\x",
                            static_cast<unsigned int>(i));
                out.clear();
                return false;
            }
            out.push_back(static_cast<unsigned char>(high * 16 + low));
            i += 2;
            break;
        }
        default:
            error = TrF(L"unknown escape %ls (at position %u); the escapes are %ls",
                        (L"\\" + ustring(1u, code)).c_str(), static_cast<unsigned int>(i),
                        L"\\r \\n \\t \\e \\0 \\\\ \\xNN");
            out.clear();
            return false;
        }
    }
    AppendUtf8(out, run);
    return true;
}

bool ParseHexText(const ustring& text, Bytes& out)
{
    out.clear();
    // ustring::Hex2Bin pairs digits across separators and drops a last odd digit; a typing error
    // such as "0A 1" must not be sent as something else, so every group must hold whole bytes.
    std::vector<ustring> groups;
    ustring spaced(text);
    for (auto& ch : spaced)
        if (ch == L',' || ch == L':' || ch == L'\t')
            ch = L' ';
    ustring::split(spaced, L' ', groups);
    size_t digits = 0;
    for (const ustring& group : groups)
    {
        if (group.size() % 2 != 0)
            return false;
        digits += group.size();
    }
    if (digits == 0)
        return false;
    return ustring::Hex2Bin(spaced, out) && out.size() * 2 == digits;
}

const wchar_t* ControlName(unsigned char byte)
{
    static const wchar_t* const names[32] = {L"NUL", L"SOH", L"STX", L"ETX", L"EOT", L"ENQ", L"ACK", L"BEL",
                                             L"BS",  L"HT",  L"LF",  L"VT",  L"FF",  L"CR",  L"SO",  L"SI",
                                             L"DLE", L"DC1", L"DC2", L"DC3", L"DC4", L"NAK", L"SYN", L"ETB",
                                             L"CAN", L"EM",  L"SUB", L"ESC", L"FS",  L"GS",  L"RS",  L"US"};
    if (byte < 32)
        return names[byte];
    if (byte == 0x7F)
        return L"DEL";
    return nullptr;
}

namespace {

// Length of the well-formed UTF-8 sequence at `data` (2 to 4), or 0.
size_t Utf8SequenceLength(const unsigned char* data, size_t size)
{
    const unsigned char lead = data[0];
    size_t length = 0;
    unsigned int minimum = 0;
    unsigned int value = 0;
    if (lead >= 0xC2 && lead <= 0xDF)
    {
        length = 2;
        minimum = 0x80;
        value = lead & 0x1F;
    }
    else if (lead >= 0xE0 && lead <= 0xEF)
    {
        length = 3;
        minimum = 0x800;
        value = lead & 0x0F;
    }
    else if (lead >= 0xF0 && lead <= 0xF4)
    {
        length = 4;
        minimum = 0x10000;
        value = lead & 0x07;
    }
    else
    {
        return 0;
    }
    if (size < length)
        return 0;
    for (size_t i = 1; i < length; ++i)
    {
        if ((data[i] & 0xC0) != 0x80)
            return 0;
        value = (value << 6) | (data[i] & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return 0;
    return length;
}

} // namespace

ustring BytesToDisplay(const unsigned char* data, size_t size)
{
    ustring text;
    for (size_t i = 0; i < size;)
    {
        const unsigned char byte = data[i];
        if (const wchar_t* name = ControlName(byte))
        {
            text += L'<';
            text += name;
            text += L'>';
            ++i;
        }
        else if (byte < 0x80)
        {
            text += static_cast<wchar_t>(byte);
            ++i;
        }
        else if (const size_t length = Utf8SequenceLength(data + i, size - i))
        {
            text += ustring::MultiByteToWideChar(reinterpret_cast<const char*>(data + i),
                                                 static_cast<unsigned int>(length), CP_UTF8);
            i += length;
        }
        else
        {
            text += ustring::sprintf_stc(L"<x%02X>", byte);
            ++i;
        }
    }
    return text;
}

ustring MarkdownLiteral(const ustring& text)
{
    ustring out;
    out.reserve(text.size());
    for (wchar_t ch : static_cast<const std::wstring&>(text))
    {
        switch (ch)
        {
        case L'&': out += L"&amp;"; break;
        case L'<': out += L"&lt;"; break;
        case L'>': out += L"&gt;"; break;
        case L'`': out += L"&#96;"; break;
        case L'[': out += L"&#91;"; break;
        case L']': out += L"&#93;"; break;
        case L'~': out += L"&#126;"; break;
        default: out += ch; break;
        }
    }
    return out;
}

} // namespace term
