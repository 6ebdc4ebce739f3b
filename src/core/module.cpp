// Module start-up and shutdown of Tavrin.dll. The library starts nothing of its own: every
// service is created on a caller's first use, so the entry point only declines thread
// notifications it has no use for, and at process exit writes out the data log files.
#include "log/logfile_internal.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved)
{
    if (reason == DLL_PROCESS_ATTACH)
        ::DisableThreadLibraryCalls(module);
    // A non-null `reserved` on detach means that the process is exiting: every other thread has
    // been stopped, the log workers included, and what they had not written is written now,
    // before the module's static objects go. (At FreeLibrary no worker runs: each holds a
    // reference on the module.)
    else if (reason == DLL_PROCESS_DETACH && reserved != nullptr)
        tavrin::detail::CloseLogFilesAtProcessExit();
    return TRUE;
}
