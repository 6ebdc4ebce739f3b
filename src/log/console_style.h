// Font arithmetic shared by the console and its tables (not part of the library's interface):
// the same rendering as ConsoleFontChain, on fonts at hand, without building a chain.
#pragma once

#include <tavrin/log/console.h>

#include <cstddef>

namespace tavrin {
namespace detail {

// Lays the style elements that `font` specifies over `base` (a chain's later font).
void OverlayFont(ConsoleFont& base, const ConsoleFont& font);

// Room for the longest escape sequence of one font and its terminator.
const std::size_t kEscapeSequenceRoom = 48;

// The escape sequence of an unwound font ("\e[0m", styles, colours), terminated, into `out`
// (kEscapeSequenceRoom code units); returns its length.
std::size_t ComposeEscapeSequence(const ConsoleFont& font, bool notConsole, wchar_t* out);

// Text colour | background | COMMON_LVB_UNDERSCORE of an unwound font.
unsigned short ComposeConsoleTextAttribute(const ConsoleFont& font);

} // namespace detail
} // namespace tavrin
