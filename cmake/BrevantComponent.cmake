# brevant_component(NAME <Name> [SOURCES ...] [DEPENDS ...])
#
# Declares one component of the library: a shared library brevant_<name> with
# the alias Brevant::<Name>, public headers under <folder>/include, the
# project's warning set, and a place in the install export.
#
# Shared libraries carry the project version; their SONAME is major.minor
# while the major version is 0 (every 0.x release may change the ABI), the
# major version from 1.0 on. Installed, each library finds the others in its
# own folder ($ORIGIN) and any chip library where it was linked from.
include_guard(GLOBAL)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(NOT TARGET brevant_warnings)
  add_library(brevant_warnings INTERFACE)
  target_compile_options(brevant_warnings INTERFACE -Wall -Wextra -Werror)
endif()

set_property(GLOBAL PROPERTY BREVANT_COMPONENTS "")

if(Brevant_VERSION_MAJOR EQUAL 0)
  set(BREVANT_SOVERSION ${Brevant_VERSION_MAJOR}.${Brevant_VERSION_MINOR})
else()
  set(BREVANT_SOVERSION ${Brevant_VERSION_MAJOR})
endif()

function(brevant_component)
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;DEPENDS" ${ARGN})
  string(TOLOWER "${ARG_NAME}" lower)
  set(target brevant_${lower})
  add_library(${target} SHARED ${ARG_SOURCES})
  add_library(Brevant::${ARG_NAME} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${ARG_NAME}
    OUTPUT_NAME brevant-${lower}
    VERSION ${Brevant_VERSION}
    SOVERSION ${BREVANT_SOVERSION}
    INSTALL_RPATH "$ORIGIN"
    INSTALL_RPATH_USE_LINK_PATH TRUE)
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  # The public headers need C++20, so users compile with it too.
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:brevant_warnings>)
  # A component's calls to its own functions need not allow for another
  # library replacing them at load time (a chip library is replaced whole,
  # as a component of its own), so the compiler may inline them and call
  # them directly rather than through the procedure linkage table.
  # For the same reason its copies of inline member functions (the
  # collections' and slot pools' operations) are its own: called directly,
  # not through the table, and not bound at load time to another library's
  # or the program's copy. Their static variables stay shared.
  target_compile_options(${target} PRIVATE -fno-semantic-interposition -fvisibility-inlines-hidden)
  if(ARG_DEPENDS)
    target_link_libraries(${target} PUBLIC ${ARG_DEPENDS})
  endif()
  set_property(GLOBAL APPEND PROPERTY BREVANT_COMPONENTS ${target})
  if(BREVANT_INSTALL AND EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/include)
    install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  endif()
endfunction()

# Every test file includes GoogleTest and most include the component's main
# header: compiled once per test binary instead of once per file, they take
# about a quarter off compiling a test file (one file measured with g++ on
# a busy machine: 46.9 s with its headers, 34.5 s from the precompiled
# ones). ccache leaves files built with a precompiled header uncached unless
# told otherwise (its sloppiness setting), so a build with a compiler
# launcher compiles the headers file by file.
if(CMAKE_CXX_COMPILER_LAUNCHER)
  set(brevant_precompile_default OFF)
else()
  set(brevant_precompile_default ON)
endif()
option(BREVANT_PRECOMPILE_TEST_HEADERS
       "Precompile the headers every test file includes, once per test binary"
       ${brevant_precompile_default})

# brevant_test(NAME <binary> [THREADED] SOURCES ... DEPENDS ... [PRECOMPILE header...])
# One GoogleTest binary per component, registered with CTest. THREADED marks a
# binary with tests that start threads: its tests carry the CTest label
# "threads" and the target threaded_tests builds it, which is what the
# ThreadSanitizer phase of scripts/test builds and runs. PRECOMPILE names the
# component headers to precompile beside GoogleTest's.
function(brevant_test)
  cmake_parse_arguments(ARG "THREADED" "NAME" "SOURCES;DEPENDS;PRECOMPILE" ${ARGN})
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_link_libraries(${ARG_NAME} PRIVATE ${ARG_DEPENDS} GTest::gtest GTest::gmock
                        GTest::gtest_main brevant_warnings)
  if(BREVANT_PRECOMPILE_TEST_HEADERS)
    target_precompile_headers(${ARG_NAME} PRIVATE <gtest/gtest.h> <gmock/gmock.h>
                              ${ARG_PRECOMPILE})
  endif()
  if(ARG_THREADED)
    gtest_discover_tests(${ARG_NAME} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS threads)
    if(NOT TARGET threaded_tests)
      add_custom_target(threaded_tests)
    endif()
    add_dependencies(threaded_tests ${ARG_NAME})
  else()
    gtest_discover_tests(${ARG_NAME} DISCOVERY_TIMEOUT 60)
  endif()
endfunction()
