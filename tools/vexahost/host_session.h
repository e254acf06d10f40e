// The host state of vexahost: which tests were launched and registered, what
// each one said, its time limit, and the line printed for every event.
// The library's thread calls in through on_server_event; the main thread
// launches, reads the exit reports, enforces the time limit and asks whether
// every test is done.
#ifndef VEXAHOST_HOST_SESSION_H
#define VEXAHOST_HOST_SESSION_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "console.h"
#include "event_format.h"

namespace vexahost {

// The conversation of --demo, the same one the example tests hold.
constexpr int32_t kEchoEvent = 2000;
constexpr int32_t kEchoReplyEvent = 2001;
constexpr int32_t kLeaveEvent = 2099;
constexpr char kDemoPing[] = "ping from host";

constexpr size_t kNoLaunch = static_cast<size_t>(-1);

using Clock = std::chrono::steady_clock;

enum class OutputFormat { kText, kJson };

struct TestKey {
    std::string dev;
    int32_t item;
    bool operator<(const TestKey& o) const { return std::tie(dev, item) < std::tie(o.dev, o.item); }
};

// One registered pair.
struct TestState {
    int32_t pid = 0;
    bool launched = false;      // its pid is the tool or a process below it
    size_t launch = kNoLaunch;  // the launch it belongs to
    bool closed = false;        // closed in order (9005) or went offline (9006)
    bool offline = false;       // went offline
    bool timedOut = false;
    size_t order = 0;  // registrations counted from 0, in arrival order
    Clock::time_point registeredAt;
    Clock::time_point endedAt;
};

// The event lines of one pair, in text form, kept for the report.
struct EventLog {
    std::string text;
    size_t linesLeftOut = 0;  // lines past the size limit
};

// One test handed to the launcher.
struct LaunchRecord {
    std::string path;
    std::string dValue;
    bool isSo = false;
    bool throughSu = false;    // started through a su prefix
    bool reportsExit = false;  // started through the exit-reporting wrapper
    Clock::time_point startedAt;
    int32_t childPid = 0;  // as the wrapper reported it (su itself, through su); 0 when not known
    int startError = 0;    // errno of an exec the wrapper could not make
    bool exited = false;
    int waitStatus = 0;  // as waitpid gives it, once exited
    Clock::time_point exitedAt;
    bool timedOut = false;
    std::string endNote;  // why a test that timed out was not ended, if it was not
};

// A copy of what the session saw, for the verdict and the reports.
struct SessionRecord {
    Clock::time_point startedAt;
    double timeoutSeconds = 0;    // 0: no limit
    Clock::duration timeLimit{};  // the same, as a duration
    std::vector<LaunchRecord> launches;
    std::map<TestKey, TestState> tests;
    std::map<TestKey, EventLog> events;  // empty when asked without them
};

// State shared between the library's thread (callbacks) and the main thread.
class Host {
  public:
    Host(Console& console, bool demo, OutputFormat format, double timeoutSeconds)
        : m_console(console),
          m_demo(demo),
          m_format(format),
          m_timeoutSeconds(timeoutSeconds),
          m_timeLimit(std::chrono::duration_cast<Clock::duration>(
              std::chrono::duration<double>(timeoutSeconds))) {}
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void setServer(void* server) { m_server.store(server); }
    void* server() const { return m_server.load(); }
    // Called (on the library's thread, before a registration is matched to
    // its launch) to take in the wrappers' reports that are waiting.
    void setReportReader(std::function<void()> reader) { m_readReports = std::move(reader); }

    // Returns the launch's index, which the exit-reporting wrapper quotes.
    size_t noteLaunched(const LaunchRecord& launch);
    void noteChildPid(size_t index, int32_t pid);
    void noteStartError(size_t index, int error);
    void noteExit(size_t index, int waitStatus);

    // Runs on the library's thread.
    void onEvent(int32_t item, int32_t event, const char* dev, int64_t sentAtUs, const char* data,
                 int32_t len);

    // The send is made without m_lock: the library's send may wait on the network.
    void send(const std::string& dev, int32_t item, int32_t event, const char* data, int32_t len);

    bool isOpen(const std::string& dev, int32_t item);

    // Ends, and marks as timed out, every test that has not closed within the
    // time limit of its launch (of its registration, for a pair no launch
    // owns), and says so on standard error.
    void enforceTimeLimit();
    // True when there were launches and every one is done: it timed out, or
    // what it registered closed, or its program ended `settle` ago or more
    // with nothing left open; and no registered pair is still open.
    bool finished(Clock::duration settle);
    // True while a launch through the wrapper that has not timed out has not
    // reported its exit.
    bool exitsPending();
    // `withEvents` false leaves the event lines out (for the status line).
    SessionRecord record(bool withEvents = true);

    size_t launched();
    size_t registered();
    void printList();
    // Event lines and list answers go to standard output; in JSON mode only
    // the events do, and everything else goes to standard error.
    void writeOut(const std::string& text) { m_console.out(text); }
    void writeNote(const std::string& text);
    void writeError(const std::string& text) { m_console.err(text); }

  private:
    void printEvent(EventView& ev);
    size_t matchLaunch(int32_t pid, const std::vector<int32_t>& line) const;
    bool launchSettled(size_t index, Clock::time_point now, Clock::duration settle) const;

    Console& m_console;
    const bool m_demo;
    const OutputFormat m_format;
    const double m_timeoutSeconds;  // 0: no limit
    const Clock::duration m_timeLimit;
    const Clock::time_point m_startedAt = Clock::now();
    std::atomic<void*> m_server{nullptr};
    std::function<void()> m_readReports;   // set before the server starts
    std::mutex m_lock;                     // guards the members below
    std::vector<LaunchRecord> m_launches;  // tests handed to the launcher
    std::map<TestKey, TestState> m_tests;  // every (dev, item) that registered
    std::map<TestKey, EventLog> m_events;  // kept across a pair's registrations
    size_t m_registrations = 0;            // 9001s seen
};

// The server callback; `user` is the Host.
int on_server_event(void* user, int32_t test_item, int32_t event_id, const char* dev,
                    int32_t time_sec, int32_t time_usec, const char* data, int32_t data_len);

}  // namespace vexahost

#endif  // VEXAHOST_HOST_SESSION_H
