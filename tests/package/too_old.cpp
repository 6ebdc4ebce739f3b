// Aims at Windows XP: the Tavrin headers must refuse it.
#define _WIN32_WINNT 0x0501
#include <tavrin/core/config.h>

int main()
{
    return 0;
}
