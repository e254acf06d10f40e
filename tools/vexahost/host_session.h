// The host state of vexahost: which tests were launched and registered, the
// line printed for every event, and the commands typed on standard input.
// The library's thread calls in through on_server_event; the main thread runs
// the commands and asks whether every test is done.
#ifndef VEXAHOST_HOST_SESSION_H
#define VEXAHOST_HOST_SESSION_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <tuple>

namespace vexahost {

// The conversation of --demo, the same one the example tests hold.
constexpr int32_t kEchoEvent = 2000;
constexpr int32_t kEchoReplyEvent = 2001;
constexpr int32_t kLeaveEvent = 2099;
constexpr char kDemoPing[] = "ping from host";

struct TestKey {
    std::string dev;
    int32_t item;
    bool operator<(const TestKey& o) const { return std::tie(dev, item) < std::tie(o.dev, o.item); }
};

struct TestState {
    int32_t pid = 0;
    bool closed = false;
};

// State shared between the library's thread (callbacks) and the main thread.
class Host {
  public:
    explicit Host(bool demo) : m_demo(demo) {}
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void setServer(void* server) { m_server.store(server); }
    void* server() const { return m_server.load(); }

    void noteLaunched();

    // Runs on the library's thread.
    void onEvent(int32_t item, int32_t event, const char* dev, const char* data, int32_t len);

    // The send is made without m_lock: the library's send may wait on the network.
    void send(const std::string& dev, int32_t item, int32_t event, const char* data, int32_t len);

    bool isOpen(const std::string& dev, int32_t item);

    // True once every launched test has registered and then closed.
    bool allDone();

    size_t launched();
    size_t registered();
    void printList();
    void writeOut(const std::string& text);

  private:
    void printEvent(const char* direction, const std::string& dev, int32_t item, int32_t event,
                    const char* data, int32_t len);

    const bool m_demo;
    std::atomic<void*> m_server{nullptr};
    std::mutex m_lock;                     // guards m_launched and m_tests
    size_t m_launched = 0;                 // tests handed to the launcher
    std::map<TestKey, TestState> m_tests;  // every (dev, item) that registered
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
