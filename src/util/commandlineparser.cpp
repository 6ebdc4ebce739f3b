// Named variables from the argument vector, the environment block and caller-supplied sources.
#include <tavrin/util/commandlineparser.h>
#include <tavrin/core/file.h>

#include <boost/optional.hpp>

#include <cstdlib>
#include <cwctype>

namespace tavrin {

CCommandLineParser::CCommandLineParser(wchar_t* const* argv, wchar_t* const* envp)
{
    // Rejected items are of no interest to the caller: they are skipped, never reported.
    (void)Initialize(argv, envp);
}

CCommandLineParser::CCommandLineParser(const CCommandLineParser& other) = default;
CCommandLineParser::CCommandLineParser(CCommandLineParser&& other) = default;
CCommandLineParser& CCommandLineParser::operator=(const CCommandLineParser& other) = default;
CCommandLineParser& CCommandLineParser::operator=(CCommandLineParser&& other) = default;
CCommandLineParser::~CCommandLineParser() = default;

void CCommandLineParser::Clear()
{
    drive.clear();
    directory.clear();
    fileName.clear();
    extension.clear();
    m_Variables.clear();
    m_Trees.clear();
}

bool CCommandLineParser::ParseCommandLineParameterName(const wchar_t* text, ustring& name)
{
    name.clear();
    if (!text || (text[0] != L'-' && text[0] != L'/') || text[1] == L'\0')
        return false;
    const wchar_t* rest = text + ((text[0] == L'-' && text[1] == L'-') ? 2 : 1);
    for (const wchar_t* p = rest; *p; ++p)
    {
        if (!std::iswgraph(*p) && *p != L'?')
            return false;
    }
    name = rest;
    return true;
}

bool CCommandLineParser::Initialize(wchar_t* const* argv, wchar_t* const* envp)
{
    Clear();
    unsigned int errors = 0;

    if (argv && argv[0])
        CFile::SplitPath(argv[0], drive, directory, fileName, extension);

    if (argv && argv[0])
    {
        ustring name, nextName;
        for (wchar_t* const* item = argv + 1; *item;)
        {
            if (!ParseCommandLineParameterName(*item, name))
            {
                ++errors;
                ++item;
                continue;
            }
            ustring value;
            ++item;
            // A following item that is no option is this option's value.
            if (*item && !ParseCommandLineParameterName(*item, nextName))
            {
                value = *item;
                ++item;
            }
            m_Variables[CommandLineParameter][name] = value;
        }
    }

    if (envp)
    {
        for (wchar_t* const* item = envp; *item; ++item)
        {
            const wchar_t* equals = std::wcschr(*item, L'=');
            if (!equals)
            {
                ++errors;
                continue;
            }
            ustring name(*item, static_cast<unsigned int>(equals - *item));
            m_Variables[EnvironmentVariable][name] = equals + 1;
        }
    }
    return errors == 0;
}

void CCommandLineParser::AppendParameters(VariableType type, const VariableMap& parameters)
{
    m_Variables[type].insert(parameters.begin(), parameters.end());
}

void CCommandLineParser::AssignJSON(VariableType type, const VariableTree& tree)
{
    m_Trees[type] = tree;
}

bool CCommandLineParser::DeleteVariable(VariableType type, const wchar_t* name)
{
    auto variables = m_Variables.find(type);
    if (variables == m_Variables.end() || !name)
        return false;
    return variables->second.erase(ustring(name)) != 0;
}

bool CCommandLineParser::GetAllVariables(VariableType type, VariableMap& out) const
{
    out.clear();
    auto variables = m_Variables.find(type);
    if (variables == m_Variables.end())
        return false;
    out = variables->second;
    return true;
}

ustring CCommandLineParser::GetExecutableFName() const
{
    return fileName;
}

ustring CCommandLineParser::GetExecutableFNameExt() const
{
    ustring result;
    // An executable without extension must not gain a lone dot.
    CFile::MakePath(result, nullptr, nullptr, fileName.c_str(), extension.empty() ? nullptr : extension.c_str());
    return result;
}

bool CCommandLineParser::GetVariable(VariableType type, const wchar_t* name, ustring& value, bool allowEmpty) const
{
    value.clear();
    if (!name)
        return false;
    auto variables = m_Variables.find(type);
    if (variables != m_Variables.end())
    {
        auto found = variables->second.find(ustring(name));
        // A name in the map hides the tree, even when its value is refused for being empty.
        if (found != variables->second.end())
        {
            value = found->second;
            return allowEmpty || !value.empty();
        }
    }
    auto tree = m_Trees.find(type);
    if (tree != m_Trees.end())
    {
        VariableTree::path_type path(ustring::WideCharToMultiByte(name, ustring::npos, CP_UTF8), '.');
        boost::optional<std::string> text = tree->second.get_optional<std::string>(path);
        if (text)
        {
            value = ustring::MultiByteToWideChar(*text, CP_UTF8);
            return allowEmpty || !value.empty();
        }
    }
    return false;
}

bool CCommandLineParser::GetVariable(VariableType type, const wchar_t* name, int& value, bool allowEmpty) const
{
    ustring text;
    if (!GetVariable(type, name, text, allowEmpty))
        return false;
    value = _wtoi(text.c_str());
    return true;
}

bool CCommandLineParser::GetVariable(VariableType type, const wchar_t* name, unsigned int& value, bool allowEmpty) const
{
    int number = 0;
    if (!GetVariable(type, name, number, allowEmpty))
        return false;
    value = number < 0 ? 0u : static_cast<unsigned int>(number);
    return true;
}

bool CCommandLineParser::GetVariable(VariableType type, const wchar_t* name, unsigned long& value, bool allowEmpty) const
{
    unsigned int number = 0;
    if (!GetVariable(type, name, number, allowEmpty))
        return false;
    value = number;
    return true;
}

bool CCommandLineParser::GetVariable(VariableType type, const wchar_t* name, double& value, bool allowEmpty) const
{
    ustring text;
    if (!GetVariable(type, name, text, allowEmpty))
        return false;
    value = std::wcstod(text.c_str(), nullptr);
    return true;
}

bool CCommandLineParser::GetVariable(VariableType type, const wchar_t* name, bool& value, bool allowEmpty) const
{
    int number = 0;
    if (!GetVariable(type, name, number, allowEmpty))
        return false;
    value = number != 0;
    return true;
}

} // namespace tavrin
