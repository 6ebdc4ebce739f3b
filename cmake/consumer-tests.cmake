# Tests of the installed package as applications get it: ctest installs this build into a fresh
# prefix, then configures, builds and runs separate CMake projects against it under Wine with the
# package's own toolchain files: tests/package (headers, versions, the DLL boundary) and every
# folder of examples/ (an example is a folder with a CMakeLists.txt, its sources and an
# expected-output.txt, and an arguments.txt when it needs arguments; its executable is named
# after the folder). Two more configure runs must be
# refused: from a project of the other width, and asking for the next major version.
if(NOT TAVRIN_BUILD_TESTS)
  return()
endif()
find_package(Python3 COMPONENTS Interpreter REQUIRED)

set(TAVRIN_CONSUMER_DIR ${CMAKE_BINARY_DIR}/consumer)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(arch x64)
  set(other_arch x86)
else()
  set(arch x86)
  set(other_arch x64)
endif()
math(EXPR next_major "${PROJECT_VERSION_MAJOR} + 1")
set(runner ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/scripts/test-consumer.py)
set(common --prefix ${TAVRIN_CONSUMER_DIR}/prefix --results ${CMAKE_BINARY_DIR}/test-results --wine ${TAVRIN_WINE})

add_test(NAME package.install COMMAND ${runner} install --name package.install ${common} --arch ${arch}
         --build ${CMAKE_BINARY_DIR} --source ${CMAKE_SOURCE_DIR} --objdump ${CMAKE_OBJDUMP})
set_tests_properties(package.install PROPERTIES FIXTURES_SETUP tavrin_package)

add_test(NAME package.consumer COMMAND ${runner} run --name package.consumer ${common} --arch ${arch}
         --source ${CMAKE_SOURCE_DIR}/tests/package --work ${TAVRIN_CONSUMER_DIR}/package
         -- -DTAVRIN_FIND_VERSION=${PROJECT_VERSION})
add_test(NAME package.other_width COMMAND ${runner} reject --name package.other_width ${common} --arch ${other_arch}
         --source ${CMAKE_SOURCE_DIR}/tests/package --work ${TAVRIN_CONSUMER_DIR}/other_width
         --expect "a package for ${TAVRIN_PACKAGE_WIDTH} applications; this project builds")
add_test(NAME package.next_major COMMAND ${runner} reject --name package.next_major ${common} --arch ${arch}
         --source ${CMAKE_SOURCE_DIR}/tests/package --work ${TAVRIN_CONSUMER_DIR}/next_major
         --expect "version: ${PROJECT_VERSION}"
         -- -DTAVRIN_FIND_VERSION=${next_major}.0)
set(consumer_tests package.consumer package.other_width package.next_major)

file(GLOB example_lists CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/examples/*/CMakeLists.txt)
foreach(list_file IN LISTS example_lists)
  get_filename_component(example_dir ${list_file} DIRECTORY)
  get_filename_component(example ${example_dir} NAME)
  add_test(NAME example.${example} COMMAND ${runner} run --name example.${example} ${common} --arch ${arch}
           --source ${example_dir} --work ${TAVRIN_CONSUMER_DIR}/examples/${example})
  list(APPEND consumer_tests example.${example})
endforeach()
set_tests_properties(package.install ${consumer_tests} PROPERTIES TIMEOUT 600)
set_tests_properties(${consumer_tests} PROPERTIES FIXTURES_REQUIRED tavrin_package)
