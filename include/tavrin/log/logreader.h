// Reading data log files back.
//
// CLogFileReader takes a data log file apart record by record, in file order, and gives each
// record's kind, its local time stamp, the exact bytes (rebuilt from the hexadecimal dump), the
// text of a text event and the formatter's text above a dump:
//
//     CLogFileReader reader(L"C:\\Logs\\COM3-2024.03.07-09.05.01.123.log");
//     CLogFileReader::Record record;
//     while (reader.Read(record))
//     {
//         if (record.nKind == CLogFileReader::Record::eRead)
//             Consume(record.data);
//         else if (record.nKind == CLogFileReader::Record::eDamaged)
//             Warn(record.nLine, record.problem);
//     }
//
// It streams: the file is read in blocks, and memory is bounded by the largest record, not by the
// size of the file. It is made for files as they are found after a session, not only as they
// ought to be: files appended to by several sessions, a worker's "Error=..." line after a failed
// write, a last record cut off by a crash, lines that it does not know. Damage never throws and
// never stops the reading; it comes back as a record of kind eDamaged, and the next record is
// found again where one starts (also in the middle of a line, where a later session appended to a
// record that a crash had cut off). A line that follows an empty line, begins with a capital
// letter and ends with the writer's time stamp (", 2024/3/7, 09:05:01.123") is taken for a record
// of a kind that a later writer added: it comes back as damaged, "unknown record", with its time
// and text.
//
// Limits of the text format, which has no escaping: a text event or a formatter's text that itself
// holds a line laid out exactly like a record header is read as two records; lines that belong to
// no record but follow a text event are read as part of its text; a formatter's text for a record
// of no bytes ends at its first empty line.
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/file.h>
#include <tavrin/core/ustring.h>

#include <string>
#include <vector>

namespace tavrin {

class TAVRIN_API CLogFileReader
{
public:
    struct TAVRIN_API Record
    {
        enum EKind : unsigned int
        {
            eText = 0,       // text event
            eWrite = 1,      // data sent
            eRead = 2,       // data received
            eWriteError = 3, // the worker's "Error=<code>, BytesToWrite=<n>" line: a write failed,
                             // and the session logged nothing after it
            eDamaged = 4     // text that is no complete record: a record cut off or altered, or a
                             // line of a kind this reader does not know
        };

        unsigned int nKind;
        // How the operation completed; text events are always synchronous.
        bool bSynchronous;
        // Whether `time` holds the record's time stamp: always for text events and data records;
        // for a damaged record only when its header line was intact.
        bool bHasTime;
        // Local time of the record as the writer took it (wDayOfWeek filled in).
        SYSTEMTIME time;
        // The bytes of a data record. For a damaged data record, the bytes of the dump lines
        // that were intact, in order, up to the first one that was not.
        std::vector<unsigned char> data;
        // The text of a text event, without the line end that closes it. For an error line and
        // for damaged text: the text as found in the file (of damaged text at most the first
        // kMaxDamagedText characters).
        ustring text;
        // The formatter's text above a data record's dump, exactly as the formatter returned it
        // (with its own line ends); empty when the file has no formatter.
        ustring formatted;
        // eDamaged: what is wrong, in English: "record cut off", "dump does not match the
        // header", "record too long" (beyond what a process of this width can hold), "no record
        // header" (lines that belong to no record), "unknown record".
        ustring problem;
        // eDamaged: the kind that its header names, or eDamaged when it had no header.
        unsigned int nDeclaredKind;
        // The byte count that a data record's header states.
        unsigned int nDeclaredSize;
        // eWriteError: the error code and the size of the record that could not be written.
        long nErrorCode;
        unsigned __int64 nBytesToWrite;
        // Where the record lies in the file: offset and length in bytes, and the 1-based number
        // of its first line.
        unsigned __int64 nOffset;
        unsigned __int64 nLength;
        unsigned __int64 nLine;

