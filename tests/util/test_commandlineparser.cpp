// Command-line parser: option recognition, value pairing, environment blocks, the typed lookups
// and caller-attached maps and property trees.
#include <tavrin/util/commandlineparser.h>

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

using namespace tavrin;
typedef CCommandLineParser P;

namespace {

// A null-terminated array of writable strings, as a program receives argv/envp.
class CArgs
{
public:
    CArgs(std::initializer_list<const wchar_t*> items)
    {
        for (const wchar_t* item : items)
            m_Storage.emplace_back(item);
        for (std::wstring& item : m_Storage)
            m_Pointers.push_back(&item[0]);
        m_Pointers.push_back(nullptr);
    }
    wchar_t* const* Get() { return m_Pointers.data(); }

private:
    std::vector<std::wstring> m_Storage;
    std::vector<wchar_t*> m_Pointers;
};

P Parse(std::initializer_list<const wchar_t*> argv, std::initializer_list<const wchar_t*> envp = {})
{
    CArgs a(argv), e(envp);
    return P(a.Get(), e.Get());
}

P::VariableMap Options(const P& parser)
{
    P::VariableMap all;
    parser.GetAllVariables(P::CommandLineParameter, all);
    return all;
}

} // namespace

TEST(CommandLineParser, ProgramNameOnlyCreatesNoParameterMap)
{
    P parser = Parse({L"C:\\tools\\v1.2\\app.exe"});
    P::VariableMap all;
    all[L"stale"] = L"x";
    EXPECT_FALSE(parser.GetAllVariables(P::CommandLineParameter, all));
    EXPECT_TRUE(all.empty()); // cleared even on failure
    EXPECT_EQ(ustring(L"app"), parser.GetExecutableFName());
    EXPECT_EQ(ustring(L"app.exe"), parser.GetExecutableFNameExt());
    ustring value = L"stale";
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"app", value, true));
    EXPECT_TRUE(value.empty());

    // Forward slashes and a dotted folder without an extension on the file.
    P noExt = Parse({L"/opt/my.tools/runner"});
    EXPECT_EQ(ustring(L"runner"), noExt.GetExecutableFName());
    EXPECT_EQ(ustring(L"runner"), noExt.GetExecutableFNameExt());

    // An empty vector (argv[0] null) and null arrays leave everything empty.
    P empty = Parse({});
    EXPECT_TRUE(empty.GetExecutableFName().empty());
    EXPECT_FALSE(empty.GetAllVariables(P::CommandLineParameter, all));
    P nulls(nullptr, nullptr);
    EXPECT_TRUE(nulls.GetExecutableFName().empty());
    EXPECT_FALSE(nulls.GetAllVariables(P::EnvironmentVariable, all));
}

TEST(CommandLineParser, OptionsPairWithFollowingValues)
{
    // "file" is positional and dropped; "-a" is followed by an option and gets the empty value.
    P parser = Parse({L"prog", L"-a", L"-b", L"7", L"file"});
    P::VariableMap all = Options(parser);
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(ustring(L""), all[L"a"]);
    EXPECT_EQ(ustring(L"7"), all[L"b"]);

    ustring text;
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"a", text));
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"a", text, true));
    EXPECT_TRUE(text.empty());
    int flag = 99;
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"a", flag));
    EXPECT_EQ(99, flag); // untouched when the lookup fails
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"a", flag, true));
    EXPECT_EQ(0, flag);
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"file", text, true));

    // The last item is an option: empty value.
    P last = Parse({L"prog", L"-x", L"1", L"--verbose"});
    all = Options(last);
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(ustring(L"1"), all[L"x"]);
    EXPECT_TRUE(all.count(L"verbose") == 1 && all[L"verbose"].empty());

    // Values are taken verbatim, blanks and "=" included.
    P verbatim = Parse({L"prog", L"/name", L"John  Smith", L"-expr", L"a=b"});
    EXPECT_TRUE(verbatim.GetVariable(P::CommandLineParameter, L"NAME", text));
    EXPECT_EQ(ustring(L"John  Smith"), text);
    EXPECT_TRUE(verbatim.GetVariable(P::CommandLineParameter, L"expr", text));
    EXPECT_EQ(ustring(L"a=b"), text);
}

