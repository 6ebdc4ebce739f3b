// Exception hierarchy of the library.
//
// Every failure inside Tavrin is thrown as a descendant of CStdException. An exception records
// where it was raised (line, source file, failing function) and each concrete class knows how to
// turn its own code into text: a code string, a source (the failing subsystem's display name) and
// a message. CStdException::CExInfo snapshots that text so it can outlive the exception.
//
// Exceptions can be cloned into shared ownership and re-thrown by their dynamic type, which is how
// a worker thread hands a failure over to another thread:
//
//     boost::shared_ptr<const CStdException> failure;
//     try { ... } catch (const CStdException& e) { failure = e.Clone(); }
//     ...                       // on the other thread:
//     if (failure) failure->Throw();   // caught there as, e.g., CWinException
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/ustring.h>

#include <boost/shared_ptr.hpp>

namespace tavrin {

class CConsoleBase;

// Abstract root of every exception thrown by the library.
class TAVRIN_API CStdException
{
public:
    // Plain-text snapshot of an exception, for display and logging.
    class TAVRIN_API CExInfo
    {
    public:
        CExInfo();
        explicit CExInfo(const CStdException& e);
        CExInfo(const CExInfo&) = default;
        CExInfo(CExInfo&&) = default;
        CExInfo& operator=(const CExInfo&) = default;
        CExInfo& operator=(CExInfo&&) = default;
        ~CExInfo() = default;

        // Line 0 and the five descriptive texts emptied.
        void Clear();

        unsigned int GetLine() const { return m_nLine; }
        const ustring& GetFileName() const { return m_strFileName; }
        const ustring& GetFunction() const { return m_strFunction; }
        const ustring& GetErrorCodeStr() const { return m_strErrorCode; }
        const ustring& GetSource() const { return m_strSource; }
        const ustring& GetErrorMessage() const { return m_strErrorMessage; }

    private:
        unsigned int m_nLine;
        ustring m_strFileName;
        ustring m_strFunction;
        ustring m_strErrorCode;
        ustring m_strSource;
        ustring m_strErrorMessage;
        ustring m_strReserved; // kept for layout compatibility; nothing fills it
    };

    // Null pointers leave the texts empty.
    CStdException(unsigned int line, const wchar_t* fileName, const wchar_t* function);
    CStdException(const CStdException& other);
    CStdException& operator=(const CStdException& other);
    virtual ~CStdException();

    // Text of the error code, e.g. "5" or "0x80070005".
    virtual ustring GetErrorCodeStr() const = 0;
    // Heap copy of the most-derived object, in shared ownership.
    virtual boost::shared_ptr<const CStdException> Clone() const = 0;
    // Throws a copy of this object with the most-derived class as its static type.
    [[noreturn]] virtual void Throw() const = 0;
    // Display name of the failing subsystem ("Win API", "CfgMgr", ...); false when it could not
    // be loaded.
    virtual bool GetSource(ustring& out) const = 0;
    // Message for the error code; false when only a fall-back text could be given.
    virtual bool GetErrorMessage(ustring& out) const = 0;
    // Shows the error dialog for this exception; returns the pressed button's identifier.
    virtual int ReportError(HWND parent = nullptr, unsigned int type = MB_OK | MB_ICONERROR,
                            const wchar_t* caption = nullptr, unsigned int helpId = 0) const;
    // Writes the "< C++ EXCEPTION LOG >" block to the console; the second file name and line
    // (when given) tell where the exception was caught.
    virtual void ReportErrorConsole(CConsoleBase& console, const wchar_t* fileName2 = nullptr,
                                    unsigned int line2 = 0) const;

    unsigned int GetLine() const { return m_nLine; }
    const ustring& GetFileName() const { return m_strFileName; }
    // The failing Windows function, or the qualified name of the raising library member.
    const ustring& GetFunction() const { return m_strFunction; }

    // Application name used by the reporters. Set once at start-up, before threads report.
    static void SetAppName(const wchar_t* name);
    // The name set with SetAppName, else the executable's file name without folder and extension.
    static ustring GetAppName();
    // Name of a structured-exception code ("EXCEPTION_ACCESS_VIOLATION", ...) into the buffer.
    static bool SEHCodeToString(unsigned int code, wchar_t* buffer, unsigned int bufferLength);

    static int ReportError(const CExInfo& info, HWND parent, unsigned int type,
                           const wchar_t* caption, unsigned int helpId);
    static void ReportErrorConsole(CConsoleBase& console, const CExInfo& info,
                                   const wchar_t* fileName2, unsigned int line2);

protected:
    unsigned int m_nLine;
    ustring m_strFileName;
    ustring m_strFunction;

    static ustring m_strAppName;
};

// A failing Windows call: a Win32 error code (GetLastError, WSAGetLastError) or an HRESULT.
class TAVRIN_API CWinException : public CStdException
{
public:
    CWinException(unsigned int line, const wchar_t* fileName, const wchar_t* function, long code);
    // Copy of `other` with the code replaced.
    CWinException(const CWinException& other, long code);
    CWinException(const CWinException& other);
    CWinException& operator=(const CWinException& other);
    ~CWinException() override;

