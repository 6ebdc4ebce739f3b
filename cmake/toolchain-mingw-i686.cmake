# MinGW-w64 GCC (posix thread model), 32-bit Windows target: the shipped product.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(TAVRIN_MINGW_TRIPLE i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
