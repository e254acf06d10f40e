// The host state of vexahost: which tests were launched and registered, the
// line printed for every event, and the commands typed on standard input.
// The library's thread calls in through on_server_event; the main thread runs
// the commands and asks whether every test is done.
#ifndef VEXAHOST_HOST_SESSION_H
#define VEXAHOST_HOST_SESSION_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace vexahost {

// The conversation of --demo, the same one the example tests hold.
constexpr int32_t kEchoEvent = 2000;
constexpr int32_t kEchoReplyEvent = 2001;
constexpr int32_t kLeaveEvent = 2099;
constexpr char kDemoPing[] = "ping from host";

using Clock = std::chrono::steady_clock;

enum class OutputFormat { kText, kJson };

struct TestKey {
    std::string dev;
    int32_t item;
    bool operator<(const TestKey& o) const { return std::tie(dev, item) < std::tie(o.dev, o.item); }
};

struct TestState {
    int32_t pid = 0;
    bool closed = false;   // closed in order (9005) or went offline (9006)
    bool offline = false;  // went offline
    size_t order = 0;      // registrations counted from 0, in arrival order
    Clock::time_point registeredAt;
    Clock::time_point endedAt;
};

// One test handed to the launcher.
struct LaunchRecord {
    std::string path;
    bool isSo = false;
    bool reportsExit = false;  // started through the exit-reporting wrapper
    Clock::time_point startedAt;
    int32_t childPid = 0;  // as the wrapper reported it; 0 when not known
    bool exited = false;
    int waitStatus = 0;  // as waitpid gives it, once exited
    Clock::time_point exitedAt;
};

// A copy of what the session saw, for the JUnit report.
struct SessionRecord {
    Clock::time_point startedAt;
    std::vector<LaunchRecord> launches;
    std::map<TestKey, TestState> tests;
};

// State shared between the library's thread (callbacks) and the main thread.
class Host {
  public:
    Host(bool demo, OutputFormat format) : m_demo(demo), m_format(format) {}
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void setServer(void* server) { m_server.store(server); }
    void* server() const { return m_server.load(); }

    // Returns the launch's index, which the exit-reporting wrapper quotes.
    size_t noteLaunched(const std::string& path, bool isSo, bool reportsExit);
    void noteChildPid(size_t index, int32_t pid);
    void noteExit(size_t index, int waitStatus);

    // Runs on the library's thread.
    void onEvent(int32_t item, int32_t event, const char* dev, const char* data, int32_t len);

    // The send is made without m_lock: the library's send may wait on the network.
    void send(const std::string& dev, int32_t item, int32_t event, const char* data, int32_t len);

    bool isOpen(const std::string& dev, int32_t item);

    // True once every launched test has registered and then closed.
    bool allDone();
    // True when every program started through the exit-reporting wrapper
    // has ended, the last at least `settle` ago, every other launch has
    // registered, and no registered test is still open.
    bool allEnded(Clock::duration settle);
    // True while a launch through the wrapper has not reported its exit.
    bool exitsPending();
    SessionRecord record();

    size_t launched();
    size_t registered();
    void printList();
    // Event lines and list answers go to standard output; in JSON mode only
    // the events do, and everything else goes to standard error.
    void writeOut(const std::string& text);
    void writeNote(const std::string& text);

  private:
    void printEvent(const char* direction, const std::string& dev, int32_t item, int32_t event,
                    const char* data, int32_t len);

    const bool m_demo;
    const OutputFormat m_format;
    const Clock::time_point m_startedAt = Clock::now();
    std::atomic<void*> m_server{nullptr};
    std::mutex m_lock;                     // guards m_launches and m_tests
    std::vector<LaunchRecord> m_launches;  // tests handed to the launcher
    std::map<TestKey, TestState> m_tests;  // every (dev, item) that registered
    size_t m_registrations = 0;            // 9001s seen
    std::mutex m_outLock;                  // keeps output lines whole
};

// The server callback; `user` is the Host.
int on_server_event(void* user, int32_t test_item, int32_t event_id, const char* dev,
                    int32_t time_sec, int32_t time_usec, const char* data, int32_t data_len);

// Runs one line typed on standard input. Returns false when the command asks
// the tool to quit.
bool run_command(Host& host, const std::string& line);

}  // namespace vexahost

#endif  // VEXAHOST_HOST_SESSION_H
