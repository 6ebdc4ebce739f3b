// The version the DLL was built as, for applications that check the Tavrin.dll they loaded.
#include <tavrin/core/version.h>

namespace tavrin {

unsigned long GetLibraryVersion()
{
    return TAVRIN_VERSION;
}

const wchar_t* GetLibraryVersionString()
{
    return TAVRIN_WIDEN(TAVRIN_VERSION_STRING);
}

} // namespace tavrin
