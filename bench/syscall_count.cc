#include "syscall_count.h"

#include <linux/perf_event.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>

#include "report.h"

namespace bench {
namespace {

// Counts every system call this process and the threads it starts later make:
// the kernel's raw_syscalls:sys_enter tracepoint (what `perf stat -e
// raw_syscalls:sys_enter` counts), through perf_event_open. While it exists,
// every system call of the machine takes the kernel's slower traced path.
class SyscallCounter {
  public:
    SyscallCounter() {
        int id = -1;
        for (const char* tracefs : {"/sys/kernel/tracing", "/sys/kernel/debug/tracing"}) {
            std::ifstream in(std::string(tracefs) + "/events/raw_syscalls/sys_enter/id");
            if (in >> id)
                break;
        }
        if (id < 0) {
            m_error = "no raw_syscalls:sys_enter tracepoint id in tracefs (needs root)";
            return;
        }
        perf_event_attr attr{};
        attr.type = PERF_TYPE_TRACEPOINT;
        attr.size = sizeof(attr);
        attr.config = static_cast<uint64_t>(id);
        attr.inherit = 1;  // threads started later are counted too
        m_fd = static_cast<int>(syscall(SYS_perf_event_open, &attr, 0, -1, -1, 0));
        if (m_fd < 0)
            m_error = std::string("perf_event_open: ") + std::strerror(errno);
    }
    ~SyscallCounter() {
        if (m_fd >= 0)
            close(m_fd);
    }
    SyscallCounter(const SyscallCounter&) = delete;
    SyscallCounter& operator=(const SyscallCounter&) = delete;

    const std::string& error() const { return m_error; }
    // Includes the threads that have ended.
    uint64_t read() const {
        uint64_t count = 0;
        return ::read(m_fd, &count, sizeof(count)) == sizeof(count) ? count : 0;
    }

  private:
    int m_fd = -1;
    std::string m_error;
};

constexpr int kNoDeadlineMs = 60000;

// System calls of `run(messages)` for `extra` more messages than for a few,
// per message: what each run does once (connecting, starting threads, the end
// message) cancels out. Negative when a run fails.
template <typename Run>
double per_message(const SyscallCounter& counter, int extra, Run run) {
    auto calls = [&](int messages) -> int64_t {
        const uint64_t before = counter.read();
        return run(messages) ? static_cast<int64_t>(counter.read() - before) : -1;
    };
    const int few = std::max(1, extra / 10);
    const int64_t base = calls(few);
    const int64_t more = calls(few + extra);
    if (base < 0 || more < 0)
        return -1;
    return static_cast<double>(std::max<int64_t>(0, more - base)) / extra;
}

}  // namespace

bool count_syscalls(std::vector<Transport>& transports, const Settings& settings,
                    std::string* why) {
    // Made before the rows open, so that it counts their threads.
    SyscallCounter counter;
    if (!counter.error().empty()) {
        *why = counter.error();
        return false;
    }
    if (!open_all(transports)) {
        *why = "a transport could not start";
        close_all(transports);
        return false;
    }
    const int extra = settings.syscallMessages;
    for (int32_t size : settings.sizes) {
        for (Transport& t : transports) {
            SyscallFigures& figures = t.syscalls[size];
            if (t.rtt) {
                figures.perRoundTrip = per_message(counter, extra, [&](int count) {
                    RttResult r = t.rtt(size, kNoDeadlineMs, static_cast<size_t>(count));
                    return r.ok && r.samples == static_cast<size_t>(count);
                });
            }
            if (t.tput) {
                figures.perMessage = per_message(counter, extra, [&](int count) {
                    TputResult r = t.tput(size, kNoDeadlineMs, static_cast<uint64_t>(count));
                    return r.ok && r.messages == static_cast<uint64_t>(count);
                });
            }
            progress(t.name, "syscalls", size,
                     fixed(figures.perRoundTrip, 1) + " per round trip, " +
                         fixed(figures.perMessage, 1) + " per one-way message");
        }
    }
    close_all(transports);
    return true;
}

}  // namespace bench
