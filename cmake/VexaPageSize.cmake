# Android on 64-bit ARM may run with 16 KB pages, and such a device (and
# Google Play) refuses a library whose loadable segments are aligned for 4 KB
# pages only. Every binary built for arm64 or Android is linked for 16 KB; it
# still runs where pages are 4 KB. scripts/check-elf.sh checks the result.
if(ANDROID OR CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    add_link_options("LINKER:-z,max-page-size=16384")
endif()
