// Reading data log files back: records written through the library come back exactly, file
// names give channel and creation time, and damaged, appended and foreign content is reported
// without stopping the reading.
#include "test_logfile_support.h"

#include <tavrin/core/file.h>
#include <tavrin/log/logfile.h>
#include <tavrin/log/logreader.h>
#include <tavrin/util/systemtime.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>

using namespace tavrin;
using namespace logtest;

namespace {

typedef CLogFileReader::Record LogRecord;

// What one logging call should come back as.
struct Expected
{
    unsigned int nKind;
    bool bSynchronous;
    std::vector<unsigned char> data;
    ustring text;
};

std::vector<unsigned char> Pattern(std::size_t size, unsigned int seed)
{
    std::vector<unsigned char> bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<unsigned char>(i * 131 + seed * 7 + 3);
    return bytes;
}

// A formatter whose text depends on the data, in every shape the reader must separate from the
// dump below it: nothing, a closed line, text without a line end (the dump's first line then
// follows it on the same line), several lines with an empty one and a dump-like line, text
// beyond ASCII.
ustring __stdcall ShapeShifter(const std::vector<unsigned char>& data)
{
    switch (data.empty() ? 2 : data.size() % 5)
    {
    case 0:
        return ustring();
    case 1:
        return ustring::sprintf_stc(L"frame of %u bytes\r\n", static_cast<unsigned int>(data.size()));
    case 2:
        return L"no line end:";
    case 3:
        return L"first\r\n\r\n" + CLogFile::Bin2Text(std::vector<unsigned char>(data.begin(), data.begin() + 1), 32);
    default:
        return L"Gr\u00FC\u00DFe \u20AC\n";
    }
}

// Logs the expected entries in order through a log file of `path`; returns the local times taken
// just before and after.
void WriteSession(const ustring& path, CLogFile::LPDATAFORMATTER formatter, const std::vector<Expected>& entries,
                  SYSTEMTIME* before = nullptr, SYSTEMTIME* after = nullptr)
{
    CLogFile log(eLogFileDetailVerbose, formatter);
    ASSERT_TRUE(log.Open(path));
    if (before)
        ::GetLocalTime(before);
    for (const Expected& entry : entries)
    {
        const unsigned int size = static_cast<unsigned int>(entry.data.size());
        if (entry.nKind == LogRecord::eText)
            log.LogText(true, L"%ls", entry.text.c_str());
        else if (entry.nKind == LogRecord::eWrite)
            log.LogSentData(entry.data.data(), size, entry.bSynchronous);
        else
            log.LogReceivedData(entry.data.data(), size, entry.bSynchronous);
    }
    if (after)
        ::GetLocalTime(after);
    log.Close();
}

// The text of a session logged without formatter, to be taken apart and put together again.
std::string SessionText(const CTempFolder& folder, const std::vector<Expected>& entries)
{
    const ustring path = folder / L"session.log";
    WriteSession(path, nullptr, entries);
    const std::string text = ReadBytes(path);
    tavrintest::RemoveTree(path);
    return text;
}

std::vector<LogRecord> ReadAll(const ustring& path)
{
    std::vector<LogRecord> records;
    CLogFileReader reader(path);
    LogRecord record;
    while (reader.Read(record))
        records.push_back(record);
    // The end stays the end.
    EXPECT_FALSE(reader.Read(record));
    return records;
}

::testing::AssertionResult SameRecord(const Expected& expected, CLogFile::LPDATAFORMATTER formatter,
                                      const LogRecord& actual)
{
    if (actual.nKind != expected.nKind)
        return ::testing::AssertionFailure() << "kind " << actual.nKind << " instead of " << expected.nKind
                                             << " (problem: " << ustring::WideCharToMultiByte(actual.problem, CP_UTF8)
                                             << ", line " << actual.nLine << ")";
    if (actual.bSynchronous != (expected.nKind == LogRecord::eText || expected.bSynchronous))
        return ::testing::AssertionFailure() << "synchronous flag";
    if (!actual.bHasTime)
        return ::testing::AssertionFailure() << "no time";
    if (actual.data != expected.data)
        return ::testing::AssertionFailure() << "data of " << actual.data.size() << " bytes instead of "
                                             << expected.data.size();
    if (actual.nKind == LogRecord::eText && actual.text != expected.text)
        return ::testing::AssertionFailure() << "text \"" << ustring::WideCharToMultiByte(actual.text, CP_UTF8)
                                             << "\"";
    const ustring formatted =
        actual.nKind != LogRecord::eText && formatter != nullptr ? formatter(expected.data) : ustring();
    if (actual.formatted != formatted)
        return ::testing::AssertionFailure() << "formatted text \""
                                             << ustring::WideCharToMultiByte(actual.formatted, CP_UTF8) << "\"";
    if (actual.nDeclaredSize != expected.data.size())
        return ::testing::AssertionFailure() << "declared size";
    return ::testing::AssertionSuccess();
}

// Kind, place and problem of each record, for failure messages.
std::string Describe(const std::vector<LogRecord>& records)
{
    std::string text;
    for (const LogRecord& r : records)
        text += std::to_string(r.nKind) + "@" + std::to_string(r.nOffset) + "+" + std::to_string(r.nLength) + " " +
                ustring::WideCharToMultiByte(r.problem, CP_UTF8) + "; ";
    return text;
}

// The records tile the file: each begins where the one before ended, the last ends at its end.
void ExpectTiling(const std::vector<LogRecord>& records, unsigned __int64 fileSize, unsigned __int64 start = 0)
{
    unsigned __int64 offset = start;
    for (const LogRecord& record : records)
    {
        EXPECT_EQ(offset, record.nOffset);
        EXPECT_NE(0u, record.nLength);
        offset = record.nOffset + record.nLength;
    }
    EXPECT_EQ(fileSize, offset);
}

// The entries of the fixed round trip: every kind, the sizes around a dump line, every byte
// value, text events with line breaks, an empty one and one beyond ASCII.
std::vector<Expected> FixedEntries()
{
    std::vector<Expected> entries;
    const std::size_t sizes[] = {0, 1, 31, 32, 33, 4096};
    unsigned int seed = 0;
    for (std::size_t size : sizes)
    {
        entries.push_back(Expected{LogRecord::eWrite, true, Pattern(size, ++seed), ustring()});
        entries.push_back(Expected{LogRecord::eRead, false, Pattern(size, ++seed), ustring()});
        entries.push_back(Expected{LogRecord::eWrite, false, Pattern(size, ++seed), ustring()});
        entries.push_back(Expected{LogRecord::eRead, true, Pattern(size, ++seed), ustring()});
    }
    std::vector<unsigned char> every(256);
    for (unsigned int i = 0; i < 256; ++i)
        every[i] = static_cast<unsigned char>(i);
    entries.push_back(Expected{LogRecord::eRead, true, every, ustring()});
    std::reverse(every.begin(), every.end());
    entries.push_back(Expected{LogRecord::eWrite, false, every, ustring()});
    const wchar_t* texts[] = {L"plain",
                              L"",
                              L"two\r\nlines",
                              L"ends with a line end\r\n",
                              L"\r\n\r\nempty lines first",
                              L"bare\nline feeds\rand returns",
                              L"Gr\u00FC\u00DFe \u20AC \U0001D11E \u65E5\u672C",
                              L"Error=5 looks like nothing",
                              L" 41 42 a dump-like start"};
    for (const wchar_t* text : texts)
        entries.push_back(Expected{LogRecord::eText, true, {}, text});
    return entries;
}

} // namespace

