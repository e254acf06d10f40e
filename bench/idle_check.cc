#include "idle_check.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "frames.h"
#include "library_rig.h"
#include "statistics.h"
#include "support/framed_peer.h"
#include "support/test_support.h"

namespace bench {
namespace {

// A process holding `count` sockets needs that many descriptors and some.
bool raise_open_file_limit(int count) {
    const auto needed = static_cast<rlim_t>(count) + 64;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;
    if (limit.rlim_cur >= needed)
        return true;
    limit.rlim_cur = needed;
    if (limit.rlim_max < needed)
        limit.rlim_max = needed;  // works for root only
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

void wait_for_end_of_stdin() {
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

int count_registrations(void* user, int32_t /*item*/, int32_t eventId, const char* /*dev*/,
                        int32_t /*sec*/, int32_t /*usec*/, const char* /*data*/, int32_t /*len*/) {
    if (eventId == CLIENT_IPC_CONFIG)
        static_cast<RegistrationCount*>(user)->add();
    return 0;
}

int ignore_commands(void*, int32_t, int32_t, const char*, int32_t, int32_t, const char*, int32_t) {
    return 0;
}

}  // namespace

int run_idle_client(const char* address, const char* dev) {
    void* client = ipc_init_client2(address, ignore_commands, nullptr, dev, kTestItem, 3000);
    if (client == nullptr)
        return 1;
    wait_for_end_of_stdin();
    ipc_uninit_client(client);
    return 0;
}

int run_idle_connections(int port, int count) {
    if (!raise_open_file_limit(count)) {
        std::perror("setrlimit(RLIMIT_NOFILE)");
        return 1;
    }
    std::deque<vexa_test::FramedConn> connections;
    for (int i = 0; i < count; ++i) {
        vexa_test::FramedConn& conn = connections.emplace_back();
        if (!conn.connectTo(port) ||
            !conn.registerAs("idle" + std::to_string(i), kTestItem, getpid())) {
            std::perror("idle connection");
            return 1;
        }
    }
    wait_for_end_of_stdin();
    return 0;
}

IdleResult measure_idle(IdleLoad load, bool logsOn, double seconds) {
    IdleResult result;
    result.load = load;
    result.logsOn = logsOn;
    if (load.rawConnections && !raise_open_file_limit(load.clients))
        return result;
    set_endpoint_logs(logsOn);
    RegistrationCount registrations;
    int port = 0;
    void* server = start_server(count_registrations, &registrations, &port);
    if (server == nullptr)
        return result;

    vexa_test::TempDir outputs("vexa-bench-idle-");
    std::deque<vexa_test::Child> children;
    const int processes = load.rawConnections ? 1 : load.clients;
    for (int i = 0; i < processes; ++i) {
        const std::vector<std::string> argv =
            load.rawConnections
                ? std::vector<std::string>{"/proc/self/exe", "--idle-connections",
                                           std::to_string(port), std::to_string(load.clients)}
                : std::vector<std::string>{"/proc/self/exe", "--idle-client",
                                           "tcp://:" + std::to_string(port),
                                           "idle" + std::to_string(i)};
        if (!children.emplace_back(argv, outputs.path()).started()) {
            children.pop_back();
            break;
        }
    }

    if (static_cast<int>(children.size()) == processes &&
        registrations.waitFor(load.clients, 60000)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::vector<double> childBefore;
        for (const vexa_test::Child& child : children)
            childBefore.push_back(process_cpu_seconds(child.pid()));
        const double cpuBefore = process_cpu_seconds();
        const int64_t wallBefore = now_ns();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        const double cpuAfter = process_cpu_seconds();
        const double wall = static_cast<double>(now_ns() - wallBefore) / 1e9;
        double childTotal = 0;
        for (size_t i = 0; i < children.size(); ++i)
            childTotal += process_cpu_seconds(children[i].pid()) - childBefore[i];
        result.ok = true;
        result.serverPercent = (cpuAfter - cpuBefore) / wall * 100.0;
        result.clientPercent = childTotal / static_cast<double>(children.size()) / wall * 100.0;
    }

    for (vexa_test::Child& child : children)
        child.closeInput();  // the clients leave
    // One bound of 10 s for them all, not 10 s each.
    const long long giveUp = vexa_test::monotonic_ms() + 10000;
    for (vexa_test::Child& child : children) {
        child.wait(static_cast<int>(std::max(0LL, giveUp - vexa_test::monotonic_ms())));
        // Their output went to files; what they complained about belongs on ours.
        std::fputs(child.err().c_str(), stderr);
    }
    ipc_uninit_server(server);
    remove_endpoint_logs();
    return result;
}

}  // namespace bench
