// Console text styles and their two renderings: the console text attribute and ANSI escape
// sequences.
#include <tavrin/log/console.h>

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

ConsoleFont ConsoleFontChain::Unwind() const
{
    ConsoleFont result(ConsoleFont::InitEmpty, false);
    for (const ConsoleFont& font : m_aFonts)
    {
        Overlay(result.m_eBold, font.m_eBold, ConsoleFont::BoldUnspecified);
        Overlay(result.m_eItalic, font.m_eItalic, ConsoleFont::TriUnspecified);
        Overlay(result.m_eUnderline, font.m_eUnderline, ConsoleFont::TriUnspecified);
        Overlay(result.m_eDoubleUnderline, font.m_eDoubleUnderline, ConsoleFont::TriUnspecified);
        Overlay(result.m_eOverline, font.m_eOverline, ConsoleFont::TriUnspecified);
        Overlay(result.m_eStrikeThrough, font.m_eStrikeThrough, ConsoleFont::TriUnspecified);
        Overlay(result.m_eTextColor, font.m_eTextColor, ConsoleFont::TextUnspecified);
        Overlay(result.m_eBkColor, font.m_eBkColor, ConsoleFont::BkUnspecified);
    }
    return result;
}

unsigned short ConsoleFontChain::ComposeConsoleTextAttribute() const
{
    const ConsoleFont font = Unwind();
    unsigned int attributes = 0;
    if (font.m_eTextColor != ConsoleFont::TextUnspecified)
        attributes |= static_cast<unsigned int>(font.m_eTextColor) & 0x0Fu;
    if (font.m_eBkColor != ConsoleFont::BkUnspecified)
        attributes |= static_cast<unsigned int>(font.m_eBkColor) & 0xF0u;
    if (font.m_eUnderline == ConsoleFont::TriOn)
        attributes |= COMMON_LVB_UNDERSCORE;
    return static_cast<unsigned short>(attributes);
}

ustring ConsoleFontChain::ComposeEscapeSequence(bool notConsole) const
{
    const ConsoleFont font = Unwind();
    ustring sequence(L"\x1b[0m");

    // Only an explicit "normal" weight suppresses bold: an unspecified weight is emphasised.
    if (font.m_eBold != ConsoleFont::BoldNormal)
        sequence += L"\x1b[1m";
    if (font.m_eItalic == ConsoleFont::TriOn)
        sequence += L"\x1b[3m";
    if (font.m_eUnderline == ConsoleFont::TriOn)
        sequence += L"\x1b[4m";
    if (font.m_eDoubleUnderline == ConsoleFont::TriOn)
        sequence += L"\x1b[21m";
    if (font.m_eOverline == ConsoleFont::TriOn)
        sequence += L"\x1b[53m";
    if (font.m_eStrikeThrough == ConsoleFont::TriOn)
        sequence += L"\x1b[9m";

    const int text = font.m_eTextColor;
    if (text >= 0 && text <= 15 && !(text == 0 && notConsole))
    {
        const unsigned int base = (text & 8) ? 90u : 30u;
        sequence += ustring::sprintf_stc(L"\x1b[%um", base + ConsoleToAnsiColor(static_cast<unsigned int>(text)));
    }

    const int background = font.m_eBkColor;
    if (background >= 0 && background <= 240 && background % 16 == 0)
    {
        const unsigned int index = static_cast<unsigned int>(background) / 16u;
        const unsigned int base = (index & 8) ? 100u : 40u;
        sequence += ustring::sprintf_stc(L"\x1b[%um", base + ConsoleToAnsiColor(index));
    }
    return sequence;
}

} // namespace tavrin
