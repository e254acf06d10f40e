// libvexatool64 in this process, reached only through its exported functions:
// a host (server endpoint) and a test (client endpoint) connected to it, the
// endpoints' log directory and marker file, and a server on a free port.
#ifndef VEXA_BENCH_LIBRARY_RIG_H
#define VEXA_BENCH_LIBRARY_RIG_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "statistics.h"
#include "vexatool.h"

namespace bench {

// The endpoints' log directory (VEXA_LOG_DIR, ending in "/"),
// "" when the variable is not set.
std::string endpoint_log_dir();
// Logs off puts the marker file ipc_notprint.txt there, logs on removes it;
// an endpoint looks at it only when it is made.
void set_endpoint_logs(bool on);
// Removes the endpoints' log files (not the marker), so that the disk use of
// the "logs on" cases stays bounded.
void remove_endpoint_logs();
uint64_t endpoint_log_bytes();

// Counts the registrations (CLIENT_IPC_CONFIG) a server's callback reports.
class RegistrationCount {
  public:
    void add();
    void reset();
    bool waitFor(int count, int timeoutMs);

  private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    int m_count = 0;
};

// A server on a port of 127.0.0.1 that was free a moment ago (five tries);
// null when none could be made. *port receives its port.
void* start_server(ServerCallback callback, void* user, int* port);

// The host and the test, one pair of endpoints kept open through a round.
class LibraryRig {
  public:
    // Both open and close may be called again: a second open of an open rig
    // and a second close of a closed one do nothing.
    bool open(bool logsOn);
    void close();

    // The host sends with ipc_send_command, the test's callback echoes with
    // ipc_send_message and the host's callback takes the time and sends the
    // next one.
    RttResult roundTripInCallback(int32_t size, int durationMs, size_t maxSamples);
    // The same, but the host's callback hands each echo to this (the host
    // application's) thread, which takes the time and sends the next one.
    RttResult roundTripFromHostThread(int32_t size, int durationMs, size_t maxSamples);
    // The test sends from this thread until the time is up or maxMessages are
    // sent, then an end message; the host's callback counts.
    TputResult oneWay(int32_t size, int durationMs, uint64_t maxMessages);

    // What the host's callback does with a kPing echo.
    enum class EchoUse { kIgnore, kAnswerInCallback, kHandToWaiter };

    // What the host's callback works on.
    struct HostSide {
        std::mutex lock;
        std::condition_variable changed;
        RegistrationCount registrations;
        void* server = nullptr;
        // round trip
        EchoUse echoUse = EchoUse::kIgnore;
        int32_t rttLen = 0;
        bool badMessage = false;
        bool rttDone = false;  // answered in the callback: the case is over
        int64_t sentAt = 0;
        int64_t deadline = 0;
        size_t wanted = 0;
        std::vector<double> samples;
        bool echoArrived = false;  // handed to the waiter
        int32_t echoLen = 0;
        // one way
        uint64_t received = 0;
        bool endSeen = false;
        uint64_t endCount = 0;
        int64_t endAt = 0;
    };

  private:
    HostSide m_host;
    std::atomic<void*> m_client{nullptr};
};

}  // namespace bench

#endif  // VEXA_BENCH_LIBRARY_RIG_H
