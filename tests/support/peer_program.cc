// The one program the tests launch or start, through the test copy of the
// library:
//
//   peer_program [-t ADDRESS] [-d DEV] [--client ITEM [--exit]] [--host]
//
// With VEXA_TEST_ARGV_FILE set it first writes its pid, its arguments, one
// per line, "token T", its VEXA_LAUNCH_TOKEN (or "-"), and "sockets N", the
// sockets it inherited, to that file (through a rename, so a reader never
// sees half).
// --client: registers as DEV / ITEM at ADDRESS and echoes every command with
//   event + 1; on 901 or when the server goes it leaves in order, on 902 (or
//   at once with --exit) it dies without a word.
// --host: a server at ADDRESS that echoes every message to its sender; prints
//   "ready" once listening, then waits to be killed.
// Otherwise it ends at once with status 0. It never outlives two minutes.
#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vexatool.h"

namespace {

std::atomic<void*> g_endpoint{nullptr};
std::atomic<int> g_command{0};

void* endpoint() {
    // A message can come before the init call has returned the handle.
    while (g_endpoint.load() == nullptr)
        usleep(100);
    return g_endpoint.load();
}

int on_command(void*, int32_t, int32_t event, const char*, int32_t, int32_t, const char* data,
               int32_t len) {
    if (event == 901 || event == 902 || event == CLIENT_IPC_DISCONNECTED) {
        g_command = event;
    } else {
        ipc_send_message(endpoint(), event + 1, data, len);
    }
    return 0;
}

int on_message(void*, int32_t item, int32_t event, const char* dev, int32_t, int32_t,
               const char* data, int32_t len) {
    if (event != CLIENT_IPC_CONFIG && event != CLIENT_IPC_CLOSED && event != CLIENT_IPC_OFFLINE)
        ipc_send_command(endpoint(), dev, item, event, data, len);
    return 0;
}

int open_sockets() {
    int count = 0;
    if (DIR* fds = opendir("/proc/self/fd")) {
        while (const dirent* fd = readdir(fds)) {
            char target[64] = {};
            const std::string link = std::string("/proc/self/fd/") + fd->d_name;
            if (readlink(link.c_str(), target, sizeof(target) - 1) > 0 &&
                std::strncmp(target, "socket:", 7) == 0)
                ++count;
        }
        closedir(fds);
    }
    return count;
}

}  // namespace

int main(int argc, char** argv) {
    alarm(120);
    if (const char* record = std::getenv("VEXA_TEST_ARGV_FILE")) {
        const std::string part = std::string(record) + ".part";
        if (FILE* out = std::fopen(part.c_str(), "w")) {
            std::fprintf(out, "%d\n", static_cast<int>(getpid()));
            for (int i = 0; i < argc; ++i)
                std::fprintf(out, "%s\n", argv[i]);
            const char* token = std::getenv("VEXA_LAUNCH_TOKEN");
            std::fprintf(out, "token %s\n", token != nullptr ? token : "-");
            std::fprintf(out, "sockets %d\n", open_sockets());
            std::fclose(out);
            std::rename(part.c_str(), record);
        }
    }
    std::string address, dev, mode;
    int item = 0;
    bool exitAtOnce = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : "";
        address = arg == "-t" ? next : address;
        dev = arg == "-d" ? next : dev;
        mode = arg == "--client" || arg == "--host" ? arg : mode;
        item = arg == "--client" ? std::atoi(next) : item;
        exitAtOnce = exitAtOnce || arg == "--exit";
    }
    if (mode == "--host") {
        g_endpoint = ipc_init_server(address.c_str(), on_message, nullptr);
        std::puts(g_endpoint.load() != nullptr ? "ready" : "failed");
        std::fflush(stdout);
        while (g_endpoint.load() != nullptr)
            pause();
        return 1;
    }
    if (mode != "--client")
        return 0;
    void* client = ipc_init_client2(address.c_str(), on_command, nullptr, dev.c_str(), item, 5000);
    if (client == nullptr)
        return 3;
    g_endpoint = client;
    while (!exitAtOnce && g_command.load() == 0)
        usleep(2000);
    if (exitAtOnce || g_command.load() == 902)
        _exit(0);
    ipc_uninit_client(client);
    return 0;
}
