// Markdown text helpers shared by the console's Markdown copy and the Markdown tables.
#pragma once

#include <tavrin/log/console.h>

namespace tavrin {
namespace detail {

// The characters that Markdown would read as emphasis or escapes: *, \ and _, each preceded by
// a backslash.
ustring EscapeMarkdown(const ustring& text);

// Escaped text in the font's emphasis: "_" ... "_" for italic, "__" ... "__" for bold (unless
// `boldImplied`, inside a heading). Surrounding spaces stay outside the markers, which Markdown
// would otherwise not recognise; blank text is returned as it is.
ustring DecorateMarkdown(const ustring& text, const ConsoleFont& font, bool boldImplied);

// Whether the severity's messages belong in the Markdown copy (information, errors, warnings).
bool IsMarkdownSeverity(CConsoleBase::ESeverity severity);

} // namespace detail
} // namespace tavrin
