#include "idle_check.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "frames.h"
#include "library_rig.h"
#include "statistics.h"

extern char** environ;

namespace bench {
namespace {

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

IdleResult measure_idle(const std::string& self, int clients, bool logsOn, double seconds) {
    IdleResult result;
    result.clients = clients;
    result.logsOn = logsOn;
    set_endpoint_logs(logsOn);
    RegistrationCount registrations;
    int port = 0;
    void* server = start_server(count_registrations, &registrations, &port);
    if (server == nullptr)
        return result;

    std::vector<pid_t> children;
    std::vector<int> stdinPipes;
    for (int i = 0; i < clients; ++i) {
        std::vector<std::string> args = {"--idle-client", "tcp://:" + std::to_string(port),
                                         "idle" + std::to_string(i)};
        int stdinWrite = -1;
        pid_t pid = spawn_self(self, args, &stdinWrite);
        if (pid == 0)
            break;
        children.push_back(pid);
        stdinPipes.push_back(stdinWrite);
    }

    if (static_cast<int>(children.size()) == clients && registrations.waitFor(clients, 15000)) {
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
        close(fd);  // the clients leave in order
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
