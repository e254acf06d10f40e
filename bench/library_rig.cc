#include "library_rig.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "frames.h"
#include "support/loopback_port.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

std::string address_of(int port) {
    return "tcp://:" + std::to_string(port);
}

int host_callback(void* user, int32_t /*item*/, int32_t eventId, const char* /*dev*/,
                  int32_t /*sec*/, int32_t /*usec*/, const char* data, int32_t len) {
    using EchoUse = LibraryRig::EchoUse;
    auto* host = static_cast<LibraryRig::HostSide*>(user);
    const int64_t now = now_ns();
    if (eventId == CLIENT_IPC_CONFIG) {
        host->registrations.add();
        return 0;
    }
    std::unique_lock<std::mutex> guard(host->lock);
    switch (eventId) {
        case kPing:
            if (host->echoUse == EchoUse::kHandToWaiter) {
                host->echoLen = len;
                host->echoArrived = true;
                guard.unlock();
                host->changed.notify_all();
                break;
            }
            if (host->echoUse != EchoUse::kAnswerInCallback)
                break;
            if (len != host->rttLen)
                host->badMessage = true;
            host->samples.push_back(static_cast<double>(now - host->sentAt) / 1000.0);
            if (host->samples.size() >= host->wanted || now >= host->deadline || host->badMessage) {
                host->echoUse = EchoUse::kIgnore;
                host->rttDone = true;
                host->changed.notify_all();
                break;
            }
            {
                const int32_t size = host->rttLen;
                host->sentAt = now_ns();
                guard.unlock();
                ipc_send_command(host->server, kTestDev, kTestItem, kPing, body_bytes(), size);
            }
            break;
        case kData:
            ++host->received;
            break;
        case kEnd:
            host->endAt = now;
            host->endSeen = true;
            if (len == static_cast<int32_t>(sizeof(uint64_t)))
                std::memcpy(&host->endCount, data, sizeof(uint64_t));
            host->changed.notify_all();
            break;
        default:
            break;
    }
    return 0;
}

int test_callback(void* user, int32_t /*item*/, int32_t eventId, const char* /*dev*/,
                  int32_t /*sec*/, int32_t /*usec*/, const char* data, int32_t len) {
    if (eventId == kPing)
        ipc_send_message(static_cast<std::atomic<void*>*>(user)->load(), kPing, data, len);
    return 0;
}

}  // namespace

std::string endpoint_log_dir() {
    const char* dir = std::getenv("VEXA_LOG_DIR");
    std::string path = dir != nullptr ? dir : "";
    if (!path.empty() && path.back() != '/')
        path += '/';
    return path;
}

void set_endpoint_logs(bool on) {
    const std::string marker = endpoint_log_dir() + "ipc_notprint.txt";
    if (on) {
        std::remove(marker.c_str());
    } else {
        std::ofstream(marker).put('\n');
    }
}

void remove_endpoint_logs() {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(endpoint_log_dir(), ec)) {
        if (entry.path().extension() == ".log")
            fs::remove(entry.path(), ec);
    }
}

uint64_t endpoint_log_bytes() {
    uint64_t total = 0;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(endpoint_log_dir(), ec)) {
        if (entry.path().extension() == ".log")
            total += entry.file_size(ec);
    }
    return total;
}

void RegistrationCount::add() {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        ++m_count;
    }
    m_changed.notify_all();
}

void RegistrationCount::reset() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_count = 0;
}

bool RegistrationCount::waitFor(int count, int timeoutMs) {
    std::unique_lock<std::mutex> guard(m_lock);
    return m_changed.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                              [&] { return m_count >= count; });
}

void* start_server(ServerCallback callback, void* user, int* port) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        *port = vexa_free_loopback_port();
        if (void* server = ipc_init_server(address_of(*port).c_str(), callback, user))
            return server;
    }
    return nullptr;
}

