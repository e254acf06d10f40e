// System calls per round trip and per one-way message, counted in a pass of
// their own after the timed rounds, so that counting never slows a timed
// case.
#ifndef VEXA_BENCH_SYSCALL_COUNT_H
#define VEXA_BENCH_SYSCALL_COUNT_H

#include <string>
#include <vector>

#include "settings.h"
#include "transports.h"

namespace bench {

// Fills each row's `syscalls` for every size. False, with the reason in
// *why, when system calls cannot be counted on this machine.
bool count_syscalls(std::vector<Transport>& transports, const Settings& settings, std::string* why);

}  // namespace bench

#endif  // VEXA_BENCH_SYSCALL_COUNT_H