TEST(CommandLineParser, NamesAreCaseInsensitiveAndLastWins)
{
    P parser = Parse({L"prog", L"/Level", L"3", L"-level", L"4", L"--LEVEL"});
    P::VariableMap all = Options(parser);
    ASSERT_EQ(1u, all.size());
    // The last of the three assignments (an empty value) wins.
    ustring text = L"x";
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"lEvEl", text, true));
    EXPECT_TRUE(text.empty());

    P twice = Parse({L"prog", L"/Level", L"3", L"-level", L"4"});
    int level = 0;
    EXPECT_TRUE(twice.GetVariable(P::CommandLineParameter, L"LEVEL", level));
    EXPECT_EQ(4, level);
}

TEST(CommandLineParser, OptionRecognitionEdgeCases)
{
    // "-5" is a name, not a negative value.
    P negative = Parse({L"prog", L"-n", L"-5"});
    P::VariableMap all = Options(negative);
    ASSERT_EQ(2u, all.size());
    EXPECT_TRUE(all[L"n"].empty());
    EXPECT_TRUE(all.count(L"5") == 1 && all[L"5"].empty());

    // Prefixes: "--" strips two, "/-" only one; "--" alone names the empty string; "=" and ":"
    // are ordinary name characters; "?" is allowed.
    P prefixes = Parse({L"prog", L"--port", L"COM3", L"/-x", L"1", L"--", L"v", L"-a=1", L"-b:2", L"/?"});
    all = Options(prefixes);
    ASSERT_EQ(6u, all.size());
    EXPECT_EQ(ustring(L"COM3"), all[L"port"]);
    EXPECT_EQ(ustring(L"1"), all[L"-x"]);
    EXPECT_EQ(ustring(L"v"), all[L""]);
    EXPECT_EQ(1u, all.count(L"a=1"));
    EXPECT_EQ(1u, all.count(L"b:2"));
    EXPECT_EQ(1u, all.count(L"?"));
    EXPECT_EQ(0u, all.count(L"a"));

    // Letters beyond ASCII are graphic characters too (only the ASCII letters vary in case here:
    // folding follows the C runtime's towlower, which leaves other letters alone in its "C" locale).
    P umlaut = Parse({L"prog", L"-Gr\x00f6\x00df" L"e", L"5"});
    int size = 0;
    EXPECT_TRUE(umlaut.GetVariable(P::CommandLineParameter, L"gR\x00f6\x00df" L"E", size));
    EXPECT_EQ(5, size);

    // Rejected items: a lone "-" or "/", names with blanks or control characters, positional
    // words. None of them stops the walk.
    P rejected = Parse({L"prog", L"-", L"/", L"-a b", L"-tab\there", L"-bell\x07", L"word", L"-ok", L"1"});
    all = Options(rejected);
    ASSERT_EQ(1u, all.size());
    EXPECT_EQ(ustring(L"1"), all[L"ok"]);

    // A rejected option-like item after an option is that option's value.
    P value = Parse({L"prog", L"-path", L"-a b"});
    ustring text;
    EXPECT_TRUE(value.GetVariable(P::CommandLineParameter, L"path", text));
    EXPECT_EQ(ustring(L"-a b"), text);
}

TEST(CommandLineParser, EnvironmentBlock)
{
    P parser = Parse({L"prog"}, {L"PATH=C:\\bin;D:\\x", L"A=b=c", L"=C:=C:\\work", L"NOEQUALS", L"EMPTY=", L"Path=last"});
    P::VariableMap all;
    ASSERT_TRUE(parser.GetAllVariables(P::EnvironmentVariable, all));
    ASSERT_EQ(4u, all.size()); // "NOEQUALS" skipped, "Path" overwrote "PATH"
    EXPECT_EQ(ustring(L"last"), all[L"path"]);
    EXPECT_EQ(ustring(L"b=c"), all[L"a"]);
    EXPECT_EQ(ustring(L"C:=C:\\work"), all[L""]);
    EXPECT_TRUE(all.count(L"EMPTY") == 1 && all[L"EMPTY"].empty());
    EXPECT_EQ(0u, all.count(L"NOEQUALS"));

    // The two sources do not mix.
    ustring text;
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"PATH", text, true));
    EXPECT_TRUE(parser.GetVariable(P::EnvironmentVariable, L"a", text));
    EXPECT_EQ(ustring(L"b=c"), text);
}