bool LibraryRig::open(bool logsOn) {
    if (m_host.server != nullptr)
        return true;
    set_endpoint_logs(logsOn);
    int port = 0;
    m_host.server = start_server(host_callback, &m_host, &port);
    if (m_host.server == nullptr)
        return false;
    ipc_set_su_file_path(m_host.server, "", "");
    m_client = ipc_init_client2(address_of(port).c_str(), test_callback, &m_client, kTestDev,
                                kTestItem, 3000);
    return m_client.load() != nullptr && m_host.registrations.waitFor(1, 10000);
}

void LibraryRig::close() {
    if (m_client.load() != nullptr)
        ipc_uninit_client(m_client.exchange(nullptr));
    if (m_host.server != nullptr)
        ipc_uninit_server(m_host.server);
    m_host.server = nullptr;
    m_host.registrations.reset();
}

RttResult LibraryRig::roundTripInCallback(int32_t size, int durationMs, size_t maxSamples) {
    {
        std::lock_guard<std::mutex> guard(m_host.lock);
        m_host.samples.clear();
        m_host.samples.reserve(maxSamples);
        m_host.wanted = maxSamples;
        m_host.rttLen = size;
        m_host.rttDone = false;
        m_host.badMessage = false;
        m_host.echoUse = EchoUse::kAnswerInCallback;
        m_host.deadline = now_ns() + int64_t{durationMs} * 1000000;
        m_host.sentAt = now_ns();
    }
    ipc_send_command(m_host.server, kTestDev, kTestItem, kPing, body_bytes(), size);
    std::unique_lock<std::mutex> guard(m_host.lock);
    if (!m_host.changed.wait_for(guard, std::chrono::milliseconds(durationMs + 30000),
                                 [this] { return m_host.rttDone; })) {
        m_host.echoUse = EchoUse::kIgnore;
        return {};
    }
    return round_trip_result(!m_host.badMessage, m_host.samples);
}

RttResult LibraryRig::roundTripFromHostThread(int32_t size, int durationMs, size_t maxSamples) {
    {
        std::lock_guard<std::mutex> guard(m_host.lock);
        m_host.echoArrived = false;
        m_host.echoUse = EchoUse::kHandToWaiter;
    }
    bool ok = true;
    const std::vector<double> samples = time_round_trips(
        durationMs, maxSamples,
        [&] {
            ipc_send_command(m_host.server, kTestDev, kTestItem, kPing, body_bytes(), size);
            std::unique_lock<std::mutex> guard(m_host.lock);
            const bool echoed = m_host.changed.wait_for(guard, std::chrono::seconds(30), [this] {
                return m_host.echoArrived;
            }) && m_host.echoLen == size;
            m_host.echoArrived = false;
            return echoed;
        },
        &ok);
    std::lock_guard<std::mutex> guard(m_host.lock);
    m_host.echoUse = EchoUse::kIgnore;
    return round_trip_result(ok, samples);
}

TputResult LibraryRig::oneWay(int32_t size, int durationMs, uint64_t maxMessages) {
    {
        std::lock_guard<std::mutex> guard(m_host.lock);
        m_host.received = 0;
        m_host.endSeen = false;
        m_host.endCount = 0;
    }
    void* client = m_client.load();
    const int64_t start = now_ns();
    bool ok = true;
    uint64_t sent = send_for(
        durationMs, maxMessages,
        [&] { return ipc_send_message(client, kData, body_bytes(), size); }, &ok);
    ipc_send_message(client, kEnd, &sent, sizeof(sent));
    std::unique_lock<std::mutex> guard(m_host.lock);
    if (!ok || !m_host.changed.wait_for(guard, std::chrono::seconds(60),
                                        [this] { return m_host.endSeen; })) {
        return {};
    }
    const double seconds = static_cast<double>(m_host.endAt - start) / 1e9;
    return one_way_result(m_host.received == sent && m_host.endCount == sent, m_host.received, size,
                          seconds);
}

}  // namespace bench
