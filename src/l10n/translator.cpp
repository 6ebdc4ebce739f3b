// Language files, the translator's text lookup and the process-wide translator instance.
#include <tavrin/l10n/translator.h>

#include <tavrin/core/exception.h>
#include <tavrin/core/file.h>

#include <algorithm>
#include <vector>

namespace tavrin {

namespace {

const wchar_t* const kLoadFunction = L"tavrin::CLanguageFile::LoadLanguageFile";
const wchar_t kByteOrderMark = 0xFEFF;
const unsigned int kChunkSize = 512;

// Line breaks inside a bracketed line are written as the two characters \r and \n.
ustring EscapeLine(const ustring& text)
{
    ustring escaped;
    escaped.reserve(text.size());
    for (wchar_t ch : text)
    {
        if (ch == L'\r')
            escaped += L"\\r";
        else if (ch == L'\n')
            escaped += L"\\n";
        else
            escaped += ch;
    }
    return escaped;
}

// The text of a bracketed line: "\\r" and "\\n" (backslash and letter) stand for a carriage
// return and a line feed; every other backslash is itself.
ustring UnescapeLine(const wchar_t* begin, const wchar_t* end)
{
    ustring line;
    line.reserve(static_cast<size_t>(end - begin));
    for (const wchar_t* p = begin; p < end; ++p)
    {
        if (*p == L'\\' && p + 1 < end && (p[1] == L'r' || p[1] == L'n'))
            line.push_back(*++p == L'r' ? L'\r' : L'\n');
        else
            line.push_back(*p);
    }
    return line;
}

// Holds a slim reader/writer lock exclusively for the scope.
class CExclusiveSRWLock
{
public:
    explicit CExclusiveSRWLock(SRWLOCK& lock) : m_Lock(lock) { ::AcquireSRWLockExclusive(&m_Lock); }
    ~CExclusiveSRWLock() { ::ReleaseSRWLockExclusive(&m_Lock); }
    CExclusiveSRWLock(const CExclusiveSRWLock&) = delete;
    CExclusiveSRWLock& operator=(const CExclusiveSRWLock&) = delete;

private:
    SRWLOCK& m_Lock;
};

} // namespace

// ------------------------------------------------------------------------------- CLanguageFile

CLanguageFile::CLanguageFile() = default;

CLanguageFile::~CLanguageFile() = default;

bool CLanguageFile::LoadLanguageFile(const wchar_t* path)
{
    try
    {
        CFile file(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        LoadLanguageFile(file);
        file.Close();
        return true;
    }
    catch (const CStdException&)
    {
        return false;
    }
}

void CLanguageFile::SaveLanguageFile(const wchar_t* path)
{
    CFile file(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    SaveLanguageFile(file);
}

void CLanguageFile::LoadLanguageFile(CFile& file)
{
    file.Seek(0, FILE_BEGIN);
    const unsigned __int64 length = file.GetLength();
    if (length < 2)
        throw CWinException(__LINE__, TAVRIN_WFILE, kLoadFunction, ERROR_INVALID_DATA);

    // Chunks land directly in one buffer sized for the whole file.
    std::vector<unsigned char> bytes;
    if (length < 0x7FFFFFFF)
        bytes.reserve(static_cast<size_t>(length) + kChunkSize);
    for (;;)
    {
        const size_t at = bytes.size();
        bytes.resize(at + kChunkSize);
        unsigned int read = 0;
        file.Read(&bytes[at], kChunkSize, read, nullptr);
        bytes.resize(at + read);
        if (at == 0 && (read < 2 || bytes[0] != 0xFF || bytes[1] != 0xFE))
            throw CWinException(__LINE__, TAVRIN_WFILE, kLoadFunction, ERROR_INVALID_DATA);
        if (read < kChunkSize)
            break;
    }

    // UTF-16LE after the mark; a trailing odd byte is no code unit.
    std::wstring text((bytes.size() - 2) / 2, L'\0');
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<wchar_t>(bytes[2 + 2 * i] | (bytes[3 + 2 * i] << 8));
    std::vector<unsigned char>().swap(bytes);

    // "\r\n", a lone "\n" and a lone "\r" all end a line; empty lines are no lines. Every line
    // must be well-formed before any of them reaches the table. The brackets are the first and
    // the last code unit and never part of an escape, so they are checked before unescaping.
    std::vector<ustring> lines;
    const wchar_t* p = text.data();
    const wchar_t* const end = p + text.size();
    while (p < end)
    {
        const wchar_t* const stop = std::find_if(p, end, [](wchar_t ch) { return ch == L'\r' || ch == L'\n'; });
        if (stop != p)
        {
            if (stop - p < 2 || *p != L'[' || stop[-1] != L']')
                return;
            lines.push_back(UnescapeLine(p + 1, stop - 1));
        }
        if (stop == end)
            break;
        p = stop + 1;
    }

    CLocker<CCriticalSection> lock(&m_csTable);
    for (size_t i = 0; i + 1 < lines.size(); i += 2)
        m_Table[std::move(lines[i])] = std::move(lines[i + 1]);
}

void CLanguageFile::SaveLanguageFile(CFile& file)
{
    ustring text(1u, kByteOrderMark);
    {
        CLocker<CCriticalSection> lock(&m_csTable);
        for (const auto& entry : m_Table)
        {
            text += ustring::sprintf_stc(L"[%ls]\r\n", EscapeLine(entry.first).c_str());
            text += ustring::sprintf_stc(L"[%ls]\r\n", EscapeLine(entry.second).c_str());
        }
    }

    std::vector<unsigned char> bytes;
    bytes.reserve(text.size() * 2);
    for (wchar_t ch : text)
    {
        bytes.push_back(static_cast<unsigned char>(ch & 0xFF));
        bytes.push_back(static_cast<unsigned char>((ch >> 8) & 0xFF));
    }

    file.Seek(0, FILE_BEGIN);
    file.SetLength(0);
    unsigned int written = 0;
    file.Write(bytes.data(), static_cast<unsigned int>(bytes.size()), written, nullptr);
    if (written != bytes.size())
        throw CWinException(__LINE__, TAVRIN_WFILE, L"WriteFile", ERROR_WRITE_FAULT);
    file.Close();
}

CLanguageFile::Table CLanguageFile::GetTable() const
{
    CLocker<CCriticalSection> lock(&m_csTable);
    return m_Table;
}

void CLanguageFile::SetTranslation(const ustring& text, const ustring& translation)
{
    CLocker<CCriticalSection> lock(&m_csTable);
    m_Table[text] = translation;
}

void CLanguageFile::ClearTable()
{
    CLocker<CCriticalSection> lock(&m_csTable);
    m_Table.clear();
}

// ------------------------------------------------------------------------------- CTranslator

CTranslator::CTranslator() : m_eMode(ModeTranslate)
{
}

CTranslator::~CTranslator() = default;

CTranslator::EMode CTranslator::SetMode(EMode mode)
{
    return static_cast<EMode>(m_eMode.exchange(mode));
}

CTranslator::EMode CTranslator::GetMode() const
{
    return static_cast<EMode>(m_eMode.load());
}

bool CTranslator::XlateEx(ustring& text)
{
    CLocker<CCriticalSection> lock(&m_csTable);
    if (GetMode() != ModeGather)
    {
        const auto found = m_Table.find(text);
        if (found == m_Table.end() || found->second.empty())
            return false;
        text = found->second;
        return true;
    }

    // Empty window texts are nothing to translate, and texts naming SmartSVN are version-control
    // build stamps: neither belongs in a language file.
    if (text.empty() || text.find(L"SmartSVN") != std::wstring::npos)
        return true;
    m_Table.emplace(text, ustring());
    return true;
}

ustring CTranslator::Xlate(const wchar_t* text)
{
    ustring result(text);
    XlateEx(result);
    return result;
}

// ------------------------------------------------------------------------------- CTranslatorInstance

std::atomic<bool> CTranslatorInstance::m_bIsInitilized(false);

CTranslator& CTranslatorInstance::Ref()
{
    if (!m_bIsInitilized.load(std::memory_order_acquire))
    {
        // A lock that needs no construction or destruction: Ref() may run during process exit.
        static SRWLOCK lock = SRWLOCK_INIT;
        CExclusiveSRWLock guard(lock);
        if (!m_bIsInitilized.load(std::memory_order_relaxed))
        {
            CTranslator& translator = CPhoenixSingleton<CTranslator>::Ref();
            wchar_t module[MAX_PATH + 1] = {};
            const DWORD length = ::GetModuleFileNameW(nullptr, module, MAX_PATH);
            if (length > 0 && length < MAX_PATH)
            {
                ustring drive, dir, fname, ext, path;
                CFile::SplitPath(module, drive, dir, fname, ext);
                CFile::MakePath(path, drive.c_str(), dir.c_str(), L"xRU", L".lng");
                translator.LoadLanguageFile(path.c_str());
            }
            // Published only after the load, so no thread translates with a half-read table.
            m_bIsInitilized.store(true, std::memory_order_release);
        }
    }
    return CPhoenixSingleton<CTranslator>::Ref();
}

bool CTranslatorInstance::IsInitialized()
{
    return m_bIsInitilized.load(std::memory_order_acquire);
}

} // namespace tavrin
