// Text helpers shared by the ustring sources (not part of the library's interface).
#pragma once

#include <tavrin/core/ustring.h>

#include <cstddef>
#include <memory>
#include <string_view>

namespace tavrin {
namespace detail {

// Replaces every occurrence of `what` in text[0, length), found left to right without
// rescanning replaced text, by `with`, which must not be longer than `what`. Works in place and
// returns the new length. `what` must not be empty and must not point into the text.
std::size_t ReplaceInPlace(wchar_t* text, std::size_t length, std::wstring_view what, std::wstring_view with);

// Number of occurrences of `what` (not empty) found left to right without overlapping.
std::size_t CountOccurrences(std::wstring_view text, std::wstring_view what);

// A terminated scratch copy of a short text: on the stack up to a few dozen code units, on the
// heap beyond. The number parsers clean their input in it before the runtime converts it.
class CScratchText
{
public:
    // Copies `text` (null reads as empty) without its `drop` code units.
    CScratchText(const wchar_t* text, wchar_t drop);
    CScratchText(const CScratchText&) = delete;
    CScratchText& operator=(const CScratchText&) = delete;

    // Replaces every occurrence of `what` by `with` (not longer); an empty or null `what`
    // changes nothing.
    void Replace(const wchar_t* what, std::wstring_view with);
    const wchar_t* c_str() const noexcept { return m_pText; }

private:
    static const std::size_t kLocal = 64;
    wchar_t m_local[kLocal];
    std::unique_ptr<wchar_t[]> m_heap;
    wchar_t* m_pText;
    std::size_t m_nLength;
};

} // namespace detail
} // namespace tavrin
