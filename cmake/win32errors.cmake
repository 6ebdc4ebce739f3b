# Generates bin/DATA/Win32Errors.txt beside Tavrin.dll: the Win32 error texts that CWinException
# falls back to when the system has no message for a code. The texts are taken from the message
# table of a Windows system DLL (Wine's), or, without one, from the names in MinGW's winerror.h.
find_package(Python3 COMPONENTS Interpreter REQUIRED)

set(TAVRIN_WIN32ERRORS_OUTPUT ${CMAKE_BINARY_DIR}/bin/DATA/Win32Errors.txt)
set(TAVRIN_WIN32ERRORS_TOOL ${CMAKE_SOURCE_DIR}/tools/gen_win32errors.py)

set(TAVRIN_WIN32ERRORS_ARGS)
set(TAVRIN_WIN32ERRORS_DEPENDS ${TAVRIN_WIN32ERRORS_TOOL})
foreach(candidate
    /usr/lib/x86_64-linux-gnu/wine/x86_64-windows/kernelbase.dll
    /usr/lib/x86_64-linux-gnu/wine/i386-windows/kernelbase.dll
    /usr/lib/i386-linux-gnu/wine/i386-windows/kernelbase.dll
    /usr/lib/wine/x86_64-windows/kernelbase.dll
    /usr/lib/wine/i386-windows/kernelbase.dll
    /usr/lib/x86_64-linux-gnu/wine/x86_64-windows/kernel32.dll)
  if(EXISTS ${candidate})
    list(APPEND TAVRIN_WIN32ERRORS_ARGS --dll ${candidate})
    list(APPEND TAVRIN_WIN32ERRORS_DEPENDS ${candidate})
  endif()
endforeach()
foreach(candidate
    /usr/${TAVRIN_MINGW_TRIPLE}/include/winerror.h
    /usr/share/mingw-w64/include/winerror.h)
  if(EXISTS ${candidate})
    list(APPEND TAVRIN_WIN32ERRORS_ARGS --winerror ${candidate})
    list(APPEND TAVRIN_WIN32ERRORS_DEPENDS ${candidate})
  endif()
endforeach()

add_custom_command(
  OUTPUT ${TAVRIN_WIN32ERRORS_OUTPUT}
  COMMAND ${Python3_EXECUTABLE} ${TAVRIN_WIN32ERRORS_TOOL} --output ${TAVRIN_WIN32ERRORS_OUTPUT}
          ${TAVRIN_WIN32ERRORS_ARGS}
  DEPENDS ${TAVRIN_WIN32ERRORS_DEPENDS}
  COMMENT "Generating DATA/Win32Errors.txt"
  VERBATIM)
add_custom_target(tavrin_win32errors DEPENDS ${TAVRIN_WIN32ERRORS_OUTPUT})
add_dependencies(Tavrin tavrin_win32errors)
install(FILES ${TAVRIN_WIN32ERRORS_OUTPUT} DESTINATION bin/DATA)
