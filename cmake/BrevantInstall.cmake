# Installs every component with its headers, exports them, and writes the
# package config, so that a user's project can find_package(Brevant) and link
# Brevant::Brevant, and declare its own types with kiln_generate(). Included
# only when BREVANT_INSTALL is on (by default, when Brevant is the top-level
# project).
include(CMakePackageConfigHelpers)

set(BREVANT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Brevant)
set(KILNGEN_INSTALL_DIR ${CMAKE_INSTALL_DATADIR}/brevant/kilngen)

get_property(components GLOBAL PROPERTY BREVANT_COMPONENTS)
install(TARGETS ${components} EXPORT BrevantTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT BrevantTargets NAMESPACE Brevant:: DESTINATION ${BREVANT_CMAKE_DIR})

# The generator (build time only: Python 3, no third-party modules).
install(PROGRAMS ${PROJECT_SOURCE_DIR}/tools/kilngen/kilngen.py DESTINATION ${KILNGEN_INSTALL_DIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/tools/kilngen/kilngen DESTINATION ${KILNGEN_INSTALL_DIR}
        FILES_MATCHING PATTERN "*.py")

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/BrevantConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/BrevantConfig.cmake
                              INSTALL_DESTINATION ${BREVANT_CMAKE_DIR}
                              PATH_VARS KILNGEN_INSTALL_DIR)
# 0.x releases are compatible only within their minor version, as their
# SONAME says; from 1.0 on, within the major version.
if(Brevant_VERSION_MAJOR EQUAL 0)
  set(compatibility SameMinorVersion)
else()
  set(compatibility SameMajorVersion)
endif()
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/BrevantConfigVersion.cmake
                                 COMPATIBILITY ${compatibility})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/BrevantConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/BrevantConfigVersion.cmake
              ${PROJECT_SOURCE_DIR}/cmake/KilnGenerate.cmake
        DESTINATION ${BREVANT_CMAKE_DIR})