TEST(CommandLineParser, TypedLookups)
{
    P parser = Parse({L"prog", L"-neg", L"-7", L"-pi", L"3.25xyz", L"-word", L"abc", L"-big", L"4000000000",
                      L"-zero", L"0", L"-three", L" 3 apples"});
    int i = 0;
    unsigned int u = 1;
    unsigned long ul = 1;
    double d = 0.0;
    bool b = false;

    // "-7" after "-neg" is an option itself, so "neg" is empty and "7" a name.
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"neg", i));
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"pi", d));
    EXPECT_DOUBLE_EQ(3.25, d);
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"pi", i));
    EXPECT_EQ(3, i);
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"word", i));
    EXPECT_EQ(0, i); // not a number: 0, still found
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"word", b));
    EXPECT_FALSE(b);
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"three", b));
    EXPECT_TRUE(b);
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"three", u));
    EXPECT_EQ(3u, u);
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"zero", b));
    EXPECT_FALSE(b);

    // Negative numbers clamp to 0 in both unsigned forms (attached through a map of its own).
    P::VariableMap extra;
    extra[L"minus"] = L"-7";
    parser.AppendParameters(P::UserVariable, extra);
    EXPECT_TRUE(parser.GetVariable(P::UserVariable, L"MINUS", i));
    EXPECT_EQ(-7, i);
    EXPECT_TRUE(parser.GetVariable(P::UserVariable, L"minus", u));
    EXPECT_EQ(0u, u);
    EXPECT_TRUE(parser.GetVariable(P::UserVariable, L"minus", ul));
    EXPECT_EQ(0ul, ul);
    EXPECT_TRUE(parser.GetVariable(P::UserVariable, L"minus", b));
    EXPECT_TRUE(b);

    // Missing names leave every output untouched.
    i = 5, u = 6, ul = 7, d = 8.5, b = true;
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"missing", i, true));
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"missing", u, true));
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"missing", ul, true));
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"missing", d, true));
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"missing", b, true));
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, nullptr, i, true));
    EXPECT_EQ(5, i);
    EXPECT_EQ(6u, u);
    EXPECT_EQ(7ul, ul);
    EXPECT_EQ(8.5, d);
    EXPECT_TRUE(b);
}

TEST(CommandLineParser, AttachedMapsAndDeletion)
{
    P parser = Parse({L"prog", L"-port", L"COM1"});
    P::VariableMap extra;
    extra[L"PORT"] = L"COM9"; // already present: keeps COM1
    extra[L"baud"] = L"9600";
    parser.AppendParameters(P::CommandLineParameter, extra);
    ustring text;
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"port", text));
    EXPECT_EQ(ustring(L"COM1"), text);
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"Baud", text));
    EXPECT_EQ(ustring(L"9600"), text);

    // A new type gets its map on first use.
    P::VariableMap all;
    EXPECT_FALSE(parser.GetAllVariables(P::ApplicationSetting, all));
    parser.AppendParameters(P::ApplicationSetting, P::VariableMap());
    EXPECT_TRUE(parser.GetAllVariables(P::ApplicationSetting, all));
    EXPECT_TRUE(all.empty());

    EXPECT_TRUE(parser.DeleteVariable(P::CommandLineParameter, L"PORT"));
    EXPECT_FALSE(parser.DeleteVariable(P::CommandLineParameter, L"port"));
    EXPECT_FALSE(parser.DeleteVariable(P::EnvironmentVariable, L"port"));
    EXPECT_FALSE(parser.DeleteVariable(static_cast<P::VariableType>(42), L"port"));
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"port", text, true));

    // Copies are independent; moves carry everything; Clear empties all.
    P copy(parser);
    EXPECT_TRUE(copy.DeleteVariable(P::CommandLineParameter, L"baud"));
    EXPECT_TRUE(parser.GetVariable(P::CommandLineParameter, L"baud", text));
    P moved(std::move(copy));
    EXPECT_FALSE(moved.GetVariable(P::CommandLineParameter, L"baud", text));
    EXPECT_EQ(ustring(L"prog"), moved.GetExecutableFName());
    P assigned = Parse({L"other"});
    assigned = parser;
    EXPECT_EQ(ustring(L"prog"), assigned.GetExecutableFName());
    EXPECT_TRUE(assigned.GetVariable(P::CommandLineParameter, L"baud", text));
    assigned.Clear();
    EXPECT_TRUE(assigned.GetExecutableFName().empty());
    EXPECT_FALSE(assigned.GetAllVariables(P::CommandLineParameter, all));
    EXPECT_FALSE(assigned.GetAllVariables(P::ApplicationSetting, all));
}

