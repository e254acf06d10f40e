# Debian packages through CPack: `cpack -G DEB` in a build directory makes
#   libvexatool64       the shared library
#   libvexatool64-dev   the header, the CMake package and the pkg-config file
#   vexahost            the host tool
#
# The library keeps its unversioned name libvexatool64.so (no SONAME version),
# which is what Android hosts load. VEXA_VERSIONED_SONAME=ON gives desktop
# packages a versioned SONAME instead (libvexatool64.so.1, the runtime package
# then named libvexatool64-1, the unversioned link in the -dev package).
option(VEXA_VERSIONED_SONAME "Give libvexatool64.so a versioned SONAME (desktop packages)" OFF)

set(vexa_runtime_package libvexatool64)
if(VEXA_VERSIONED_SONAME)
    set_target_properties(vexatool64 PROPERTIES
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
    set(vexa_runtime_package libvexatool64-${PROJECT_VERSION_MAJOR})
endif()

install(TARGETS vexahost RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)

set(CPACK_PACKAGE_NAME vexatool)
set(CPACK_PACKAGE_VENDOR "vexatool developers")
set(CPACK_PACKAGE_CONTACT "vexatool developers <vexatool@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev tool)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${vexa_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "launch test programs and exchange framed messages with them over TCP\n The ten ipc_ functions through which a host launches tests and talks to them.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvexatool64-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${vexa_runtime_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "development files of libvexatool64\n The header vexatool.h, a CMake package (vexatool::vexatool64) and a pkg-config file.")

# The tool's own library dependency cannot go through dpkg-shlibdeps (the
# unversioned library carries no shlibs information), so it is written here.
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME vexahost)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS
    "${vexa_runtime_package} (= ${PROJECT_VERSION}), libc6, libgcc-s1, libstdc++6")
set(CPACK_DEBIAN_TOOL_DESCRIPTION
    "host for test programs run from a shell\n Launches tests, prints their events and sends what is typed.")

include(CPack)
