// Counted socket reads and writes in one-second waits, completion of a
// non-blocking connect, error text and socket options.
//
// Every wait is a poll() on the one descriptor, so descriptors of any number
// work (an fd_set cannot hold 1024 or more). Nothing here owns a descriptor
// except mysock_close, and nothing throws: failures are negative results plus,
// where noted, one line in the endpoint's log.
#ifndef VEXA_NET_SOCKET_UTIL_H
#define VEXA_NET_SOCKET_UTIL_H

#include <sys/uio.h>

#include <atomic>
#include <cstdint>

#include "comm/paths_and_limits.h"

namespace comm {
class Logger;
}

namespace vexa {

// Results of the waiting operations; a non-negative value is success.
constexpr int MYSOCK_ERR_IO = -1;            // the call failed for good, or the connect failed
constexpr int MYSOCK_ERR_STOPPED = -2;       // the stop flag was found set
constexpr int MYSOCK_ERR_WAIT = -3;          // the wait itself failed
constexpr int MYSOCK_ERR_TIMEOUT = -4;       // the time budget ran out
constexpr int MYSOCK_ERR_NOT_WRITABLE = -6;  // connect wait woke up without writability

// A stop request: non-zero means give up. Only read, after a one-second wait
// that saw nothing.
using StopFlag = std::atomic<int>;

// Most pieces one mysock_writev takes.
constexpr int kMaxWritePieces = 8;

// Asked by a writer while it waits for room: reads what the peer sends in the
// meantime, so that two endpoints writing to each other never both wait.
class InputWhileWaiting {
  public:
    // False once there is no room left (or the input has ended).
    virtual bool wantsInput() const = 0;
    // Reads what has arrived on fd, without waiting.
    virtual void takeIn(int fd) = 0;

  protected:
    ~InputWhileWaiting() = default;
};

// How a write may wait, beyond its budget and the stop flag.
struct WriteWait {
    int64_t deadlineMs = 0;              // monotonic milliseconds; 0 for none
    InputWhileWaiting* input = nullptr;  // null: wait for room only
    int wakeFd = -1;  // readable once the stop flag is set: the wait ends at once
    size_t sent = 0;  // out: bytes that went out, also on failure
};

class SocketUtil {
  public:
    SocketUtil() = default;

    // Stores the logger (not owned) and logs that it did; always 1.
    int mysock_init_with_logger(comm::Logger* logger);
    void mysock_set_read_timeout(int32_t ms) { m_readTimeoutMs = ms; }
    void mysock_set_write_timeout(int32_t ms) { m_writeTimeoutMs = ms; }
    int32_t mysock_read_timeout() const { return m_readTimeoutMs; }
    int32_t mysock_write_timeout() const { return m_writeTimeoutMs; }

    static bool mysock_is_valid(int fd) { return fd >= 0; }
    static int mysock_errno();
    // 0 for EINTR and EAGAIN, -1 for any other error number.
    static int mysock_is_retryable(int err);
    // "strerror(errno)(errno)". The text lives in a buffer of the calling
    // thread and stays valid until that thread's next call.
    const char* mysock_strerror();

    // Waits for fd = nfds - 1 to become readable (forRead != 0) or writable, in
    // one-second slices: max(timeoutMs / 1000, 1) of them. The ready count,
    // MYSOCK_ERR_WAIT, MYSOCK_ERR_STOPPED or MYSOCK_ERR_TIMEOUT.
    int mysock_select(int nfds, int forRead, int32_t timeoutMs, const StopFlag* stop);
    // Exactly `len` bytes, each wait with the full write budget. `len` on
    // success; a length below 1 comes back unchanged; 0 when the write wrote
    // nothing; else -1 or a wait result.
    int mysock_writen(int fd, const void* buffer, int32_t len, const StopFlag* stop);
    // mysock_writen of the block made by the `count` pieces of `iov` one after
    // the other (at most kMaxWritePieces of them; empty pieces are skipped),
    // without copying them together: each send is one sendmsg of what is left.
    // A send is tried first and never blocks in the kernel; only when the
    // socket has no room does it wait, in the same slices and budget as
    // mysock_writen (and no longer than `wait->deadlineMs`). Results and log
    // lines as mysock_writen, the length being the pieces' total: that total
    // on success, 0 for an empty block (no call) or a send that wrote nothing,
    // else -1 or a wait result. MYSOCK_ERR_IO without a call for more pieces
    // or a total above INT32_MAX.
    int mysock_writev(int fd, const iovec* iov, int count, const StopFlag* stop,
                      WriteWait* wait = nullptr);
    // Exactly `len` bytes, each wait with the full read budget. `len` on
    // success; 0 when the peer closed (even after part of the data); else -1
    // or a wait result. Logs the count on every completed read.
    int mysock_readn(int fd, void* buffer, int32_t len, const StopFlag* stop);

