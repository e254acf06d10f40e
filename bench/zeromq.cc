#include "transports.h"

#include <zmq.h>

#include <cstring>
#include <thread>
#include <vector>

#include "frames.h"

namespace bench {
namespace {

std::vector<char> zmq_frame(int32_t eventId, const void* body, int32_t len) {
    std::vector<char> frame(static_cast<size_t>(kHeadSize + len));
    encode_head(reinterpret_cast<uint8_t*>(frame.data()), eventId, len);
    if (len > 0)
        std::memcpy(frame.data() + kHeadSize, body, static_cast<size_t>(len));
    return frame;
}

int32_t zmq_event(zmq_msg_t* msg) {
    if (zmq_msg_size(msg) < static_cast<size_t>(kHeadSize))
        return -1;
    return get32(static_cast<const uint8_t*>(zmq_msg_data(msg)) + kEventOffset);
}

// Two sockets of the given types, the first bound to an ephemeral loopback port.
struct ZmqPair {
    void* context = nullptr;
    void* bound = nullptr;
    void* connected = nullptr;

    bool open(int boundType, int connectedType) {
        context = zmq_ctx_new();
        bound = zmq_socket(context, boundType);
        connected = zmq_socket(context, connectedType);
        int zero = 0;
        int timeoutMs = 30000;  // no wait of a broken case lasts longer
        for (void* socket : {bound, connected}) {
            zmq_setsockopt(socket, ZMQ_LINGER, &zero, sizeof(zero));
            zmq_setsockopt(socket, ZMQ_RCVTIMEO, &timeoutMs, sizeof(timeoutMs));
            zmq_setsockopt(socket, ZMQ_SNDTIMEO, &timeoutMs, sizeof(timeoutMs));
        }
        if (zmq_bind(bound, "tcp://127.0.0.1:*") != 0)
            return false;
        char endpoint[256];
        size_t length = sizeof(endpoint);
        zmq_getsockopt(bound, ZMQ_LAST_ENDPOINT, endpoint, &length);
        return zmq_connect(connected, endpoint) == 0;
    }
    void close() {
        zmq_close(bound);
        zmq_close(connected);
        zmq_ctx_term(context);
    }
};

}  // namespace

RttResult zmq_round_trip(int32_t size, int durationMs, size_t maxSamples) {
    ZmqPair pair;
    if (!pair.open(ZMQ_REP, ZMQ_REQ)) {
        pair.close();
        return {};
    }
    std::thread echo([&pair] {
        for (;;) {
            zmq_msg_t msg;
            zmq_msg_init(&msg);
            if (zmq_msg_recv(&msg, pair.bound, 0) < 0) {
                zmq_msg_close(&msg);
                break;
            }
            const bool stop = zmq_event(&msg) != kPing;
            // The echo goes back with a fresh head, as the test would send it.
            const auto bodyLen = static_cast<int32_t>(zmq_msg_size(&msg)) - kHeadSize;
            std::vector<char> frame =
                zmq_frame(kPing, static_cast<char*>(zmq_msg_data(&msg)) + kHeadSize, bodyLen);
            zmq_msg_close(&msg);
            zmq_send(pair.bound, frame.data(), frame.size(), 0);
            if (stop)
                break;
        }
    });
    bool ok = true;
    const std::vector<double> samples = time_round_trips(
        durationMs, maxSamples,
        [&] {
            std::vector<char> frame = zmq_frame(kPing, body_bytes(), size);
            zmq_msg_t reply;
            zmq_msg_init(&reply);
            const bool echoed =
                zmq_send(pair.connected, frame.data(), frame.size(), 0) >= 0 &&
                zmq_msg_recv(&reply, pair.connected, 0) == static_cast<int>(kHeadSize + size);
            zmq_msg_close(&reply);
            return echoed;
        },
        &ok);
    std::vector<char> stop = zmq_frame(kEnd, nullptr, 0);
    if (ok) {
        zmq_send(pair.connected, stop.data(), stop.size(), 0);
        zmq_msg_t reply;
        zmq_msg_init(&reply);
        zmq_msg_recv(&reply, pair.connected, 0);
        zmq_msg_close(&reply);
    }
    echo.join();
    pair.close();
    return round_trip_result(ok, samples);
}

TputResult zmq_one_way(int32_t size, int durationMs, uint64_t maxMessages) {
    ZmqPair pair;
    if (!pair.open(ZMQ_PULL, ZMQ_PUSH)) {
        pair.close();
        return {};
    }
    uint64_t received = 0;
    uint64_t endCount = 0;
    int64_t endAt = 0;
    std::thread receiver([&] {
        zmq_msg_t msg;
        zmq_msg_init(&msg);
        while (zmq_msg_recv(&msg, pair.bound, 0) >= 0) {
            if (zmq_event(&msg) == kEnd) {
                endAt = now_ns();
                std::memcpy(&endCount, static_cast<char*>(zmq_msg_data(&msg)) + kHeadSize,
                            sizeof(endCount));
                break;
            }
            ++received;
        }
        zmq_msg_close(&msg);
    });
    const int64_t start = now_ns();
    bool ok = true;
    uint64_t sent = send_for(
        durationMs, maxMessages,
        [&] {
            std::vector<char> frame = zmq_frame(kData, body_bytes(), size);
            return zmq_send(pair.connected, frame.data(), frame.size(), 0) >= 0;
        },
        &ok);
    std::vector<char> end = zmq_frame(kEnd, &sent, sizeof(sent));
    zmq_send(pair.connected, end.data(), end.size(), 0);
    receiver.join();
    pair.close();
    return one_way_result(ok && endAt != 0 && received == sent && endCount == sent, received, size,
                          static_cast<double>(endAt - start) / 1e9);
}

}  // namespace bench
