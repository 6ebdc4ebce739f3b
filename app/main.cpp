#include <tavrin/core/config.h>
#include <cwchar>
int wmain(int argc, wchar_t** argv)
{
    std::wprintf(L"Tavrin sample\n");
    return 0;
}
