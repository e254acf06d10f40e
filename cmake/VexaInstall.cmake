# cmake --install: the library, its header, a CMake package
# (find_package(vexatool CONFIG) -> vexatool::vexatool64), a pkg-config file,
# the host tool, the manual pages (docs/man) and the license and changelog.
# Every path comes from GNUInstallDirs, so a prefix of /usr on Debian puts the
# library into the multiarch directory (lib/<triplet>).
include(CMakePackageConfigHelpers)

# Components: "runtime" (the library), "dev" (header, CMake package, pkg-config
# file, section 3 and 7 pages), "tool" (vexahost and its page) are the Debian
# packages of VexaPackaging.cmake; "doc" (license, changelog) only a plain
# install, since each package carries its own copyright file.
install(TARGETS vexatool64 EXPORT vexatoolTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(EXPORT vexatoolTargets
    NAMESPACE vexatool::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vexatool
    COMPONENT dev)
install(TARGETS vexahost RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/CHANGELOG.md
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)

configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/vexatoolConfig.cmake.in
    ${PROJECT_BINARY_DIR}/vexatoolConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vexatool)
# 1.x keeps the ten functions and the wire: any 1.y satisfies a request for
# 1.x with x <= y, a 2.0 would not.
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
