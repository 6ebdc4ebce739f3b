// Text helpers of tavrin-term: translation of its messages, the escapes of -send, the hexadecimal
// text of -hex and -expect-hex, and the display of raw bytes with control characters by name.
#pragma once

#include <tavrin/core/ustring.h>

#include <cstdarg>
#include <vector>

namespace term {

using tavrin::ustring;
typedef std::vector<unsigned char> Bytes;

// Marks a text that is translated where it is used (tables of texts); the build's check of the
// language files finds the texts by this mark, by Tr and by TrF.
#define TERM_TEXT(text) text

// The text in the user's language (the translator's table; the text itself when it has none).
ustring Tr(const wchar_t* text);
// printf-style text whose format is translated first (Microsoft wide formats: "%ls", "%I64u").
ustring TrF(const wchar_t* format, ...);

// Loads the language file chosen with -lang: "en" (none), a language name such as "de" (the file
// tavrin-term.<name>.lng beside the program), or the path of a .lng file. An empty choice takes
// the user's interface language when its file is there. False when a file was asked for by name
// or path and could not be loaded; `path` tells which file was tried.
bool LoadLanguage(const ustring& choice, ustring& path);

// The bytes of -send text: UTF-8 of the text, with the escapes \r \n \t \e (escape) \0 \\ and
// \xNN (two hexadecimal digits). False, with `error` saying what is wrong, on any other escape
// or a \x without two digits.
bool ParseEscapes(const ustring& text, Bytes& out, ustring& error);

// The bytes of hexadecimal text such as "0A 1B" or "0a1b": pairs of digits, blanks, commas and
// colons between bytes. False on anything else and on a digit without its partner.
bool ParseHexText(const ustring& text, Bytes& out);

// The name of a control byte (0x00-0x1F and 0x7F): "NUL", "STX", "CR", "LF", "DEL" ...;
// null for any other byte.
const wchar_t* ControlName(unsigned char byte);

// Bytes as readable text: printable ASCII as itself, control bytes by name in angle brackets
// ("<CR><LF>"), valid UTF-8 sequences as their characters, and any other byte as "<xNN>".
ustring BytesToDisplay(const unsigned char* data, size_t size);
inline ustring BytesToDisplay(const Bytes& data)
{
    return BytesToDisplay(data.data(), data.size());
}

// Text that Markdown shows as it is inside a table cell: the characters that it would read as
// HTML, code, links or strike-through become character references.
ustring MarkdownLiteral(const ustring& text);

} // namespace term