// ---------------------------------------------------------------- round trips

TEST(LogFileReader, RecordsWrittenByTheLibraryComeBackExactly)
{
    CTempFolder folder(L"reader-roundtrip");
    const std::vector<Expected> entries = FixedEntries();
    const CLogFile::LPDATAFORMATTER formatters[] = {nullptr, &ShapeShifter};
    for (CLogFile::LPDATAFORMATTER formatter : formatters)
    {
        SCOPED_TRACE(formatter ? "with formatter" : "without formatter");
        const ustring path = folder / (formatter ? L"formatted.log" : L"plain.log");
        SYSTEMTIME before, after;
        WriteSession(path, formatter, entries, &before, &after);

        const std::vector<LogRecord> records = ReadAll(path);
        ASSERT_EQ(entries.size(), records.size());
        for (std::size_t i = 0; i < entries.size(); ++i)
        {
            EXPECT_TRUE(SameRecord(entries[i], formatter, records[i])) << "record " << i;
            EXPECT_TRUE(TimeBetween(TimeText(records[i].time), before, after)) << TimeText(records[i].time);
            if (i > 0)
            {
                EXPECT_GE(CSystemTime(records[i].time), CSystemTime(records[i - 1].time));
                EXPECT_GT(records[i].nLine, records[i - 1].nLine);
            }
            // The day of the week is filled in, as GetLocalTime gives it.
            const SYSTEMTIME& t = records[i].time;
            EXPECT_EQ(CSystemTime(t.wYear, t.wMonth, t.wDay).wDayOfWeek, t.wDayOfWeek);
        }
        ExpectTiling(records, CFile::GetLength(path));
        EXPECT_EQ(1u, records[0].nLine);
    }
}