        Record();
        // Back to the state of a new record, keeping the buffers' capacity.
        void Clear();
    };

    // Damaged text keeps at most this many characters in Record::text.
    static const unsigned int kMaxDamagedText = 4096;

    // A reader with no file.
    CLogFileReader();
    // Opens the file (see Open).
    explicit CLogFileReader(const wchar_t* path);
    CLogFileReader(const CLogFileReader&) = delete;
    CLogFileReader& operator=(const CLogFileReader&) = delete;
    ~CLogFileReader();

    // Opens a data log file for reading from its start; a file already open is closed first.
    // Another process may go on writing the file. The channel name and the creation time are
    // taken from the file name (see ParseFileName). Throws CWinException("CreateFileW") when the
    // file cannot be opened.
    void Open(const wchar_t* path);
    // Closes the file; never throws.
    void Close();
    bool IsOpen() const;

    // The next record into `record`; false at the end of the file (`record` is then cleared).
    // Damage in the file never throws; a failing read of the file throws
    // CWinException("ReadFile").
    bool Read(Record& record);

    // The path given to Open.
    const ustring& GetPath() const { return m_strPath; }
    // The channel name and creation time of the file name; empty and false when the name does not
    // follow the pattern.
    const ustring& GetChannelName() const { return m_strChannel; }
    bool GetCreationTime(SYSTEMTIME& created) const;
    // Size of the file when it was opened, and the bytes taken apart so far.
    unsigned __int64 GetFileSize() const { return m_nFileSize; }
    unsigned __int64 GetPosition() const { return m_nOffset; }

    // Splits the name of a data log file, "<channel>-YYYY.MM.DD-hh.mm.ss.mmm.log" (with or without
    // a folder; ".log" in any case), into the channel name and the local time at which the file
    // was created. False, with `channel` empty and `created` zeroed, for any other name.
    static bool ParseFileName(const wchar_t* path, ustring& channel, SYSTEMTIME& created);

private:
    // One line of the file: its text with its line end, valid until the next call.
    struct Line
    {
        const char* pText;
        std::size_t nLength;
        // Whether the line begins at the start of a line of the file (false for the rest of a
        // line too long to be handed out whole).
        bool bStart;
    };

    // The next line, or false at the end of the file.
    bool NextLine(Line& line);
    // Marks the line handed out last as consumed.
    void Consume(const Line& line);
    // Makes `text` the next text to be read again (it was taken from just before the current
    // position).
    void PushBack(const std::string& text);
    // Reads more of the file behind what is buffered; false at its end.
    bool Fill();

    // The body of a text event or data record whose header filled `record`.
    void ReadRecord(unsigned int size, Record& record);
    // A run of lines that belong to no record, up to the next line that starts one.
    void ReadDamagedRun(Record& record);
    // Collects lines up to the next line that starts a record, an error line or the end of the
    // file, at most `limit` bytes of them (the rest is skipped). True when everything fitted.
    // The record's own header line has been consumed.
    bool CollectBody(std::string& body, std::size_t limit);

    CFile m_File;
    ustring m_strPath;
    ustring m_strChannel;
    SYSTEMTIME m_Created;
    bool m_bHasCreated;
    unsigned __int64 m_nFileSize;

    // Bytes read from the file and not yet taken apart: m_Buffer[m_nBegin, m_nEnd).
    std::vector<char> m_Buffer;
    std::size_t m_nBegin;
    std::size_t m_nEnd;
    bool m_bEndOfFile;
    // Whether the next byte of the buffer begins a line of the file, and whether the line before
    // it was empty (where records begin).
    bool m_bAtLineStart;
    bool m_bAfterEmptyLine;
    // File offset and 1-based line number of m_Buffer[m_nBegin].
    unsigned __int64 m_nOffset;
    unsigned __int64 m_nLine;
    // The file's first bytes still to be checked for a UTF-8 byte-order mark.
    bool m_bCheckBom;

    std::string m_Body;
};

} // namespace tavrin
