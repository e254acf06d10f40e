#include "server_test_util.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace srvtest {

int32_t native32(const std::string& bytes) {
    int32_t value = -1;
    if (bytes.size() >= sizeof(value))
        std::memcpy(&value, bytes.data(), sizeof(value));
    return value;
}

ServerPtr start_server(const std::string& servPath, vexa_test::CallbackLog* log,
                       const std::string& tag) {
    vexa::IPCServer* server = nullptr;
    try {
        server = new vexa::IPCServer(servPath, &vexa_test::CallbackLog::callback, log, tag);
        server->init();
        server->start();
    } catch (const comm::MyException&) {
        delete server;
        return ServerPtr();
    }
    return ServerPtr(server);
}

std::string server_log(const std::string& tag) {
    return vexa_test::endpoint_dir() + "ipc_server_" + tag + ".log";
}

std::string test_tag() {
    const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
    return std::string(info->test_suite_name()) + "." + info->name();
}

int accepted_socket(const std::string& path, size_t n, int timeoutMs) {
    const std::string prefix = "accept ok client_socket=";
    int fd = -1;
    vexa_test::wait_until(
        [&] {
            size_t seen = 0;
            for (const std::string& text : vexa_test::log_texts(path)) {
                if (text.compare(0, prefix.size(), prefix) == 0 && seen++ == n) {
                    fd = std::atoi(text.c_str() + prefix.size());
                    return true;
                }
            }
            return false;
        },
        timeoutMs);
    return fd;
}

Running::Running(const std::string& servPath)
    : port(vexa_test::free_loopback_port()), tag(test_tag()), log(server_log(tag)) {
    std::remove(log.c_str());  // a repeated run starts a fresh log
    server = start_server(servPath.empty() ? address() : servPath, &events, tag);
}

bool Running::join(vexa_test::FramedConn& peer, const std::string& dev, int32_t item, int32_t pid) {
    return peer.connectTo(port) && peer.registerAs(dev, item, pid) &&
           events.waitFor(CLIENT_IPC_CONFIG, dev.c_str(), item);
}

}  // namespace srvtest
