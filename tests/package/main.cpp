// Tavrin headers first, the application's Windows version (0x0602) given on the command line.
#include "all_headers.h"

#include <cstdio>

#if _WIN32_WINNT != 0x0602
#error "the application's _WIN32_WINNT was changed"
#endif

int WindowsFirst();
int LeanWindowsFirst();

int main()
{
    using namespace tavrin;
    std::printf("compiled against Tavrin %s\n", TAVRIN_VERSION_STRING);
    std::printf("loaded Tavrin.dll %ls\n", GetLibraryVersionString());
    if (GetLibraryVersion() != TAVRIN_VERSION)
    {
        std::printf("the loaded Tavrin.dll is not the one compiled against\n");
        return 2;
    }

    // A failure inside the DLL, caught here by its type and handed on through a Boost pointer.
    try
    {
        CEvent missing(EVENT_ALL_ACCESS, FALSE, L"tavrin-package-test-absent-event");
        std::printf("opening an absent event succeeded\n");
        return 3;
    }
    catch (const CWinException& e)
    {
        const boost::shared_ptr<const CStdException> clone = e.Clone();
        std::printf("caught %ls (code %ld) from %ls\n", clone->GetFunction().c_str(), e.GetErrorCode(),
                    clone->GetFileName().c_str());
    }
    // Deployed beside the program: the DLL it loaded and the DATA folder the DLL reads.
    ustring dll, folder;
    CFile::GetModuleFileNameW(::GetModuleHandleW(L"Tavrin.dll"), dll);
    CFile::GetModuleFileNameW(nullptr, folder, CFile::ModuleFolder);
    std::printf("Tavrin.dll beside the program: %s\n", dll == folder + L"Tavrin.dll" ? "yes" : "no");
    std::printf("DATA beside it: %s\n", CFile::FileExists(ustring(folder + L"DATA\\Win32Errors.txt")) ? "yes" : "no");
    std::printf("other units: %d\n", WindowsFirst() + LeanWindowsFirst());
    return 0;
}
