// What one run of the benchmark measures and for how long.
#ifndef VEXA_BENCH_SETTINGS_H
#define VEXA_BENCH_SETTINGS_H

#include <cstdint>
#include <string>
#include <vector>

#include "frames.h"

namespace bench {

struct Settings {
    int rounds = 5;
    int caseMs = 400;          // measured time of one case
    int warmupMs = 100;        // unmeasured time before it
    double idleSeconds = 5.0;  // length of each idle measurement
    bool idle = true;
    // Round trips (and one-way messages) per case over which system calls
    // are counted; 0 counts none.
    int syscallMessages = 2000;
    std::string only;  // run only the transports whose name contains this
    std::vector<int32_t> sizes = {0, 1024, 65536, kBiggestBody};
    int pinCpu = -1;  // --pin: the CPU asked for
};

}  // namespace bench

#endif  // VEXA_BENCH_SETTINGS_H
