# Which library implements the chip API (the four C functions of
# FmApi/FmApi.h) that Brevant::Brevant calls: BREVANT_CHIP_LIBRARY names
#
#   - the embedded simulator, Brevant::FmSim (the default);
#   - a library file, by its full path (a vendor SDK's .so);
#   - an imported target (a vendor SDK found with find_package);
#   - a plain target of the parent project, defined before
#     add_subdirectory(brevant); with BREVANT_INSTALL on, Brevant installs
#     and exports it with its own targets.
#
# Only the simulator is part of the library's link interface: programs and
# tests built on it use its test-facing API. Any other chip library is a
# private dependency of libbrevant-brevant.so: its users need no target of it,
# and the installed library finds it through its run path.
include_guard(GLOBAL)

if(BREVANT_CHIP_LIBRARY STREQUAL "Brevant::FmSim" OR BREVANT_CHIP_LIBRARY STREQUAL "brevant_fmsim")
  set(BREVANT_CHIP_IS_SIMULATOR ON)
else()
  set(BREVANT_CHIP_IS_SIMULATOR OFF)
endif()

# brevant_link_chip_library(<target>)
# Links <target> with BREVANT_CHIP_LIBRARY, or stops the configure step with
# a message saying what BREVANT_CHIP_LIBRARY may name.
function(brevant_link_chip_library target)
  set(chip "${BREVANT_CHIP_LIBRARY}")
  if(BREVANT_CHIP_IS_SIMULATOR)
    target_link_libraries(${target} PUBLIC Brevant::FmSim)
    return()
  endif()
  if(TARGET "${chip}")
    get_target_property(imported "${chip}" IMPORTED)
    target_link_libraries(${target} PRIVATE "${chip}")
    if(NOT imported AND BREVANT_INSTALL)
      # The parent's own library: installed beside Brevant's so that the
      # installed libbrevant-brevant.so finds it, and exported with Brevant's
      # targets (as Brevant::<name>), which the export of a shared library
      # linked with it needs.
      install(TARGETS "${chip}" EXPORT BrevantTargets
              LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
              ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
              RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    endif()
    message(STATUS "Brevant: chip API from the target ${chip}")
  elseif(IS_ABSOLUTE "${chip}" AND EXISTS "${chip}" AND NOT IS_DIRECTORY "${chip}")
    target_link_libraries(${target} PRIVATE "${chip}")
    message(STATUS "Brevant: chip API from the library file ${chip}")
  else()
    message(FATAL_ERROR
      "BREVANT_CHIP_LIBRARY is '${chip}', which is neither a target nor an existing library "
      "file. Name Brevant::FmSim (the simulator), the full path of the chip SDK's library, or "
      "a target defined before add_subdirectory() of Brevant.")
  endif()
endfunction()
