// tavrin-term's own logic: the escapes and hexadecimal text of the command line, the display of
// raw bytes, the matching of expectations, the round-trip figures and the reading of options.
#include "options.h"
#include "script.h"
#include "text.h"
#include "view.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace term;
using tavrin::ustring;

namespace {

Bytes B(const char* text)
{
    return Bytes(text, text + std::strlen(text));
}

bool Parse(std::vector<const wchar_t*> items, Options& options, ustring& error, std::vector<const wchar_t*> env = {})
{
    std::vector<wchar_t*> argv{const_cast<wchar_t*>(L"tavrin-term.exe")};
    for (const wchar_t* item : items)
        argv.push_back(const_cast<wchar_t*>(item));
    argv.push_back(nullptr);
    std::vector<wchar_t*> envp;
    for (const wchar_t* item : env)
        envp.push_back(const_cast<wchar_t*>(item));
    envp.push_back(nullptr);
    return ParseOptions(static_cast<int>(argv.size() - 1), argv.data(), envp.data(), options, error);
}

} // namespace

TEST(Escapes, LineEndsBytesAndBackslash)
{
    Bytes out;
    ustring error;
    ASSERT_TRUE(ParseEscapes(L"AT\\r\\n\\x41\\x0a\\t\\e\\0\\\\", out, error)) << error;
    const Bytes expected{'A', 'T', 0x0D, 0x0A, 0x41, 0x0A, 0x09, 0x1B, 0x00, '\\'};
    EXPECT_EQ(expected, out);
}

TEST(Escapes, TextBeyondAsciiIsSentAsUtf8)
{
    Bytes out;
    ustring error;
    ASSERT_TRUE(ParseEscapes(L"Gr\u00fc\u00df\u20ac", out, error));
    EXPECT_EQ(B("Gr\xC3\xBC\xC3\x9F\xE2\x82\xAC"), out);
}

TEST(Escapes, MalformedEscapesAreRefusedWithAReason)
{
    Bytes out;
    ustring error;
    for (const wchar_t* bad : {L"C:\\path", L"\\x4", L"\\xZZ", L"ends in \\", L"\\x"})
    {
        EXPECT_FALSE(ParseEscapes(bad, out, error)) << tavrin::ustring::WideCharToMultiByte(bad, CP_UTF8);
        EXPECT_TRUE(out.empty());
        EXPECT_FALSE(error.empty());
    }
}

TEST(HexText, PairsWithSeparators)
{
    Bytes out;
    ASSERT_TRUE(ParseHexText(L"0A 1b", out));
    EXPECT_EQ((Bytes{0x0A, 0x1B}), out);
    ASSERT_TRUE(ParseHexText(L"0a1B2c", out));
    EXPECT_EQ((Bytes{0x0A, 0x1B, 0x2C}), out);
    ASSERT_TRUE(ParseHexText(L"DE:AD,BE EF", out));
    EXPECT_EQ((Bytes{0xDE, 0xAD, 0xBE, 0xEF}), out);
}

TEST(HexText, OddDigitsAndForeignCharactersAreRefused)
{
    Bytes out;
    // "0A 1" would otherwise be sent as 0A with the last digit dropped.
    EXPECT_FALSE(ParseHexText(L"0A 1", out));
    EXPECT_FALSE(ParseHexText(L"A 1B", out));
    EXPECT_FALSE(ParseHexText(L"GG", out));
    EXPECT_FALSE(ParseHexText(L"", out));
    EXPECT_FALSE(ParseHexText(L"   ", out));
}

TEST(Display, ControlBytesByName)
{
    EXPECT_EQ(ustring(L"OK<CR><LF>"), BytesToDisplay(B("OK\r\n")));
    EXPECT_EQ(ustring(L"<STX>A<ETX><NUL><DEL><ESC>"), BytesToDisplay(Bytes{0x02, 'A', 0x03, 0x00, 0x7F, 0x1B}));
    EXPECT_EQ(ustring(L"<HT><US>"), BytesToDisplay(Bytes{0x09, 0x1F}));
}

TEST(Display, Utf8SequencesAsCharactersOtherBytesInHex)
{
    EXPECT_EQ(ustring(L"Gr\u00fc\u00dfe"), BytesToDisplay(B("Gr\xC3\xBC\xC3\x9F" "e")));
    EXPECT_EQ(ustring(L"A<xFF>"), BytesToDisplay(Bytes{'A', 0xFF}));
    // A sequence cut short, an overlong form and an encoded surrogate are no characters.
    EXPECT_EQ(ustring(L"<xC3>"), BytesToDisplay(Bytes{0xC3}));
    EXPECT_EQ(ustring(L"<xC0><x80>"), BytesToDisplay(Bytes{0xC0, 0x80}));
    EXPECT_EQ(ustring(L"<xED><xA0><x80>"), BytesToDisplay(Bytes{0xED, 0xA0, 0x80}));
    EXPECT_EQ(ustring(L"<xC3>A"), BytesToDisplay(Bytes{0xC3, 'A'}));
}

