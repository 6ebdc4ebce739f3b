// Run-time binding of optional system functions.
//
// CLibrary owns one loaded module and looks functions up by name; a missing module or export
// is no error, the caller asks and falls back. Derived classes bind the functions of one
// system module once, at construction:
//
//     CKernel32 kernel32;
//     unsigned __int64 now = kernel32.GetTickCount64(); // GetTickCount on systems without it
#pragma once

#include <tavrin/core/config.h>
#include <tavrin/core/ustring.h>

namespace tavrin {

class TAVRIN_API CLibrary
{
public:
    // An object that holds no module.
    CLibrary();
    // Loads the module (LoadLibraryW); IsLoaded tells whether that worked.
    explicit CLibrary(const wchar_t* name);
    // The copy loads the same module once more, so each object owns its own reference.
    CLibrary(const CLibrary& other);
    CLibrary(CLibrary&& other) noexcept;
    CLibrary& operator=(const CLibrary& other);
    CLibrary& operator=(CLibrary&& other) noexcept;
    virtual ~CLibrary();

    // Releases any module held and loads `name`; false when it cannot be loaded.
    bool Load(const wchar_t* name);
    // Releases the module (FreeLibrary); nothing when none is held.
    void Free();

    bool IsLoaded() const { return m_hModule != nullptr; }
    HMODULE GetHandle() const { return m_hModule; }
    const ustring& GetName() const { return m_strName; }

    // The export's address, or null when the module or the export is missing.
    FARPROC GetProcAddress(const char* exportName) const;
    // The same, typed: `function` receives the address cast to its pointer type (or null).
    template <class F>
    bool GetProcAddress(const char* exportName, F& function) const
    {
        function = reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(exportName)));
        return function != nullptr;
    }

private:
    ustring m_strName;
    HMODULE m_hModule;
};

// kernel32 functions that older systems lack.
class TAVRIN_API CKernel32 : public CLibrary
{
public:
    typedef ULONGLONG(WINAPI* PFNGETTICKCOUNT64)();

    CKernel32();
    CKernel32(const CKernel32& other);
    CKernel32& operator=(const CKernel32& other);
    ~CKernel32() override;

    // Whether the system exports GetTickCount64.
    bool HasGetTickCount64() const { return m_pfnGetTickCount64 != nullptr; }
    // Milliseconds since system start: GetTickCount64 when the system has it, otherwise
    // GetTickCount widened to 64 bits (which wraps after 49.7 days).
    unsigned __int64 GetTickCount64() const;

private:
    void Bind();

    PFNGETTICKCOUNT64 m_pfnGetTickCount64;
};

} // namespace tavrin
