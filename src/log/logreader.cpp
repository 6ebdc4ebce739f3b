// CLogFileReader: data log files taken apart record by record.
#include <tavrin/log/logreader.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace tavrin {

namespace {

// Bytes asked of the file per read.
const std::size_t kBlockSize = 1u << 20;
// A line longer than this is handed out in pieces; no line that starts a record comes near it.
const std::size_t kMaxLinePiece = 1u << 20;
// Room allowed for the text of a text event, and for a formatter's text above a dump. A record
// that claims more is treated as damaged, so that junk without line ends cannot fill the memory.
const std::size_t kMaxRecordText = 16u << 20;
// The longest record body taken into memory: a record of about 250 MB (60 MB in a 32-bit
// process). A longer one is reported as damaged ("record too long").
const unsigned __int64 kMaxRecordBody = sizeof(void*) == 8 ? (1ull << 30) : (256ull << 20);
// Bytes per dump line, and the length of a full dump line: " " + 32 cells of 3 + 4 blanks + 32
// characters + "\r\n".
const unsigned int kDumpWidth = 32;
const std::size_t kFullDumpLine = 1 + 3 * kDumpWidth + 4 + kDumpWidth + 2;

const char kTextEvent[] = "Text Event, ";
const char kCompleted[] = " request completed: ";
const char kErrorLine[] = "Error=";

struct Header
{
    unsigned int nKind;
    bool bSynchronous;
    unsigned int nSize;
    SYSTEMTIME time;
};

// ---------------------------------------------------------------- scanning helpers

bool Expect(const char*& p, const char* end, const char* literal)
{
    const std::size_t length = std::strlen(literal);
    if (static_cast<std::size_t>(end - p) < length || std::memcmp(p, literal, length) != 0)
        return false;
    p += length;
    return true;
}

// 1 to maxDigits decimal digits.
bool ParseDecimal(const char*& p, const char* end, unsigned int maxDigits, unsigned __int64& value)
{
    value = 0;
    unsigned int digits = 0;
    while (p < end && *p >= '0' && *p <= '9' && digits < maxDigits)
    {
        value = value * 10 + static_cast<unsigned int>(*p - '0');
        ++p;
        ++digits;
    }
    return digits != 0 && (p == end || *p < '0' || *p > '9');
}

bool ParseDecimal(const char*& p, const char* end, unsigned int maxDigits, unsigned int& value)
{
    unsigned __int64 wide = 0;
    if (!ParseDecimal(p, end, maxDigits, wide) || wide > 0xFFFFFFFFull)
        return false;
    value = static_cast<unsigned int>(wide);
    return true;
}

// Exactly `digits` decimal digits.
bool ParseFixed(const char*& p, const char* end, unsigned int digits, WORD& value)
{
    if (static_cast<std::size_t>(end - p) < digits)
        return false;
    unsigned int v = 0;
    for (unsigned int i = 0; i < digits; ++i)
    {
        if (p[i] < '0' || p[i] > '9')
            return false;
        v = v * 10 + static_cast<unsigned int>(p[i] - '0');
    }
    p += digits;
    value = static_cast<WORD>(v);
    return true;
}

// Upper-case hexadecimal, as the writer prints it.
int HexValue(char ch)
{
    if (ch >= '0' && ch <= '9')
        return ch - '0';
    if (ch >= 'A' && ch <= 'F')
        return ch - 'A' + 10;
    return -1;
}

bool ParseHex(const char*& p, const char* end, unsigned int& value)
{
    unsigned __int64 v = 0;
    unsigned int digits = 0;
    while (p < end && HexValue(*p) >= 0 && digits < 9)
    {
        v = v * 16 + static_cast<unsigned int>(HexValue(*p));
        ++p;
        ++digits;
    }
    if (digits == 0 || v > 0xFFFFFFFFull)
        return false;
    value = static_cast<unsigned int>(v);
    return true;
}

// Day of the week of a Gregorian date (0 = Sunday).
WORD DayOfWeek(unsigned int year, unsigned int month, unsigned int day)
{
    static const unsigned int offsets[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
    if (month < 3)
        --year;
    return static_cast<WORD>((year + year / 4 - year / 100 + year / 400 + offsets[month - 1] + day) % 7);
}

bool IsLeapYear(unsigned int year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// Whether the fields name a real moment (the range a SYSTEMTIME can hold).
bool IsValidTime(const SYSTEMTIME& t)
{
    static const WORD days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (t.wYear < 1601 || t.wYear > 30827 || t.wMonth < 1 || t.wMonth > 12 || t.wDay < 1)
        return false;
    const WORD last = static_cast<WORD>(days[t.wMonth - 1] + (t.wMonth == 2 && IsLeapYear(t.wYear) ? 1 : 0));
    return t.wDay <= last && t.wHour < 24 && t.wMinute < 60 && t.wSecond < 60 && t.wMilliseconds < 1000;
}

// "%u/%u/%u, %02u:%02u:%02u.%03u"
bool ParseTime(const char*& p, const char* end, SYSTEMTIME& t)
{
    std::memset(&t, 0, sizeof(t));
    unsigned int year = 0, month = 0, day = 0;
    if (!ParseDecimal(p, end, 5, year) || !Expect(p, end, "/") || !ParseDecimal(p, end, 2, month) ||
        !Expect(p, end, "/") || !ParseDecimal(p, end, 2, day) || !Expect(p, end, ", "))
        return false;
    if (year > 0xFFFF || month > 12 || day > 31)
        return false;
    t.wYear = static_cast<WORD>(year);
    t.wMonth = static_cast<WORD>(month);
    t.wDay = static_cast<WORD>(day);
    if (!ParseFixed(p, end, 2, t.wHour) || !Expect(p, end, ":") || !ParseFixed(p, end, 2, t.wMinute) ||
        !Expect(p, end, ":") || !ParseFixed(p, end, 2, t.wSecond) || !Expect(p, end, ".") ||
        !ParseFixed(p, end, 3, t.wMilliseconds))
        return false;
    if (!IsValidTime(t))
        return false;
    t.wDayOfWeek = DayOfWeek(t.wYear, t.wMonth, t.wDay);
    return true;
}

bool ExpectLineEnd(const char* p, const char* end)
{
    return end - p == 2 && p[0] == '\r' && p[1] == '\n';
}

// A whole line (with its "\r\n") laid out as a record header.
bool ParseHeader(const char* p, std::size_t length, Header& header)
{
    const char* end = p + length;
    if (length == 0)
        return false;
    if (*p == 'T')
    {
        if (!Expect(p, end, kTextEvent))
            return false;
        header.nKind = CLogFileReader::Record::eText;
        header.bSynchronous = true;
        header.nSize = 0;
    }
    else if (*p == 'S' || *p == 'A')
    {
        header.bSynchronous = *p == 'S';
        if (!Expect(p, end, header.bSynchronous ? "SYNC " : "ASYNC "))
            return false;
        if (Expect(p, end, "WRITE"))
            header.nKind = CLogFileReader::Record::eWrite;
        else if (Expect(p, end, "READ"))
            header.nKind = CLogFileReader::Record::eRead;
        else
            return false;
        unsigned int hex = 0;
        if (!Expect(p, end, kCompleted) || !ParseDecimal(p, end, 10, header.nSize) || !Expect(p, end, " (0x") ||
            !ParseHex(p, end, hex) || !Expect(p, end, ") bytes, ") || hex != header.nSize)
            return false;
    }
    else
        return false;
    return ParseTime(p, end, header.time) && ExpectLineEnd(p, end);
}

// "Error=%zd, BytesToWrite=%zu\r\n"
bool ParseErrorLine(const char* p, std::size_t length, long& code, unsigned __int64& bytes)
{
    const char* end = p + length;
    if (!Expect(p, end, kErrorLine))
        return false;
    const bool negative = Expect(p, end, "-");
    unsigned __int64 magnitude = 0;
    if (!ParseDecimal(p, end, 20, magnitude) || !Expect(p, end, ", BytesToWrite=") ||
        !ParseDecimal(p, end, 20, bytes) || !ExpectLineEnd(p, end))
        return false;
    code = negative ? -static_cast<long>(magnitude) : static_cast<long>(magnitude);
    return true;
}

// Whether text that begins a line looks like the start of a record header or an error line: a
// line of the writer's that was cut (a prefix of one) or had another written into it.
bool LooksLikeRecordStart(const char* p, std::size_t length)
{
    static const char* const starts[] = {kTextEvent,
                                         "SYNC WRITE request completed: ",
                                         "SYNC READ request completed: ",
                                         "ASYNC WRITE request completed: ",
                                         "ASYNC READ request completed: ",
                                         kErrorLine};
    for (const char* start : starts)
    {
        const std::size_t compared = std::min(length, std::strlen(start));
        if (compared != 0 && std::memcmp(p, start, compared) == 0)
            return true;
    }
    return false;
}

// A line that a later writer may use to start a record of a kind this reader does not know:
// a capital letter first and the writer's time stamp last, as in its own headers ("..., 2024/3/7,
// 09:05:01.123"). Only taken as such after an empty line, where records begin.
bool ParseUnknownHeader(const char* p, std::size_t length, SYSTEMTIME& time)
{
    if (length < 24 || length > 512 || *p < 'A' || *p > 'Z' || p[length - 2] != '\r' || p[length - 1] != '\n')
        return false;
    // The time stamp holds ", " itself: try the date after each ", " from the back.
    const char* end = p + length;
    for (const char* at = end - 4; at > p; --at)
    {
        if (at[0] != ',' || at[1] != ' ')
            continue;
        const char* stamp = at + 2;
        if (ParseTime(stamp, end, time) && ExpectLineEnd(stamp, end))
            return true;
    }
    return false;
}

enum ELineKind
{
    eLineOther,
    eLineHeader,
    eLineErrorLine,
    eLineUnknownHeader
};

// What a whole line (with its line end) starts. `header` is filled for headers (for an unknown
// one only its time), `code` and `bytes` for an error line.
ELineKind ClassifyLine(const char* p, std::size_t length, bool afterEmptyLine, Header& header, long& code,
                       unsigned __int64& bytes)
{
    if (length == 0 || *p < 'A' || *p > 'Z')
        return eLineOther;
    if ((*p == 'T' || *p == 'S' || *p == 'A') && ParseHeader(p, length, header))
        return eLineHeader;
    if (*p == 'E' && ParseErrorLine(p, length, code, bytes))
        return eLineErrorLine;
    // A line that holds a known record's words is a cut one with another written into it, no
    // unknown record.
    if (afterEmptyLine && ParseUnknownHeader(p, length, header.time))
    {
        const std::string_view line(p, length);
        if (line.find(kTextEvent) == line.npos && line.find(kCompleted) == line.npos &&
            line.find(kErrorLine) == line.npos)
            return eLineUnknownHeader;
    }
    return eLineOther;
}

// Whether a line begins a record, or is an error line.
bool StartsRecord(const char* p, std::size_t length, bool afterEmptyLine)
{
    Header header;
    long code;
    unsigned __int64 bytes;
    return ClassifyLine(p, length, afterEmptyLine, header, code, bytes) != eLineOther;
}

// The length of the line that starts at `at` (with its line end, or to the end of the text).
std::size_t LineLength(const std::string& text, std::size_t at)
{
    const std::size_t end = text.find('\n', at);
    return (end == std::string::npos ? text.size() : end + 1) - at;
}

// The first position at or after `from` where a record or an error line begins in the middle
// of a line: where a session appended to a file whose last record a crash had cut off, or where
// a failed write left its error line after a partial record. npos when there is none.
std::size_t FindEmbeddedStart(const std::string& text, std::size_t from)
{
    std::size_t best = std::string::npos;
    auto consider = [&](std::size_t at) {
        if (at < best && at > 0 && text[at - 1] != '\n' && StartsRecord(text.data() + at, LineLength(text, at), false))
            best = at;
    };
    for (std::size_t at = text.find(kTextEvent, from); at != std::string::npos && at < best;
         at = text.find(kTextEvent, at + 1))
        consider(at);
    for (std::size_t at = text.find(kErrorLine, from); at != std::string::npos && at < best;
         at = text.find(kErrorLine, at + 1))
        consider(at);
    // Data headers are found by their middle: " request completed: " after "SYNC WRITE" and kin.
    for (std::size_t at = text.find(kCompleted, from); at != std::string::npos; at = text.find(kCompleted, at + 1))
    {
        static const char* const starts[] = {"ASYNC WRITE", "ASYNC READ", "SYNC WRITE", "SYNC READ"};
        for (const char* start : starts)
        {
            const std::size_t length = std::strlen(start);
            if (at >= length + from && text.compare(at - length, length, start) == 0)
            {
                consider(at - length);
                break;
            }
        }
        if (best != std::string::npos && best <= at)
            break;
    }
    return best;
}

bool IsDumpGraphic(unsigned char byte)
{
    return byte > 0x20 && byte < 0x7F;
}


// The length of a dump line of `count` cells, its line end included.
std::size_t DumpLineLength(unsigned int count)
{
    return 1 + 3 * kDumpWidth + 4 + count + 2;
}

// Decodes the dump line of `count` cells at `p` (DumpLineLength(count) characters) and appends its
// bytes to `data`. False, with `data` unchanged, when the line is not laid out so or its text
// column does not show its cells.
bool DecodeDumpLine(const char* p, unsigned int count, std::vector<unsigned char>& data)
{
    if (*p++ != ' ')
        return false;
    unsigned char bytes[kDumpWidth];
    for (unsigned int i = 0; i < count; ++i, p += 3)
    {
        const int high = HexValue(p[0]);
        const int low = HexValue(p[1]);
        if (high < 0 || low < 0 || p[2] != ' ')
            return false;
        bytes[i] = static_cast<unsigned char>(high * 16 + low);
    }
    for (unsigned int i = 3 * count; i < 3 * kDumpWidth + 4; ++i)
        if (*p++ != ' ')
            return false;
    for (unsigned int i = 0; i < count; ++i)
        if (static_cast<unsigned char>(p[i]) != (IsDumpGraphic(bytes[i]) ? bytes[i] : '.'))
            return false;
    p += count;
    if (p[0] != '\r' || p[1] != '\n')
        return false;
    data.insert(data.end(), bytes, bytes + count);
    return true;
}

enum EDataBody
{
    eBodyIntact,
    eBodyShort,   // no empty line behind a complete dump: cut off
    eBodyMismatch // the dump lines are there but do not show the stated bytes
};

// The bytes of a data record of `size` bytes from its body: the formatter's text, the dump lines
// and the closing empty line, possibly followed by lines that belong to no record. The dump is
// found from the back of an empty line, where its length is known, so the formatter's text may
// hold anything, and its last line may lack a line end (the first dump line then follows it on
// the same line). The first empty line behind a valid dump ends the record: `formatterEnd` and
// `recordEnd` receive where the formatter's text and the record end.
EDataBody DecodeDataBody(std::string_view body, unsigned int size, std::vector<unsigned char>& data,
                         std::size_t& formatterEnd, std::size_t& recordEnd)
{
    const std::size_t lines = (static_cast<std::size_t>(size) + kDumpWidth - 1) / kDumpWidth;
    const unsigned int last = lines == 0 ? 0 : size - static_cast<unsigned int>(lines - 1) * kDumpWidth;
    const std::size_t dumpLength = lines == 0 ? 0 : (lines - 1) * kFullDumpLine + DumpLineLength(last);
    bool complete = false;
    for (std::size_t at = dumpLength; at + 2 <= body.size(); ++at)
    {
        // The next empty line: "\r\n" at the start of a line.
        at = body.find("\r\n", at);
        if (at == std::string::npos)
            break;
        if (at != 0 && body[at - 1] != '\n')
            continue;
        complete = true;
        data.clear();
        data.reserve(size);
        const char* p = body.data() + at - dumpLength;
        bool valid = true;
        for (std::size_t line = 0; valid && line + 1 < lines; ++line, p += kFullDumpLine)
            valid = DecodeDumpLine(p, kDumpWidth, data);
        if (valid && (lines == 0 || DecodeDumpLine(p, last, data)))
        {
            formatterEnd = at - dumpLength;
            recordEnd = at + 2;
            return eBodyIntact;
        }
    }
    data.clear();
    // A formatter's text without a line end above no dump at all ends on the record's own line end.
    if (lines == 0 && body.size() >= 2 && body.compare(body.size() - 2, 2, "\r\n") == 0)
    {
        formatterEnd = body.size() - 2;
        recordEnd = body.size();
        return eBodyIntact;
    }
    return complete ? eBodyMismatch : eBodyShort;
}

// What can be saved of a damaged data record: the bytes of its intact dump lines, in order from
// the first one, up to the first line that is not one.
void SalvageDump(const std::string& body, unsigned int size, std::vector<unsigned char>& data)
{
    data.clear();
    bool started = false;
    for (std::size_t at = 0; at < body.size() && data.size() < size;)
    {
        const std::size_t length = LineLength(body, at);
        const unsigned int count = std::min<unsigned int>(kDumpWidth, size - static_cast<unsigned int>(data.size()));
        const std::size_t expected = DumpLineLength(count);
        // The first dump line may follow a formatter's text on the same line.
        const bool fits = started ? length == expected : length >= expected;
        if (fits && DecodeDumpLine(body.data() + at + length - expected, count, data))
            started = true;
        else if (started)
            return;
        at += length;
    }
}

void DecodeUtf8(const char* text, std::size_t length, ustring& out)
{
    out.clear();
    if (length != 0)
        ustring::MultiByteToWideChar(out, text, static_cast<unsigned int>(length), CP_UTF8);
}

} // namespace

const unsigned int CLogFileReader::kMaxDamagedText;

// ---------------------------------------------------------------- Record

CLogFileReader::Record::Record()
{
    Clear();
}

void CLogFileReader::Record::Clear()
{
    nKind = eDamaged;
    bSynchronous = true;
    bHasTime = false;
    std::memset(&time, 0, sizeof(time));
    data.clear();
    text.clear();
    formatted.clear();
    problem.clear();
    nDeclaredKind = eDamaged;
    nDeclaredSize = 0;
    nErrorCode = 0;
    nBytesToWrite = 0;
    nOffset = 0;
    nLength = 0;
    nLine = 0;
}

// ---------------------------------------------------------------- opening

CLogFileReader::CLogFileReader()
    : m_bHasCreated(false),
      m_nFileSize(0),
      m_nBegin(0),
      m_nEnd(0),
      m_bEndOfFile(true),
      m_bAtLineStart(true),
      m_bAfterEmptyLine(true),
      m_nOffset(0),
      m_nLine(1),
      m_bCheckBom(false)
{
    std::memset(&m_Created, 0, sizeof(m_Created));
}

CLogFileReader::CLogFileReader(const wchar_t* path) : CLogFileReader()
{
    Open(path);
}

CLogFileReader::~CLogFileReader()
{
    Close();
}

void CLogFileReader::Open(const wchar_t* path)
{
    Close();
    // The writer holds the file open for writing, with reading shared: reading must share writing.
    m_File.Open(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr, CFile::eLoggingModeOff, nullptr, false);
    m_strPath = path ? path : L"";
    m_nFileSize = m_File.GetLength();
    m_bHasCreated = ParseFileName(path, m_strChannel, m_Created);
    m_Buffer.resize(kBlockSize + kMaxLinePiece);
    m_nBegin = m_nEnd = 0;
    m_bEndOfFile = false;
    m_bAtLineStart = true;
    m_bAfterEmptyLine = true;
    m_nOffset = 0;
    m_nLine = 1;
    m_bCheckBom = true;
}

void CLogFileReader::Close()
{
    try
    {
        if (m_File.IsCreated())
            m_File.Close();
    }
    catch (const CStdException&)
    {
    }
    m_strPath.clear();
    m_strChannel.clear();
    std::memset(&m_Created, 0, sizeof(m_Created));
    m_bHasCreated = false;
    m_nFileSize = 0;
    std::vector<char>().swap(m_Buffer);
    std::string().swap(m_Body);
    m_nBegin = m_nEnd = 0;
    m_bEndOfFile = true;
    m_nOffset = 0;
    m_nLine = 1;
}

bool CLogFileReader::IsOpen() const
{
    return m_File.IsCreated();
}

bool CLogFileReader::GetCreationTime(SYSTEMTIME& created) const
{
    created = m_Created;
    return m_bHasCreated;
}

bool CLogFileReader::ParseFileName(const wchar_t* path, ustring& channel, SYSTEMTIME& created)
{
    channel.clear();
    std::memset(&created, 0, sizeof(created));
    const std::wstring full(path ? path : L"");
    const std::size_t slash = full.find_last_of(L"\\/");
    const std::wstring name = slash == std::wstring::npos ? full : full.substr(slash + 1);
    // "-YYYY.MM.DD-hh.mm.ss.mmm" and ".log".
    const std::size_t suffix = 24;
    if (name.size() < suffix + 4 || _wcsicmp(name.c_str() + name.size() - 4, L".log") != 0)
        return false;
    const std::string stamp = ustring::WideCharToMultiByte(name.substr(name.size() - 4 - suffix, suffix), CP_UTF8);
    const char* p = stamp.data();
    const char* end = p + stamp.size();
    SYSTEMTIME t = {};
    if (!Expect(p, end, "-") || !ParseFixed(p, end, 4, t.wYear) || !Expect(p, end, ".") ||
        !ParseFixed(p, end, 2, t.wMonth) || !Expect(p, end, ".") || !ParseFixed(p, end, 2, t.wDay) ||
        !Expect(p, end, "-") || !ParseFixed(p, end, 2, t.wHour) || !Expect(p, end, ".") ||
        !ParseFixed(p, end, 2, t.wMinute) || !Expect(p, end, ".") || !ParseFixed(p, end, 2, t.wSecond) ||
        !Expect(p, end, ".") || !ParseFixed(p, end, 3, t.wMilliseconds) || p != end || !IsValidTime(t))
        return false;
    t.wDayOfWeek = DayOfWeek(t.wYear, t.wMonth, t.wDay);
    channel = name.substr(0, name.size() - 4 - suffix);
    created = t;
    return true;
}

// ---------------------------------------------------------------- lines

bool CLogFileReader::Fill()
{
    if (m_bEndOfFile || !m_File.IsCreated())
    {
        m_bEndOfFile = true;
        return false;
    }
    if (m_nBegin != 0)
    {
        std::memmove(m_Buffer.data(), m_Buffer.data() + m_nBegin, m_nEnd - m_nBegin);
        m_nEnd -= m_nBegin;
        m_nBegin = 0;
    }
    if (m_Buffer.size() < m_nEnd + kBlockSize)
        m_Buffer.resize(m_nEnd + kBlockSize);
    unsigned int got = 0;
    m_File.Read(m_Buffer.data() + m_nEnd, static_cast<unsigned int>(kBlockSize), got);
    if (got == 0)
    {
        m_bEndOfFile = true;
        return false;
    }
    m_nEnd += got;
    return true;
}

bool CLogFileReader::NextLine(Line& line)
{
    for (;;)
    {
        const std::size_t available = m_nEnd - m_nBegin;
        // A byte-order mark that an editor put in front is no part of the first record.
        if (m_bCheckBom && (available >= 3 || m_bEndOfFile))
        {
            m_bCheckBom = false;
            if (available >= 3 && std::memcmp(m_Buffer.data() + m_nBegin, "\xEF\xBB\xBF", 3) == 0)
            {
                m_nBegin += 3;
                m_nOffset += 3;
                continue;
            }
        }
        if (!m_bCheckBom)
        {
            const char* text = m_Buffer.data() + m_nBegin;
            const void* lineEnd = std::memchr(text, '\n', std::min(available, kMaxLinePiece));
            if (lineEnd != nullptr)
            {
                line = Line{text, static_cast<std::size_t>(static_cast<const char*>(lineEnd) - text) + 1, m_bAtLineStart};
                return true;
            }
            if (available >= kMaxLinePiece || (m_bEndOfFile && available != 0))
            {
                line = Line{text, std::min(available, kMaxLinePiece), m_bAtLineStart};
                return true;
            }
            if (m_bEndOfFile)
                return false;
        }
        Fill();
    }
}

void CLogFileReader::Consume(const Line& line)
{
    m_nBegin += line.nLength;
    m_nOffset += line.nLength;
    m_bAtLineStart = line.nLength != 0 && line.pText[line.nLength - 1] == '\n';
    m_bAfterEmptyLine = line.bStart && line.nLength == 2 && line.pText[0] == '\r' && line.pText[1] == '\n';
    if (m_bAtLineStart)
        ++m_nLine;
}

void CLogFileReader::PushBack(const std::string& text)
{
    if (text.empty())
        return;
    if (m_nBegin >= text.size())
    {
        m_nBegin -= text.size();
        std::memcpy(m_Buffer.data() + m_nBegin, text.data(), text.size());
    }
    else
    {
        std::vector<char> buffer(text.size() + (m_nEnd - m_nBegin) + kBlockSize);
        std::memcpy(buffer.data(), text.data(), text.size());
        std::memcpy(buffer.data() + text.size(), m_Buffer.data() + m_nBegin, m_nEnd - m_nBegin);
        m_nEnd = text.size() + (m_nEnd - m_nBegin);
        m_nBegin = 0;
        m_Buffer.swap(buffer);
    }
    m_nOffset -= text.size();
    m_nLine -= static_cast<unsigned __int64>(std::count(text.begin(), text.end(), '\n'));
    // What is read again follows the end of a record.
    m_bAtLineStart = true;
    m_bAfterEmptyLine = true;
}

bool CLogFileReader::CollectBody(std::string& body, std::size_t limit)
{
    body.clear();
    bool fitted = true;
    Line line;
    while (NextLine(line))
    {
        if (line.bStart && StartsRecord(line.pText, line.nLength, m_bAfterEmptyLine))
            break;
        if (fitted && body.size() + line.nLength <= limit)
            body.append(line.pText, line.nLength);
        else
            fitted = false;
        Consume(line);
    }
    return fitted;
}

// ---------------------------------------------------------------- records

bool CLogFileReader::Read(Record& record)
{
    record.Clear();
    Line line;
    if (!NextLine(line))
        return false;
    record.nOffset = m_nOffset;
    record.nLine = m_nLine;
    Header header;
    const ELineKind kind = line.bStart ? ClassifyLine(line.pText, line.nLength, m_bAfterEmptyLine, header,
                                                      record.nErrorCode, record.nBytesToWrite)
                                       : eLineOther;
    switch (kind)
    {
    case eLineHeader:
        record.nKind = header.nKind;
        record.nDeclaredKind = header.nKind;
        record.bSynchronous = header.bSynchronous;
        record.nDeclaredSize = header.nSize;
        record.time = header.time;
        record.bHasTime = true;
        Consume(line);
        ReadRecord(header.nSize, record);
        break;
    case eLineErrorLine:
        record.nKind = Record::eWriteError;
        DecodeUtf8(line.pText, line.nLength - 2, record.text);
        Consume(line);
        // The line is a whole record of its own: a record may begin behind it.
        m_bAfterEmptyLine = true;
        break;
    case eLineUnknownHeader:
        // A record of a kind that a later writer may write: kept as text, with its time.
        record.nKind = Record::eDamaged;
        record.problem = L"unknown record";
        record.time = header.time;
        record.bHasTime = true;
        m_Body.assign(line.pText, line.nLength);
        Consume(line);
        {
            std::string body;
            CollectBody(body, kMaxDamagedText);
            m_Body += body;
        }
        if (m_Body.size() >= 4 && m_Body.compare(m_Body.size() - 4, 4, "\r\n\r\n") == 0)
            m_Body.resize(m_Body.size() - 4);
        DecodeUtf8(m_Body.data(), std::min<std::size_t>(m_Body.size(), kMaxDamagedText), record.text);
        break;
    default:
        ReadDamagedRun(record);
        break;
    }
    record.nLength = m_nOffset - record.nOffset;
    return true;
}

void CLogFileReader::ReadRecord(unsigned int size, Record& record)
{
    const bool text = record.nKind == Record::eText;
    // A dump line holds 32 bytes in 135 characters; the allowance for the text comes on top. The
    // body can be no longer than what is left of the file, and no longer than a process of this
    // width can hold next to the record's bytes.
    const unsigned __int64 expected =
        text ? 0 : (static_cast<unsigned __int64>(size) + kDumpWidth - 1) / kDumpWidth * kFullDumpLine + 2;
    const unsigned __int64 left = std::max<unsigned __int64>(m_nFileSize, m_nOffset) - m_nOffset + kMaxLinePiece;
    const std::size_t limit =
        static_cast<std::size_t>(std::min(std::min(expected + kMaxRecordText, left), kMaxRecordBody));
    const bool fitted = CollectBody(m_Body, limit);

    // Whether the first `length` bytes of the body make the record whole; `recordEnd` receives
    // where it ends (a data record ends at the empty line behind its dump).
    std::size_t formatterEnd = 0;
    std::size_t recordEnd = 0;
    auto evaluate = [&](std::size_t length) {
        recordEnd = length;
        if (!text)
            return DecodeDataBody(std::string_view(m_Body.data(), length), size, record.data, formatterEnd, recordEnd);
        return length >= 4 && m_Body.compare(length - 4, 4, "\r\n\r\n") == 0 ? eBodyIntact : eBodyShort;
    };
    EDataBody state = fitted ? evaluate(m_Body.size()) : eBodyShort;

    // A record that begins in the middle of the body belongs to a later session that appended to
    // the file after this record was cut off, or is the error line of a failed write: this
    // record ends where it begins. (The dump lines of an intact data record cannot hold one; its
    // formatter's text may, and is taken as it is.)
    std::size_t cut = fitted && (text || state != eBodyIntact) ? FindEmbeddedStart(m_Body, 0) : std::string::npos;
    if (fitted && (state != eBodyIntact || cut != std::string::npos))
    {
        // The record may be whole and followed by a line that was cut (by the end of the file, or
        // by that later record) and began like a record: that line is read on its own.
        const std::size_t end = cut != std::string::npos ? cut : m_Body.size();
        const std::size_t lineStart = end == 0 ? std::string::npos : m_Body.rfind('\n', end - 1);
        if (lineStart != std::string::npos && lineStart + 1 < end &&
            LooksLikeRecordStart(m_Body.data() + lineStart + 1, end - lineStart - 1) &&
            evaluate(lineStart + 1) == eBodyIntact)
        {
            state = eBodyIntact;
            cut = std::string::npos;
        }
        else
        {
            if (state == eBodyIntact)
                state = eBodyShort; // a text event that a later record cut off
            recordEnd = end;
        }
    }
    else if (!fitted)
        recordEnd = m_Body.size();

    // What follows the record's end is read again: lines that belong to no record, a cut line, a
    // record that begins in the middle of a line.
    if (recordEnd < m_Body.size())
    {
        PushBack(m_Body.substr(recordEnd));
        m_Body.resize(recordEnd);
    }
    if (state == eBodyIntact)
    {
        if (text)
            DecodeUtf8(m_Body.data(), m_Body.size() - 4, record.text);
        else
            DecodeUtf8(m_Body.data(), formatterEnd, record.formatted);
        return;
    }
    record.nKind = Record::eDamaged;
    if (!fitted)
        record.problem = L"record too long";
    else if (cut != std::string::npos || state == eBodyShort)
        record.problem = L"record cut off";
    else
        record.problem = L"dump does not match the header";
    if (text)
        DecodeUtf8(m_Body.data(), std::min<std::size_t>(m_Body.size(), kMaxDamagedText), record.text);
    else
        SalvageDump(m_Body, size, record.data);
}

void CLogFileReader::ReadDamagedRun(Record& record)
{
    record.nKind = Record::eDamaged;
    record.problem = L"no record header";
    std::string& kept = m_Body;
    kept.clear();
    Line line;
    bool first = true;
    while (NextLine(line))
    {
        if (!first && line.bStart && StartsRecord(line.pText, line.nLength, m_bAfterEmptyLine))
            break;
        first = false;
        const std::string text(line.pText, line.nLength);
        Consume(line);
        const std::size_t embedded = FindEmbeddedStart(text, 0);
        const std::size_t take = embedded == std::string::npos ? text.size() : embedded;
        if (kept.size() < kMaxDamagedText)
            kept.append(text, 0, std::min(take, kMaxDamagedText - kept.size()));
        if (embedded != std::string::npos)
        {
            PushBack(text.substr(embedded));
            break;
        }
    }
    DecodeUtf8(kept.data(), kept.size(), record.text);
}

} // namespace tavrin
