#include "statistics.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "frames.h"

namespace bench {

int64_t now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double process_cpu_seconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double process_cpu_seconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = text.rfind(')');
    if (close == std::string::npos)
        return 0.0;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    // After the name: state is field 3, utime field 14, stime field 15.
    for (int index = 3; index <= 15 && fields >> field; ++index) {
        if (index == 14)
            utime = std::strtoull(field.c_str(), nullptr, 10);
        if (index == 15)
            stime = std::strtoull(field.c_str(), nullptr, 10);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double percentile(std::vector<double> values, double fraction) {
    if (values.empty())
        return 0.0;
    size_t index = static_cast<size_t>(fraction * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), values.begin() + static_cast<long>(index), values.end());
    return values[index];
}

double median(const std::vector<double>& values) {
    return percentile(values, 0.5);
}

RttResult round_trip_result(bool ok, const std::vector<double>& samplesUs) {
    RttResult result;
    result.ok = ok && !samplesUs.empty();
    result.samples = samplesUs.size();
    result.medianUs = median(samplesUs);
    result.p99Us = percentile(samplesUs, 0.99);
    return result;
}

TputResult one_way_result(bool ok, uint64_t received, int32_t size, double seconds) {
    TputResult result;
    result.ok = ok && seconds > 0;
    result.messages = received;
    if (seconds > 0) {
        result.msgsPerSec = static_cast<double>(received) / seconds;
        result.mbPerSec = static_cast<double>(received) * (kHeadSize + size) / seconds / 1e6;
    }
    return result;
}

std::vector<double> time_round_trips(int durationMs, size_t maxSamples,
                                     const std::function<bool()>& exchange, bool* ok) {
    std::vector<double> samples;
    samples.reserve(maxSamples);
    const int64_t deadline = now_ns() + int64_t{durationMs} * 1000000;
    *ok = true;
    while (samples.size() < maxSamples) {
        const int64_t start = now_ns();
        if (!exchange()) {
            *ok = false;
            break;
        }
        const int64_t end = now_ns();
        samples.push_back(static_cast<double>(end - start) / 1000.0);
        if (end >= deadline)
            break;
    }
    return samples;
}

uint64_t send_for(int durationMs, uint64_t maxMessages, const std::function<bool()>& sendOne,
                  bool* ok) {
    const int64_t deadline = now_ns() + int64_t{durationMs} * 1000000;
    uint64_t sent = 0;
    *ok = true;
    do {
        if (!sendOne()) {
            *ok = false;
            break;
        }
        ++sent;
    } while (sent < maxMessages && now_ns() < deadline);
    return sent;
}

}  // namespace bench
