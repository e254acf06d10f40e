// Idle CPU of a server whose clients are connected and registered but send
// nothing. The clients live in child processes (this program started again),
// so that the CPU time of this process is the server's.
#ifndef VEXA_BENCH_IDLE_CHECK_H
#define VEXA_BENCH_IDLE_CHECK_H

#include <string>

namespace bench {

struct IdleResult {
    bool ok = false;
    int clients = 0;
    bool logsOn = false;
    double serverPercent = 0;  // of one core
    double clientPercent = 0;  // of one core, per child process
};

// `clients` library clients, one child process each.
IdleResult measure_idle(const std::string& self, int clients, bool logsOn, double seconds);

// The child's side, run by main for its child mode: connect and register,
// then wait for the end of standard input and leave in order.
int run_idle_client(const char* address, const char* dev);

}  // namespace bench

#endif  // VEXA_BENCH_IDLE_CHECK_H
