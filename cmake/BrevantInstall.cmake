# Installs every component and exports them, so that a user's project can
# find_package(Brevant) and link Brevant::Brevant.
include(CMakePackageConfigHelpers)
get_property(components GLOBAL PROPERTY BREVANT_COMPONENTS)
install(TARGETS ${components} EXPORT BrevantTargets
        LIBRARY DESTINATION lib ARCHIVE DESTINATION lib RUNTIME DESTINATION bin
        INCLUDES DESTINATION include)
install(EXPORT BrevantTargets NAMESPACE Brevant:: DESTINATION lib/cmake/Brevant)
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/BrevantConfig.cmake
     "include(CMakeFindDependencyMacro)\nfind_dependency(Threads)\ninclude(\${CMAKE_CURRENT_LIST_DIR}/BrevantTargets.cmake)\n")
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/BrevantConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/BrevantConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/BrevantConfigVersion.cmake
        DESTINATION lib/cmake/Brevant)
