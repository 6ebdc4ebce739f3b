// Run-time binding of optional system functions.
#include <tavrin/core/library.h>

#include <utility>

namespace tavrin {

CLibrary::CLibrary() : m_hModule(nullptr)
{
}

CLibrary::CLibrary(const wchar_t* name) : m_hModule(nullptr)
{
    Load(name);
}

CLibrary::CLibrary(const CLibrary& other) : m_hModule(nullptr)
{
    if (other.IsLoaded())
        Load(other.m_strName.c_str());
}

CLibrary::CLibrary(CLibrary&& other) noexcept : m_strName(std::move(other.m_strName)), m_hModule(other.m_hModule)
{
    other.m_hModule = nullptr;
}

CLibrary& CLibrary::operator=(const CLibrary& other)
{
    if (this != &other)
    {
        if (other.IsLoaded())
            Load(other.m_strName.c_str());
        else
            Free();
    }
    return *this;
}

CLibrary& CLibrary::operator=(CLibrary&& other) noexcept
{
    if (this != &other)
    {
        Free();
        m_strName = std::move(other.m_strName);
        m_hModule = other.m_hModule;
        other.m_hModule = nullptr;
    }
    return *this;
}

CLibrary::~CLibrary()
{
    Free();
}

bool CLibrary::Load(const wchar_t* name)
{
    // Load first: reloading the module already held must not drop its last reference in between.
    HMODULE module = name ? ::LoadLibraryW(name) : nullptr;
    Free();
    m_hModule = module;
    if (module)
        m_strName = name;
    return module != nullptr;
}

void CLibrary::Free()
{
    if (m_hModule)
        ::FreeLibrary(m_hModule);
    m_hModule = nullptr;
    m_strName.clear();
}

FARPROC CLibrary::GetProcAddress(const char* exportName) const
{
    if (!m_hModule || !exportName)
        return nullptr;
    return ::GetProcAddress(m_hModule, exportName);
}

CKernel32::CKernel32() : CLibrary(L"kernel32.dll"), m_pfnGetTickCount64(nullptr)
{
    Bind();
}

CKernel32::CKernel32(const CKernel32& other) : CLibrary(other), m_pfnGetTickCount64(nullptr)
{
    Bind();
}

CKernel32& CKernel32::operator=(const CKernel32& other)
{
    CLibrary::operator=(other);
    Bind();
    return *this;
}

CKernel32::~CKernel32() = default;

void CKernel32::Bind()
{
    CLibrary::GetProcAddress("GetTickCount64", m_pfnGetTickCount64);
}

unsigned __int64 CKernel32::GetTickCount64() const
{
    if (m_pfnGetTickCount64)
        return m_pfnGetTickCount64();
    return ::GetTickCount();
}

} // namespace tavrin
