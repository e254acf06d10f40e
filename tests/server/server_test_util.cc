#include "server_test_util.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "core/ipc_message.h"
#include "support/test_support.h"

namespace srvtest {

int EventLog::callback(void* user, int32_t item, int32_t event, const char* dev, int32_t sec,
                       int32_t usec, const char* data, int32_t len) {
    auto* self = static_cast<EventLog*>(user);
    Event e;
    e.item = item;
    e.event = event;
    e.dev = dev != nullptr ? dev : "(null)";
    e.sec = sec;
    e.usec = usec;
    e.dataNull = data == nullptr;
    if (data != nullptr && len > 0) {
        e.data.assign(data, static_cast<size_t>(len));
    }
    e.len = len;
    vexa::IPCServer* server = self->m_echoServer;
    if (server != nullptr && event == self->m_echoTrigger) {
        server->send_command(e.dev, item, self->m_echoReply, e.data.data(),
                             static_cast<int32_t>(e.data.size()));
    }
    std::unique_lock<std::mutex> lock(self->m_lock);
    self->m_events.push_back(e);
    self->m_changed.notify_all();
    const std::vector<int32_t>& holds = self->m_holdEvents;
    if (std::find(holds.begin(), holds.end(), event) != holds.end()) {
        const size_t ticket = ++self->m_held;
        self->m_changed.notify_all();
        self->m_changed.wait_for(lock, std::chrono::seconds(20),
                                 [&] { return self->m_released >= ticket; });
    }
    return 0;
}

std::vector<Event> EventLog::events() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_events;
}

std::vector<Event> EventLog::matching(int32_t eventId, const char* dev, int32_t item) {
    std::vector<Event> out;
    std::lock_guard<std::mutex> guard(m_lock);
    for (const Event& e : m_events) {
        if (e.event == eventId && (dev == nullptr || (e.dev == dev && e.item == item))) {
            out.push_back(e);
        }
    }
    return out;
}

bool EventLog::waitFor(int32_t eventId, const char* dev, int32_t item, size_t count,
                       int timeoutMs) {
    auto enough = [&] {
        size_t n = 0;
        for (const Event& e : m_events) {
            if (e.event == eventId && (dev == nullptr || (e.dev == dev && e.item == item))) {
                ++n;
            }
        }
        return n >= count;
    };
    std::unique_lock<std::mutex> lock(m_lock);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), enough);
}

void EventLog::hold(int32_t eventId) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_holdEvents.push_back(eventId);
}

bool EventLog::waitHeld(size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return m_held >= count; });
}

void EventLog::release() {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        ++m_released;
    }
    m_changed.notify_all();
}

void EventLog::unhold() {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_holdEvents.clear();
        m_released = m_held;
    }
    m_changed.notify_all();
}

void EventLog::echo(vexa::IPCServer* server, int32_t trigger, int32_t reply) {
    m_echoTrigger = trigger;
    m_echoReply = reply;
    m_echoServer = server;
}

RawPeer::~RawPeer() {
    close();
}

void RawPeer::close() {
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

void RawPeer::shutdownWrite() {
    shutdown(m_fd, SHUT_WR);
}

bool RawPeer::open() {
    close();
    // Close-on-exec, so that the programs the launcher starts never hold it.
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return m_fd >= 0;
}

bool RawPeer::connectTo(int port) {
    if (m_fd < 0 && !open()) {
        return false;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
}

bool RawPeer::sendRaw(const void* bytes, size_t len) {
    const char* at = static_cast<const char*>(bytes);
    while (len > 0) {
        ssize_t n = ::send(m_fd, at, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        at += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool RawPeer::sendMsg(const std::string& dev, int32_t item, int32_t event, const std::string& data,
                      int32_t sec, int32_t usec) {
    std::vector<uint8_t> block(vexa::IPC_HEAD_SIZE + data.size());
    vexa::encodeHead(block.data(), dev.c_str(), item, event, sec, usec,
                     static_cast<int32_t>(data.size()));
    std::memcpy(block.data() + vexa::IPC_HEAD_SIZE, data.data(), data.size());
    return sendRaw(block.data(), block.size());
}

bool RawPeer::registerAs(const std::string& dev, int32_t item, int32_t pid) {
    std::string body(reinterpret_cast<const char*>(&pid), sizeof(pid));
    return sendMsg(dev, item, CLIENT_IPC_CONFIG, body);
}

bool RawPeer::readExact(void* buffer, size_t len, long long deadline) {
    char* at = static_cast<char*>(buffer);
    while (len > 0) {
        long long left = deadline - vexa_test::monotonic_ms();
        if (left <= 0) {
            return false;
        }
        pollfd p{m_fd, POLLIN, 0};
        int ready = poll(&p, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        ssize_t n = ::read(m_fd, at, len);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        at += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool RawPeer::readMsg(WireMsg* out, int timeoutMs) {
    const long long deadline = vexa_test::monotonic_ms() + timeoutMs;
    uint8_t head[vexa::IPC_HEAD_SIZE];
    if (!readExact(head, sizeof(head), deadline)) {
        return false;
    }
    out->dev.assign(reinterpret_cast<const char*>(head),
                    strnlen(reinterpret_cast<const char*>(head), vexa::IPC_DEV_SIZE));
    out->item = vexa::getBigEndian32(head + vexa::kOffsetTestItem);
    out->event = vexa::getBigEndian32(head + vexa::kOffsetEventId);
    out->sec = vexa::getBigEndian32(head + vexa::kOffsetTimeSec);
    out->usec = vexa::getBigEndian32(head + vexa::kOffsetTimeUsec);
    out->len = vexa::getBigEndian32(head + vexa::kOffsetDataLen);
    if (out->len < 0 || out->len >= IPC_MAX_DATA_LEN) {
        return false;
    }
    out->data.assign(static_cast<size_t>(out->len), '\0');
    return out->len == 0 || readExact(&out->data[0], out->data.size(), deadline);
}

bool RawPeer::waitEof(int timeoutMs, size_t* skipped) {
    const long long deadline = vexa_test::monotonic_ms() + timeoutMs;
    char buffer[4096];
    for (;;) {
        long long left = deadline - vexa_test::monotonic_ms();
        if (left <= 0) {
            return false;
        }
        pollfd p{m_fd, POLLIN, 0};
        int ready = poll(&p, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        ssize_t n = ::read(m_fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return true;
        }
        if (skipped != nullptr) {
            *skipped += static_cast<size_t>(n);
        }
    }
}

bool RawPeer::readable(int waitMs) {
    pollfd p{m_fd, POLLIN, 0};
    return poll(&p, 1, waitMs) > 0;
}

void StopAndDelete::operator()(vexa::IPCServer* server) const {
    server->stop();
    delete server;
}

ServerPtr start_server(const std::string& servPath, EventLog* log, const std::string& tag) {
    vexa::IPCServer* server = nullptr;
    try {
        server = new vexa::IPCServer(servPath, &EventLog::callback, log, tag);
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

bool log_has(const std::string& path, const std::string& text) {
    return vexa_test::count_log_text(path, text) > 0;
}

std::string log_line_starting(const std::string& path, const std::string& prefix) {
    for (const std::string& text : vexa_test::log_texts(path)) {
        if (text.compare(0, prefix.size(), prefix) == 0) {
            return text;
        }
    }
    return "";
}

bool wait_log(const std::string& path, const std::string& text, int timeoutMs) {
    return vexa_test::wait_until([&] { return log_has(path, text); }, timeoutMs);
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

}  // namespace srvtest
