#include "core/message_buffer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "comm/logger.h"
#include "comm/thread_util.h"

namespace vexa {
namespace {

// Room for many small messages per read; a larger message grows the buffer
// as its bytes arrive, doubling, up to its size and this much read-ahead.
constexpr size_t kDefaultCapacity = 64 * 1024;
// What a connection gets when the pool has nothing: a peer must send bytes
// to make the endpoint hold more.
constexpr size_t kFirstCapacity = 4 * 1024;
constexpr size_t kLargestCapacity = IPC_HEAD_SIZE + kMaxBodyLength + kDefaultCapacity;
constexpr size_t kSideChunk = 64 * 1024;

// Kept for reuse besides the largest: enough for a few busy connections.
constexpr size_t kSmallKept = 2;

bool would_block(int err) {
    return err == EAGAIN || err == EWOULDBLOCK || err == EINTR;
}

}  // namespace

MessageBuffer::Pool::Storage MessageBuffer::Pool::take(size_t capacity) {
    // The largest first: room it already holds costs nothing, and a stream
    // of large messages reads each, and what follows it, in one go.
    Storage storage;
    if (m_large.capacity >= capacity) {
        storage = std::move(m_large);
        m_large = Storage();
    } else if (!m_small.empty() && m_small.back().capacity >= capacity) {
        storage = std::move(m_small.back());
        m_small.pop_back();
    } else {
        storage = allocate(capacity);
    }
    return storage;
}

MessageBuffer::Pool::Storage MessageBuffer::Pool::allocate(size_t capacity) {
    Storage storage;
    storage.bytes.reset(new char[capacity + 1]);
    storage.capacity = capacity;
    return storage;
}

void MessageBuffer::Pool::give(Storage storage) {
    // What grew beyond the largest message while a callback waited to write
    // is not kept, nor anything smaller than a read's usual room.
    if (storage.capacity > kLargestCapacity || storage.capacity < kDefaultCapacity) {
        return;
    }
    if (storage.capacity > kDefaultCapacity) {
        if (storage.capacity > m_large.capacity) {
            m_large = std::move(storage);
        }
    } else if (m_small.size() < kSmallKept) {
        m_small.push_back(std::move(storage));
    }
}

void MessageBuffer::replaceStorage(size_t capacity) {
    Pool::Storage storage = m_pool != nullptr ? m_pool->take(capacity) : Pool::allocate(capacity);
    if (buffered() > 0) {
        std::memcpy(storage.bytes.get(), m_storage.get() + m_begin, buffered());
    }
    m_end -= m_begin;
    m_begin = 0;
    releaseStorage();
    m_storage = std::move(storage.bytes);
    m_capacity = storage.capacity;
}

void MessageBuffer::compact() {
    std::memmove(m_storage.get(), m_storage.get() + m_begin, buffered());
    m_end -= m_begin;
    m_begin = 0;
}

void MessageBuffer::releaseStorage() {
    if (m_pool != nullptr && m_storage != nullptr) {
        m_pool->give(Pool::Storage{std::move(m_storage), m_capacity});
    }
    m_storage.reset();
    m_capacity = 0;
}

bool MessageBuffer::takeIn(int fd) {
    if (m_endState != End::kOpen || m_outSize != 0 || !makeRoom()) {
        return false;
    }
    const ssize_t got = ::recv(fd, m_storage.get() + m_end, m_capacity - m_end, MSG_DONTWAIT);
    if (got > 0) {
        // One clock read for both: the first message not handed out begins
        // here when nothing was left, or when a message was used since.
        m_lastByteMs = comm::monotonic_ms();
        if (m_end == m_begin || m_silenceRestarts) {
            m_frontSinceMs = m_lastByteMs;
        }
        m_end += static_cast<size_t>(got);
        m_silenceRestarts = false;
        return true;
    }
    if (got == 0) {
        m_endState = End::kClosed;
    } else if (!would_block(errno)) {
        m_endState = End::kError;
        m_error = errno;
    }
    return false;
}

size_t MessageBuffer::frontSize() const {
    if (buffered() < static_cast<size_t>(IPC_HEAD_SIZE)) {
        return 0;
    }
    const int32_t len = getBigEndian32(
        reinterpret_cast<const uint8_t*>(m_storage.get() + m_begin + kOffsetDataLen));
    if (len < 0 || len > kMaxBodyLength) {
        return IPC_HEAD_SIZE;  // refused as soon as the head is here
    }
    return static_cast<size_t>(IPC_HEAD_SIZE) + static_cast<size_t>(len);
}

bool MessageBuffer::makeRoom() {
    if (m_storage == nullptr) {
        replaceStorage(kFirstCapacity);  // the pool's, when it has one
    }
    if (m_end < m_capacity) {
        return true;
    }
    if (m_begin > 0) {
        compact();
        return true;
    }
    const size_t front = frontSize();
    if (front != 0 && front <= buffered()) {
        return false;  // full of whole messages: nothing more until some are out
    }
    // The first message is bigger than the room: double it, but never past
    // what the message needs and some read-ahead, so that a stream of large
    // messages keeps reading ahead.
    const size_t wanted = front != 0 ? front + kDefaultCapacity : kDefaultCapacity;
    replaceStorage(std::min(std::max(2 * m_capacity, kFirstCapacity), wanted));
    return m_end < m_capacity;
}

bool MessageBuffer::ready() const {
    const size_t front = frontSize();
    if (front != 0 && buffered() >= front) {
        return true;
    }
    return m_endState != End::kOpen;
}

MessageBuffer::Next MessageBuffer::next(IPCMessage* msg, comm::Logger* logger, SocketUtil& util) {
    const size_t front = frontSize();
    if (front == 0 || buffered() < front) {
        return m_endState == End::kOpen ? Next::kNeedMore : fail(logger, util);
    }
    char* head = m_storage.get() + m_begin;
    decodeHead(reinterpret_cast<const uint8_t*>(head), msg);
    util.mysock_log_read_count(IPC_HEAD_SIZE);
    if (!bodyLengthAccepted(msg->data_len, logger)) {
        m_endState = End::kRefused;
        return Next::kFailed;
    }
    if (msg->data_len > 0) {
        util.mysock_log_read_count(msg->data_len);
    }
    // The byte behind the body may be the next message's first: it is kept
    // and put back by done().
    msg->data = head + IPC_HEAD_SIZE;
    m_underNul = msg->data[msg->data_len];
    msg->data[msg->data_len] = '\0';
    m_outSize = front;
    return Next::kMessage;
}

void MessageBuffer::done() {
    if (m_outSize == 0) {
        return;
    }
    m_storage[m_begin + m_outSize] = m_underNul;
    m_begin += m_outSize;
    m_outSize = 0;
    if (m_begin == m_end) {
        m_begin = m_end = 0;
        releaseStorage();
    } else {
        m_silenceRestarts = true;
    }
}

bool MessageBuffer::expire(int64_t nowMs, int32_t budgetMs) {
    if (!partial()) {
        return false;
    }
    // Counted in whole seconds, at least one, as the counted read's waits are.
    const int64_t budget = int64_t{std::max(budgetMs / 1000, 1)} * 1000;
    if (m_silenceRestarts) {
        m_silenceRestarts = false;
        m_lastByteMs = nowMs;
        m_frontSinceMs = nowMs;
    }
    if (nowMs - m_lastByteMs <= budget) {
        return false;
    }
    m_endState = End::kTimeout;
    return true;
}

MessageBuffer::Next MessageBuffer::fail(comm::Logger* logger, SocketUtil& util) {
    // The lines a counted read of the head and then of the body gives.
    const bool headRead = buffered() >= static_cast<size_t>(IPC_HEAD_SIZE);
    if (headRead) {
        util.mysock_log_read_count(IPC_HEAD_SIZE);
    }
    int readLen = 0;
    errno = 0;
    if (m_endState == End::kError) {
        errno = m_error;
        readLen = MYSOCK_ERR_IO;
        util.mysock_log_read_call_failure(readLen);
    } else if (m_endState == End::kTimeout) {
        readLen = MYSOCK_ERR_TIMEOUT;
        util.mysock_log_read_wait_failure(readLen);
    }
    logger->writeFormat(headRead ? "readMsgFromSocket read body failed. read_len=%d, error=%s"
                                 : "readMsgFromSocket read head failed. read_len=%d, error=%s",
                        readLen, util.mysock_strerror());
    return Next::kFailed;
}

size_t MessageBuffer::Side::room() const {
    const size_t unread = owner->buffered() + bytes.size();
    return unread < kMaxUnreadBytes ? kMaxUnreadBytes - unread : 0;
}

void MessageBuffer::Side::takeIn(int fd) {
    const size_t old = bytes.size();
    bytes.resize(old + std::min(kSideChunk, room()));
    const ssize_t got = ::recv(fd, bytes.data() + old, bytes.size() - old, MSG_DONTWAIT);
    bytes.resize(old + (got > 0 ? static_cast<size_t>(got) : 0));
    if (got == 0) {
        end = End::kClosed;
    } else if (got < 0 && !would_block(errno)) {
        end = End::kError;
        error = errno;
    }
}

void MessageBuffer::mergeSide() {
    if (m_outSize != 0 || !hasSide()) {
        return;
    }
    const size_t side = m_side.bytes.size();
    if (side > 0) {
        const size_t need = buffered() + side;
        if (m_storage == nullptr || need > m_capacity) {
            replaceStorage(std::max(need, kDefaultCapacity));
        } else if (m_begin + need > m_capacity) {
            compact();
        }
        std::memcpy(m_storage.get() + m_end, m_side.bytes.data(), side);
        m_end += side;
        m_lastByteMs = comm::monotonic_ms();
    }
    if (m_side.ended() && m_endState == End::kOpen) {
        m_endState = m_side.end;
        m_error = m_side.error;
    }
    std::vector<char>().swap(m_side.bytes);
    m_side.end = End::kOpen;
    m_side.error = 0;
}

}  // namespace vexa
