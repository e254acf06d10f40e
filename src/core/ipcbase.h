// The endpoint base shared by the server and the client: its own log file,
// the socket utility state, the callback, one processing thread that runs the
// subclass's loop body, and the send path that frames a message and writes it
// whole on one connection.
//
// Lifecycle: construct, init() (setupSocket), start() (thread, onStart),
// stop() (onStop, stop flag, join), destroy. Construction and set-up failures
// are logged and thrown as comm::MyException; nothing at run time throws.
#ifndef VEXA_CORE_IPCBASE_H
#define VEXA_CORE_IPCBASE_H

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "comm/logger.h"
#include "comm/thread_util.h"
#include "core/connection.h"
#include "core/ipc_message.h"
#include "net/socket_util.h"
#include "vexatool.h"

namespace comm {

// The library's only exception type. Every throw uses code 10001 and an empty
// message; the cause is in the endpoint's log.
class MyException : public std::exception {
  public:
    MyException(int code, int subCode, std::string message)
        : m_code(code), m_subCode(subCode), m_message(std::move(message)) {}
    const char* what() const noexcept override { return m_message.c_str(); }
    int code() const { return m_code; }
    int subCode() const { return m_subCode; }

  private:
    int m_code;
    int m_subCode;
    std::string m_message;
};

constexpr int kFailureCode = 10001;

// Throws MyException(10001, 0, "") after the caller has logged the cause.
[[noreturn]] void throw_failure();

}  // namespace comm

namespace vexa {

// Both callback types have the same parameters.
using IPCCallback = ServerCallback;

class IPCBase {
  public:
    // logFileName is a file name only; the directory is endpoint_log_dir().
    IPCBase(IPCCallback callback, void* user, const std::string& logFileName);
    virtual ~IPCBase();

    IPCBase(const IPCBase&) = delete;
    IPCBase& operator=(const IPCBase&) = delete;

    // Creates the socket (setupSocket); its exceptions pass through.
    void init();
    // Starts the processing thread (only with a callback), then onStart.
    void start();
    // onStop, then stops and joins the processing thread. Once per endpoint.
    void stop();

    // Frames one message and writes it whole on `conn`, waiting only for other
    // writers of that connection and for room on its socket, up to the write
    // budget (and deadlineMs when it is not 0). False for a length outside
    // 0..511999 (logged), a connection that is closed, closing or broken, or
    // a failed write. Any thread may call it, callbacks included; from the
    // processing thread it keeps taking in what that peer sends while it waits.
    bool send(Connection& conn, const char* dev, int32_t testItem, int32_t eventId,
              const void* data, int32_t dataLen, int64_t deadlineMs = 0);

    bool isRunning() const { return m_running; }
    comm::Logger* logger() const { return m_logger.get(); }
    // The read and write budgets live here (tests shorten them).
    SocketUtil& socketUtil() { return m_sockUtil; }
    // Called from this endpoint's processing thread, its callbacks included.
    bool onProcessingThread() const;

  protected:
    virtual int setupSocket() = 0;
    virtual void onStart() {}
    virtual void onStop() {}
    // One pass of the processing loop; false ends it.
    virtual bool processOnce() = 0;
    // Never waits: queues a message without a body on `conn`, to go out as
    // soon as the socket takes it (the processing loop's own answers).
    void post(Connection& conn, const char* dev, int32_t testItem, int32_t eventId);
    // Readable once stop() has been called: the processing loop waits on it
    // beside its sockets, so that it may wait without a time limit when
    // nothing else needs watching. -1 when it could not be made; the loop
    // then waits kIdleWaitMs at a time.
    int wakeFd() const { return m_wakeFd; }
    int idleWaitMs() const { return m_wakeFd >= 0 ? -1 : kIdleWaitMs; }
    static constexpr int kIdleWaitMs = 5;

    void callBack(int32_t testItem, int32_t eventId, const char* dev, int32_t timeSec,
                  int32_t timeUsec, const char* data, int32_t dataLen) {
        m_callback(m_user, testItem, eventId, dev, timeSec, timeUsec, data, dataLen);
    }
    bool hasCallback() const { return m_callback != nullptr; }
    bool tracing() const { return m_traceSendRecv; }
    // Connections whose peer's bytes a callback's send took in while it waited
    // (see send); the loop puts them back in line once the callback returned.
    std::vector<Connection*>& sideFilled() { return m_sideFilled; }
    // Where the connections' receive buffers keep their storage.
    MessageBuffer::Pool* bufferPool() { return &m_bufferPool; }

    struct MutexDeleter {
        void operator()(comm::Mutex* mutex) const { comm::mutex_destroy(mutex); }
    };

    std::unique_ptr<comm::Logger> m_logger;
    bool m_traceSendRecv = false;  // "ipc_sendrecv.txt" was present
    SocketUtil m_sockUtil;

  private:
    static void processThread(void* self);
    // Remembers a connection whose peer's bytes a send took in on the side.
    void noteSide(Connection& conn, bool fromLoop);
    // The "send ..." line, when every message is logged.
    void traceSend(const char* dev, int32_t testItem, int32_t eventId, int32_t dataLen);

    IPCCallback m_callback;
    void* m_user;
    StopFlag m_stop{0};
    std::atomic<int> m_activeSends{0};  // send() calls under way, on any thread
    int m_wakeFd = -1;
    std::vector<Connection*> m_sideFilled;  // processing thread only
    MessageBuffer::Pool m_bufferPool;       // processing thread only
    comm::ThreadHandle* m_processThread = nullptr;
    std::atomic<bool> m_running{false};
};

}  // namespace vexa

#endif  // VEXA_CORE_IPCBASE_H