TEST(LogFileReader, AFileLoggedByAFileChannelReadsBackWithItsEvents)
{
    CTempFolder folder(L"reader-cfile");
    CServerSetup setup(folder.Path(), eLogFileDetailVerbose);
    const ustring dataPath = folder / L"payload.bin";
    const std::vector<unsigned char> block = Pattern(100, 9);
    SYSTEMTIME before;
    ::GetLocalTime(&before);
    {
        CFile file(dataPath, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr,
                   CFile::eLoggingModeOn);
        unsigned int count = 0;
        ASSERT_TRUE(file.Write(block.data(), 100, count));
        file.Seek(0, FILE_BEGIN);
        std::vector<unsigned char> back(200);
        ASSERT_TRUE(file.Read(back.data(), 200, count));
        ASSERT_EQ(100u, count);
        file.Close();
    }
    const ustring path = OnlyLogFile(folder.Path());
    ASSERT_FALSE(path.empty());

    CLogFileReader reader(path);
    // The channel is the file's name without the characters a file name cannot hold, and
    // without dots.
    EXPECT_NE(std::wstring::npos, reader.GetChannelName().find(L"payloadbin"));
    SYSTEMTIME created;
    ASSERT_TRUE(reader.GetCreationTime(created));
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    EXPECT_TRUE(TimeBetween(TimeText(created), before, now)) << TimeText(created);

    std::vector<unsigned int> kinds;
    std::vector<std::vector<unsigned char>> data;
    LogRecord record;
    while (reader.Read(record))
    {
        kinds.push_back(record.nKind);
        if (record.nKind == LogRecord::eWrite || record.nKind == LogRecord::eRead)
            data.push_back(record.data);
    }
    ASSERT_EQ(2u, data.size());
    EXPECT_EQ(block, data[0]);
    EXPECT_EQ(block, data[1]);
    EXPECT_EQ(0u, std::count(kinds.begin(), kinds.end(), LogRecord::eDamaged));
    EXPECT_EQ(LogRecord::eText, kinds.front()); // "... has been opened."
    EXPECT_EQ(LogRecord::eText, kinds.back());  // "The handle has been closed."
    EXPECT_EQ(reader.GetFileSize(), reader.GetPosition());
}

