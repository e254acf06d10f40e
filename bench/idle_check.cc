#include "idle_check.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "frames.h"
#include "library_rig.h"
#include "statistics.h"

extern char** environ;

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

// This program again with `args`; its standard input is a pipe whose write
// end goes to *stdinWrite. 0 when it could not be started.
pid_t spawn_self(const std::string& self, std::vector<std::string> args, int* stdinWrite) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return 0;
    args.insert(args.begin(), self);
    std::vector<char*> argv;
    for (auto& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], STDIN_FILENO);
    pid_t pid = 0;
    int rc = posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[0]);
    if (rc != 0) {
        close(fds[1]);
        return 0;
    }
    *stdinWrite = fds[1];
    return pid;
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
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    const int32_t pid = getpid();
    std::vector<int> sockets;
    for (int i = 0; i < count; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const std::string dev = "idle" + std::to_string(i);
        // The body is the pid in this machine's byte order, as a client sends it.
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            !write_frame(fd, CLIENT_IPC_CONFIG, &pid, sizeof(pid), dev.c_str(), kTestItem)) {
            std::perror("idle connection");
            return 1;
        }
        sockets.push_back(fd);
    }
    wait_for_end_of_stdin();
    for (int fd : sockets)
        close(fd);
    return 0;
}

IdleResult measure_idle(const std::string& self, IdleLoad load, bool logsOn, double seconds) {
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

    std::vector<pid_t> children;
    std::vector<int> stdinPipes;
    const int processes = load.rawConnections ? 1 : load.clients;
    for (int i = 0; i < processes; ++i) {
        std::vector<std::string> args =
            load.rawConnections
                ? std::vector<std::string>{"--idle-connections", std::to_string(port),
                                           std::to_string(load.clients)}
                : std::vector<std::string>{"--idle-client", "tcp://:" + std::to_string(port),
                                           "idle" + std::to_string(i)};
        int stdinWrite = -1;
        pid_t pid = spawn_self(self, args, &stdinWrite);
        if (pid == 0)
            break;
        children.push_back(pid);
        stdinPipes.push_back(stdinWrite);
    }

    if (static_cast<int>(children.size()) == processes &&
        registrations.waitFor(load.clients, 60000)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        std::vector<double> childBefore;
        for (pid_t pid : children)
            childBefore.push_back(process_cpu_seconds(pid));
        const double cpuBefore = process_cpu_seconds();
        const int64_t wallBefore = now_ns();
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
        const double cpuAfter = process_cpu_seconds();
        const double wall = static_cast<double>(now_ns() - wallBefore) / 1e9;
        double childTotal = 0;
        for (size_t i = 0; i < children.size(); ++i)
            childTotal += process_cpu_seconds(children[i]) - childBefore[i];
        result.ok = true;
        result.serverPercent = (cpuAfter - cpuBefore) / wall * 100.0;
        result.clientPercent = childTotal / static_cast<double>(children.size()) / wall * 100.0;
    }

    for (int fd : stdinPipes)
        close(fd);  // the clients leave
    const int64_t giveUp = now_ns() + int64_t{10} * 1000000000;
    for (pid_t pid : children) {
        int status = 0;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (now_ns() > giveUp) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ipc_uninit_server(server);
    remove_endpoint_logs();
    return result;
}

}  // namespace bench
