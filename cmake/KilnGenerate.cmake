# kiln_generate(<target> SCHEMAS <file>...)
#
# Generates the C++ of the entities, value types and enumerations declared in
# the schema files (tools/kilngen) into the build tree, adds the generated
# sources to <target> and the output directory to its public include path, so
# that a type Ns::Type declared in a schema is included as "Ns/Type.h".
#
# The generator runs at build time whenever a schema or the generator itself
# changes, and rewrites only the files whose text changed, so an edit that
# touches one type recompiles only what depends on it. The list of generated
# files is computed at configure time; editing a schema re-runs the configure
# step, which picks up added or removed types.
#
# The same function comes with the installed package: after
# find_package(Brevant), a project declares its own types with it (the
# package config points KILNGEN_DIR at the installed generator first).
include_guard(GLOBAL)

if(NOT KILNGEN_DIR)
  set(KILNGEN_DIR "${CMAKE_CURRENT_LIST_DIR}/../tools/kilngen" CACHE INTERNAL "")
endif()

function(kiln_generate target)
  cmake_parse_arguments(ARG "" "" "SCHEMAS" ${ARGN})
  if(NOT ARG_SCHEMAS)
    message(FATAL_ERROR "kiln_generate(${target}) needs SCHEMAS")
  endif()
  if(NOT Python3_EXECUTABLE)
    find_package(Python3 3.9 REQUIRED COMPONENTS Interpreter)
  endif()
  set(schemas "")
  foreach(schema IN LISTS ARG_SCHEMAS)
    get_filename_component(schema "${schema}" ABSOLUTE)
    list(APPEND schemas "${schema}")
  endforeach()
  file(GLOB generator_sources "${KILNGEN_DIR}/kilngen.py" "${KILNGEN_DIR}/kilngen/*.py")
  set(out "${CMAKE_CURRENT_BINARY_DIR}/kilngen/${target}")
  set(command "${Python3_EXECUTABLE}" "${KILNGEN_DIR}/kilngen.py" --out "${out}"
      --registration "${target}KilnTypes" --root "${PROJECT_SOURCE_DIR}" ${schemas})

  execute_process(COMMAND ${command} --list
                  OUTPUT_VARIABLE files ERROR_VARIABLE errors RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "kilngen failed on ${ARG_SCHEMAS}:\n${errors}")
  endif()
  string(STRIP "${files}" files)
  string(REPLACE "\n" ";" files "${files}")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${schemas} ${generator_sources})

  set(stamp "${out}/kilngen.stamp")
  add_custom_command(
    OUTPUT "${stamp}"
    BYPRODUCTS ${files}
    COMMAND ${command}
    COMMAND "${CMAKE_COMMAND}" -E touch "${stamp}"
    DEPENDS ${schemas} ${generator_sources}
    COMMENT "kilngen: generating the types of ${target}"
    VERBATIM)
  add_custom_target(${target}_kilngen DEPENDS "${stamp}")
  add_dependencies(${target} ${target}_kilngen)

  set(sources ${files})
  list(FILTER sources INCLUDE REGEX "\\.cpp$")
  set_source_files_properties(${files} PROPERTIES GENERATED TRUE)
  target_sources(${target} PRIVATE ${sources})
  target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${out}>")

  # A component's generated headers are part of its installed API.
  get_property(components GLOBAL PROPERTY BREVANT_COMPONENTS)
  if(BREVANT_INSTALL AND target IN_LIST components)
    install(DIRECTORY "${out}/" DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
  endif()
endfunction()
