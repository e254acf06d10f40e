#include "core/ipc_message.h"

#include <cstring>

#include "comm/logger.h"

namespace vexa {

void putBigEndian32(uint8_t* at, int32_t value) {
    auto bits = static_cast<uint32_t>(value);
    at[0] = static_cast<uint8_t>(bits >> 24);
    at[1] = static_cast<uint8_t>(bits >> 16);
    at[2] = static_cast<uint8_t>(bits >> 8);
    at[3] = static_cast<uint8_t>(bits);
}

int32_t getBigEndian32(const uint8_t* at) {
    uint32_t bits = (static_cast<uint32_t>(at[0]) << 24) | (static_cast<uint32_t>(at[1]) << 16) |
                    (static_cast<uint32_t>(at[2]) << 8) | static_cast<uint32_t>(at[3]);
    return static_cast<int32_t>(bits);
}

void encodeHead(uint8_t* head, const char* dev, int32_t testItem, int32_t eventId, int32_t timeSec,
                int32_t timeUsec, int32_t dataLen) {
    std::memset(head, 0, IPC_HEAD_SIZE);
    if (dev != nullptr) {
        std::memcpy(head + kOffsetDev, dev, strnlen(dev, kMaxDevLength));
    }
    putBigEndian32(head + kOffsetTestItem, testItem);
    putBigEndian32(head + kOffsetEventId, eventId);
    putBigEndian32(head + kOffsetTimeSec, timeSec);
    putBigEndian32(head + kOffsetTimeUsec, timeUsec);
    putBigEndian32(head + kOffsetDataLen, dataLen);
}

void decodeHead(const uint8_t* head, IPCMessage* msg) {
    std::memcpy(msg->dev, head + kOffsetDev, IPC_DEV_SIZE);
    msg->test_item = getBigEndian32(head + kOffsetTestItem);
    msg->event_id = getBigEndian32(head + kOffsetEventId);
    msg->time_sec = getBigEndian32(head + kOffsetTimeSec);
    msg->time_usec = getBigEndian32(head + kOffsetTimeUsec);
    msg->data_len = getBigEndian32(head + kOffsetDataLen);
}

bool bodyLengthAccepted(int32_t dataLen, comm::Logger* logger) {
    if (dataLen > kMaxBodyLength) {
        logger->writeFormat("msg too big, %d >= %d", dataLen, IPC_MAX_DATA_LEN);
        return false;
    }
    return dataLen >= 0;  // a negative length is refused without a line, by design
}

bool readMsgFromSocket(SocketUtil* util, int fd, IPCMessage* msg, comm::Logger* logger,
                       const StopFlag* abort) {
    uint8_t head[IPC_HEAD_SIZE];
    int got = util->mysock_readn(fd, head, IPC_HEAD_SIZE, abort);
    if (got != IPC_HEAD_SIZE) {
        logger->writeFormat("readMsgFromSocket read head failed. read_len=%d, error=%s", got,
                            util->mysock_strerror());
        return false;
    }
    decodeHead(head, msg);
    if (msg->data_len == 0) {
        msg->data[0] = '\0';
        return true;
    }
    if (!bodyLengthAccepted(msg->data_len, logger)) {
        return false;
    }
    got = util->mysock_readn(fd, msg->data, msg->data_len, abort);
    if (got != msg->data_len) {
        logger->writeFormat("readMsgFromSocket read body failed. read_len=%d, error=%s", got,
                            util->mysock_strerror());
        return false;
    }
    msg->data[msg->data_len] = '\0';
    return true;
}

void logWriteMsgFailure(SocketUtil* util, int written, comm::Logger* logger) {
    logger->writeFormat("writeMsgToSocket write msg failed. write_len=%d,error=%s", written,
                        util->mysock_strerror());
}

namespace {

bool writeResult(SocketUtil* util, int written, int32_t len, comm::Logger* logger) {
    if (written == len) {
        return true;
    }
    logWriteMsgFailure(util, written, logger);
    return false;
}

}  // namespace

bool writeMsgToSocket(SocketUtil* util, int fd, const char* block, int32_t len,
                      comm::Logger* logger, const StopFlag* abort, WriteWait* wait) {
    if (len < 1) {
        return writeResult(util, len, len, logger);
    }
    iovec whole{const_cast<char*>(block), static_cast<size_t>(len)};
    return writeResult(util, util->mysock_writev(fd, &whole, 1, abort, wait), len, logger);
}

bool writeMsgToSocket(SocketUtil* util, int fd, const uint8_t* head, const void* body,
                      int32_t bodyLen, comm::Logger* logger, const StopFlag* abort,
                      WriteWait* wait) {
    // A body length outside 0..511999 never reaches here (the sender refuses it).
    iovec pieces[2] = {{const_cast<uint8_t*>(head), IPC_HEAD_SIZE},
                       {const_cast<void*>(body), bodyLen > 0 ? static_cast<size_t>(bodyLen) : 0}};
    const int32_t len = IPC_HEAD_SIZE + (bodyLen > 0 ? bodyLen : 0);
    return writeResult(util, util->mysock_writev(fd, pieces, 2, abort, wait), len, logger);
}

}  // namespace vexa
