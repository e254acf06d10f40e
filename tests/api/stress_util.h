// Helpers of the fault and load tests, which use the exported interface only:
// an event recorder, loopback ports, raw framed messages for peers written in
// the tests, child processes with a line-based standard output, and readings
// of the process's own memory and log files.
#ifndef VEXA_TESTS_API_STRESS_UTIL_H
#define VEXA_TESTS_API_STRESS_UTIL_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "vexatool.h"

extern char** environ;

namespace vexa_stress {

constexpr int kHeadSize = 100;

inline long long now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A TCP port on 127.0.0.1 that was free a moment ago.
inline int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

// Polls `condition` every 2 ms; false once `timeoutMs` have passed.
inline bool wait_until(const std::function<bool()>& condition, int timeoutMs) {
    const long long end = now_ms() + timeoutMs;
    while (!condition()) {
        if (now_ms() > end)
            return false;
        usleep(2000);
    }
    return true;
}

// The directory the testing library writes the endpoint logs to (set by CTest
// and by the scripts), "" when the variable is missing.
inline std::string endpoint_log_dir() {
    const char* dir = std::getenv("VEXA_TEST_ENDPOINT_LOG_DIR");
    if (dir == nullptr || *dir == '\0')
        return "";
    std::string path = dir;
    return path.back() == '/' ? path : path + "/";
}

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Lines of a log file that contain `text`.
inline int count_lines_with(const std::string& path, const std::string& text) {
    std::istringstream in(read_file(path));
    int count = 0;
    for (std::string line; std::getline(in, line);)
        count += line.find(text) != std::string::npos ? 1 : 0;
    return count;
}

// VmRSS of this process in KiB, -1 when it cannot be read.
inline long rss_kib() {
    std::istringstream in(read_file("/proc/self/status"));
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, 6, "VmRSS:") == 0)
            return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

// Bytes the C library's allocator has handed out and not taken back, in KiB,
// -1 where it cannot tell.
inline long heap_in_use_kib() {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>((info.uordblks + info.hblkhd) / 1024);
#else
    return -1;
#endif
}

// Gives the free memory the C library's allocator keeps (of every thread's
// arena) back to the system, where it can.
inline void trim_heap() {
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}

// Memory figures mean little under a sanitizer's or valgrind's allocator.
inline bool foreign_allocator() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    const char* preload = std::getenv("LD_PRELOAD");
    return preload != nullptr && std::strstr(preload, "vgpreload") != nullptr;
#endif
}

// One event as a callback saw it.
struct Event {
    int32_t item;
    int32_t id;
    std::string dev;
    std::string data;
    int32_t length;
    bool nullData;
};

// Collects the events of one endpoint's callback; thread-safe.
class Recorder {
  public:
    // Extra work done on the callback's thread before the event is stored.
    std::function<void(const Event&)> onEvent;

    static int callback(void* user, int32_t item, int32_t id, const char* dev, int32_t /*sec*/,
                        int32_t /*usec*/, const char* data, int32_t length) {
        auto* self = static_cast<Recorder*>(user);
        Event event{item,
                    id,
                    dev != nullptr ? dev : "",
                    data != nullptr && length > 0 ? std::string(data, static_cast<size_t>(length))
                                                  : std::string(),
                    length,
                    data == nullptr};
        if (self->onEvent)
            self->onEvent(event);
        std::lock_guard<std::mutex> guard(self->m_lock);
        self->m_events.push_back(event);
        self->m_changed.notify_all();
        return 0;
    }

    // Waits until `n` events pass `match`; false after `timeoutMs`.
    bool waitCount(const std::function<bool(const Event&)>& match, int n, int timeoutMs = 20000) {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return countLocked(match) >= n; });
    }
    bool waitFor(int32_t id, const std::string& dev, int n = 1, int timeoutMs = 20000) {
        return waitCount([&](const Event& e) { return e.id == id && e.dev == dev; }, n, timeoutMs);
    }
    int count(const std::function<bool(const Event&)>& match) {
        std::lock_guard<std::mutex> guard(m_lock);
        return countLocked(match);
    }
    int count(int32_t id, const std::string& dev) {
        return count([&](const Event& e) { return e.id == id && e.dev == dev; });
    }
    int count(int32_t id) {
        return count([&](const Event& e) { return e.id == id; });
    }
    std::vector<Event> events() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_events;
    }

  private:
    int countLocked(const std::function<bool(const Event&)>& match) const {
        int n = 0;
        for (const Event& e : m_events)
            n += match(e) ? 1 : 0;
        return n;
    }

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<Event> m_events;
};

// ---- Raw framed messages, for peers written in the tests ----

inline void put_be32(uint8_t* at, int32_t value) {
    const auto v = static_cast<uint32_t>(value);
    at[0] = static_cast<uint8_t>(v >> 24);
    at[1] = static_cast<uint8_t>(v >> 16);
    at[2] = static_cast<uint8_t>(v >> 8);
    at[3] = static_cast<uint8_t>(v);
}

inline int32_t get_be32(const uint8_t* at) {
    return static_cast<int32_t>((static_cast<uint32_t>(at[0]) << 24) |
                                (static_cast<uint32_t>(at[1]) << 16) |
                                (static_cast<uint32_t>(at[2]) << 8) | static_cast<uint32_t>(at[3]));
}

