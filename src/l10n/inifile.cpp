// INI files through the Windows profile functions.
#include <tavrin/l10n/inifile.h>

namespace tavrin {

namespace {

// First buffer size of the readers, doubled while a text comes back cut.
const unsigned int g_nInitialBufferSize = 64;

} // namespace

CIniFile::CIniFile(const wchar_t* path) : m_strPath(path)
{
}

CIniFile::~CIniFile() = default;

ustring CIniFile::GetString(const wchar_t* section, const wchar_t* key, const wchar_t* defaultValue) const
{
    // Without a section or key the system would return a list of names instead of one text.
    if (!section || !key)
        return ustring(defaultValue);
    ustring buffer;
    DWORD size = g_nInitialBufferSize;
    for (;;)
    {
        buffer.resize(size);
        DWORD length = ::GetPrivateProfileStringW(section, key, defaultValue ? defaultValue : L"", &buffer[0u], size,
                                                  m_strPath.c_str());
        // A text that filled the buffer to its last place may have been cut.
        if (length != size - 1u)
        {
            buffer.resize(length);
            return buffer;
        }
        size *= 2u;
    }
}

int CIniFile::GetInt(const wchar_t* section, const wchar_t* key, int defaultValue) const
{
    return static_cast<int>(::GetPrivateProfileIntW(section, key, defaultValue, m_strPath.c_str()));
}

void CIniFile::CreateUnicodeFile() const
{
    // The profile functions create a missing file in the ANSI code page, which loses every
    // character outside it; a file that starts with the UTF-16 byte-order mark is kept in UTF-16.
    // CREATE_NEW never touches a file that exists (or that another writer just created).
    HANDLE file = ::CreateFileW(m_strPath.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    const wchar_t byteOrderMark = 0xFEFF;
    DWORD written = 0;
    ::WriteFile(file, &byteOrderMark, sizeof(byteOrderMark), &written, nullptr);
    ::CloseHandle(file);
}

bool CIniFile::WriteString(const wchar_t* section, const wchar_t* key, const wchar_t* value)
{
    // Null section or key would delete a whole section; that is DeleteSection's job.
    if (!section || !key)
        return false;
    if (value)
        CreateUnicodeFile();
    return ::WritePrivateProfileStringW(section, key, value, m_strPath.c_str()) != FALSE;
}

bool CIniFile::WriteInt(const wchar_t* section, const wchar_t* key, int value)
{
    return WriteString(section, key, ustring().sprintf(L"%d", value).c_str());
}

bool CIniFile::DeleteEntry(const wchar_t* section, const wchar_t* key)
{
    if (!section || !key)
        return false;
    return ::WritePrivateProfileStringW(section, key, nullptr, m_strPath.c_str()) != FALSE;
}

bool CIniFile::DeleteSection(const wchar_t* section)
{
    if (!section)
        return false;
    return ::WritePrivateProfileStringW(section, nullptr, nullptr, m_strPath.c_str()) != FALSE;
}

bool CIniFile::EnumSections(std::vector<ustring>& out) const
{
    return ReadList(nullptr, out);
}

bool CIniFile::EnumEntries(const wchar_t* section, std::vector<ustring>& out) const
{
    if (!section)
    {
        out.clear();
        return false;
    }
    return ReadList(section, out);
}

bool CIniFile::ReadList(const wchar_t* section, std::vector<ustring>& out) const
{
    out.clear();
    ustring buffer;
    DWORD size = g_nInitialBufferSize;
    for (;;)
    {
        buffer.resize(size);
        DWORD length = section ? ::GetPrivateProfileStringW(section, nullptr, L"", &buffer[0u], size, m_strPath.c_str())
                               : ::GetPrivateProfileSectionNamesW(&buffer[0u], size, m_strPath.c_str());
        // Both report a cut list as the buffer size minus two.
        if (length + 2u < size)
        {
            // Keep the list's closing NUL inside the text for the list reader.
            buffer.resize(length + 1u);
            buffer[length] = L'\0';
            ustring::split(buffer, out);
            return !out.empty();
        }
        size *= 2u;
    }
}

CIniFile::EType CIniFile::TranslateSection(const ustring& line, ustring& name, ustring& value)
{
    name.clear();
    value.clear();
    ustring text(line);
    text.trim({L' ', L'\t', L'\r', L'\n'});
    if (text.empty())
        return Empty;
    if (text[0u] == L';' || text[0u] == L'#')
    {
        value = text.substr(1);
        value.trim({L' ', L'\t'});
        return Comment;
    }
    if (text[0u] == L'[')
    {
        if (text.back() != L']' || text.size() < 2u)
            return Invalid;
        name = text.substr(1, text.size() - 2u);
        name.trim({L' ', L'\t'});
        return Section;
    }
    size_t equals = text.find(L'=');
    if (equals == std::wstring::npos || equals == 0)
        return Invalid;
    name = text.substr(0, equals);
    name.trim({L' ', L'\t'});
    value = text.substr(equals + 1u);
    value.trim({L' ', L'\t'});
    return Entry;
}

} // namespace tavrin
