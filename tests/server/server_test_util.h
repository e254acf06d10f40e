// Helpers of the server tests: a host callback that records what it is given,
// a framed peer on a raw TCP socket, and a server that is stopped and deleted
// at the end of its scope.
#ifndef VEXA_TESTS_SERVER_SERVER_TEST_UTIL_H
#define VEXA_TESTS_SERVER_SERVER_TEST_UTIL_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "server/ipcserver.h"

namespace srvtest {

// One call of the host callback.
struct Event {
    int32_t item = 0;
    int32_t event = 0;
    std::string dev;
    int32_t sec = 0;
    int32_t usec = 0;
    bool dataNull = false;
    std::string data;  // data_len bytes, when not null
    int32_t len = 0;
};

// Records every host callback call under a mutex. Optionally answers one
// event id from inside the callback with send_command, as a host may.
class EventLog {
  public:
    // The ServerCallback; `user` is the EventLog.
    static int callback(void* user, int32_t item, int32_t event, const char* dev, int32_t sec,
                        int32_t usec, const char* data, int32_t len);

    std::vector<Event> events();
    // The calls with this event id (and, when dev is non-null, this pair).
    std::vector<Event> matching(int32_t eventId, const char* dev = nullptr, int32_t item = 0);
    // Waits until at least `count` calls match; false after timeoutMs.
    bool waitFor(int32_t eventId, const char* dev, int32_t item, size_t count = 1,
                 int timeoutMs = 10000);
    // From now on, answer `trigger` with `reply` (same dev, item and data).
    void echo(vexa::IPCServer* server, int32_t trigger, int32_t reply);
    // From now on, every call with this event id is recorded and then blocks
    // the server's processing thread until release() is called once for it
    // (or 20 s pass).
    void hold(int32_t eventId);
    // Waits until `count` calls have blocked in total.
    bool waitHeld(size_t count, int timeoutMs = 10000);
    void release();
    // Stops holding and lets every blocked call go on.
    void unhold();

  private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::vector<Event> m_events;        // guarded by m_lock
    std::vector<int32_t> m_holdEvents;  // guarded by m_lock
    size_t m_held = 0;                  // guarded by m_lock
    size_t m_released = 0;              // guarded by m_lock
    std::atomic<vexa::IPCServer*> m_echoServer{nullptr};
    std::atomic<int32_t> m_echoTrigger{0};
    std::atomic<int32_t> m_echoReply{0};
};

// A message as read off the wire.
struct WireMsg {
    std::string dev;  // up to the first NUL of the 80 bytes
    int32_t item = 0;
    int32_t event = 0;
    int32_t sec = 0;
    int32_t usec = 0;
    int32_t len = 0;
    std::string data;
};

// A client written out by hand: a close-on-exec TCP socket to 127.0.0.1 that
// sends heads built with vexa::encodeHead and reads them back.
class RawPeer {
  public:
    RawPeer() = default;
    ~RawPeer();
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    // Makes the socket without connecting it, so that its number is taken now.
    bool open();
    // Connects the socket made by open(), or a new one.
    bool connectTo(int port);
    bool sendMsg(const std::string& dev, int32_t item, int32_t event, const std::string& data,
                 int32_t sec = 1000, int32_t usec = 2000);
    // CLIENT_IPC_CONFIG with `pid` as 4 native bytes.
    bool registerAs(const std::string& dev, int32_t item, int32_t pid);
    bool sendRaw(const void* bytes, size_t len);
    // One whole message; false on time-out, end of stream or a bad length.
    bool readMsg(WireMsg* out, int timeoutMs = 10000);
    // True once the stream ends (EOF or reset) within timeoutMs; any data
    // still arriving is counted in *skipped when given.
    bool waitEof(int timeoutMs = 10000, size_t* skipped = nullptr);
    // True when a byte is readable (or the stream ended) within waitMs.
    bool readable(int waitMs);
    void close();
    // Ends the stream towards the server but keeps the socket, and its number.
    void shutdownWrite();
    int fd() const { return m_fd; }

  private:
    // Exactly len bytes before the deadline; false otherwise.
    bool readExact(void* buffer, size_t len, long long deadline);

    int m_fd = -1;
};

struct StopAndDelete {
    void operator()(vexa::IPCServer* server) const;
};
using ServerPtr = std::unique_ptr<vexa::IPCServer, StopAndDelete>;

// Constructs, inits and starts a server with `log`'s callback. Null when a
// step throws; a server made before the throw is deleted.
ServerPtr start_server(const std::string& servPath, EventLog* log, const std::string& tag);
// "<endpoint dir>ipc_server_<tag>.log".
std::string server_log(const std::string& tag);
// A log tag made from the running test's name, unique within the binary.
std::string test_tag();
// Whether the log holds this exact text (after the time stamp).
bool log_has(const std::string& path, const std::string& text);
// The first log text starting with `prefix`, "" when none.
std::string log_line_starting(const std::string& path, const std::string& prefix);
// Waits until the log holds `text`.
bool wait_log(const std::string& path, const std::string& text, int timeoutMs = 10000);
// The server's socket number of the n-th accepted connection (from 0), read
// from its "accept ok client_socket=%d" lines; -1 when not logged in time.
int accepted_socket(const std::string& path, size_t n, int timeoutMs = 10000);

}  // namespace srvtest

#endif  // VEXA_TESTS_SERVER_SERVER_TEST_UTIL_H
