// What the benchmark prints: progress lines on standard error while it runs,
// then the header, the tables and the targets on standard output.
#ifndef VEXA_BENCH_REPORT_H
#define VEXA_BENCH_REPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "idle_check.h"
#include "settings.h"
#include "transports.h"

namespace bench {

std::string size_name(int32_t size);
// `value` with that many decimals; "-" for a negative value (not measured).
std::string fixed(double value, int decimals);
void progress(const std::string& transport, const std::string& what, int32_t size,
              const std::string& figure);

// Whether the run is pinned, first thing on standard output. pinnedCpu: the
// one CPU the run is bound to, -1 when it may use more.
void print_header(int pinnedCpu);
// syscallsWhy: empty when system calls were counted, else why they were not.
void print_report(const std::vector<Transport>& transports, const Settings& settings,
                  const std::string& syscallsWhy, const std::vector<IdleResult>& idle);

}  // namespace bench

#endif  // VEXA_BENCH_REPORT_H
