// What one connection has received: bytes taken in without ever waiting, cut
// into whole messages.
//
// A reader that waited inside a message would hold its thread for as long as
// the peer chose; this one reads only what has arrived, so one thread serves
// many connections and can stop at once. To anyone watching, it behaves as the
// counted reader readMsgFromSocket does on the same bytes: the same messages,
// the same failures, the same log lines in the same order. A whole message is
// handed out in place, followed by a NUL, until done() is called.
//
// Used only by the endpoint's processing thread.
#ifndef VEXA_CORE_MESSAGE_BUFFER_H
#define VEXA_CORE_MESSAGE_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/ipc_message.h"
#include "net/socket_util.h"

namespace comm {
class Logger;
}

namespace vexa {

class MessageBuffer {
  public:
    // Storage of receive buffers kept by an endpoint between messages: a
    // buffer that runs empty gives its storage back and the next read takes
    // one, so that an idle connection holds none and a busy one reuses the
    // same room, the largest included. Used by the processing thread only.
    class Pool {
      public:
        struct Storage {
            std::unique_ptr<char[]> bytes;  // capacity + 1 bytes: room for a NUL
            size_t capacity = 0;
        };
        // A kept one of at least `capacity` (the largest first), or a new
        // one of exactly `capacity` when none is kept.
        Storage take(size_t capacity);
        static Storage allocate(size_t capacity);
        void give(Storage storage);

      private:
        Storage m_large;
        std::vector<Storage> m_small;
    };

    enum class Next {
        kMessage,   // a whole message, see next()
        kNeedMore,  // nothing, or part of a message
        kFailed,    // the connection is to be dropped; logged as readMsgFromSocket would
    };

    // Bytes taken in while a callback runs wait on the side, so that a
    // pipelined peer is not refused while the processing thread waits to
    // write to it; what a connection holds unread, side included, stays
    // below this.
    static constexpr size_t kMaxUnreadBytes = 8u << 20;

    // Without a pool, storage is allocated and freed as needed.
    explicit MessageBuffer(Pool* pool = nullptr) : m_pool(pool) { m_side.owner = this; }
    MessageBuffer(const MessageBuffer&) = delete;
    MessageBuffer& operator=(const MessageBuffer&) = delete;

    // One read of what has arrived on fd, never waiting. The end of the
    // stream or a failure is kept and reported by next() once the whole
    // messages before it are out. True when bytes came in.
    bool takeIn(int fd);
    // next() would give kMessage or kFailed without reading.
    bool ready() const;
    // Part of a message waits for the rest.
    bool partial() const { return !ready() && m_end > m_begin; }
    // The bytes of that part, 0 when none; and since when its first bytes
    // have been here (monotonic milliseconds).
    size_t incompleteBytes() const { return partial() ? buffered() : 0; }
    // Bytes of storage held now.
    size_t capacity() const { return m_capacity; }
    int64_t incompleteSinceMs() const { return m_frontSinceMs; }
    // The first message, if whole, into msg (data points into this buffer,
    // NUL after the body, valid until done()); or the failure, logged.
    Next next(IPCMessage* msg, comm::Logger* logger, SocketUtil& util);
    // The message from next() has been used.
    void done();
    // Part of a message has waited longer than budgetMs since its last byte:
    // the read fails as a counted read whose wait ran out would.
    bool expire(int64_t nowMs, int32_t budgetMs);

    // What a writer on the processing thread reads into while it waits.
    InputWhileWaiting* sideInput() { return &m_side; }
    // Appends what came in on the side; called once no message is out.
    void mergeSide();
    bool hasSide() const { return !m_side.bytes.empty() || m_side.ended(); }

  private:
    enum class End { kOpen, kClosed, kError, kTimeout, kRefused };

    struct Side : InputWhileWaiting {
        bool wantsInput() const override { return !ended() && room() > 0; }
        void takeIn(int fd) override;
        size_t room() const;
        bool ended() const { return end != End::kOpen; }
        const MessageBuffer* owner = nullptr;
        std::vector<char> bytes;
        End end = End::kOpen;
        int error = 0;
    };

    size_t buffered() const { return m_end - m_begin; }
    // Room behind m_end, growing with what has arrived (never by what a head
    // announces alone); false when the buffer is full of whole messages.
    bool makeRoom();
    // Size of the first message once its head is here (the head alone when
    // its length is refused), 0 before.
    size_t frontSize() const;
    Next fail(comm::Logger* logger, SocketUtil& util);

    // Swaps in storage of `capacity` (at least), keeping the bytes not yet
    // handed out.
    void replaceStorage(size_t capacity);
    // Moves the bytes not yet handed out to the front of the storage.
    void compact();
    void releaseStorage();

    Pool* m_pool;
    std::unique_ptr<char[]> m_storage;  // m_capacity + 1 bytes: room for a NUL
    size_t m_capacity = 0;
    size_t m_begin = 0;    // first byte not yet handed out
    size_t m_end = 0;      // one past the last byte received
    size_t m_outSize = 0;  // size of the message handed out, 0 when none
    char m_underNul = 0;   // the byte the NUL after that message covers
    int64_t m_lastByteMs = 0;
    // First byte of the first message not handed out; after a message was
    // used, set with the next byte or the next look, as m_lastByteMs is.
    int64_t m_frontSinceMs = 0;
    // A message was used since the last byte came: the silence of the rest
    // counts from the next look at it, as a counted read would start then.
    bool m_silenceRestarts = false;
    End m_endState = End::kOpen;
    int m_error = 0;
    Side m_side;
};

}  // namespace vexa

#endif  // VEXA_CORE_MESSAGE_BUFFER_H
