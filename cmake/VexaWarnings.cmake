# Warning flags shared by every target of the project.
add_library(vexa_warnings INTERFACE)
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    target_compile_options(vexa_warnings INTERFACE -Wall -Wextra -Wshadow -Wformat=2)
    if(VEXA_WERROR)
        target_compile_options(vexa_warnings INTERFACE -Werror)
    endif()
endif()
