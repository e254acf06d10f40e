#include "report.h"

#include <cstdio>

#include "statistics.h"

namespace bench {
namespace {

const CaseResults& results_of(const Transport* t, int32_t size) {
    static const CaseResults none;
    if (t == nullptr)
        return none;
    auto found = t->results.find(size);
    return found != t->results.end() ? found->second : none;
}

// A figure of a row at a size: the median over the rounds.
double figure(const Transport* t, int32_t size, double RttResult::*field) {
    return median_over_rounds(results_of(t, size).rtt,
                              [field](const RttResult& r) { return r.*field; });
}
double figure(const Transport* t, int32_t size, double TputResult::*field) {
    return median_over_rounds(results_of(t, size).tput,
                              [field](const TputResult& r) { return r.*field; });
}

// A figure of a row as a ratio of the same figure of `base`, paired by round;
// 0 when either was not measured.
double ratio(const Transport* t, const Transport* base, int32_t size, double RttResult::*field) {
    return paired_ratio(results_of(t, size).rtt, results_of(base, size).rtt,
                        [field](const RttResult& r) { return r.*field; });
}
double ratio(const Transport* t, const Transport* base, int32_t size, double TputResult::*field) {
    return paired_ratio(results_of(t, size).tput, results_of(base, size).tput,
                        [field](const TputResult& r) { return r.*field; });
}

std::string times(double r) {
    return r > 0 ? fixed(r, 2) + "x" : "n/a";
}

// One table: a row for each transport that `has`, a column for each size.
template <typename Has, typename Cell>
void print_table(const std::vector<Transport>& transports, const Settings& settings, Has has,
                 Cell cell) {
    std::printf("| transport |");
    for (int32_t size : settings.sizes)
        std::printf(" %s |", size_name(size).c_str());
    std::printf("\n|---|");
    for (size_t i = 0; i < settings.sizes.size(); ++i)
        std::printf("---|");
    std::printf("\n");
    for (const Transport& t : transports) {
        if (!has(t))
            continue;
        std::printf("| %s |", t.name.c_str());
        for (int32_t size : settings.sizes)
            std::printf(" %s |", cell(t, size).c_str());
        std::printf("\n");
    }
}

void print_targets(const std::vector<Transport>& transports, const Settings& settings,
                   const std::vector<IdleResult>& idle) {
    const Transport* raw = find_role(transports, Role::kBaseline);
    const Transport* off = find_role(transports, Role::kLibraryOff);
    const Transport* fromHost = find_role(transports, Role::kLibraryOffFromHostThread);
    const Transport* on = find_role(transports, Role::kLibraryOn);
    std::printf("\nTargets (endpoint logs off unless said; ratios paired by round)\n\n");
    int checked = 0;
    int missed = 0;
    auto check = [&](const std::string& what, double value, bool good, const char* limit) {
        std::printf("- %s: %s (target %s) %s\n", what.c_str(), fixed(value, 2).c_str(), limit,
                    good ? "met" : "MISSED");
        ++checked;
        missed += good ? 0 : 1;
    };
    // Ratios this run did not measure (0) are left out.
    auto checkRatio = [&](const std::string& what, double r, bool good, const char* limit) {
        if (r > 0)
            check(what, r, good, limit);
    };
    const std::vector<int32_t> small = {0, 1024};
    for (int32_t size : small) {
        double r = ratio(off, raw, size, &RttResult::medianUs);
        checkRatio(
            "round-trip median, answered in the test's callback / raw TCP, " + size_name(size), r,
            r <= 1.1, "<= 1.1");
    }
    for (int32_t size : small) {
        double r = ratio(fromHost, raw, size, &RttResult::medianUs);
        checkRatio("round-trip median, answered on the host's thread / raw TCP, " + size_name(size),
                   r, r <= 1.5, "<= 1.5");
    }
    for (int32_t size : settings.sizes) {
        double r = ratio(off, raw, size, &TputResult::msgsPerSec);
        checkRatio("one-way throughput / raw TCP, " + size_name(size), r, r >= 1.0, ">= 1.0");
    }
    for (int32_t size : settings.sizes) {
        double r = ratio(on, off, size, &RttResult::medianUs);
        checkRatio("round-trip median, logs on / logs off, " + size_name(size), r, r <= 1.5,
                   "<= 1.5");
    }
    for (int32_t size : small) {
        double r = ratio(off, raw, size, &RttResult::cpuUs);
        checkRatio("CPU time per round trip / raw TCP, " + size_name(size), r, r <= 1.0, "<= 1.0");
    }
    for (int32_t size : small) {
        double r = ratio(off, raw, size, &TputResult::cpuUs);
        checkRatio("CPU time per one-way message / raw TCP, " + size_name(size), r, r <= 1.0,
                   "<= 1.0");
    }
    for (const IdleResult& result : idle) {
        if (result.logsOn || !result.ok)
            continue;
        const bool many = result.load.rawConnections;
        check("idle server with " + std::to_string(result.load.clients) + " clients, % of one core",
              result.serverPercent, result.serverPercent < (many ? 2.0 : 1.0),
              many ? "< 2" : "< 1");
    }
    std::printf("\n%d of %d targets missed\n", missed, checked);
}

void print_idle(const std::vector<IdleResult>& idle, const Settings& settings) {
    std::printf(
        "\nIdle CPU of a server whose clients are connected and registered but send nothing, "
        "over %.1f s\n\n",
        settings.idleSeconds);
    std::printf(
        "| clients | endpoint logs | server, %% of one core | each client process, %% of one "
        "core |\n");
    std::printf("|---|---|---|---|\n");
    for (const IdleResult& result : idle) {
        const std::string clients =
            std::to_string(result.load.clients) + (result.load.rawConnections
                                                       ? " raw TCP connections in one process"
                                                       : " library clients, a process each");
        const char* logs = result.logsOn ? "on" : "off";
        if (!result.ok) {
            std::printf("| %s | %s | failed | failed |\n", clients.c_str(), logs);
            continue;
        }
        std::printf("| %s | %s | %.2f | %.2f |\n", clients.c_str(), logs, result.serverPercent,
                    result.clientPercent);
    }
}

}  // namespace

std::string size_name(int32_t size) {
    if (size == 0)
        return "0 B";
    if (size % 1024 == 0)
        return std::to_string(size / 1024) + " KiB";
    return std::to_string(size) + " B";
}

std::string fixed(double value, int decimals) {
    if (value < 0)
        return "-";
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

void progress(const std::string& transport, const std::string& what, int32_t size,
              const std::string& figure) {
    std::fprintf(stderr, "  %-33s %-10s %-9s %s\n", transport.c_str(), what.c_str(),
                 size_name(size).c_str(), figure.c_str());
}

void print_header(int pinnedCpu) {
    if (pinnedCpu >= 0) {
        std::printf("Pinned: every process and thread of this run on CPU %d\n", pinnedCpu);
    } else {
        std::printf("Not pinned: processes and threads go wherever the system puts them\n");
    }
    std::fflush(stdout);
}

void print_report(const std::vector<Transport>& transports, const Settings& settings,
                  const std::string& syscallsWhy, const std::vector<IdleResult>& idle) {
    const Transport* raw = find_role(transports, Role::kBaseline);
    auto hasRtt = [](const Transport& t) { return static_cast<bool>(t.rtt); };
    auto hasTput = [](const Transport& t) { return static_cast<bool>(t.tput); };
    auto any = [](const Transport&) { return true; };

    std::printf(
        "\nRound trip host -> test -> host, microseconds: median / p99 (median as a ratio "
        "of raw TCP's, paired by round)\n\n");
    print_table(transports, settings, hasRtt, [&](const Transport& t, int32_t size) {
        std::string cell = fixed(figure(&t, size, &RttResult::medianUs), 1) + " / " +
                           fixed(figure(&t, size, &RttResult::p99Us), 1);
        if (&t != raw)
            cell += " (" + times(ratio(&t, raw, size, &RttResult::medianUs)) + ")";
        return cell;
    });
    std::printf(
        "\nThe vexatool rows answer each echo in the host's callback, which sends the next "
        "message; \"host's thread\" hands each echo to the host's own thread, which sends the "
        "next one.\n");

    std::printf(
        "\nOne-way throughput test -> host: messages/s, MB/s of head and body "
        "(ratio to raw TCP, paired by round)\n\n");
    print_table(transports, settings, hasTput, [&](const Transport& t, int32_t size) {
        std::string cell = fixed(figure(&t, size, &TputResult::msgsPerSec), 0) + " msg/s, " +
                           fixed(figure(&t, size, &TputResult::mbPerSec), 1) + " MB/s";
        if (&t != raw)
            cell += " (" + times(ratio(&t, raw, size, &TputResult::msgsPerSec)) + ")";
        return cell;
    });

    std::printf(
        "\nCPU time per operation, microseconds of user and system time of the whole "
        "process (both sides): round trip / one-way message (ratios to raw TCP, paired by "
        "round)\n\n");
    print_table(transports, settings, any, [&](const Transport& t, int32_t size) {
        const double rtt = t.rtt ? figure(&t, size, &RttResult::cpuUs) : -1;
        const double tput = t.tput ? figure(&t, size, &TputResult::cpuUs) : -1;
        std::string cell = fixed(rtt, 1) + " / " + fixed(tput, 2);
        if (&t != raw)
            cell += " (" + times(ratio(&t, raw, size, &RttResult::cpuUs)) + ", " +
                    times(ratio(&t, raw, size, &TputResult::cpuUs)) + ")";
        return cell;
    });

    if (syscallsWhy.empty()) {
        std::printf(
            "\nSystem calls per operation of the whole process (both sides), counted by the "
            "kernel over %d round trips and %d one-way messages per case, apart from the timed "
            "cases: round trip / one-way message\n\n",
            settings.syscallMessages, settings.syscallMessages);
        print_table(transports, settings, any, [](const Transport& t, int32_t size) {
            auto found = t.syscalls.find(size);
            const SyscallFigures figures =
                found != t.syscalls.end() ? found->second : SyscallFigures{};
            return fixed(figures.perRoundTrip, 1) + " / " + fixed(figures.perMessage, 1);
        });
    } else {
        std::printf("\nSystem calls per operation: not counted (%s)\n", syscallsWhy.c_str());
    }

    print_targets(transports, settings, idle);
    if (!idle.empty())
        print_idle(idle, settings);
    std::printf(
        "\nSettings: %d round(s) of %d ms per case after %d ms of warm-up; figures are "
        "the median over the rounds, ratios the median of the rounds' ratios.\n",
        settings.rounds, settings.caseMs, settings.warmupMs);
}

}  // namespace bench
