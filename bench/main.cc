// vexa_bench: round-trip latency, one-way throughput, CPU time and system
// calls per message, and idle CPU of libvexatool64, measured through its
// exported functions only, beside the same exchanges over a raw loopback TCP
// connection (the baseline) and, when built with libzmq, over ZeroMQ.
//
// Host and test are a server and a client endpoint in this process; see
// library_rig.h for who sends from which thread. The endpoint logs go to a
// temporary directory (VEXA_LOG_DIR, set before any endpoint is made). All
// traffic stays on 127.0.0.1 and every case is bounded in time.
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "idle_check.h"
#include "library_rig.h"
#include "report.h"
#include "settings.h"
#include "statistics.h"
#include "syscall_count.h"
#include "transports.h"

namespace {

using namespace bench;

constexpr size_t kMaxSamples = 200000;
constexpr int kIdleClients = 10;
constexpr int kManyIdleClients = 2000;

void run_round_trip(Transport& t, int32_t size, const Settings& s) {
    t.rtt(size, s.warmupMs, kMaxSamples);
    const double cpuBefore = process_cpu_seconds();
    RttResult r = t.rtt(size, s.caseMs, kMaxSamples);
    if (r.samples > 0)
        r.cpuUs = (process_cpu_seconds() - cpuBefore) * 1e6 / static_cast<double>(r.samples);
    t.results[size].rtt.push_back(r);
    progress(t.name, "round trip", size,
             r.ok
                 ? fixed(r.medianUs, 1) + " us median, " + fixed(r.p99Us, 1) + " us p99, " +
                       std::to_string(r.samples) + " samples, " + fixed(r.cpuUs, 1) + " us CPU each"
                 : "FAILED");
}

void run_one_way(Transport& t, int32_t size, const Settings& s) {
    t.tput(size, s.warmupMs, UINT64_MAX);
    const double cpuBefore = process_cpu_seconds();
    TputResult r = t.tput(size, s.caseMs, UINT64_MAX);
    if (r.messages > 0)
        r.cpuUs = (process_cpu_seconds() - cpuBefore) * 1e6 / static_cast<double>(r.messages);
    t.results[size].tput.push_back(r);
    progress(t.name, "one way", size,
             r.ok ? fixed(r.msgsPerSec, 0) + " msg/s, " + fixed(r.mbPerSec, 1) + " MB/s, " +
                        fixed(r.cpuUs, 2) + " us CPU each"
                  : "FAILED");
}

// One round: every transport at every size, the transports one after the
// other for each size, so that the figures compared are taken close together.
bool run_round(std::vector<Transport>& transports, const Settings& s) {
    const bool ok = open_all(transports);
    for (int32_t size : s.sizes) {
        for (Transport& t : transports) {
            if (ok && t.rtt)
                run_round_trip(t, size, s);
        }
    }
    for (int32_t size : s.sizes) {
        for (Transport& t : transports) {
            if (ok && t.tput)
                run_one_way(t, size, s);
        }
    }
    std::fprintf(stderr, "  (endpoint logs written this round: %.1f MB)\n",
                 static_cast<double>(endpoint_log_bytes()) / 1e6);
    close_all(transports);
    remove_endpoint_logs();
    return ok;
}

std::vector<IdleResult> run_idle_checks(const Settings& s) {
    std::vector<IdleResult> results;
    for (IdleLoad load : {IdleLoad{kIdleClients, false}, IdleLoad{kManyIdleClients, true}}) {
        for (bool logsOn : {false, true}) {
            std::fprintf(stderr, "idle CPU, %d clients, logs %s, %.1f s\n", load.clients,
                         logsOn ? "on" : "off", s.idleSeconds);
            results.push_back(measure_idle(load, logsOn, s.idleSeconds));
        }
    }
    return results;
}

void usage() {
    std::printf(
        "usage: vexa_bench [--rounds N] [--case-ms MS] [--idle-seconds S] [--no-idle]\n"
        "                  [--no-syscalls] [--quick] [--only TEXT] [--size BYTES]... [--pin CPU]\n"
        "Measures libvexatool64 against a raw loopback TCP baseline (and ZeroMQ when built\n"
        "with it) and prints the tables; progress goes to standard error. --pin CPU runs\n"
        "every process and thread of the run on that one CPU.\n");
}

Settings parse_options(int argc, char** argv) {
    Settings settings;
    bool sizesGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto next = [&]() -> const char* {
            if (i + 1 >= argc) {
                usage();
                std::exit(2);
            }
            return argv[++i];
        };
        if (arg == "--rounds") {
            settings.rounds = std::max(1, std::atoi(next()));
        } else if (arg == "--case-ms") {
            settings.caseMs = std::max(50, std::atoi(next()));
        } else if (arg == "--idle-seconds") {
            settings.idleSeconds = std::max(0.5, std::atof(next()));
        } else if (arg == "--no-idle") {
            settings.idle = false;
        } else if (arg == "--no-syscalls") {
            settings.syscallMessages = 0;
        } else if (arg == "--size") {
            if (!sizesGiven)
                settings.sizes.clear();
            sizesGiven = true;
            settings.sizes.push_back(std::min(std::max(0, std::atoi(next())), kBiggestBody));
        } else if (arg == "--only") {
            settings.only = next();
        } else if (arg == "--pin") {
            settings.pinCpu = std::atoi(next());
        } else if (arg == "--quick") {
            settings.rounds = 1;
            settings.caseMs = 200;
            settings.warmupMs = 50;
            settings.idleSeconds = 1.0;
            settings.syscallMessages = std::min(settings.syscallMessages, 500);
        } else {
            usage();
            std::exit(arg == "--help" || arg == "-h" ? 0 : 2);
        }
    }
    return settings;
}