    // A negative code (an HRESULT) as "0x%X", any other as "%d".
    ustring GetErrorCodeStr() const override;
    boost::shared_ptr<const CStdException> Clone() const override;
    [[noreturn]] void Throw() const override;
    // String resource 101, "Win API".
    bool GetSource(ustring& out) const override;
    // The system's text, else the text of DATA\Win32Errors.txt beside the library, else
    // "Unknown error: %d (0x%X)." (false).
    bool GetErrorMessage(ustring& out) const override;

    long GetErrorCode() const { return m_nErrorCode; }

protected:
    long m_nErrorCode;
};

// An error reply of a connected device, e.g. "{2,,wrong command}".
class TAVRIN_API CCommException : public CStdException
{
public:
    // Null pointers leave the fields empty.
    CCommException(unsigned int line, const wchar_t* fileName, const wchar_t* function,
                   const wchar_t* rawCode, const wchar_t* source);
    CCommException(const CCommException& other);
    CCommException& operator=(const CCommException& other);
    ~CCommException() override;

    // The raw code without braces and leading number: "{2,,wrong command}" -> "wrong command".
    ustring GetErrorCodeStr() const override;
    boost::shared_ptr<const CStdException> Clone() const override;
    [[noreturn]] void Throw() const override;
    // The source given to the constructor; true.
    bool GetSource(ustring& out) const override;
    // The message of the known reply, else the raw code itself; true.
    bool GetErrorMessage(ustring& out) const override;
    // The raw code as given.
    virtual ustring GetErrorCodeRaw() const;

    // One row of the known-reply table.
    struct INT2UI
    {
        const wchar_t* pszRawCode;
        const wchar_t* pszMessage;
    };
    static const unsigned int m_nINT2UICount = 37;

protected:
    ustring m_strRawCode;
    ustring m_strSource;

    static const INT2UI m_aINT2UI[m_nINT2UICount];
};

// A failing configuration-manager call (a CONFIGRET value).
class TAVRIN_API CCfgMgrException : public CStdException
{
public:
    CCfgMgrException(unsigned int line, const wchar_t* fileName, const wchar_t* function,
                     unsigned long code);
    CCfgMgrException(const CCfgMgrException& other);
    CCfgMgrException& operator=(const CCfgMgrException& other);
    ~CCfgMgrException() override;

    // "0x%X".
    ustring GetErrorCodeStr() const override;
    boost::shared_ptr<const CStdException> Clone() const override;
    [[noreturn]] void Throw() const override;
    // String resource 117, "CfgMgr".
    bool GetSource(ustring& out) const override;
    // The CONFIGRET name ("CR_INVALID_DATA"), else "CONFIGRET = 0x%X" (false).
    bool GetErrorMessage(ustring& out) const override;
    virtual unsigned long GetErrorCode() const;

protected:
    unsigned long m_nErrorCode;
};

// A misuse of the matrix library.
class TAVRIN_API CMatrixException : public CStdException
{
public:
    enum EException
    {
        Success = 0,                     // "Success"
        InvalidMatrixDimension = 1,      // "Invalid Matrix Dimension"
        IncompatibleMatrixDimension = 2, // "Incompatible Matrix Dimension"
        InvalidIndex = 3,                // "Invalid Index"
        DivisionByZero = 4               // "Division by Zero"
    };

    CMatrixException(unsigned int line, const wchar_t* fileName, const wchar_t* function,
                     EException kind);
    CMatrixException(const CMatrixException& other);
    CMatrixException& operator=(const CMatrixException& other);
    ~CMatrixException() override;

    // The kind as "%d".
    ustring GetErrorCodeStr() const override;
    boost::shared_ptr<const CStdException> Clone() const override;
    [[noreturn]] void Throw() const override;
    // String resource 104, "Matrix Library".
    bool GetSource(ustring& out) const override;
    // The kind's text from the library's string table (105, 113 to 116).
    bool GetErrorMessage(ustring& out) const override;

    EException GetErrorCode() const { return m_eException; }

protected:
    EException m_eException;
};

namespace detail {

// Text of a Win32 error code from DATA\Win32Errors.txt beside the library module. The file is
// read once per process; false when the file is missing, lacks its byte-order mark or has no
// line for the code.
TAVRIN_API bool LookupWin32ErrorText(long code, ustring& out);
// The same lookup in the given error file, read afresh on every call. Internal: exported so the
// file format can be exercised with files of one's own.
TAVRIN_API bool LookupWin32ErrorTextInFile(const wchar_t* path, long code, ustring& out);
// The text block that CStdException::ReportErrorConsole writes, "< C++ EXCEPTION LOG >" header
// included. Internal: exported so the layout can be checked without a console.
TAVRIN_API ustring ComposeExceptionLog(const CStdException::CExInfo& info,
                                       const wchar_t* fileName2, unsigned int line2);

} // namespace detail

} // namespace tavrin