TEST(Display, MarkdownLiteralKeepsTagsAndCodeAsText)
{
    EXPECT_EQ(ustring(L"&lt;CR&gt;&amp;&#96;x&#96; &#91;a&#93; &#126;&#126;"), MarkdownLiteral(L"<CR>&`x` [a] ~~"));
    EXPECT_EQ(ustring(L"plain text"), MarkdownLiteral(L"plain text"));
}

TEST(Display, HexViewUsesSixteenBytesALine)
{
    ustring text;
    std::vector<ustring> dump;
    Bytes data(17, 0x41);
    CTrafficView::Render(Options::ViewHex, data, text, dump);
    EXPECT_TRUE(text.empty());
    ASSERT_EQ(2u, dump.size());
    EXPECT_EQ(0u, dump[0].find(L"41 41 41"));
    EXPECT_NE(std::wstring::npos, dump[1].find(L"A"));
    CTrafficView::Render(Options::ViewText, data, text, dump);
    EXPECT_EQ(ustring(17u, L'A'), text);
    EXPECT_TRUE(dump.empty());
    CTrafficView::Render(Options::ViewBoth, B("\r\n"), text, dump);
    EXPECT_EQ(ustring(L"<CR><LF>"), text);
    ASSERT_EQ(1u, dump.size());
    EXPECT_EQ(0u, dump[0].find(L"0D 0A"));
}

TEST(ReceiveBuffer, ConsecutiveExpectationsMatchConsecutiveReplies)
{
    CReceiveBuffer buffer;
    const char* replies = "OK 1\r\nOK 2\r\n";
    buffer.Append(reinterpret_cast<const unsigned char*>(replies), std::strlen(replies));
    EXPECT_TRUE(buffer.Consume(B("OK")));
    EXPECT_TRUE(buffer.Consume(B("\r\n")));
    EXPECT_TRUE(buffer.Consume(B("OK 2")));
    EXPECT_FALSE(buffer.Consume(B("OK"))); // both replies are used up
    EXPECT_EQ(2u, buffer.Size());
}

TEST(ReceiveBuffer, AMatchAcrossTwoChunks)
{
    CReceiveBuffer buffer;
    buffer.Append(reinterpret_cast<const unsigned char*>("RE"), 2);
    EXPECT_FALSE(buffer.Consume(B("READY")));
    buffer.Append(reinterpret_cast<const unsigned char*>("ADY>"), 4);
    EXPECT_TRUE(buffer.Consume(B("READY")));
    EXPECT_EQ(Bytes{'>'}, buffer.Data());
}

TEST(ReceiveBuffer, TheLimitDropsTheOldestBytes)
{
    CReceiveBuffer buffer(64);
    const Bytes noise(100, 'x');
    buffer.Append(noise.data(), noise.size());
    EXPECT_EQ(64u, buffer.Size());
    buffer.Append(reinterpret_cast<const unsigned char*>("END"), 3);
    EXPECT_EQ(64u, buffer.Size());
    EXPECT_TRUE(buffer.Consume(B("xEND")));
}

TEST(Statistics, MedianOfOddAndEvenCounts)
{
    CSessionStats stats;
    __int64 minimum = 0, maximum = 0;
    double median = 0;
    EXPECT_FALSE(stats.RoundTripFigures(minimum, median, maximum));
    for (__int64 ms : {40, 10, 30})
        stats.AddRoundTrip(ms);
    ASSERT_TRUE(stats.RoundTripFigures(minimum, median, maximum));
    EXPECT_EQ(10, minimum);
    EXPECT_EQ(30.0, median);
    EXPECT_EQ(40, maximum);
    stats.AddRoundTrip(20);
    ASSERT_TRUE(stats.RoundTripFigures(minimum, median, maximum));
    EXPECT_EQ(25.0, median);
    // The figures come in the order measured, not sorted in place.
    EXPECT_EQ(40, stats.RoundTrips().front());
}

TEST(Options, StepsRunInTheOrderGiven)
{
    Options options;
    ustring error;
    ASSERT_TRUE(Parse({L"-tcp", L"127.0.0.1:5000", L"-send", L"A\\r", L"-expect", L"B", L"-hex", L"01 02",
                       L"-wait", L"300", L"-expect-hex", L"06"},
                      options, error))
        << tavrin::ustring::WideCharToMultiByte(error, CP_UTF8);
    ASSERT_EQ(5u, options.steps.size());
    EXPECT_EQ(Step::Send, options.steps[0].eKind);
    EXPECT_EQ(B("A\r"), options.steps[0].bytes);
    EXPECT_EQ(Step::Expect, options.steps[1].eKind);
    EXPECT_EQ(Step::Send, options.steps[2].eKind);
    EXPECT_EQ((Bytes{1, 2}), options.steps[2].bytes);
    EXPECT_EQ(Step::Wait, options.steps[3].eKind);
    EXPECT_EQ(300u, options.steps[3].nTimeoutMs);
    EXPECT_EQ(Step::Expect, options.steps[4].eKind);
    EXPECT_EQ(Bytes{6}, options.steps[4].bytes);
}