TEST(LogFileReader, SeededRandomSessionsReadBackExactly)
{
    // 12,000 records of random kinds, sizes and texts, in three sessions appended to one file,
    // with and without formatter; then the same file with bytes flipped at random places: every
    // record that no flip touched still comes back, at its own offset.
    CTempFolder folder(L"reader-random");
    const ustring path = folder / L"random.log";
    std::mt19937 random(20240307u);
    const wchar_t alphabet[] = L"abcXYZ 019.,;:-_=()[]\r\n\t\u00E4\u00DF\u20AC\u65E5";
    std::vector<Expected> all;
    std::vector<CLogFile::LPDATAFORMATTER> formatterOf;
    const CLogFile::LPDATAFORMATTER sessions[] = {&ShapeShifter, nullptr, &ShapeShifter};
    for (CLogFile::LPDATAFORMATTER formatter : sessions)
    {
        std::vector<Expected> entries;
        for (int i = 0; i < 4000; ++i)
        {
            Expected entry{static_cast<unsigned int>(random() % 5 == 0 ? LogRecord::eText
                                                                        : 1 + random() % 2),
                           random() % 2 == 0, {}, ustring()};
            if (entry.nKind == LogRecord::eText)
            {
                const std::size_t length = random() % 4 == 0 ? random() % 400 : random() % 40;
                for (std::size_t c = 0; c < length; ++c)
                    entry.text += alphabet[random() % (sizeof(alphabet) / sizeof(wchar_t) - 1)];
            }
            else
            {
                const std::size_t size = random() % 20 == 0 ? random() % 6000 : random() % 70;
                entry.data.resize(size);
                for (unsigned char& byte : entry.data)
                    byte = static_cast<unsigned char>(random());
            }
            entries.push_back(entry);
        }
        WriteSession(path, formatter, entries);
        all.insert(all.end(), entries.begin(), entries.end());
        formatterOf.insert(formatterOf.end(), entries.size(), formatter);
    }

    const std::vector<LogRecord> records = ReadAll(path);
    ASSERT_EQ(all.size(), records.size());
    std::size_t mismatches = 0;
    for (std::size_t i = 0; i < all.size(); ++i)
        if (!SameRecord(all[i], formatterOf[i], records[i]) && ++mismatches <= 5)
            ADD_FAILURE() << "record " << i << ": " << SameRecord(all[i], formatterOf[i], records[i]).message();
    EXPECT_EQ(0u, mismatches);
    ExpectTiling(records, CFile::GetLength(path));

    // Flip bytes. A flip never turns a line into a record header, so each untouched record is
    // found again where it was.
    std::string content = ReadBytes(path);
    std::set<std::size_t> flipped;
    while (flipped.size() < 60)
        flipped.insert(random() % content.size());
    for (std::size_t at : flipped)
        content[at] = static_cast<char>(content[at] ^ (1 + random() % 255));
    const ustring damagedPath = folder / L"flipped.log";
    WriteBytes(damagedPath, content);
    const std::vector<LogRecord> after = ReadAll(damagedPath);
    ExpectTiling(after, content.size());
    std::map<unsigned __int64, const LogRecord*> byOffset;
    for (const LogRecord& record : after)
        byOffset[record.nOffset] = &record;
    std::size_t untouched = 0;
    auto touched = [&](std::size_t i) {
        const auto hit = flipped.lower_bound(static_cast<std::size_t>(records[i].nOffset));
        return hit != flipped.end() && *hit < records[i].nOffset + records[i].nLength;
    };
    for (std::size_t i = 0; i < records.size(); ++i)
    {
        // A text event has no length of its own: it runs to the next record, so it takes in
        // the next record too when that one's header was flipped.
        if (touched(i) || (records[i].nKind == LogRecord::eText && i + 1 < records.size() && touched(i + 1)))
            continue;
        ++untouched;
        const auto found = byOffset.find(records[i].nOffset);
        ASSERT_NE(byOffset.end(), found) << "record " << i << " at " << records[i].nOffset;
        EXPECT_TRUE(SameRecord(all[i], formatterOf[i], *found->second)) << "record " << i;
    }
    EXPECT_GT(untouched, all.size() - 120);
    EXPECT_LT(after.size(), records.size() + 120);
}

// ---------------------------------------------------------------- file names

