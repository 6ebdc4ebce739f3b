// A lean <windows.h> (no Winsock at all) before the Tavrin headers.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include "all_headers.h"

int LeanWindowsFirst()
{
    return tavrin::ustring(L"lean windows.h first").size() > 0 ? 1 : 0;
}
