// Idle CPU of a server whose clients are connected and registered but send
// nothing. The clients live in child processes (this program started again),
// so that the CPU time of this process is the server's.
#ifndef VEXA_BENCH_IDLE_CHECK_H
#define VEXA_BENCH_IDLE_CHECK_H

namespace bench {

// Who keeps the server company.
struct IdleLoad {
    int clients = 0;
    // false: library clients, one child process each; true: one child
    // process holding that many raw TCP connections, each registered with a
    // hand-written frame (library clients each wake every few milliseconds,
    // and thousands of them would swamp the machine).
    bool rawConnections = false;
};

struct IdleResult {
    bool ok = false;
    IdleLoad load;
    bool logsOn = false;
    double serverPercent = 0;  // of one core
    double clientPercent = 0;  // of one core, per child process
};

IdleResult measure_idle(IdleLoad load, bool logsOn, double seconds);

// The children's sides, run by main for its child modes: connect and register,
// then wait for the end of standard input and leave.
int run_idle_client(const char* address, const char* dev);
int run_idle_connections(int port, int count);

}  // namespace bench

#endif  // VEXA_BENCH_IDLE_CHECK_H
