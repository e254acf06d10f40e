// Clocks, CPU time and the figures drawn from them: one case's samples
// summed up, the median over rounds and ratios paired by round.
#ifndef VEXA_BENCH_STATISTICS_H
#define VEXA_BENCH_STATISTICS_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace bench {

int64_t now_ns();
// User and system CPU time of this process, all threads.
double process_cpu_seconds();
// The same for another process, from /proc (clock-tick resolution).
double process_cpu_seconds(pid_t pid);

double percentile(std::vector<double> values, double fraction);
double median(const std::vector<double>& values);

// One case of round trips.
struct RttResult {
    bool ok = false;
    double medianUs = 0;
    double p99Us = 0;
    size_t samples = 0;
    double cpuUs = 0;  // CPU time of the whole process per round trip
};

// One case of one-way messages.
struct TputResult {
    bool ok = false;
    double msgsPerSec = 0;
    double mbPerSec = 0;  // head and body bytes, 10^6 per MB
    uint64_t messages = 0;
    double cpuUs = 0;  // CPU time of the whole process per message
};

RttResult round_trip_result(bool ok, const std::vector<double>& samplesUs);
// Times exchange() (one round trip; false when it went wrong) until it fails,
// maxSamples are taken or durationMs has passed. The samples in microseconds;
// *ok false when one failed.
std::vector<double> time_round_trips(int durationMs, size_t maxSamples,
                                     const std::function<bool()>& exchange, bool* ok);
// Calls sendOne() until it fails, maxMessages went out or durationMs has
// passed; the count sent. *ok false when one failed.
uint64_t send_for(int durationMs, uint64_t maxMessages, const std::function<bool()>& sendOne,
                  bool* ok);
// `received` messages of `size` body bytes in `seconds`.
TputResult one_way_result(bool ok, uint64_t received, int32_t size, double seconds);

// The median of get(round) over the rounds that succeeded, 0 when none did.
template <typename T, typename Get>
double median_over_rounds(const std::vector<T>& rounds, Get get) {
    std::vector<double> values;
    for (const T& r : rounds) {
        if (r.ok)
            values.push_back(get(r));
    }
    return values.empty() ? 0.0 : median(values);
}

// The median over the rounds of get(mine) / get(theirs), each pair measured
// within seconds of each other: on a shared machine the speed drifts, and a
// ratio of two figures taken far apart would mostly show the drift. 0 when no
// round has both.
template <typename T, typename Get>
double paired_ratio(const std::vector<T>& mine, const std::vector<T>& theirs, Get get) {
    std::vector<double> ratios;
    for (size_t i = 0; i < mine.size() && i < theirs.size(); ++i) {
        if (mine[i].ok && theirs[i].ok && get(theirs[i]) > 0)
            ratios.push_back(get(mine[i]) / get(theirs[i]));
    }
    return ratios.empty() ? 0.0 : median(ratios);
}

}  // namespace bench

#endif  // VEXA_BENCH_STATISTICS_H
