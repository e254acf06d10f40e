// A server made, initialised and started on a free port with a recording
// callback and a fresh log named after the running test; stopped and deleted
// at the end of its scope.
#ifndef VEXA_TESTS_SERVER_RUNNING_SERVER_H
#define VEXA_TESTS_SERVER_RUNNING_SERVER_H

#include <cstdio>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "server/ipcserver.h"
#include "support/callback_log.h"
#include "support/framed_peer.h"
#include "support/test_support.h"

namespace srvtest {

struct StopAndDelete {
    void operator()(vexa::IPCServer* server) const {
        server->stop();
        delete server;
    }
};

// "<endpoint dir>ipc_server_<tag>.log".
inline std::string server_log(const std::string& tag) {
    return vexa_test::endpoint_dir() + "ipc_server_" + tag + ".log";
}

struct Running {
    // Null `server` when a step throws comm::MyException.
    explicit Running(const std::string& servPath = "") {
        const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
        tag = std::string(info->test_suite_name()) + "." + info->name() + std::to_string(++s_count);
        log = server_log(tag);
        std::remove(log.c_str());  // a repeated run starts a fresh log
        std::unique_ptr<vexa::IPCServer> made;
        try {
            made.reset(new vexa::IPCServer(servPath.empty() ? address() : servPath,
                                           &vexa_test::CallbackLog::callback, &events, tag));
            made->init();
            made->start();
        } catch (const comm::MyException&) {
            return;
        }
        server.reset(made.release());
    }
    std::string address() const { return "tcp://:" + std::to_string(port); }
    // Connects `peer`, registers it and waits until the host saw it.
    bool join(vexa_test::FramedConn& peer, const std::string& dev, int32_t item,
              int32_t pid = 4242) {
        return peer.connectTo(port) && peer.registerAs(dev, item, pid) &&
               events.waitFor(CLIENT_IPC_CONFIG, dev.c_str(), item);
    }
    // The server's socket number of the n-th accepted connection (from 0).
    int acceptedSocket(size_t n) const {
        const std::string prefix = "accept ok client_socket=";
        int fd = -1;
        vexa_test::wait_until([&] {
            size_t seen = 0;
            for (const std::string& text : vexa_test::log_texts(log)) {
                if (text.compare(0, prefix.size(), prefix) == 0 && seen++ == n) {
                    fd = std::atoi(text.c_str() + prefix.size());
                    return true;
                }
            }
            return false;
        });
        return fd;
    }

    static inline int s_count = 0;
    vexa_test::CallbackLog events;
    int port = vexa_test::free_loopback_port();
    std::string tag;
    std::string log;
    std::unique_ptr<vexa::IPCServer, StopAndDelete> server;
};

}  // namespace srvtest

#endif  // VEXA_TESTS_SERVER_RUNNING_SERVER_H