TEST(LogFileReader, FileNamesGiveChannelAndCreationTime)
{
    struct Case
    {
        const wchar_t* path;
        bool valid;
        const wchar_t* channel;
        WORD year, month, day, hour, minute, second, ms;
    };
    const Case cases[] = {
        {L"COM3-2024.03.07-09.05.01.123.log", true, L"COM3", 2024, 3, 7, 9, 5, 1, 123},
        {L"C:\\Logs\\_Debug\\COM3-2024.03.07-09.05.01.123.LOG", true, L"COM3", 2024, 3, 7, 9, 5, 1, 123},
        {L"/var/log/a-b-c-2000.02.29-23.59.59.999.log", true, L"a-b-c", 2000, 2, 29, 23, 59, 59, 999},
        {L"127.0.0.1@5000-2024.12.31-00.00.00.000.log", true, L"127.0.0.1@5000", 2024, 12, 31, 0, 0, 0, 0},
        {L"[fe80__1%3]@80-2024.01.01-12.00.00.001.log", true, L"[fe80__1%3]@80", 2024, 1, 1, 12, 0, 0, 1},
        {L"-2024.03.07-09.05.01.123.log", true, L"", 2024, 3, 7, 9, 5, 1, 123},
        {L"COM3-2024.3.07-09.05.01.123.log", false},
        {L"COM3-2024.13.07-09.05.01.123.log", false},
        {L"COM3-2023.02.29-09.05.01.123.log", false},
        {L"COM3-2024.03.07-24.05.01.123.log", false},
        {L"COM3-2024.03.07-09.05.01.12.log", false},
        {L"COM3-2024.03.07-09.05.01.123.txt", false},
        {L"COM3-2024.03.07-09.05.01.123", false},
        {L"COM3_2024.03.07-09.05.01.123.log", false},
        {L"2024.03.07-09.05.01.123.log", false},
        {L"", false},
        {nullptr, false},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.path ? ustring::WideCharToMultiByte(c.path, CP_UTF8) : std::string("null"));
        ustring channel = L"stale";
        SYSTEMTIME created;
        std::memset(&created, 0xFF, sizeof(created));
        EXPECT_EQ(c.valid, CLogFileReader::ParseFileName(c.path, channel, created));
        if (!c.valid)
        {
            EXPECT_EQ(L"", channel);
            EXPECT_EQ(0, created.wYear);
            continue;
        }
        EXPECT_EQ(ustring(c.channel), channel);
        const SYSTEMTIME expected = CSystemTime(c.year, c.month, c.day, c.hour, c.minute, c.second, c.ms);
        EXPECT_EQ(0, std::memcmp(&expected, &created, sizeof(created))) << TimeText(created);
    }
}

TEST(LogFileReader, TheServersFileNamesParseBack)
{
    CTempFolder folder(L"reader-names");
    CServerSetup setup(folder.Path(), eLogFileDetailNormal);
    SYSTEMTIME before, after;
    ::GetLocalTime(&before);
    ASSERT_TRUE(CLogFileServer::Ref().CreateLogFile(0x7E000001u, L"10.0.0.7@502", nullptr));
    ::GetLocalTime(&after);
    {
        CLogFileProxy proxy(0x7E000001u);
        proxy().LogReceivedData("\x01\x03", 2, true);
    }
    CLogFileServer::Ref().CloseLogFile(0x7E000001u);

    const ustring path = OnlyLogFile(folder.Path());
    ustring channel;
    SYSTEMTIME created;
    ASSERT_TRUE(CLogFileReader::ParseFileName(path, channel, created));
    EXPECT_EQ(L"10.0.0.7@502", channel);
    EXPECT_TRUE(TimeBetween(TimeText(created), before, after));
    CLogFileReader reader(path);
    EXPECT_EQ(L"10.0.0.7@502", reader.GetChannelName());
    LogRecord record;
    ASSERT_TRUE(reader.Read(record));
    EXPECT_EQ(std::vector<unsigned char>({1, 3}), record.data);
    EXPECT_FALSE(reader.Read(record));
}

// ---------------------------------------------------------------- damage

