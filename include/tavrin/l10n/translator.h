// Run-time translation of the user interface from language files.
//
// A language file (.lng) maps each source text to its translation. It is UTF-16LE text with a
// byte-order mark; every line is enclosed in square brackets and lines form pairs: source text,
// then translation. Inside the brackets a carriage return is written as the two characters \r
// and a line feed as \n:
//
//     [Open]
//     [Öffnen]
//     [Line one\nLine two]
//     [Zeile eins\nZeile zwei]
//
// The process-wide translator, CTranslatorInstance::Ref(), loads "xRU.lng" beside the
// executable on first use and translates texts, dialogs (recursively) and menus:
//
//     CTranslator& translator = CTranslatorInstance::Ref();
//     ustring caption = translator.Xlate(L"Open");
//     translator.XlateWnd(hDialog);
//
// In gathering mode it collects the texts it meets instead, so that a new language file can be
// written from a running program (SaveLanguageFile).
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/object.h>
#include <tavrin/core/ustring.h>

#include <atomic>
#include <map>

namespace tavrin {

class CFile;

// The table of a language file: source text -> translation, in key order.
class TAVRIN_API CLanguageFile
{
public:
    typedef std::map<ustring, ustring> Table;

    CLanguageFile();
    CLanguageFile(const CLanguageFile&) = delete;
    CLanguageFile& operator=(const CLanguageFile&) = delete;
    virtual ~CLanguageFile();

    // Loads a language file into the table (entries of the file replace equal keys; others stay).
    // False when the file cannot be opened or read, is shorter than 2 bytes or lacks the
    // byte-order mark. A file with a line that is not enclosed in brackets leaves the table
    // unchanged (the result is still true: the file itself was read).
    bool LoadLanguageFile(const wchar_t* path);
    // Writes the table to a new file (replacing an existing one); throws CWinException when the
    // file cannot be created or written.
    void SaveLanguageFile(const wchar_t* path);

    // A copy of the table.
    Table GetTable() const;
    // Sets one entry; an empty translation leaves the source text untranslated.
    void SetTranslation(const ustring& text, const ustring& translation);
    void ClearTable();

protected:
    // Reads the whole file from its start; throws CWinException(ERROR_INVALID_DATA) with the
    // function "tavrin::CLanguageFile::LoadLanguageFile" for a file without byte-order mark.
    void LoadLanguageFile(CFile& file);
    // Rewinds and truncates the file, writes the table and closes the file.
    void SaveLanguageFile(CFile& file);

    // Guards m_Table: the translator is shared by every thread of the process.
    mutable CCriticalSection m_csTable;
    Table m_Table;
};

// Translates texts, windows and menus through its table, or collects the texts it meets.
class TAVRIN_API CTranslator : public CLanguageFile
{
public:
    enum EMode : int
    {
        ModeGather = 0,   // unknown texts are added with an empty translation
        ModeTranslate = 1 // any non-zero value translates
    };

    CTranslator();
    ~CTranslator() override;

    // Returns the previous mode.
    EMode SetMode(EMode mode);
    EMode GetMode() const;

    // Translating: replaces `text` by its translation and returns true when the table has a
    // non-empty one. Gathering: adds an unknown text with an empty translation and returns true
    // (empty texts, and build stamps naming "SmartSVN", are not collected).
    bool XlateEx(ustring& text);
    // A translated copy of the text (the text itself when there is no translation).
    ustring Xlate(const wchar_t* text);
    // Translates the window's menu, its text and the texts of all its descendants. Numeric edit
    // fields (class "Edit" with ES_NUMBER) keep their content.
    void XlateWnd(HWND hwnd);
    // Translates the items of a menu and its submenus.
    void XlateMenu(HMENU hmenu);
    // Translates the button texts of a toolbar (ToolbarWindow32).
    void XlateToolbar(HWND hwnd);
    // Gathering mode only: creates each dialog resource of the module hidden, collects the
    // texts of it and of its menus, and destroys it again; the module's menu resources are
    // collected as well. Does nothing in translating mode.
    void Gather(HINSTANCE module);

private:
    static INT_PTR CALLBACK DialogProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam);

    std::atomic<int> m_eMode;
};

// The process-wide translator: a phoenix singleton that loads "xRU.lng" from the executable's
// folder the first time it is reached.
class TAVRIN_API CTranslatorInstance
{
public:
    static CTranslator& Ref();

    // Whether the language file has been loaded (set on the first Ref(); a translator re-created
    // after process exit does not load it again).
    static bool IsInitialized();

private:
    static std::atomic<bool> m_bIsInitilized;
};

} // namespace tavrin
