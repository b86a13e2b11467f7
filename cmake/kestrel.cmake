# Compiler settings and the few functions that every folder's CMakeLists.txt uses.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

find_program(KESTREL_CCACHE ccache)
if(KESTREL_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${KESTREL_CCACHE})
endif()

add_compile_options(-Wall -Wextra -Wpedantic)
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  # Debian 12's RapidJSON writes its iterators' comparison in a way that C++20 reads twice.
  add_compile_options(-Wno-ambiguous-reversed-operator)
endif()
if(KESTREL_WERROR)
  add_compile_options(-Werror)
endif()
if(KESTREL_SANITIZE)
  add_compile_options(-fsanitize=${KESTREL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all -O1)
  add_link_options(-fsanitize=${KESTREL_SANITIZE})
  # Boost.Asio's memory fences mean nothing to ThreadSanitizer, which GCC warns of; its locks do.
  if(KESTREL_SANITIZE MATCHES thread AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    add_compile_options(-Wno-tsan)
  endif()
endif()
if(KESTREL_FUZZ)
  # The libraries tell the fuzzer which of their branches an input takes.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
    -fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/fuzz/sanitizer-ignorelist.txt)
  add_link_options(-fsanitize=address,undefined)
endif()
# What makes a fault that is left harder to use: guarded stacks, checked copies, addresses that are drawn at every start,
# and tables of addresses that are read-only from then on. tools/check-hardening looks whether the daemon has it.
if(CMAKE_BUILD_TYPE STREQUAL Release AND NOT KESTREL_SANITIZE AND NOT KESTREL_FUZZ)
  include(CheckCXXSourceCompiles)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES CXX)
  set(CMAKE_REQUIRED_FLAGS "-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
  check_cxx_source_compiles("#include <features.h>
    #if __USE_FORTIFY_LEVEL < 3
    #error The library or the compiler knows less.
    #endif
    int main() {}" KESTREL_FORTIFY_3)
  unset(CMAKE_REQUIRED_FLAGS)
  add_compile_options(-fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=$<IF:$<BOOL:${KESTREL_FORTIFY_3}>,3,2>)
  add_link_options(-Wl,-z,relro,-z,now)
endif()
add_compile_definitions(BOOST_ASIO_NO_DEPRECATED BOOST_ASIO_SEPARATE_COMPILATION RAPIDJSON_HAS_STDSTRING=1)
add_link_options(-Wl,--as-needed)

find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS system filesystem)
find_package(OpenSSL REQUIRED COMPONENTS Crypto)
find_package(SQLite3 REQUIRED)
# The interpreter that the helper commands run with, where there is one at its usual place.
if(EXISTS /usr/bin/python3)
  set(Python3_EXECUTABLE /usr/bin/python3)
endif()
find_package(Python3 REQUIRED COMPONENTS Interpreter)
include(GNUInstallDirs)
if(KESTREL_TESTS)
  find_package(GTest REQUIRED)
endif()

set(KESTREL_LIBEXEC_DIR lib/tessel/lifecycle/bin)
set(KESTREL_METADATA_DIR lib/tessel/lifecycle/metadata)

# Test code is not optimised: it compiles in half the time, and GCC 12 invents warnings in what it optimises there.
# The library under test is what a host gets. Checked copies are for optimised code only.
function(kestrel_test_sources)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "$<$<CONFIG:Release>:-O0;-U_FORTIFY_SOURCE>")
endfunction()

# kestrel_library(NAME [PLATFORM] [RECURSE] [SANDBOX] [EXCLUDE file...] [LINK target...] [TEST_LINK target...])
# The static library of this folder: every .cpp in it, and every NAME_test.cpp becomes part of the test program
# NAME_test. RECURSE takes the folders below as well; EXCLUDE leaves files to other targets. LINK names every library
# whose headers the files include, TEST_LINK those that only the tests include (tools/check-structure compares).
# PLATFORM marks a host-platform library: it sees only platform/ ("tesselibs/log.h"), so that it cannot reach into the
# daemon; all other code includes from the source root.
# SANDBOX runs the tests inside a sandboxed host, for code that touches the fixed paths.
function(kestrel_library name)
  cmake_parse_arguments(ARG "PLATFORM;RECURSE;SANDBOX" "" "EXCLUDE;LINK;TEST_LINK" ${ARGN})
  if(ARG_RECURSE)
    file(GLOB_RECURSE sources CONFIGURE_DEPENDS *.cpp)
  else()
    file(GLOB sources CONFIGURE_DEPENDS *.cpp)
  endif()
  foreach(file IN LISTS ARG_EXCLUDE)
    list(REMOVE_ITEM sources ${CMAKE_CURRENT_SOURCE_DIR}/${file})
  endforeach()
  set(tests ${sources})
  list(FILTER sources EXCLUDE REGEX "_test\\.cpp$")
  list(FILTER tests INCLUDE REGEX "_test\\.cpp$")

  add_library(${name} STATIC ${sources})
  if(ARG_PLATFORM)
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/platform)
  else()
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  endif()
  target_link_libraries(${name} PUBLIC ${ARG_LINK})

  if(tests AND KESTREL_TESTS)
    add_executable(${name}_test ${tests})
    kestrel_test_sources(${tests})
    target_link_libraries(${name}_test PRIVATE ${name} ${ARG_TEST_LINK} GTest::gmock GTest::gtest GTest::gtest_main)
    if(ARG_SANDBOX)
      add_test(NAME ${name}_test COMMAND ${PROJECT_SOURCE_DIR}/tools/sandbox $<TARGET_FILE:${name}_test>)
    else()
      add_test(NAME ${name}_test COMMAND ${name}_test)
    endif()
    set_tests_properties(${name}_test PROPERTIES TIMEOUT 300)
  endif()
endfunction()