TEST(LogFileReader, ACutAnywhereCostsOnlyTheRecordItCuts)
{
    // A crash can end the file at any byte. Every record before the cut comes back whole; the
    // cut record comes back as damaged (with the intact part of its dump), or not at all when
    // the cut falls between records.
    CTempFolder folder(L"reader-cut");
    const ustring path = folder / L"whole.log";
    std::vector<Expected> entries = {
        {LogRecord::eText, true, {}, L"opened\r\nsecond line"},
        {LogRecord::eWrite, true, Pattern(71, 1), ustring()},
        {LogRecord::eRead, false, Pattern(0, 2), ustring()},
        {LogRecord::eText, true, {}, L"last"},
        {LogRecord::eRead, false, Pattern(42, 3), ustring()},
    };
    WriteSession(path, &ShapeShifter, entries);
    const std::string whole = ReadBytes(path);
    const std::vector<LogRecord> intact = ReadAll(path);
    ASSERT_EQ(entries.size(), intact.size());

    const ustring cutPath = folder / L"cut.log";
    for (std::size_t cut = 0; cut < whole.size(); ++cut)
    {
        SCOPED_TRACE(::testing::Message() << "cut at " << cut);
        WriteBytes(cutPath, whole.substr(0, cut));
        const std::vector<LogRecord> records = ReadAll(cutPath);
        ExpectTiling(records, cut);
        std::size_t whole_records = 0;
        while (whole_records < intact.size() && intact[whole_records].nOffset + intact[whole_records].nLength <= cut)
            ++whole_records;
        const bool between = whole_records == intact.size() || intact[whole_records].nOffset == cut;
        ASSERT_EQ(whole_records + (between ? 0 : 1), records.size())
            << Describe(records) << "\nintact: " << Describe(intact);
        for (std::size_t i = 0; i < whole_records; ++i)
            ASSERT_TRUE(SameRecord(entries[i], &ShapeShifter, records[i])) << i;
        if (between)
            continue;
        const LogRecord& last = records.back();
        ASSERT_EQ(LogRecord::eDamaged, last.nKind);
        EXPECT_FALSE(last.problem.empty());
        const Expected& expected = entries[whole_records];
        // The bytes saved are a prefix of the record's bytes.
        ASSERT_LE(last.data.size(), expected.data.size());
        EXPECT_TRUE(std::equal(last.data.begin(), last.data.end(), expected.data.begin()));
        if (last.bHasTime)
        {
            EXPECT_EQ(expected.nKind, last.nDeclaredKind);
            EXPECT_EQ(L"record cut off", last.problem);
        }
        else
            EXPECT_EQ(LogRecord::eDamaged, last.nDeclaredKind);
    }
}

