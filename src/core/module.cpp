// Module start-up and shutdown of Tavrin.dll. The library starts nothing of its own: every
// service is created on a caller's first use, so the entry point only declines thread
// notifications it has no use for.
#include <tavrin/core/config.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        ::DisableThreadLibraryCalls(module);
    return TRUE;
}