TEST(CommandLineParser, PropertyTreeLookups)
{
    P parser = Parse({L"prog"});
    P::VariableTree tree;
    tree.put("Serial.Port", "COM4");
    tree.put("serial.baud", "115200");
    tree.put("ratio", "0.75");
    tree.put("blank", "");
    tree.put("Gr\xC3\xB6\xC3\x9F" "e", "\xE2\x82\xAC" "5"); // "Größe" = "€5" in UTF-8
    parser.AssignJSON(P::ApplicationSetting, tree);

    ustring text;
    EXPECT_TRUE(parser.GetVariable(P::ApplicationSetting, L"SERIAL.PORT", text));
    EXPECT_EQ(ustring(L"COM4"), text);
    unsigned int baud = 0;
    EXPECT_TRUE(parser.GetVariable(P::ApplicationSetting, L"Serial.Baud", baud));
    EXPECT_EQ(115200u, baud);
    double ratio = 0;
    EXPECT_TRUE(parser.GetVariable(P::ApplicationSetting, L"ratio", ratio));
    EXPECT_DOUBLE_EQ(0.75, ratio);
    EXPECT_TRUE(parser.GetVariable(P::ApplicationSetting, L"gr\x00f6\x00df" L"e", text));
    EXPECT_EQ(ustring(L"\x20AC" L"5"), text);
    EXPECT_FALSE(parser.GetVariable(P::ApplicationSetting, L"blank", text));
    EXPECT_TRUE(parser.GetVariable(P::ApplicationSetting, L"blank", text, true));
    EXPECT_FALSE(parser.GetVariable(P::ApplicationSetting, L"serial.parity", text, true));
    // An inner node has no text of its own: present, but empty.
    EXPECT_FALSE(parser.GetVariable(P::ApplicationSetting, L"serial", text));
    // The tree of one type is not seen from another.
    EXPECT_FALSE(parser.GetVariable(P::CommandLineParameter, L"ratio", text, true));

    // The type's map hides the tree, even when the map's empty value is refused.
    P::VariableMap map;
    map[L"serial.port"] = L"";
    parser.AppendParameters(P::ApplicationSetting, map);
    text = L"x";
    EXPECT_FALSE(parser.GetVariable(P::ApplicationSetting, L"Serial.Port", text));
    EXPECT_TRUE(text.empty());
    EXPECT_TRUE(parser.GetVariable(P::ApplicationSetting, L"Serial.Port", text, true));
    EXPECT_TRUE(text.empty());
    // GetAllVariables shows the map only.
    P::VariableMap all;
    EXPECT_TRUE(parser.GetAllVariables(P::ApplicationSetting, all));
    EXPECT_EQ(1u, all.size());
    // Deleting from the map uncovers the tree again.
    EXPECT_TRUE(parser.DeleteVariable(P::ApplicationSetting, L"serial.port"));
    EXPECT_TRUE(parser.GetVariable(P::ApplicationSetting, L"serial.port", text));
    EXPECT_EQ(ustring(L"COM4"), text);

    // Assigning replaces the whole tree.
    P::VariableTree other;
    other.put("ratio", "2");
    parser.AssignJSON(P::ApplicationSetting, other);
    EXPECT_FALSE(parser.GetVariable(P::ApplicationSetting, L"serial.port", text, true));
    EXPECT_TRUE(parser.GetVariable(P::ApplicationSetting, L"RATIO", ratio));
    EXPECT_DOUBLE_EQ(2.0, ratio);
    // Assigning a tree to the copy source does not reach an earlier copy.
    P copy(parser);
    parser.AssignJSON(P::ApplicationSetting, P::VariableTree());
    EXPECT_FALSE(parser.GetVariable(P::ApplicationSetting, L"ratio", text));
    EXPECT_TRUE(copy.GetVariable(P::ApplicationSetting, L"ratio", text));
}
