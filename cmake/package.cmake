# The installed package, one per width: `cmake --install <build> --prefix <dir>` gives
#   bin/               Tavrin.dll, the MinGW runtime DLLs (stripped), DATA/
#   lib/               Tavrin.lib, the import library
#   include/           the public headers, the generated version header, and tavrin-boost/ with
#                      the Boost headers that the public headers use
#   lib/cmake/Tavrin/  the CMake package: Tavrin::Tavrin, version and width checks
#   share/doc/Tavrin/  LICENSE, CHANGELOG.md, third-party/ with the runtime DLLs' licences
#   share/Tavrin/cmake/ the MinGW-w64 toolchain files for applications
# Everything is relative to the prefix, so the folder can be moved or zipped (scripts/package.sh).
include(CMakePackageConfigHelpers)

set(TAVRIN_PACKAGE_DIR ${CMAKE_BINARY_DIR}/package)
set(TAVRIN_CMAKE_INSTALL_DIR lib/cmake/Tavrin)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(TAVRIN_PACKAGE_WIDTH "64-bit (x86_64)")
  set(TAVRIN_TOOLCHAIN_FILE toolchain-mingw-x86_64.cmake)
else()
  set(TAVRIN_PACKAGE_WIDTH "32-bit (i686)")
  set(TAVRIN_TOOLCHAIN_FILE toolchain-mingw-i686.cmake)
endif()

# Consumers compile the headers as the library does: C++17 at least, and the Boost headers from a
# folder that holds nothing else.
target_compile_features(Tavrin PUBLIC cxx_std_17)
target_include_directories(Tavrin INTERFACE $<INSTALL_INTERFACE:include/tavrin-boost>)

install(TARGETS Tavrin EXPORT TavrinTargets RUNTIME DESTINATION bin LIBRARY DESTINATION bin ARCHIVE DESTINATION lib)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/ DESTINATION include FILES_MATCHING PATTERN "*.h")
install(FILES ${TAVRIN_GENERATED_INCLUDE}/tavrin/core/version.h DESTINATION include/tavrin/core)
install(FILES ${CMAKE_SOURCE_DIR}/LICENSE ${CMAKE_SOURCE_DIR}/CHANGELOG.md DESTINATION share/doc/Tavrin)
# The runtime DLLs that ship beside Tavrin.dll come with their licences: libstdc++ and libgcc under
# the GCC Runtime Library Exception, winpthreads under its own terms. They are the Debian packages'
# copyright files of the compiler that built the library.
foreach(notice gcc-mingw-w64-base:gcc-runtime mingw-w64-common:mingw-w64-runtime)
  string(REPLACE ":" ";" notice ${notice})
  list(GET notice 0 debian_package)
  list(GET notice 1 shipped_name)
  set(notice_file /usr/share/doc/${debian_package}/copyright)
  if(EXISTS ${notice_file})
    install(FILES ${notice_file} DESTINATION share/doc/Tavrin/third-party RENAME ${shipped_name}.copyright.txt)
  else()
    message(WARNING "${notice_file} is missing: the package will ship the runtime DLLs without their licence text")
  endif()
endforeach()
# The toolchain files travel along: an application is built with the compiler of the library.
install(FILES ${CMAKE_SOURCE_DIR}/cmake/mingw-common.cmake ${CMAKE_SOURCE_DIR}/cmake/toolchain-mingw-i686.cmake
              ${CMAKE_SOURCE_DIR}/cmake/toolchain-mingw-x86_64.cmake
        DESTINATION share/Tavrin/cmake)

# ---- runtime DLLs: shipped stripped (libstdc++-6.dll alone carries some 20 MB of debug
# information), whether or not `cmake --install --strip` is used; build/bin keeps the originals.
set(TAVRIN_RUNTIME_STRIPPED)
set(TAVRIN_RUNTIME_DLL_NAMES)
foreach(dll ${TAVRIN_RUNTIME_DLLS})
  get_filename_component(name ${dll} NAME)
  set(stripped ${TAVRIN_PACKAGE_DIR}/runtime/${name})
  add_custom_command(OUTPUT ${stripped}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${TAVRIN_PACKAGE_DIR}/runtime
    COMMAND ${CMAKE_STRIP} --strip-unneeded -o ${stripped} ${dll}
    DEPENDS ${dll}
    COMMENT "Stripping ${name} for the package"
    VERBATIM)
  list(APPEND TAVRIN_RUNTIME_STRIPPED ${stripped})
  list(APPEND TAVRIN_RUNTIME_DLL_NAMES ${name})
