// INI files through the Windows profile functions.
//
//     CIniFile ini(L"C:\\ProgramData\\App\\app.ini");
//     ini.WriteInt(L"Port", L"Baud", 115200);
//     int baud = ini.GetInt(L"Port", L"Baud", 9600);
//
// The path is handed to the system as given: a name without a folder is looked for in the
// Windows folder, so callers pass full paths.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/ustring.h>

#include <vector>

namespace tavrin {

class TAVRIN_API CIniFile
{
public:
    // What one line of an INI file is (see TranslateSection).
    enum EType
    {
        Empty = 0,   // blank line
        Section = 1, // "[name]"
        Entry = 2,   // "key=value"
        Comment = 3, // a line starting with ";" or "#"
        Invalid = 4  // anything else, e.g. "[name" or a key without "="
    };

    explicit CIniFile(const wchar_t* path);
    CIniFile(const CIniFile&) = default;
    CIniFile(CIniFile&&) = default;
    CIniFile& operator=(const CIniFile&) = default;
    CIniFile& operator=(CIniFile&&) = default;
    virtual ~CIniFile();

    const ustring& GetPath() const { return m_strPath; }

    // The entry's text of any length, or `defaultValue` (empty when null) when it is missing.
    ustring GetString(const wchar_t* section, const wchar_t* key, const wchar_t* defaultValue = nullptr) const;
    // The entry read as a number (GetPrivateProfileIntW: leading digits, a missing entry gives
    // `defaultValue`).
    int GetInt(const wchar_t* section, const wchar_t* key, int defaultValue = 0) const;
    // Creates the file (in UTF-16, so that any text survives), the section and the entry as
    // needed; a null value deletes the entry. An existing file keeps its encoding.
    bool WriteString(const wchar_t* section, const wchar_t* key, const wchar_t* value);
    bool WriteInt(const wchar_t* section, const wchar_t* key, int value);
    bool DeleteEntry(const wchar_t* section, const wchar_t* key);
    bool DeleteSection(const wchar_t* section);
    // Names of all sections / of all keys of one section, in file order; `out` is emptied first.
    // False when the file holds none.
    bool EnumSections(std::vector<ustring>& out) const;
    bool EnumEntries(const wchar_t* section, std::vector<ustring>& out) const;

    // Classifies one line of INI text. Section: `name` is the bracketed name (trimmed), `value`
    // empty. Entry: `name` and `value` are the trimmed texts around the first "=". Comment: `value`
    // is the text after the marker. Empty and Invalid leave both empty.
    static EType TranslateSection(const ustring& line, ustring& name, ustring& value);

private:
    // A double-NUL-terminated list from one of the profile functions that fill such lists.
    bool ReadList(const wchar_t* section, std::vector<ustring>& out) const;
    // Creates the file with a UTF-16 byte-order mark when it does not exist yet.
    void CreateUnicodeFile() const;

    ustring m_strPath;
};

} // namespace tavrin