TEST(LogFileReader, SessionsAppendedAfterACutOrAFailedWriteReadOnWhole)
{
    CTempFolder folder(L"reader-append");
    const std::vector<Expected> first = {
        {LogRecord::eText, true, {}, L"session one"},
        {LogRecord::eWrite, true, Pattern(50, 4), ustring()},
    };
    const std::vector<Expected> second = {
        {LogRecord::eRead, true, Pattern(33, 5), ustring()},
        {LogRecord::eText, true, {}, L"session two"},
    };
    const std::string one = SessionText(folder, first);
    const std::size_t lastRecord = one.find("SYNC WRITE");
    ASSERT_NE(std::string::npos, lastRecord);

    struct Case
    {
        const char* name;
        std::string tail; // what follows the intact first record
        std::vector<unsigned int> between; // kinds read between the sessions
    };
    const std::size_t headerEnd = one.find("\r\n", lastRecord) + 2;
    const Case cases[] = {
        {"cut in the header", one.substr(lastRecord, 20), {LogRecord::eDamaged}},
        {"cut after the header", one.substr(lastRecord, headerEnd - lastRecord), {LogRecord::eDamaged}},
        {"cut in a dump line", one.substr(lastRecord, headerEnd - lastRecord + 50), {LogRecord::eDamaged}},
        {"cut before the empty line", one.substr(lastRecord, one.size() - 2 - lastRecord), {LogRecord::eDamaged}},
        {"error line after the record", one.substr(lastRecord) + "Error=112, BytesToWrite=4242\r\n",
         {LogRecord::eWrite, LogRecord::eWriteError}},
        {"error line after a partial write", one.substr(lastRecord, headerEnd - lastRecord + 9) + "Error=-1, BytesToWrite=77\r\n",
         {LogRecord::eDamaged, LogRecord::eWriteError}},
        {"error line alone", "Error=39, BytesToWrite=0\r\n", {LogRecord::eWriteError}},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        const ustring path = folder / L"appended.log";
        WriteBytes(path, one.substr(0, lastRecord) + c.tail);
        WriteSession(path, nullptr, second);

        const std::vector<LogRecord> records = ReadAll(path);
        ExpectTiling(records, CFile::GetLength(path));
        ASSERT_EQ(1 + c.between.size() + second.size(), records.size()) << Describe(records) << "\n" << ReadBytes(path);
        EXPECT_TRUE(SameRecord(first[0], nullptr, records[0]));
        for (std::size_t i = 0; i < c.between.size(); ++i)
            EXPECT_EQ(c.between[i], records[1 + i].nKind) << i;
        for (std::size_t i = 0; i < second.size(); ++i)
            EXPECT_TRUE(SameRecord(second[i], nullptr, records[1 + c.between.size() + i])) << i;
        for (const LogRecord& record : records)
            if (record.nKind == LogRecord::eWriteError)
            {
                EXPECT_TRUE(record.nErrorCode == 112 || record.nErrorCode == -1 || record.nErrorCode == 39);
                EXPECT_EQ(record.nErrorCode == 112 ? 4242u : record.nErrorCode == -1 ? 77u : 0u, record.nBytesToWrite);
                EXPECT_EQ(0u, record.text.find(L"Error="));
                EXPECT_FALSE(record.bHasTime);
            }
    }
}

