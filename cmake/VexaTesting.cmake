# GoogleTest and the one helper every test binary is registered through.
#
# Natively the tests use Debian's libgtest-dev. A cross build (or
# -DVEXA_GTEST_FROM_SOURCE=ON) compiles GoogleTest from the sources of
# Debian's googletest package for the target instead.
option(VEXA_GTEST_FROM_SOURCE "Build GoogleTest from source instead of using the installed one"
       ${CMAKE_CROSSCOMPILING})
set(VEXA_GTEST_SOURCE_DIR "/usr/src/googletest" CACHE PATH "GoogleTest source tree")

if(VEXA_GTEST_FROM_SOURCE)
    if(NOT EXISTS "${VEXA_GTEST_SOURCE_DIR}/CMakeLists.txt")
        message(FATAL_ERROR "No GoogleTest sources in ${VEXA_GTEST_SOURCE_DIR}: "
                            "install Debian's googletest package or set VEXA_GTEST_SOURCE_DIR")
    endif()
    set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
    set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
    add_subdirectory(${VEXA_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/_googletest EXCLUDE_FROM_ALL)
    # Like the installed headers in /usr/include, GoogleTest's own headers are
    # system headers: the project's warning flags (and -Werror) stop at them.
    get_target_property(vexa_gtest_includes gtest INTERFACE_INCLUDE_DIRECTORIES)
    set_target_properties(gtest PROPERTIES
        INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${vexa_gtest_includes}")
    add_library(GTest::gtest ALIAS gtest)
    add_library(GTest::gtest_main ALIAS gtest_main)
else()
    find_package(GTest REQUIRED)
endif()

# vexa_add_test(<name> SOURCES <files...> [LIBS <targets...>] [TIMEOUT <seconds>] [NO_CORE])
#
# One executable per tested module, run by CTest, linked with the support
# library (tests/support). Each binary runs inside its own temporary sandbox
# (tests/support/test_main.cc), so binaries run in parallel. NO_CORE leaves out
# the internal library and the sandbox main, for binaries that must see only
# the exported interface.
function(vexa_add_test name)
    cmake_parse_arguments(T "NO_CORE" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 120)
    endif()
    add_executable(${name} ${T_SOURCES})
    if(NOT T_NO_CORE)
        target_link_libraries(${name} PRIVATE vexa_test_main vexatool_core)
    endif()
    target_link_libraries(${name} PRIVATE vexa_test_support GTest::gtest vexa_warnings ${T_LIBS})
    # Programs a test launches itself must go through the emulator in a cross
    # build: tests use VEXA_TEST_EMULATOR as the launch prefix ("" natively).
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
    target_compile_definitions(${name} PRIVATE VEXA_TEST_EMULATOR="${emulator}")
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT})
endfunction()
