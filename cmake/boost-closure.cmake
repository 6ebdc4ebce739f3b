# Copies into OUTPUT/boost the Boost headers that Tavrin's public headers reach, as the compiler
# lists them, for the C++ standards a consumer is likely to compile with. Run by the build
# (cmake -P) whenever a public header changes; OUTPUT is made afresh each time.
#   COMPILER, SOURCE_INCLUDE, GENERATED_INCLUDE, BOOST_SHIM (holds only boost/), OUTPUT, LICENSE, STAMP
file(GLOB_RECURSE headers RELATIVE ${SOURCE_INCLUDE} ${SOURCE_INCLUDE}/tavrin/*.h)
file(GLOB_RECURSE generated RELATIVE ${GENERATED_INCLUDE} ${GENERATED_INCLUDE}/tavrin/*.h)
set(unit "")
foreach(header IN LISTS headers generated)
  string(APPEND unit "#include <${header}>\n")
endforeach()
set(unit_file ${OUTPUT}-all-headers.cpp)
file(WRITE ${unit_file} "${unit}")

set(boost_headers)
foreach(std 17 20)
  set(deps_file ${OUTPUT}-c++${std}.d)
  execute_process(
    COMMAND ${COMPILER} -std=c++${std} -DUNICODE -D_UNICODE -DNOMINMAX -I${SOURCE_INCLUDE} -I${GENERATED_INCLUDE}
            -I${BOOST_SHIM} -M -MF ${deps_file} ${unit_file}
    RESULT_VARIABLE result ERROR_VARIABLE errors)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "The public headers do not compile on their own (C++${std}):\n${errors}")
  endif()
  file(READ ${deps_file} deps)
  string(REPLACE "\\\n" " " deps "${deps}")
  string(REGEX REPLACE "[ \t\r\n]+" ";" deps "${deps}")
  foreach(path IN LISTS deps)
    string(FIND "${path}" "${BOOST_SHIM}/boost/" at)
    if(at EQUAL 0)
      cmake_path(NORMAL_PATH path)
      file(RELATIVE_PATH relative ${BOOST_SHIM} ${path})
      list(APPEND boost_headers ${relative})
    endif()
  endforeach()
endforeach()
list(REMOVE_DUPLICATES boost_headers)
list(LENGTH boost_headers count)
if(count EQUAL 0)
  message(FATAL_ERROR "No Boost header found among the dependencies of the public headers")
endif()

file(REMOVE_RECURSE ${OUTPUT})
foreach(relative IN LISTS boost_headers)
  configure_file(${BOOST_SHIM}/${relative} ${OUTPUT}/${relative} COPYONLY)
endforeach()
configure_file(${LICENSE} ${OUTPUT}/LICENSE_1_0.txt COPYONLY)
file(WRITE ${STAMP} "${count} Boost headers\n")
