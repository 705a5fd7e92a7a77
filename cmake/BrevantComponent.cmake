# brevant_component(NAME <Name> [SOURCES ...] [DEPENDS ...])
#
# Declares one component of the library: a shared library brevant_<name> with
# the alias Brevant::<Name>, public headers under <folder>/include, the
# project's warning set, and a place in the install export.
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

function(brevant_component)
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;DEPENDS" ${ARGN})
  string(TOLOWER "${ARG_NAME}" lower)
  set(target brevant_${lower})
  add_library(${target} SHARED ${ARG_SOURCES})
  add_library(Brevant::${ARG_NAME} ALIAS ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${ARG_NAME}
                                             OUTPUT_NAME brevant-${lower})
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:include>)
  # The public headers need C++20, so users compile with it too.
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:brevant_warnings>)
  if(ARG_DEPENDS)
    target_link_libraries(${target} PUBLIC ${ARG_DEPENDS})
  endif()
  set_property(GLOBAL APPEND PROPERTY BREVANT_COMPONENTS ${target})
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/include)
    install(DIRECTORY include/ DESTINATION include)
  endif()
endfunction()

# brevant_test(NAME <binary> SOURCES ... DEPENDS ...)
# One GoogleTest binary per component, registered with CTest.
function(brevant_test)
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_link_libraries(${ARG_NAME} PRIVATE ${ARG_DEPENDS} GTest::gtest GTest::gmock
                        GTest::gtest_main brevant_warnings)
  gtest_discover_tests(${ARG_NAME} DISCOVERY_TIMEOUT 60)
endfunction()
