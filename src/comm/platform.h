// What differs between Linux with glibc and Android's bionic, in one place.
// The library's lowest Android API level is 21.
#ifndef VEXA_COMM_PLATFORM_H
#define VEXA_COMM_PLATFORM_H

#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#if !defined(__ANDROID__)
#include <sys/random.h>
#endif

namespace comm {

// Fills `bytes` from the system's random source without opening a file, so
// that a process whose descriptors have all been taken still gets them. False
// when the source cannot be had that way (a kernel without getrandom).
inline bool fill_random(uint8_t* bytes, size_t size) {
#if defined(__ANDROID__)
    arc4random_buf(bytes, size);  // bionic has it at every level, and it never fails
    return true;
#else
    size_t got = 0;
    while (got < size) {
        const ssize_t n = getrandom(bytes + got, size - got, 0);  // portability: checked
        if (n > 0) {
            got += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return false;
        }
    }
    return true;
#endif
}

}  // namespace comm

#endif  // VEXA_COMM_PLATFORM_H
