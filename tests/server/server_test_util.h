// Helpers of the server tests: a started server that is stopped and deleted
// at the end of its scope, and its log.
#ifndef VEXA_TESTS_SERVER_SERVER_TEST_UTIL_H
#define VEXA_TESTS_SERVER_SERVER_TEST_UTIL_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "server/ipcserver.h"
#include "support/callback_log.h"
#include "support/framed_peer.h"

namespace srvtest {

// The int32 in native byte order at the start of `bytes` (a registration's
// pid, for one), -1 when there are fewer than 4 bytes.
int32_t native32(const std::string& bytes);

struct StopAndDelete {
    void operator()(vexa::IPCServer* server) const {
        server->stop();
        delete server;
    }
};
using ServerPtr = std::unique_ptr<vexa::IPCServer, StopAndDelete>;

// Constructs, inits and starts a server with `log`'s callback; null when a
// step throws comm::MyException (a server made before the throw is deleted).
ServerPtr start_server(const std::string& servPath, vexa_test::CallbackLog* log,
                       const std::string& tag);
// "<endpoint dir>ipc_server_<tag>.log".
std::string server_log(const std::string& tag);
// A log tag made from the running test's name, unique within the binary.
std::string test_tag();
// The server's socket number of the n-th accepted connection (from 0), read
// from its "accept ok client_socket=%d" lines; -1 when not logged in time.
int accepted_socket(const std::string& path, size_t n, int timeoutMs = 10000);

// A server started on `servPath` (by default a free port) under the running
// test's tag, with a fresh log and a recording callback.
struct Running {
    explicit Running(const std::string& servPath = "");
    std::string address() const { return "tcp://:" + std::to_string(port); }
    // Connects `peer`, registers it and waits until the host saw it.
    bool join(vexa_test::FramedConn& peer, const std::string& dev, int32_t item,
              int32_t pid = 4242);

    vexa_test::CallbackLog events;
    int port;
    std::string tag;
    std::string log;
    ServerPtr server;
};

}  // namespace srvtest

#endif  // VEXA_TESTS_SERVER_SERVER_TEST_UTIL_H
