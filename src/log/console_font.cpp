// Console text styles and their two renderings: the console text attribute and ANSI escape
// sequences.
#include <tavrin/log/console.h>

#include "log/console_style.h"

namespace tavrin {

namespace {

// The console numbers its colours blue = 1, red = 4; ANSI numbers them red = 1, blue = 4. The
// low three bits are swapped end for end, the intensity bit selects the bright range.
unsigned int ConsoleToAnsiColor(unsigned int consoleColor)
{
    return ((consoleColor & 1u) << 2) | (consoleColor & 2u) | ((consoleColor & 4u) >> 2);
}

} // namespace

ConsoleFont::ConsoleFont(EInitializationMode mode, bool inverse)
{
    if (mode == InitDefault)
    {
        m_eBold = BoldNormal;
        m_eItalic = m_eUnderline = m_eDoubleUnderline = m_eOverline = m_eStrikeThrough = TriOff;
        m_eTextColor = inverse ? TextBlack : TextLightGray;
        m_eBkColor = inverse ? BkWhite : BkBlack;
    }
    else
    {
        m_eBold = BoldUnspecified;
        m_eItalic = m_eUnderline = m_eDoubleUnderline = m_eOverline = m_eStrikeThrough = TriUnspecified;
        m_eTextColor = TextUnspecified;
        m_eBkColor = BkUnspecified;
    }
}

ConsoleFont::ConsoleFont(EInitializationMode mode, unsigned short attributes) : ConsoleFont(mode, false)
{
    m_eUnderline = attributes > 32767 ? TriOn : TriOff;
    m_eTextColor = static_cast<ETextColor>(attributes & 15);
    m_eBkColor = static_cast<EBkColor>(attributes & 240);
}

ConsoleFont::ConsoleFont(ETextColor text, EBkColor background) : ConsoleFont(InitEmpty, false)
{
    m_eTextColor = text;
    m_eBkColor = background;
}

ConsoleFont::ConsoleFont(EBkColor background) : ConsoleFont(InitEmpty, false)
{
    m_eBkColor = background;
}

ConsoleFont::ConsoleFont(CConsoleBase::ESeverity severity, bool inverse) : ConsoleFont(InitEmpty, false)
{
    if (severity == CConsoleBase::SeverityError)
        m_eTextColor = TextLightRed;
    else if (severity == CConsoleBase::SeverityWarning)
        m_eTextColor = inverse ? TextBrown : TextYellow; // yellow is unreadable on white
}

ConsoleFont ConsoleFont::BoldFont(EBold bold, ETriState underline)
{
    ConsoleFont font(InitEmpty, false);
    font.m_eBold = bold;
    font.m_eUnderline = underline;
    return font;
}

bool ConsoleFont::operator==(const ConsoleFont& other) const
{
    return m_eBold == other.m_eBold && m_eItalic == other.m_eItalic &&
           m_eUnderline == other.m_eUnderline && m_eDoubleUnderline == other.m_eDoubleUnderline &&
           m_eOverline == other.m_eOverline && m_eStrikeThrough == other.m_eStrikeThrough &&
           m_eTextColor == other.m_eTextColor && m_eBkColor == other.m_eBkColor;
}

ConsoleFontChain::ConsoleFontChain(const ConsoleFont& f1) : m_aFonts{f1}
{
}

ConsoleFontChain::ConsoleFontChain(const ConsoleFont& f1, const ConsoleFont& f2) : m_aFonts{f1, f2}
{
}

ConsoleFontChain::ConsoleFontChain(const ConsoleFont& f1, const ConsoleFont& f2, const ConsoleFont& f3)
    : m_aFonts{f1, f2, f3}
{
}

ConsoleFontChain::ConsoleFontChain(const ConsoleFont& f1, const ConsoleFont& f2, const ConsoleFont& f3,
                                   const ConsoleFont& f4)
    : m_aFonts{f1, f2, f3, f4}
{
}

// A style element given by a later font in the chain overrides the earlier one.
template <class T>
static void Overlay(T& target, T value, T unspecified)
{
    if (value != unspecified)
        target = value;
}

void detail::OverlayFont(ConsoleFont& base, const ConsoleFont& font)
{
    Overlay(base.m_eBold, font.m_eBold, ConsoleFont::BoldUnspecified);
    Overlay(base.m_eItalic, font.m_eItalic, ConsoleFont::TriUnspecified);
    Overlay(base.m_eUnderline, font.m_eUnderline, ConsoleFont::TriUnspecified);
    Overlay(base.m_eDoubleUnderline, font.m_eDoubleUnderline, ConsoleFont::TriUnspecified);
    Overlay(base.m_eOverline, font.m_eOverline, ConsoleFont::TriUnspecified);
    Overlay(base.m_eStrikeThrough, font.m_eStrikeThrough, ConsoleFont::TriUnspecified);
    Overlay(base.m_eTextColor, font.m_eTextColor, ConsoleFont::TextUnspecified);
    Overlay(base.m_eBkColor, font.m_eBkColor, ConsoleFont::BkUnspecified);
}

ConsoleFont ConsoleFontChain::Unwind() const
{
    ConsoleFont result(ConsoleFont::InitEmpty, false);
    for (const ConsoleFont& font : m_aFonts)
        detail::OverlayFont(result, font);
    return result;
}

unsigned short detail::ComposeConsoleTextAttribute(const ConsoleFont& font)
{
    unsigned int attributes = 0;
    if (font.m_eTextColor != ConsoleFont::TextUnspecified)
        attributes |= static_cast<unsigned int>(font.m_eTextColor) & 0x0Fu;
    if (font.m_eBkColor != ConsoleFont::BkUnspecified)
        attributes |= static_cast<unsigned int>(font.m_eBkColor) & 0xF0u;
    if (font.m_eUnderline == ConsoleFont::TriOn)
        attributes |= COMMON_LVB_UNDERSCORE;
    return static_cast<unsigned short>(attributes);
}

unsigned short ConsoleFontChain::ComposeConsoleTextAttribute() const
{
    return detail::ComposeConsoleTextAttribute(Unwind());
}

namespace {

wchar_t* AppendText(wchar_t* out, const wchar_t* text)
{
    while (*text)
        *out++ = *text++;
    return out;
}

// "\e[" number "m" for the SGR numbers used here (30 to 107).
wchar_t* AppendSgr(wchar_t* out, unsigned int number)
{
    out = AppendText(out, L"\x1b[");
    if (number >= 100)
        *out++ = static_cast<wchar_t>(L'0' + number / 100);
    *out++ = static_cast<wchar_t>(L'0' + number / 10 % 10);
    *out++ = static_cast<wchar_t>(L'0' + number % 10);
    *out++ = L'm';
    return out;
}

} // namespace

std::size_t detail::ComposeEscapeSequence(const ConsoleFont& font, bool notConsole, wchar_t* out)
{
    wchar_t* p = AppendText(out, L"\x1b[0m");

    // Only an explicit "normal" weight suppresses bold: an unspecified weight is emphasised.
    if (font.m_eBold != ConsoleFont::BoldNormal)
        p = AppendText(p, L"\x1b[1m");
    if (font.m_eItalic == ConsoleFont::TriOn)
        p = AppendText(p, L"\x1b[3m");
    if (font.m_eUnderline == ConsoleFont::TriOn)
        p = AppendText(p, L"\x1b[4m");
    if (font.m_eDoubleUnderline == ConsoleFont::TriOn)
        p = AppendText(p, L"\x1b[21m");
    if (font.m_eOverline == ConsoleFont::TriOn)
        p = AppendText(p, L"\x1b[53m");
    if (font.m_eStrikeThrough == ConsoleFont::TriOn)
        p = AppendText(p, L"\x1b[9m");

    const int text = font.m_eTextColor;
    if (text >= 0 && text <= 15 && !(text == 0 && notConsole))
        p = AppendSgr(p, ((text & 8) ? 90u : 30u) + ConsoleToAnsiColor(static_cast<unsigned int>(text)));

    const int background = font.m_eBkColor;
    if (background >= 0 && background <= 240 && background % 16 == 0)
    {
        const unsigned int index = static_cast<unsigned int>(background) / 16u;
        p = AppendSgr(p, ((index & 8) ? 100u : 40u) + ConsoleToAnsiColor(index));
    }
    *p = L'\0';
    return static_cast<std::size_t>(p - out);
}

ustring ConsoleFontChain::ComposeEscapeSequence(bool notConsole) const
{
    wchar_t sequence[detail::kEscapeSequenceRoom];
    const std::size_t length = detail::ComposeEscapeSequence(Unwind(), notConsole, sequence);
    return ustring(sequence, static_cast<unsigned int>(length));
}

} // namespace tavrin
