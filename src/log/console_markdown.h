// Markdown text helpers shared by the console's Markdown copy and the Markdown tables.
#pragma once

#include <tavrin/log/console.h>

#include <cstddef>

namespace tavrin {
namespace detail {

// Appends text[0, length) in the font's emphasis: "_" ... "_" for italic, "__" ... "__" for bold
// (unless `boldImplied`, inside a heading), with the characters that Markdown would read as
// emphasis or escapes (*, \ and _) preceded by a backslash. Surrounding spaces and tabs stay
// outside the markers, which Markdown would otherwise not recognise; blank text is appended as it
// is.
void AppendDecoratedMarkdown(ustring& out, const wchar_t* text, std::size_t length, const ConsoleFont& font,
                             bool boldImplied);

// Whether the severity's messages belong in the Markdown copy (information, errors, warnings).
bool IsMarkdownSeverity(CConsoleBase::ESeverity severity);

} // namespace detail
} // namespace tavrin
