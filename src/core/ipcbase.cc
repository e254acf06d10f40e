#include "core/ipcbase.h"

#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

#include "comm/file_util.h"
#include "comm/paths_and_limits.h"
#include "comm/string_util.h"
#include "core/log_dir.h"

namespace comm {

void throw_failure() {
    throw MyException(kFailureCode, 0, "");
}

}  // namespace comm

namespace vexa {
namespace {

// The endpoint whose processing thread this is, if any.
thread_local const IPCBase* t_processingEndpoint = nullptr;

// A head stamped with the time of day it is sent at.
void encode_head_now(uint8_t* head, const char* dev, int32_t testItem, int32_t eventId,
                     int32_t dataLen) {
    timeval now{};
    gettimeofday(&now, nullptr);
    encodeHead(head, dev, testItem, eventId, static_cast<int32_t>(now.tv_sec),
               static_cast<int32_t>(now.tv_usec), dataLen);
}

}  // namespace

IPCBase::IPCBase(IPCCallback callback, void* user, const std::string& logFileName)
    : m_callback(callback), m_user(user) {
    const std::string dir = endpoint_log_dir();
    const bool flush = true;
    make_endpoint_log_dir(dir);
    const bool enabled = !comm::file_exists(dir + kSilenceMarker);
    m_traceSendRecv = comm::file_exists(dir + kTraceMarker);
    m_logger = std::make_unique<comm::Logger>(dir + logFileName, enabled, true, flush,
                                              kEndpointLogMaxSize);
    m_logger->writeLine("++++++++++++START++++++++++++");
    m_logger->writeFormat("vexa_init_with_logger version=2016-06-19 log_flush=%d", flush ? 1 : 0);

    m_logger->writeLine("socket_init");
    if (m_sockUtil.mysock_init_with_logger(m_logger.get()) != 1) {
        m_logger->writeLine("socket_init failed");
        comm::throw_failure();
    }
    m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

IPCBase::~IPCBase() {
    if (m_wakeFd >= 0) {
        ::close(m_wakeFd);
    }
    m_logger->writeLine("~IPCBase");
    m_logger.reset();
}

void IPCBase::init() {
    setupSocket();
}

void IPCBase::start() {
    m_logger->writeLine("start");
    if (m_callback != nullptr) {
        m_stop = 0;
        // Without a callback there is nobody to hand messages to, so no thread reads.
        m_processThread = comm::thread_create(&IPCBase::processThread, this);
    }
    onStart();
}

void IPCBase::stop() {
    m_logger->writeLine("stop");
    onStop();
    m_stop = 1;
    if (m_wakeFd >= 0) {
        const uint64_t one = 1;
        // Never read back: it stays readable, and the loop ends.
        [[maybe_unused]] ssize_t written = ::write(m_wakeFd, &one, sizeof(one));
    }
    m_logger->writeLine("waiting processThread...");
    comm::thread_join(m_processThread);
    m_processThread = nullptr;  // the join released it
    m_logger->writeLine("processThread stopped");
    // Sends of other threads still under way use this endpoint: they end
    // within one wait once they see the stop, and the endpoint outlives them.
    while (m_activeSends.load() != 0) {
        comm::sleep_ms(1);
    }
}

bool IPCBase::onProcessingThread() const {
    return t_processingEndpoint == this;
}

void IPCBase::processThread(void* self) {
    auto* endpoint = static_cast<IPCBase*>(self);
    t_processingEndpoint = endpoint;
    endpoint->m_running = true;
    endpoint->m_logger->writeLine("process_thread...");
    while (!endpoint->m_stop && endpoint->processOnce()) {
    }
    endpoint->m_logger->writeLine("process_thread finished");
    endpoint->m_running = false;
}

bool IPCBase::send(Connection& conn, const char* dev, int32_t testItem, int32_t eventId,
                   const void* data, int32_t dataLen, int64_t deadlineMs) {
    // Unsigned, so that a negative length is refused too.
    if (static_cast<uint32_t>(dataLen) > static_cast<uint32_t>(kMaxBodyLength)) {
        m_logger->writeFormat("error! data_len=%d range[0-%d)", dataLen, IPC_MAX_DATA_LEN);
        return false;
    }
    uint8_t head[IPC_HEAD_SIZE];
    encode_head_now(head, dev, testItem, eventId, dataLen);

    // stop() waits for sends under way, which its wake ends at once.
    ++m_activeSends;
    struct Finished {
        std::atomic<int>& sends;
        ~Finished() { --sends; }
    } finished{m_activeSends};
    const bool fromLoop = onProcessingThread();
    Connection::SendTurn turn(conn, deadlineMs, fromLoop ? conn.input().sideInput() : nullptr);
    if (!turn) {
        noteSide(conn, fromLoop);
        return false;
    }
    traceSend(dev, testItem, eventId, dataLen);
    WriteWait wait;
    wait.deadlineMs = deadlineMs;
    wait.wakeFd = m_wakeFd;
    if (fromLoop) {
        // A callback answering its peer: if both sides wait to write, the peer's
        // bytes are taken in meanwhile, so neither waits for ever.
        wait.input = conn.input().sideInput();
    }
    // Head and body go out in one vectored write, the body straight from the
    // caller's bytes.
    const bool written =
        turn.write(m_sockUtil, m_logger.get(), head, data, dataLen, &m_stop, &wait);
    noteSide(conn, fromLoop);
    return written;
}

void IPCBase::noteSide(Connection& conn, bool fromLoop) {
    if (fromLoop && conn.input().hasSide()) {
        m_sideFilled.push_back(&conn);
    }
}

void IPCBase::post(Connection& conn, const char* dev, int32_t testItem, int32_t eventId) {
    uint8_t head[IPC_HEAD_SIZE];
    encode_head_now(head, dev, testItem, eventId, 0);
    traceSend(dev, testItem, eventId, 0);
    conn.post(head, sizeof(head));
}

void IPCBase::traceSend(const char* dev, int32_t testItem, int32_t eventId, int32_t dataLen) {
    if (m_traceSendRecv) {
        m_logger->writeFormat("send dev=%s test_item=%d event_id=%d data_len=%d",
                              dev != nullptr ? dev : "", testItem, eventId, dataLen);
    }
}

}  // namespace vexa
