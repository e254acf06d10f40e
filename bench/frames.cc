#include "frames.h"

#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace bench {
namespace {

void put32(uint8_t* at, int32_t value) {
    auto bits = static_cast<uint32_t>(value);
    at[0] = static_cast<uint8_t>(bits >> 24);
    at[1] = static_cast<uint8_t>(bits >> 16);
    at[2] = static_cast<uint8_t>(bits >> 8);
    at[3] = static_cast<uint8_t>(bits);
}

bool read_all(int fd, void* buffer, size_t len) {
    auto* at = static_cast<char*>(buffer);
    while (len > 0) {
        ssize_t n = read(fd, at, len);
        if (n <= 0) {
            if (n < 0 && errno == EINTR)
                continue;
            return false;
        }
        at += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// Writes every byte of the pieces, going on after partial writes.
bool write_all(int fd, iovec* iov, int count) {
    while (count > 0) {
        ssize_t n = writev(fd, iov, count);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        auto left = static_cast<size_t>(n);
        while (count > 0 && left >= iov->iov_len) {
            left -= iov->iov_len;
            ++iov;
            --count;
        }
        if (count > 0) {
            iov->iov_base = static_cast<char*>(iov->iov_base) + left;
            iov->iov_len -= left;
        }
    }
    return true;
}

}  // namespace

const char* body_bytes() {
    static const std::vector<char> body = [] {
        std::vector<char> bytes(static_cast<size_t>(kBiggestBody) + 1);
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>('a' + i % 26);
        return bytes;
    }();
    return body.data();
}

void encode_head(uint8_t* head, int32_t eventId, int32_t len) {
    std::memset(head, 0, kHeadSize);
    std::strncpy(reinterpret_cast<char*>(head), kTestDev, kDevSize - 1);
    timeval tv{};
    gettimeofday(&tv, nullptr);
    put32(head + kItemOffset, kTestItem);
    put32(head + kEventOffset, eventId);
    put32(head + kSecOffset, static_cast<int32_t>(tv.tv_sec));
    put32(head + kUsecOffset, static_cast<int32_t>(tv.tv_usec));
    put32(head + kLenOffset, len);
}

int32_t get32(const uint8_t* at) {
    return static_cast<int32_t>((static_cast<uint32_t>(at[0]) << 24) |
                                (static_cast<uint32_t>(at[1]) << 16) |
                                (static_cast<uint32_t>(at[2]) << 8) | static_cast<uint32_t>(at[3]));
}

bool write_frame(int fd, int32_t eventId, const void* body, int32_t len) {
    uint8_t head[kHeadSize];
    encode_head(head, eventId, len);
    iovec iov[2] = {{head, kHeadSize}, {const_cast<void*>(body), static_cast<size_t>(len)}};
    return write_all(fd, iov, len > 0 ? 2 : 1);
}

bool read_frame(int fd, int32_t* eventId, char* body, int32_t* len) {
    uint8_t head[kHeadSize];
    if (!read_all(fd, head, kHeadSize))
        return false;
    *eventId = get32(head + kEventOffset);
    *len = get32(head + kLenOffset);
    if (*len < 0 || *len > kBiggestBody)
        return false;
    return *len == 0 || read_all(fd, body, static_cast<size_t>(*len));
}

}  // namespace bench
