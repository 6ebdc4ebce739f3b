// <windows.h> first, with the application's own Windows version set in the source: no warning
// about the order of the Winsock headers, no redefinition of _WIN32_WINNT.
#define _WIN32_WINNT 0x0A00
#include <windows.h>

#include "all_headers.h"

#if _WIN32_WINNT != 0x0A00
#error "the application's _WIN32_WINNT was changed"
#endif

int WindowsFirst()
{
    return tavrin::ustring(L"windows.h first").size() > 0 ? 1 : 0;
}
