set(CMAKE_C_COMPILER   ${TAVRIN_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TAVRIN_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER  ${TAVRIN_MINGW_TRIPLE}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${TAVRIN_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Executables of both widths run here under wine64: the 32-bit ones in its WoW64 mode, with the
# 32-bit Wine DLLs that scripts/setup-wine32.sh provides (scripts/wine-env.sh sets WINEDLLPATH).
find_program(TAVRIN_WINE NAMES wine64 wine PATHS /usr/lib/wine /usr/bin NO_CMAKE_FIND_ROOT_PATH)
if(TAVRIN_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVRIN_WINE})
endif()
