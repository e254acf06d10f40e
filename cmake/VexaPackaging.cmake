# Debian packages through CPack: `cpack -G DEB` in a build directory
# configured with -DCMAKE_INSTALL_PREFIX=/usr makes
#   libvexatool64       the shared library (in /usr/lib/<multiarch>)
#   libvexatool64-dev   the header, the CMake package, the pkg-config file and
#                       the section 3 and 7 manual pages
#   vexahost            the host tool, the Python peer's zipapp (vexawire) and
#                       their manual pages
# each with its machine-readable copyright file in /usr/share/doc/<package>/.
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
    "development files of libvexatool64\n The header vexatool.h, a CMake package (vexatool::vexatool64), a pkg-config file\n and the manual pages of the ten functions and of vexatool(7).")

# The tool's own library dependency cannot go through dpkg-shlibdeps (the
# unversioned library carries no shlibs information), so it is written here.
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME vexahost)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS
    "${vexa_runtime_package} (= ${PROJECT_VERSION}), libc6, libgcc-s1, libstdc++6")
# vexawire is a Python zipapp: it needs a python3 of 3.9 or later to run.
set(CPACK_DEBIAN_TOOL_PACKAGE_RECOMMENDS "python3 (>= 3.9)")
set(CPACK_DEBIAN_TOOL_DESCRIPTION
    "host for test programs run from a shell\n vexahost launches tests, prints their events and sends what is typed;\n vexawire is the same wire spoken from Python (host, send, listen).")

# Each package's copyright file; a plain install has LICENSE in its docdir.
foreach(component runtime dev tool)
    string(TOUPPER ${component} vexa_upper)
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${vexa_upper}_PACKAGE_NAME}
        COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

# The packages install under /usr, but the paths inside them were fixed when
# the build was configured: one configured for another prefix would put the
# library into /usr/lib instead of the multiarch directory. cpack refuses that.
set(vexa_deb_libdir lib)
if(CMAKE_LIBRARY_ARCHITECTURE)
    set(vexa_deb_libdir lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
set(VEXA_CONFIGURED_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
set(VEXA_DEB_LIBDIR "${vexa_deb_libdir}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/VexaCPackOptions.cmake.in
    ${PROJECT_BINARY_DIR}/VexaCPackOptions.cmake @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/VexaCPackOptions.cmake)

# Packaging is the top project's business: a tree added with add_subdirectory
# leaves the parent's CPack settings alone.
if(CMAKE_SOURCE_DIR STREQUAL PROJECT_SOURCE_DIR)
    include(CPack)
endif()