TEST(Options, AnExpectationTakesTheTimeoutBeforeIt)
{
    Options options;
    ustring error;
    ASSERT_TRUE(Parse({L"-tcp", L"h:1", L"-expect", L"a", L"-timeout", L"100", L"-expect", L"b", L"-timeout", L"2000",
                       L"-expect", L"c"},
                      options, error));
    ASSERT_EQ(3u, options.steps.size());
    EXPECT_EQ(100u, options.steps[0].nTimeoutMs); // before any -timeout: the first one given
    EXPECT_EQ(100u, options.steps[1].nTimeoutMs);
    EXPECT_EQ(2000u, options.steps[2].nTimeoutMs);
    EXPECT_EQ(100u, options.nTimeoutMs);
    ASSERT_TRUE(Parse({L"-tcp", L"h:1", L"-expect", L"a"}, options, error));
    EXPECT_EQ(5000u, options.steps[0].nTimeoutMs);
}

TEST(Options, AStepValueMayBeginWithADash)
{
    Options options;
    ustring error;
    ASSERT_TRUE(Parse({L"-tcp", L"h:1", L"-send", L"-x", L"/expect", L"--y"}, options, error));
    ASSERT_EQ(2u, options.steps.size());
    EXPECT_EQ(B("-x"), options.steps[0].bytes);
    EXPECT_EQ(B("--y"), options.steps[1].bytes);
}

TEST(Options, SerialSettings)
{
    Options options;
    ustring error;
    ASSERT_TRUE(Parse({L"-port", L"COM3", L"-baud", L"9600", L"-data", L"7", L"-parity", L"Even", L"-stop", L"2",
                       L"-flow", L"rtscts"},
                      options, error));
    EXPECT_EQ(9600u, options.nBaud);
    EXPECT_EQ(7u, options.nDataBits);
    EXPECT_EQ(EVENPARITY, options.nParity);
    EXPECT_EQ(TWOSTOPBITS, options.nStopBits);
    EXPECT_EQ(ustring(L"rtscts"), options.strFlow);
    EXPECT_EQ(ustring(L"COM3 9600 7E2"), options.Describe());
}

TEST(Options, MistakesAreReportedNotGuessed)
{
    Options options;
    ustring error;
    const std::vector<std::vector<const wchar_t*>> bad = {
        {L"-bogus"},
        {L"stray"},
        {L"-tcp", L"h:1", L"-port", L"COM1"},
        {L"-port"},
        {L"-port", L"-baud", L"9600"},
        {L"-port", L"COM1", L"-baud", L"fast"},
        {L"-port", L"COM1", L"-data", L"9"},
        {L"-port", L"COM1", L"-parity", L"sometimes"},
        {L"-tcp", L"h:1", L"-expect-hex", L"0A 1"},
        {L"-tcp", L"h:1", L"-timeout", L"soon", L"-expect", L"x"},
        {L"-tcp", L"h:1", L"-send"},
        {L"-send", L"x"},
        {L"-tcp", L"h:1", L"-echo", L"-send", L"x"},
        {L"-tcp", L"h:1", L"-file", L"Z:\\no\\such\\file.bin"},
    };
    for (const auto& items : bad)
    {
        error.clear();
        EXPECT_FALSE(Parse(items, options, error)) << tavrin::ustring::WideCharToMultiByte(items[0], CP_UTF8);
        EXPECT_FALSE(error.empty());
    }
}

TEST(Options, NoConnectionIsTheDemonstration)
{
    Options options;
    ustring error;
    ASSERT_TRUE(Parse({}, options, error));
    EXPECT_TRUE(options.bDemo);
    ASSERT_TRUE(Parse({L"-help"}, options, error));
    EXPECT_FALSE(options.bDemo);
}

TEST(Options, ReconnectCountIsOptional)
{
    Options options;
    ustring error;
    ASSERT_TRUE(Parse({L"-tcp", L"h:1", L"-reconnect"}, options, error));
    EXPECT_TRUE(options.bReconnect);
    EXPECT_EQ(0u, options.nReconnectLimit);
    ASSERT_TRUE(Parse({L"-reconnect", L"3", L"-tcp", L"h:1"}, options, error));
    EXPECT_EQ(3u, options.nReconnectLimit);
    ASSERT_TRUE(Parse({L"-tcp", L"h:1"}, options, error));
    EXPECT_FALSE(options.bReconnect);
}

TEST(Options, NoColorVariableUnlessColoursAreAskedFor)
{
    Options options;
    ustring error;
    ASSERT_TRUE(Parse({L"-tcp", L"h:1"}, options, error, {L"NO_COLOR=1"}));
    EXPECT_EQ(Options::ColorNever, options.eColor);
    ASSERT_TRUE(Parse({L"-tcp", L"h:1", L"-color", L"always"}, options, error, {L"NO_COLOR=1"}));
    EXPECT_EQ(Options::ColorAlways, options.eColor);
    ASSERT_TRUE(Parse({L"-tcp", L"h:1"}, options, error, {L"NO_COLOR="}));
    EXPECT_EQ(Options::ColorAuto, options.eColor); // an empty NO_COLOR is no request
}
