# cmake --install: the library, its header, a CMake package
# (find_package(vexatool CONFIG) -> vexatool::vexatool64) and a pkg-config file.
include(CMakePackageConfigHelpers)

# Components: "runtime" (the library), "dev" (the rest); see VexaPackaging.cmake.
install(TARGETS vexatool64 EXPORT vexatoolTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(EXPORT vexatoolTargets
    NAMESPACE vexatool::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vexatool
    COMPONENT dev)

configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/vexatoolConfig.cmake.in
    ${PROJECT_BINARY_DIR}/vexatoolConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vexatool)
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/vexatoolConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/vexatoolConfig.cmake
    ${PROJECT_BINARY_DIR}/vexatoolConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vexatool
    COMPONENT dev)

# The .pc file finds its prefix relative to itself, so the tree can be moved.
file(RELATIVE_PATH VEXA_PC_TO_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig"
     "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" VEXA_PC_TO_PREFIX "${VEXA_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/vexatool.pc.in ${PROJECT_BINARY_DIR}/vexatool.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vexatool.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT dev)