// Binds this thread, and so every thread and process it starts from now on
// (the re-executed program and its children included), to one CPU.
void pin_to(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu >= 0 && cpu < CPU_SETSIZE)
        CPU_SET(cpu, &set);
    if (CPU_COUNT(&set) != 1 || sched_setaffinity(0, sizeof(set), &set) != 0) {
        std::fprintf(stderr, "vexa_bench: cannot pin to CPU %d\n", cpu);
        std::exit(2);
    }
}

// The one CPU this process may run on, -1 when it may run on more.
int pinned_cpu() {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof(set), &set) != 0 || CPU_COUNT(&set) != 1)
        return -1;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set))
            return cpu;
    }
    return -1;
}

// Points VEXA_LOG_DIR at a fresh temporary directory.
void make_log_dir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vexa-bench-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) {
        std::perror("mkdtemp");
        std::exit(1);
    }
    setenv("VEXA_LOG_DIR", (std::string(name.data()) + "/").c_str(), 1);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--idle-client") == 0)
        return run_idle_client(argv[2], argv[3]);
    if (argc == 4 && std::strcmp(argv[1], "--idle-connections") == 0)
        return run_idle_connections(std::atoi(argv[2]), std::atoi(argv[3]));

    Settings settings = parse_options(argc, argv);
    if (settings.pinCpu >= 0)
        pin_to(settings.pinCpu);
    const bool ownsDir = endpoint_log_dir().empty();
    if (ownsDir)
        make_log_dir();
    signal(SIGPIPE, SIG_IGN);
    body_bytes();
    print_header(pinned_cpu());

    LibraryRig rigLogsOff;
    LibraryRig rigLogsOn;
    std::vector<Transport> transports = make_transports(&rigLogsOff, &rigLogsOn);
    transports.erase(std::remove_if(transports.begin(), transports.end(),
                                    [&](const Transport& t) {
                                        return t.name.find(settings.only) == std::string::npos;
                                    }),
                     transports.end());

    bool ok = true;
    for (int round = 1; round <= settings.rounds && ok; ++round) {
        std::fprintf(stderr, "round %d of %d\n", round, settings.rounds);
        ok = run_round(transports, settings);
    }

    std::string syscallsWhy = "--no-syscalls";
    if (ok && settings.syscallMessages > 0) {
        std::fprintf(stderr, "system calls, %d round trips and messages per case\n",
                     settings.syscallMessages);
        if (count_syscalls(transports, settings, &syscallsWhy))
            syscallsWhy.clear();
        remove_endpoint_logs();
    }

    std::vector<IdleResult> idle;
    if (ok && settings.idle)
        idle = run_idle_checks(settings);

    if (ok)
        print_report(transports, settings, syscallsWhy, idle);
    if (ownsDir) {
        std::error_code ec;
        std::filesystem::remove_all(endpoint_log_dir(), ec);
    }
    return ok ? 0 : 1;
}