// A 100-byte head with the given fields and time 0.
inline std::vector<uint8_t> make_head(const std::string& dev, int32_t item, int32_t event,
                                      int32_t length) {
    std::vector<uint8_t> head(kHeadSize, 0);
    std::memcpy(head.data(), dev.data(), dev.size() < 79 ? dev.size() : 79);
    put_be32(&head[80], item);
    put_be32(&head[84], event);
    put_be32(&head[96], length);
    return head;
}

// The registration a client sends first: 9001 with a native 4-byte pid.
inline std::vector<uint8_t> make_registration(const std::string& dev, int32_t item) {
    std::vector<uint8_t> message = make_head(dev, item, CLIENT_IPC_CONFIG, 4);
    const int32_t pid = static_cast<int32_t>(getpid());
    const auto* bytes = reinterpret_cast<const uint8_t*>(&pid);
    message.insert(message.end(), bytes, bytes + sizeof(pid));
    return message;
}

inline bool write_all(int fd, const void* data, size_t size) {
    const auto* at = static_cast<const uint8_t*>(data);
    while (size > 0) {
        ssize_t n = send(fd, at, size, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        at += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Reads exactly `size` bytes, waiting at most `timeoutMs` in all.
inline bool read_all(int fd, void* data, size_t size, int timeoutMs = 20000) {
    auto* at = static_cast<uint8_t*>(data);
    const long long end = now_ms() + timeoutMs;
    while (size > 0) {
        pollfd p{fd, POLLIN, 0};
        const long long left = end - now_ms();
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0)
            return false;
        ssize_t n = recv(fd, at, size, 0);
        if (n <= 0)
            return false;
        at += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Connects a blocking socket to 127.0.0.1:port; -1 on failure.
inline int connect_loopback(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0)
        return fd;
    if (fd >= 0)
        close(fd);
    return -1;
}

// A listening socket on a free loopback port, -1 on failure.
inline int listen_loopback(int* port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(fd, 8) != 0 || getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        if (fd >= 0)
            close(fd);
        return -1;
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

// True once the peer has closed the connection (end of stream or reset)
// within `timeoutMs`; whatever it still sent is discarded.
inline bool peer_closes(int fd, int timeoutMs) {
    const long long end = now_ms() + timeoutMs;
    char scratch[4096];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        const long long left = end - now_ms();
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0)
            return false;
        ssize_t n = recv(fd, scratch, sizeof(scratch), 0);
        if (n <= 0)
            return true;
    }
}

// ---- Child processes ----

// A program started with posix_spawn whose standard output comes back through a
// pipe. The destructor kills and reaps a child that is still there.
class Child {
  public:
    Child() = default;
    ~Child() {
        kill9();
        if (m_out >= 0)
            close(m_out);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // `argv` is the whole command; a non-empty `emulator` (words separated by
    // blanks) is put in front of it. False when the spawn failed.
    bool start(const std::vector<std::string>& argv, const std::string& emulator = "") {
        std::vector<std::string> words;
        std::istringstream in(emulator);
        for (std::string word; in >> word;)
            words.push_back(word);
        words.insert(words.end(), argv.begin(), argv.end());
        std::vector<char*> args;
        for (std::string& word : words)
            args.push_back(&word[0]);
        args.push_back(nullptr);

        kill9();
        if (m_out >= 0)
            close(m_out);
        m_out = -1;
        m_pending.clear();
        int pipeFds[2];
        if (pipe2(pipeFds, O_CLOEXEC) != 0)
            return false;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        const int rc = posix_spawn(&m_pid, args[0], &actions, nullptr, args.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(pipeFds[1]);
        m_out = pipeFds[0];
        if (rc != 0) {
            m_pid = -1;
            return false;
        }
        return true;
    }

    // The next line of the child's output without its newline; false at the
    // end of the output or after `timeoutMs`.
    bool readLine(std::string* line, int timeoutMs) {
        const long long end = now_ms() + timeoutMs;
        for (;;) {
            const size_t newline = m_pending.find('\n');
            if (newline != std::string::npos) {
                *line = m_pending.substr(0, newline);
                m_pending.erase(0, newline + 1);
                return true;
            }
            pollfd p{m_out, POLLIN, 0};
            const long long left = end - now_ms();
            if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0)
                return false;
            char chunk[256];
            ssize_t n = read(m_out, chunk, sizeof(chunk));
            if (n <= 0)
                return false;
            m_pending.append(chunk, static_cast<size_t>(n));
        }
    }

    // SIGKILL and reap; the raw wait status, or -1 when there was no child or
    // somebody else reaped it: a server of this process reaps any child of the
    // process group once a connection has ended, by design.
    int kill9() {
        if (m_pid <= 0)
            return -1;
        kill(m_pid, SIGKILL);
        int status = 0;
        const pid_t reaped = waitpid(m_pid, &status, 0);
        m_pid = -1;
        return reaped > 0 ? status : -1;
    }

    pid_t pid() const { return m_pid; }

  private:
    pid_t m_pid = -1;
    int m_out = -1;
    std::string m_pending;
};

}  // namespace vexa_stress

#endif  // VEXA_TESTS_API_STRESS_UTIL_H
