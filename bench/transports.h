// The rows of the tables: each transport with what it can measure and the
// results gathered for it, round by round and size by size.
#ifndef VEXA_BENCH_TRANSPORTS_H
#define VEXA_BENCH_TRANSPORTS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "library_rig.h"
#include "statistics.h"

namespace bench {

// The rows the targets are checked on.
enum class Role { kBaseline, kLibraryOff, kLibraryOffFromHostThread, kLibraryOn, kOther };

using RttFn = std::function<RttResult(int32_t size, int durationMs, size_t maxSamples)>;
using TputFn = std::function<TputResult(int32_t size, int durationMs, uint64_t maxMessages)>;

// All rounds of one transport at one size, failed ones included, so that the
// rounds of two transports line up.
struct CaseResults {
    std::vector<RttResult> rtt;
    std::vector<TputResult> tput;
};

// System calls of the whole process per operation, from the counted pass;
// negative when not counted.
struct SyscallFigures {
    double perRoundTrip = -1;
    double perMessage = -1;
};

struct Transport {
    std::string name;
    Role role = Role::kOther;
    RttFn rtt;                    // empty: no round trips in this row
    TputFn tput;                  // empty: no one-way traffic in this row
    std::function<bool()> open;   // before each round (may be empty)
    std::function<void()> close;  // after it (may be empty)
    std::map<int32_t, CaseResults> results;
    std::map<int32_t, SyscallFigures> syscalls;
};

// Every row in table order. The rigs stay open through a round (the marker
// file is looked at only when an endpoint is made, so the two keep their log
// settings) and must outlive the rows.
std::vector<Transport> make_transports(LibraryRig* logsOff, LibraryRig* logsOn);
const Transport* find_role(const std::vector<Transport>& transports, Role role);
// Opens every row that needs it; false (with a line on standard error) when
// one cannot start.
bool open_all(std::vector<Transport>& transports);
void close_all(std::vector<Transport>& transports);

// The raw TCP baseline (raw_tcp.cc): the same exchanges over one plain
// loopback TCP connection with TCP_NODELAY on both ends and the library's
// framing, one blocking thread on each side (the echo or receiving side
// stands where the test's or the host's processing thread would). With
// libraryBuffers the sockets ask for the buffer sizes every endpoint of the
// library asks for (262144 bytes for sending, 524288 for receiving) instead
// of the kernel's defaults, to tell effects of those sizes from effects of
// the library's code.
RttResult raw_round_trip(bool libraryBuffers, int32_t size, int durationMs, size_t maxSamples);
TputResult raw_one_way(bool libraryBuffers, int32_t size, int durationMs, uint64_t maxMessages);

#ifdef VEXA_BENCH_HAVE_ZMQ
// ZeroMQ (zeromq.cc): REQ/REP for the round trip, PUSH/PULL for the one-way
// traffic, over tcp://127.0.0.1, one ZeroMQ message per frame (the library's
// head, then the body).
RttResult zmq_round_trip(int32_t size, int durationMs, size_t maxSamples);
TputResult zmq_one_way(int32_t size, int durationMs, uint64_t maxMessages);
#endif

}  // namespace bench

#endif  // VEXA_BENCH_TRANSPORTS_H
