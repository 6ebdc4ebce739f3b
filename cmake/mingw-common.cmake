set(CMAKE_C_COMPILER   ${TAVRIN_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TAVRIN_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER  ${TAVRIN_MINGW_TRIPLE}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${TAVRIN_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Packages are looked for under the MinGW root and also where they are, so that CMAKE_PREFIX_PATH
# (on the command line or set in a project), <Package>_ROOT and PATHS find a package installed
# anywhere, such as a Tavrin package. The host's own prefixes, which find_package also derives
# from PATH, hold Linux packages and are ignored; the MinGW root, which the ignored "/" would have
# given by re-rooting, is named as a system prefix instead.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(CMAKE_SYSTEM_IGNORE_PREFIX_PATH / /usr /usr/local)
list(APPEND CMAKE_SYSTEM_PREFIX_PATH ${CMAKE_FIND_ROOT_PATH})

# Executables of both widths run here under wine64: the 32-bit ones in its WoW64 mode, with the
# 32-bit Wine DLLs that scripts/setup-wine32.sh provides (scripts/wine-env.sh sets WINEDLLPATH).
find_program(TAVRIN_WINE NAMES wine64 wine PATHS /usr/lib/wine /usr/bin NO_CMAKE_FIND_ROOT_PATH)
if(TAVRIN_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVRIN_WINE})
endif()
