// Named variables from a program's argument vector and environment block.
//
// Options are "-name", "/name" or "--name", optionally followed by a value item:
//
//     int wmain(int argc, wchar_t** argv, wchar_t** envp)
//     {
//         CCommandLineParser parser(argv, envp);       // app.exe -port COM3 /baud 9600 -verbose
//         ustring port;
//         unsigned int baud = 115200;
//         bool verbose = false;
//         parser.GetVariable(CCommandLineParser::CommandLineParameter, L"Port", port);
//         parser.GetVariable(CCommandLineParser::CommandLineParameter, L"BAUD", baud);
//         parser.GetVariable(CCommandLineParser::CommandLineParameter, L"verbose", verbose, true);
//         ...
//
// Names are case-insensitive. Positional arguments are not kept. Callers may attach further
// variables of any type as a name/value map (AppendParameters) or as a property tree that they
// built themselves, e.g. from a JSON settings file (AssignJSON); a lookup consults the type's
// map first and its tree second, where the name is a "."-separated path ("port.name").
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/ustring.h>

#include <boost/property_tree/ptree.hpp>

#include <map>
#include <string>

namespace tavrin {

class TAVRIN_API CCommandLineParser
{
public:
    // Which source a variable comes from. The parser fills the first two; any other value is
    // free for the caller's own variables.
    enum VariableType
    {
        CommandLineParameter = 0, // the argument vector
        EnvironmentVariable = 1,  // the environment block
        ApplicationSetting = 2,   // settings the application attaches
        UserVariable = 3          // first value of further caller-defined kinds
    };

    // Name/value pairs with case-insensitive names.
    typedef std::map<ustring, ustring, LessStr<1>> VariableMap;
    // UTF-8 property tree with case-insensitive keys.
    typedef boost::property_tree::basic_ptree<std::string, std::string,
                                              boost::property_tree::detail::less_nocase<std::string>>
        VariableTree;

    // Both arrays end with a null item and may themselves be null. Malformed items are skipped
    // silently.
    CCommandLineParser(wchar_t* const* argv, wchar_t* const* envp);
    CCommandLineParser(const CCommandLineParser& other);
    CCommandLineParser(CCommandLineParser&& other);
    CCommandLineParser& operator=(const CCommandLineParser& other);
    CCommandLineParser& operator=(CCommandLineParser&& other);
    ~CCommandLineParser();

    // Empties the executable's path parts and all variables of every type.
    void Clear();
    // Adds the pairs to the type's variables; a name already present keeps its old value.
    void AppendParameters(VariableType type, const VariableMap& parameters);
    // Replaces the type's tree by a copy of `tree`.
    void AssignJSON(VariableType type, const VariableTree& tree);
    // Removes the name from the type's map (the tree is not touched); false when it is not there.
    bool DeleteVariable(VariableType type, const wchar_t* name);
    // Copies the type's map into `out` (emptied first); false when the type has no map.
    bool GetAllVariables(VariableType type, VariableMap& out) const;

    // The executable's file name without / with its extension.
    ustring GetExecutableFName() const;
    ustring GetExecutableFNameExt() const;

    // The variable's text; false when it is missing, or empty and `allowEmpty` is not set.
    bool GetVariable(VariableType type, const wchar_t* name, ustring& value, bool allowEmpty = false) const;
    // The numeric forms convert the text (a text that is no number gives 0) and write `value`
    // only when the text was found.
    bool GetVariable(VariableType type, const wchar_t* name, int& value, bool allowEmpty = false) const;
    // Negative numbers give 0.
    bool GetVariable(VariableType type, const wchar_t* name, unsigned int& value, bool allowEmpty = false) const;
    bool GetVariable(VariableType type, const wchar_t* name, unsigned long& value, bool allowEmpty = false) const;
    bool GetVariable(VariableType type, const wchar_t* name, double& value, bool allowEmpty = false) const;
    // Any non-zero number is true.
    bool GetVariable(VariableType type, const wchar_t* name, bool& value, bool allowEmpty = false) const;

private:
    // True when no item was rejected.
    bool Initialize(wchar_t* const* argv, wchar_t* const* envp);
    // Whether `text` is an option ("-x", "/x", "--x"); `name` receives it without its prefix.
    static bool ParseCommandLineParameterName(const wchar_t* text, ustring& name);

    ustring drive;
    ustring directory;
    ustring fileName;
    ustring extension;
    std::map<VariableType, VariableMap> m_Variables;
    std::map<VariableType, VariableTree> m_Trees;
};

} // namespace tavrin