    // mysock_readn's log lines, for readers that take bytes in another way:
    // the count after a completed read, a failed wait, a failed read call.
    void mysock_log_read_count(int count);
    void mysock_log_read_wait_failure(int rc);
    void mysock_log_read_call_failure(int nread);
    // mysock_writen's two failure lines, for writers that send another way.
    void mysock_log_write_wait_failure(int rc);
    void mysock_log_write_call_failure(int nwritten);
    comm::Logger* mysock_logger() { return &log(); }

    // The pending SO_ERROR, or errno when getsockopt fails.
    static int mysock_get_so_error(int fd);
    // Finishes a connect() that returned `connectResult`: 0 connected, else
    // MYSOCK_ERR_IO (soError receives the error number), _WAIT, _STOPPED,
    // _TIMEOUT or _NOT_WRITABLE.
    int mysock_wait_connect(int fd, int connectResult, int32_t timeoutMs, const StopFlag* stop,
                            int* soError);
    int mysock_wait_connect(int fd, int connectResult, int32_t timeoutMs, const StopFlag* stop);
    // Closes a descriptor >= 0.
    static void mysock_close(int fd);

    // One wait of `timeoutMs` (-1: no limit) for readability of one
    // descriptor, with the results of select(): > 0 ready (also on hang-up or
    // error), 0 time-out, -1 failure (errno set; EBADF for a descriptor that
    // is not open). A readable `wakeFd` (when >= 0) ends the wait with 0.
    static int mysock_wait_readable(int fd, int timeoutMs, int wakeFd = -1);

    // What both endpoints do to a new socket, each step logged: the buffer
    // sizes (kSendBufferSize, kRecvBufferSize), TCP_NODELAY, SIGPIPE ignored.
    void mysock_prepare(int fd);

    // Socket options: thin setsockopt/fcntl/signal calls with fixed values.
    static int mysock_option_nodelay(int fd);
    static int mysock_option_reuse_addr(int fd);
    static int mysock_option_send_windowsize(int fd, int32_t size);
    static int mysock_option_recv_windowsize(int fd, int32_t size);
    // Logs the sizes, sets the positive ones (logging failures), logs them again.
    void mysock_option_windowsize(int fd, int32_t sendSize, int32_t recvSize);
    void mysock_print_buffer_sizes(int fd);
    // Adds or removes O_NONBLOCK, keeping the other flags; always 0.
    static int mysock_set_nonblock(int fd, int flag);
    // Ignores SIGPIPE for the whole process (the descriptor is not used).
    using SignalHandler = void (*)(int);
    static SignalHandler mysock_option_disable_sigpipe(int fd);

  private:
    comm::Logger& log();
    // mysock_writev's wait for room: > 0, or MYSOCK_ERR_WAIT, _STOPPED, _TIMEOUT.
    int waitWritable(int fd, const StopFlag* stop, WriteWait* wait);

    comm::Logger* m_logger = nullptr;
    // The budgets may be changed while another thread waits.
    std::atomic<int32_t> m_readTimeoutMs{kDefaultIoTimeoutMs};
    std::atomic<int32_t> m_writeTimeoutMs{kDefaultIoTimeoutMs};
};

}  // namespace vexa

#endif  // VEXA_NET_SOCKET_UTIL_H
