// One framed message and its encoding on a TCP stream.
//
// The 100-byte head, all integers big-endian, then data_len body bytes:
//
//   0                                         80      84       88       92        96       100
//   +-----------------------------------------+-------+--------+--------+---------+--------+----
//   | dev: device string, NUL-padded (80)     | item  | event  | sec    | usec    | len    | body
//   +-----------------------------------------+-------+--------+--------+---------+--------+----
//
// No magic, version or checksum; a reader that fails leaves the stream in the
// middle of a message, so the connection is dropped.
#ifndef VEXA_CORE_IPC_MESSAGE_H
#define VEXA_CORE_IPC_MESSAGE_H

#include <cstdint>

#include "net/socket_util.h"
#include "vexatool.h"

namespace comm {
class Logger;
}

namespace vexa {

constexpr int IPC_HEAD_SIZE = 100;
constexpr int IPC_DEV_SIZE = 80;
// Largest accepted body: data_len must stay below IPC_MAX_DATA_LEN.
constexpr int kMaxBodyLength = IPC_MAX_DATA_LEN - 1;
// A sender copies at most this much of its device string, so dev keeps a NUL.
constexpr int kMaxDevLength = IPC_DEV_SIZE - 1;

constexpr int kOffsetDev = 0;
constexpr int kOffsetTestItem = 80;
constexpr int kOffsetEventId = 84;
constexpr int kOffsetTimeSec = 88;
constexpr int kOffsetTimeUsec = 92;
constexpr int kOffsetDataLen = 96;

struct IPCMessage {
    char dev[IPC_DEV_SIZE];  // not forced to hold a NUL: bound reads to 80 bytes
    int32_t test_item;
    int32_t event_id;
    int32_t time_sec;
    int32_t time_usec;
    int32_t data_len;
    // Not owned. The reader fills a buffer of at least IPC_MAX_DATA_LEN bytes
    // and puts a NUL after the body.
    char* data;
};

// The head's fields into msg (dev as it came, the integers in host order).
void decodeHead(const uint8_t* head, IPCMessage* msg);
// Whether a received head's length is taken: 0 to 511999. Larger ones are
// logged ("msg too big"), negative ones refused without a line, by design.
bool bodyLengthAccepted(int32_t dataLen, comm::Logger* logger);
// Builds a zeroed head: at most 79 bytes of dev, then the integers big-endian.
void encodeHead(uint8_t* head, const char* dev, int32_t testItem, int32_t eventId, int32_t timeSec,
                int32_t timeUsec, int32_t dataLen);
void putBigEndian32(uint8_t* at, int32_t value);
int32_t getBigEndian32(const uint8_t* at);

// Reads one whole message into `msg` (whose data points to the body buffer).
// False, with a log line, on a short head or body or an oversized length;
// false without one for a negative length.
bool readMsgFromSocket(SocketUtil* util, int fd, IPCMessage* msg, comm::Logger* logger,
                       const StopFlag* abort);
// The line of a failed message write: written is what the counted write gave.
void logWriteMsgFailure(SocketUtil* util, int written, comm::Logger* logger);
// Writes a complete message (head and body, `len` bytes) in one counted write;
// `wait` as mysock_writev takes it.
bool writeMsgToSocket(SocketUtil* util, int fd, const char* block, int32_t len,
                      comm::Logger* logger, const StopFlag* abort, WriteWait* wait = nullptr);
// The same for a head of IPC_HEAD_SIZE bytes and a body of bodyLen bytes kept
// apart: one vectored counted write of 100 + bodyLen bytes, with the result and
// the failure line of the single-block form. The caller holds the send lock, so
// the message goes out whole between other senders' messages.
bool writeMsgToSocket(SocketUtil* util, int fd, const uint8_t* head, const void* body,
                      int32_t bodyLen, comm::Logger* logger, const StopFlag* abort,
                      WriteWait* wait = nullptr);

}  // namespace vexa

#endif  // VEXA_CORE_IPC_MESSAGE_H