TEST(LogFileReader, ForeignAndAlteredLinesAreReportedAndReadingGoesOn)
{
    CTempFolder folder(L"reader-foreign");
    const std::vector<Expected> entries = {
        {LogRecord::eWrite, true, Pattern(40, 6), ustring()},
        {LogRecord::eText, true, {}, L"between"},
    };
    const std::string good = SessionText(folder, entries);
    const std::size_t second = good.find("Text Event, ");
    ASSERT_NE(std::string::npos, second);
    const std::string record0 = good.substr(0, second);
    const std::string record1 = good.substr(second);

    // The first byte, 0x2D ("-"), becomes 0x3D in its hex cell but not in the text column.
    std::string altered = record0;
    const std::size_t firstCell = altered.find("\r\n") + 3;
    ASSERT_EQ("2D ", altered.substr(firstCell, 3));
    altered[firstCell] = '3';
    std::string mismatched = record0;
    mismatched.replace(mismatched.find("(0x28)"), 6, "(0x29)");
    std::string binary("\x00\xFF\xFE garbage\r\n", 13);

    struct Case
    {
        const char* name;
        std::string content;
        std::vector<unsigned int> kinds;
        const wchar_t* damagedText; // start of the first damaged record's text
    };
    const Case cases[] = {
        {"a line of a newer writer",
         record0 + "Dropped 17 records, 2024/3/7, 09:05:01.123\r\n\r\n" + record1,
         {LogRecord::eWrite, LogRecord::eDamaged, LogRecord::eText}, L"Dropped 17 records, 2024/3/7, 09:05:01.123"},
        {"a line of a newer writer after a text event",
         record1 + "Dropped 2 records, 2024/3/7, 09:05:01.124\r\n\r\n" + record0,
         {LogRecord::eText, LogRecord::eDamaged, LogRecord::eWrite}, L"Dropped 2 records"},
        {"an unknown line behind a record", record0 + "something else\r\n" + record1,
         {LogRecord::eWrite, LogRecord::eDamaged, LogRecord::eText}, L"something else\r\n"},
        {"binary junk", binary + record0 + record1, {LogRecord::eDamaged, LogRecord::eWrite, LogRecord::eText},
         nullptr},
        {"an altered dump", altered + record1, {LogRecord::eDamaged, LogRecord::eText}, nullptr},
        {"counts that disagree", mismatched + record1, {LogRecord::eDamaged, LogRecord::eText}, L"SYNC WRITE"},
        {"a stray empty line", record0 + "\r\n" + record1, {LogRecord::eWrite, LogRecord::eDamaged, LogRecord::eText},
         L"\r\n"},
        {"a byte-order mark", "\xEF\xBB\xBF" + record0 + record1, {LogRecord::eWrite, LogRecord::eText}, nullptr},
        {"three megabytes without a line end", std::string(3u << 20, 'x') + "\r\n" + record0 + record1,
         {LogRecord::eDamaged, LogRecord::eWrite, LogRecord::eText}, L"xxxx"},
        {"nothing", "", {}, nullptr},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        const ustring path = folder / L"foreign.log";
        WriteBytes(path, c.content);
        const std::vector<LogRecord> records = ReadAll(path);
        ExpectTiling(records, c.content.size(), c.content.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0);
        std::vector<unsigned int> kinds;
        for (const LogRecord& record : records)
            kinds.push_back(record.nKind);
        EXPECT_EQ(c.kinds, kinds);
        for (const LogRecord& record : records)
        {
            if (record.nKind == LogRecord::eWrite)
            {
                EXPECT_TRUE(SameRecord(entries[0], nullptr, record));
            }
            else if (record.nKind == LogRecord::eText)
            {
                EXPECT_TRUE(SameRecord(entries[1], nullptr, record));
            }
        }
        const auto damaged = std::find_if(records.begin(), records.end(),
                                          [](const LogRecord& r) { return r.nKind == LogRecord::eDamaged; });
        if (damaged != records.end())
        {
            EXPECT_FALSE(damaged->problem.empty());
            EXPECT_LE(damaged->text.size(), CLogFileReader::kMaxDamagedText);
            if (c.damagedText)
            {
                EXPECT_EQ(0u, damaged->text.find(c.damagedText))
                    << ustring::WideCharToMultiByte(damaged->text.substr(0, 40), CP_UTF8);
            }
        }
    }
}

TEST(LogFileReader, OpenReadAndCloseReportTheirFailures)
{
    CTempFolder folder(L"reader-open");
    // A missing file throws, naming the system call and its code.
    const CWinException missing = tavrintest::CatchWinException([&] { CLogFileReader reader(folder / L"none.log"); });
    EXPECT_EQ(L"CreateFileW", missing.GetFunction());
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, missing.GetErrorCode());

    // A reader without a file reads nothing; Close is harmless at any time.
    CLogFileReader reader;
    LogRecord record;
    EXPECT_FALSE(reader.IsOpen());
    EXPECT_FALSE(reader.Read(record));
    reader.Close();

    // A file still held by its writer is read as far as it is written; a new Open starts over.
    const ustring path = folder / L"live.log";
    CLogFile log(eLogFileDetailVerbose);
    ASSERT_TRUE(log.Open(path));
    log.LogText(true, L"first");
    ASSERT_TRUE(WaitUntil([&] { return CFile::GetLength(path) > 0; }));
    reader.Open(path);
    EXPECT_TRUE(reader.IsOpen());
    ASSERT_TRUE(reader.Read(record));
    EXPECT_EQ(L"first", record.text);
    EXPECT_FALSE(reader.Read(record));
    log.LogText(true, L"second");
    log.Close();
    reader.Open(path);
    ASSERT_TRUE(reader.Read(record));
    ASSERT_TRUE(reader.Read(record));
    EXPECT_EQ(L"second", record.text);
    EXPECT_EQ(record.nOffset + record.nLength, reader.GetPosition());
    reader.Close();
    EXPECT_FALSE(reader.IsOpen());
    EXPECT_EQ(L"", reader.GetPath());
}