endforeach()
add_custom_target(tavrin_package_runtime ALL DEPENDS ${TAVRIN_RUNTIME_STRIPPED})
install(FILES ${TAVRIN_RUNTIME_STRIPPED} DESTINATION bin)

# ---- Boost: the package carries exactly the Boost headers that its public headers reach (as the
# compiler reports them), so that a consumer needs no Boost of its own and compiles against the
# very version whose shared_ptr and optional layouts cross the DLL boundary.
file(STRINGS ${TAVRIN_BOOST_INCLUDE}/version.hpp TAVRIN_BOOST_VERSION_LINE REGEX "^#define BOOST_VERSION [0-9]+")
string(REGEX REPLACE "^#define BOOST_VERSION ([0-9]+).*" "\\1" TAVRIN_BOOST_VERSION_NUMBER "${TAVRIN_BOOST_VERSION_LINE}")
math(EXPR boost_major "${TAVRIN_BOOST_VERSION_NUMBER} / 100000")
math(EXPR boost_minor "${TAVRIN_BOOST_VERSION_NUMBER} / 100 % 1000")
math(EXPR boost_patch "${TAVRIN_BOOST_VERSION_NUMBER} % 100")
set(TAVRIN_BOOST_VERSION "${boost_major}.${boost_minor}.${boost_patch}")

set(TAVRIN_BOOST_PACKAGE ${TAVRIN_PACKAGE_DIR}/tavrin-boost)
set(TAVRIN_BOOST_STAMP ${TAVRIN_PACKAGE_DIR}/tavrin-boost.stamp)
add_custom_command(OUTPUT ${TAVRIN_BOOST_STAMP}
  COMMAND ${CMAKE_COMMAND} -DCOMPILER=${CMAKE_CXX_COMPILER} -DSOURCE_INCLUDE=${CMAKE_SOURCE_DIR}/include
          -DGENERATED_INCLUDE=${TAVRIN_GENERATED_INCLUDE} -DBOOST_SHIM=${TAVRIN_BOOST_SHIM}
          -DOUTPUT=${TAVRIN_BOOST_PACKAGE}
          -DLICENSE=${CMAKE_SOURCE_DIR}/cmake/BOOST_LICENSE_1_0.txt -DSTAMP=${TAVRIN_BOOST_STAMP}
          -P ${CMAKE_SOURCE_DIR}/cmake/boost-closure.cmake
  DEPENDS ${TAVRIN_HEADERS} ${TAVRIN_GENERATED_INCLUDE}/tavrin/core/version.h
          ${CMAKE_SOURCE_DIR}/cmake/boost-closure.cmake ${CMAKE_SOURCE_DIR}/cmake/BOOST_LICENSE_1_0.txt
  COMMENT "Collecting the Boost headers of the public headers"
  VERBATIM)
add_custom_target(tavrin_package_boost ALL DEPENDS ${TAVRIN_BOOST_STAMP})
install(DIRECTORY ${TAVRIN_BOOST_PACKAGE}/ DESTINATION include/tavrin-boost)

# ---- CMake package files
install(EXPORT TavrinTargets NAMESPACE Tavrin:: DESTINATION ${TAVRIN_CMAKE_INSTALL_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/TavrinConfig.cmake.in
  ${TAVRIN_PACKAGE_DIR}/TavrinConfig.cmake INSTALL_DESTINATION ${TAVRIN_CMAKE_INSTALL_DIR})
# Same-major compatibility comes from CMake's own template; the width check is ours (the
# template's would only say "(32bit)").
write_basic_package_version_file(${TAVRIN_PACKAGE_DIR}/TavrinSameMajorVersion.cmake
  COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
configure_file(${CMAKE_SOURCE_DIR}/cmake/TavrinConfigVersion.cmake.in ${TAVRIN_PACKAGE_DIR}/TavrinConfigVersion.cmake @ONLY)
install(FILES ${TAVRIN_PACKAGE_DIR}/TavrinConfig.cmake ${TAVRIN_PACKAGE_DIR}/TavrinConfigVersion.cmake
              ${TAVRIN_PACKAGE_DIR}/TavrinSameMajorVersion.cmake
        DESTINATION ${TAVRIN_CMAKE_INSTALL_DIR})
