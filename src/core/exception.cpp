// The exception classes: construction, cloning, code texts and messages.
#include <tavrin/core/exception.h>

#include <cwchar>
#include <cstdlib>

namespace tavrin {

namespace {

// The library's string table entries used by the exceptions.
enum : unsigned int
{
    IDS_SOURCE_WINAPI = 101,
    IDS_SOURCE_MATRIX = 104,
    IDS_MATRIX_SUCCESS = 105,
    IDS_MATRIX_FIRST_ERROR = 113, // 113..116 follow the matrix error kinds 1..4
    IDS_SOURCE_CFGMGR = 117
};

const wchar_t* const g_aConfigRetNames[] = {
    L"CR_SUCCESS", L"CR_DEFAULT", L"CR_OUT_OF_MEMORY", L"CR_INVALID_POINTER",
    L"CR_INVALID_FLAG", L"CR_INVALID_DEVNODE", L"CR_INVALID_RES_DES", L"CR_INVALID_LOG_CONF",
    L"CR_INVALID_ARBITRATOR", L"CR_INVALID_NODELIST", L"CR_DEVNODE_HAS_REQS",
    L"CR_INVALID_RESOURCEID", L"CR_DLVXD_NOT_FOUND", L"CR_NO_SUCH_DEVNODE",
    L"CR_NO_MORE_LOG_CONF", L"CR_NO_MORE_RES_DES", L"CR_ALREADY_SUCH_DEVNODE",
    L"CR_INVALID_RANGE_LIST", L"CR_INVALID_RANGE", L"CR_FAILURE", L"CR_NO_SUCH_LOGICAL_DEV",
    L"CR_CREATE_BLOCKED", L"CR_NOT_SYSTEM_VM", L"CR_REMOVE_VETOED", L"CR_APM_VETOED",
    L"CR_INVALID_LOAD_TYPE", L"CR_BUFFER_SMALL", L"CR_NO_ARBITRATOR", L"CR_NO_REGISTRY_HANDLE",
    L"CR_REGISTRY_ERROR", L"CR_INVALID_DEVICE_ID", L"CR_INVALID_DATA", L"CR_INVALID_API",
    L"CR_DEVLOADER_NOT_READY", L"CR_NEED_RESTART", L"CR_NO_MORE_HW_PROFILES",
    L"CR_DEVICE_NOT_THERE", L"CR_NO_SUCH_VALUE", L"CR_WRONG_TYPE", L"CR_INVALID_PRIORITY",
    L"CR_NOT_DISABLEABLE", L"CR_FREE_RESOURCES", L"CR_QUERY_VETOED", L"CR_CANT_SHARE_IRQ",
    L"CR_NO_DEPENDENT", L"CR_SAME_RESOURCES", L"CR_NO_SUCH_REGISTRY_KEY",
    L"CR_INVALID_MACHINENAME", L"CR_REMOTE_COMM_FAILURE", L"CR_MACHINE_UNAVAILABLE",
    L"CR_NO_CM_SERVICES", L"CR_ACCESS_DENIED", L"CR_CALL_NOT_IMPLEMENTED",
    L"CR_INVALID_PROPERTY", L"CR_DEVICE_INTERFACE_ACTIVE", L"CR_NO_SUCH_DEVICE_INTERFACE",
    L"CR_INVALID_REFERENCE_STRING", L"CR_INVALID_CONFLICT_LIST", L"CR_INVALID_INDEX",
    L"CR_INVALID_STRUCTURE_SIZE"};

struct SEHNAME
{
    unsigned int nCode;
    const wchar_t* pszName;
};

const SEHNAME g_aSEHNames[] = {
    {0x80000001u, L"EXCEPTION_GUARD_PAGE"},
    {0x80000002u, L"EXCEPTION_DATATYPE_MISALIGNMENT"},
    {0x80000003u, L"EXCEPTION_BREAKPOINT"},
    {0x80000004u, L"EXCEPTION_SINGLE_STEP"},
    {0xC0000005u, L"EXCEPTION_ACCESS_VIOLATION"},
    {0xC0000006u, L"EXCEPTION_IN_PAGE_ERROR"},
    {0xC0000008u, L"EXCEPTION_INVALID_HANDLE"},
    {0xC000001Du, L"EXCEPTION_ILLEGAL_INSTRUCTION"},
    {0xC0000025u, L"EXCEPTION_NONCONTINUABLE_EXCEPTION"},
    {0xC0000026u, L"EXCEPTION_INVALID_DISPOSITION"},
    {0xC000008Cu, L"EXCEPTION_ARRAY_BOUNDS_EXCEEDED"},
    {0xC000008Du, L"EXCEPTION_FLT_DENORMAL_OPERAND"},
    {0xC000008Eu, L"EXCEPTION_FLT_DIVIDE_BY_ZERO"},
    {0xC000008Fu, L"EXCEPTION_FLT_INEXACT_RESULT"},
    {0xC0000090u, L"EXCEPTION_FLT_INVALID_OPERATION"},
    {0xC0000091u, L"EXCEPTION_FLT_OVERFLOW"},
    {0xC0000092u, L"EXCEPTION_FLT_STACK_CHECK"},
    {0xC0000093u, L"EXCEPTION_FLT_UNDERFLOW"},
    {0xC0000094u, L"EXCEPTION_INT_DIVIDE_BY_ZERO"},
    {0xC0000095u, L"EXCEPTION_INT_OVERFLOW"},
    {0xC0000096u, L"EXCEPTION_PRIV_INSTRUCTION"},
    {0xC00000FDu, L"EXCEPTION_STACK_OVERFLOW"},
};

// The code the C++ runtime raises for a thrown C++ exception.
const unsigned int CPP_EXCEPTION_CODE = 0xE06D7363u;

// Copies a terminated text into a caller's buffer; false (and an emptied buffer when there is
// room for the terminator) when it does not fit. Unlike wcscpy_s this never reaches the CRT's
// invalid-parameter handler, which may end the process.
bool CopyToBuffer(const wchar_t* text, wchar_t* buffer, unsigned int bufferLength)
{
    if (buffer == nullptr || bufferLength == 0)
        return false;
    const size_t length = std::wcslen(text);
    if (length >= bufferLength)
    {
        buffer[0] = L'\0';
        return false;
    }
    std::wmemcpy(buffer, text, length + 1);
    return true;
}

} // namespace

// ------------------------------------------------------------------------------------------------
// CStdException::CExInfo

CStdException::CExInfo::CExInfo() : m_nLine(0) {}

CStdException::CExInfo::CExInfo(const CStdException& e)
    : m_nLine(e.GetLine()),
      m_strFileName(e.GetFileName()),
      m_strFunction(e.GetFunction()),
      m_strErrorCode(e.GetErrorCodeStr())
{
    // The fall-back texts are worth keeping, so the results are not checked.
    e.GetSource(m_strSource);
    e.GetErrorMessage(m_strErrorMessage);
}

void CStdException::CExInfo::Clear()
{
    m_nLine = 0;
    m_strFileName.clear();
    m_strFunction.clear();
    m_strErrorCode.clear();
    m_strSource.clear();
    m_strErrorMessage.clear();
}

// ------------------------------------------------------------------------------------------------
// CStdException

ustring CStdException::m_strAppName;

CStdException::CStdException(unsigned int line, const wchar_t* fileName, const wchar_t* function)
    : m_nLine(line)
{
    m_strFileName = fileName;
    m_strFunction = function;
}

CStdException::CStdException(const CStdException& other) = default;
CStdException& CStdException::operator=(const CStdException& other) = default;
CStdException::~CStdException() = default;

int CStdException::ReportError(HWND parent, unsigned int type, const wchar_t* caption,
                               unsigned int helpId) const
{
    return ReportError(CExInfo(*this), parent, type, caption, helpId);
}

void CStdException::ReportErrorConsole(CConsoleBase& console, const wchar_t* fileName2,
                                       unsigned int line2) const
{
    ReportErrorConsole(console, CExInfo(*this), fileName2, line2);
}

void CStdException::SetAppName(const wchar_t* name)
{
    m_strAppName = name;
}

ustring CStdException::GetAppName()
{
    if (!m_strAppName.empty())
        return m_strAppName;

    wchar_t path[MAX_PATH + 1] = {};
    const DWORD length = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    if (length == 0)
        return ustring();
    path[length < MAX_PATH ? length : MAX_PATH] = L'\0';

    wchar_t name[_MAX_FNAME] = {};
    if (_wsplitpath_s(path, nullptr, 0, nullptr, 0, name, _MAX_FNAME, nullptr, 0) != 0)
        return ustring();
    ustring result;
    result = name;
    return result;
}

bool CStdException::SEHCodeToString(unsigned int code, wchar_t* buffer, unsigned int bufferLength)
{
    for (const SEHNAME& entry : g_aSEHNames)
    {
        if (entry.nCode == code)
            return CopyToBuffer(entry.pszName, buffer, bufferLength);
    }

    wchar_t unknown[64] = {};
    const int written = std::swprintf(unknown, 64, L"EXCEPTION_UNKNOWN_0x%X", code);
    if (written < 0 || !CopyToBuffer(unknown, buffer, bufferLength))
        return false;
    // A C++ exception is not a fault, so its (unnamed) code still counts as understood.
    return code == CPP_EXCEPTION_CODE;
}

// ------------------------------------------------------------------------------------------------
// CWinException

CWinException::CWinException(unsigned int line, const wchar_t* fileName, const wchar_t* function,
                             long code)
    : CStdException(line, fileName, function), m_nErrorCode(code)
{
}

CWinException::CWinException(const CWinException& other, long code)
    : CStdException(other), m_nErrorCode(code)
{
}

CWinException::CWinException(const CWinException& other) = default;
CWinException& CWinException::operator=(const CWinException& other) = default;
CWinException::~CWinException() = default;

ustring CWinException::GetErrorCodeStr() const
{
    if (m_nErrorCode < 0)
        return ustring::sprintf_stc(L"0x%X", static_cast<unsigned int>(m_nErrorCode));
    return ustring::sprintf_stc(L"%d", static_cast<int>(m_nErrorCode));
}

boost::shared_ptr<const CStdException> CWinException::Clone() const
{
    return boost::shared_ptr<const CStdException>(new CWinException(*this));
}

void CWinException::Throw() const
{
    throw CWinException(*this);
}

bool CWinException::GetSource(ustring& out) const
{
    return out.xload(TAVRIN_MODULE, IDS_SOURCE_WINAPI);
}

bool CWinException::GetErrorMessage(ustring& out) const
{
    const DWORD code = static_cast<DWORD>(m_nErrorCode);
    wchar_t* text = nullptr;
    const DWORD length = ::FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
        reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    if (length != 0 && text != nullptr)
    {
        out = ustring(text, length);
        ::LocalFree(text);
        return true;
    }
    if (text != nullptr)
        ::LocalFree(text);

    if (detail::LookupWin32ErrorText(m_nErrorCode, out))
        return true;

    out.sprintf(L"Unknown error: %d (0x%X).", static_cast<int>(m_nErrorCode),
                static_cast<unsigned int>(m_nErrorCode));
    return false;
}

// ------------------------------------------------------------------------------------------------
// CCommException

const CCommException::INT2UI CCommException::m_aINT2UI[CCommException::m_nINT2UICount] = {
    {L"{2,,wrong command}", L"Wrong command"},
    {L"{2,,1st parameter missed}", L"1st parameter missed"},
    {L"{2,,wrong 1st parameter}", L"Wrong 1st parameter"},
    {L"{2,,2nd parameter missed}", L"2nd parameter missed"},
    {L"{2,,wrong 2nd parameter}", L"Wrong 2nd parameter"},
    {L"{2,,value missed}", L"Value missed"},
    {L"{2,,value out of range}", L"Value out of range"},
    {L"{2,,wrong file name}", L"Wrong file name"},
    {L"{2,,file open error}", L"File open error"},
    {L"{2,,file system not mounted}", L"File system not mounted"},
    {L"{2,,file read error}", L"File read error"},
    {L"{2,,file already exists}", L"File already exists"},
    {L"{2,,can't create file}", L"Can't create file"},
    {L"{2,,can't remove file}", L"Can't remove file"},
    {L"{2,,broken file}", L"Broken file"},
    {L"{2,,incompatible file version}", L"Incompatible file version"},
    {L"{2,,file write error}", L"File write error"},
    {L"{2,,data transfer open}", L"Data transfer open"},
    {L"{2,,data transfer error}", L"Data transfer error"},
    {L"{2,,wrong option name}", L"Wrong option name"},
    {L"{2,,bad option date}", L"Bad option date"},
    {L"{2,,bad option value}", L"Bad option value"},
    {L"{2,,option disabled}", L"Option disabled"},
    {L"{2,,terminated by user}", L"Terminated by user"},
    {L"{2,,wrong receiver id}", L"Wrong receiver id"},
    {L"{2,,access denied}", L"Access denied"},
    {L"{2,,operation in progress}", L"Operation in progress"},
    {L"{2,,no file system device}", L"No file system device"},
    {L"{2,,dup loop}", L"Dup loop"},
    {L"{2,,not supported}", L"Not supported"},
    {L"{2,,device is not accessible}", L"Device is not accessible"},
    {L"{2,,wrong hardware version}", L"Wrong hardware version"},
    // A second copy of row 15 that the first one shadows; kept so the row numbers stay stable.
    {L"{2,,incompatible file version}", L"Incompatible file version"},
    {L"{2,,can't lock}", L"Can't lock"},
    {L"{2,,memory card is busy}", L"Memory card is busy"},
    {L"{2,,data transfer delay}", L"Data transfer delay"},
    {L"{22,Unable to retrieve sourcetable}", L"Unable to retrieve sourcetable"},
};

CCommException::CCommException(unsigned int line, const wchar_t* fileName,
                               const wchar_t* function, const wchar_t* rawCode,
                               const wchar_t* source)
    : CStdException(line, fileName, function)
{
    m_strRawCode = rawCode;
    m_strSource = source;
}

CCommException::CCommException(const CCommException& other) = default;
CCommException& CCommException::operator=(const CCommException& other) = default;
CCommException::~CCommException() = default;

ustring CCommException::GetErrorCodeStr() const
{
    ustring code(m_strRawCode);
    code.trim(L' ');
    code.trim_left(L'{');
    size_t digits = 0;
    while (digits < code.size() && code[digits] >= L'0' && code[digits] <= L'9')
        ++digits;
    code.erase(0, digits);
    code.trim_left(L',');
    code.trim_right(L'}');
    return code;
}

boost::shared_ptr<const CStdException> CCommException::Clone() const
{
    return boost::shared_ptr<const CStdException>(new CCommException(*this));
}

void CCommException::Throw() const
{
    throw CCommException(*this);
}

bool CCommException::GetSource(ustring& out) const
{
    out = m_strSource;
    return true;
}

bool CCommException::GetErrorMessage(ustring& out) const
{
    for (const INT2UI& row : m_aINT2UI)
    {
        if (m_strRawCode.std::wstring::compare(row.pszRawCode) == 0)
        {
            out = row.pszMessage;
            return true;
        }
    }
    out = m_strRawCode;
    return true;
}

ustring CCommException::GetErrorCodeRaw() const
{
    return m_strRawCode;
}

// ------------------------------------------------------------------------------------------------
// CCfgMgrException

CCfgMgrException::CCfgMgrException(unsigned int line, const wchar_t* fileName,
                                   const wchar_t* function, unsigned long code)
    : CStdException(line, fileName, function), m_nErrorCode(code)
{
}

CCfgMgrException::CCfgMgrException(const CCfgMgrException& other) = default;
CCfgMgrException& CCfgMgrException::operator=(const CCfgMgrException& other) = default;
CCfgMgrException::~CCfgMgrException() = default;

ustring CCfgMgrException::GetErrorCodeStr() const
{
    return ustring::sprintf_stc(L"0x%X", static_cast<unsigned int>(m_nErrorCode));
}

boost::shared_ptr<const CStdException> CCfgMgrException::Clone() const
{
    return boost::shared_ptr<const CStdException>(new CCfgMgrException(*this));
}

void CCfgMgrException::Throw() const
{
    throw CCfgMgrException(*this);
}

bool CCfgMgrException::GetSource(ustring& out) const
{
    return out.xload(TAVRIN_MODULE, IDS_SOURCE_CFGMGR);
}

bool CCfgMgrException::GetErrorMessage(ustring& out) const
{
    const unsigned long count = sizeof(g_aConfigRetNames) / sizeof(g_aConfigRetNames[0]);
    if (m_nErrorCode < count)
    {
        out = g_aConfigRetNames[m_nErrorCode];
        return true;
    }
    out.sprintf(L"CONFIGRET = 0x%X", static_cast<unsigned int>(m_nErrorCode));
    return false;
}

unsigned long CCfgMgrException::GetErrorCode() const
{
    return m_nErrorCode;
}

// ------------------------------------------------------------------------------------------------
// CMatrixException

CMatrixException::CMatrixException(unsigned int line, const wchar_t* fileName,
                                   const wchar_t* function, EException kind)
    : CStdException(line, fileName, function), m_eException(kind)
{
}

CMatrixException::CMatrixException(const CMatrixException& other) = default;
CMatrixException& CMatrixException::operator=(const CMatrixException& other) = default;
CMatrixException::~CMatrixException() = default;

ustring CMatrixException::GetErrorCodeStr() const
{
    return ustring::sprintf_stc(L"%d", static_cast<int>(m_eException));
}

boost::shared_ptr<const CStdException> CMatrixException::Clone() const
{
    return boost::shared_ptr<const CStdException>(new CMatrixException(*this));
}

void CMatrixException::Throw() const
{
    throw CMatrixException(*this);
}

bool CMatrixException::GetSource(ustring& out) const
{
    return out.xload(TAVRIN_MODULE, IDS_SOURCE_MATRIX);
}

bool CMatrixException::GetErrorMessage(ustring& out) const
{
    unsigned int id = 0;
    if (m_eException == Success)
        id = IDS_MATRIX_SUCCESS;
    else if (m_eException >= InvalidMatrixDimension && m_eException <= DivisionByZero)
        id = IDS_MATRIX_FIRST_ERROR + static_cast<unsigned int>(m_eException) - 1;

    if (id != 0 && out.xload(TAVRIN_MODULE, id))
        return true;
    // A kind outside the table (or a missing string table) still yields a readable text.
    out.sprintf(L"Matrix error %d", static_cast<int>(m_eException));
    return false;
}

} // namespace tavrin
