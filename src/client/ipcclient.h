// The client endpoint of a test program: connects to the host's server,
// registers under its device string and test item, hands the server's messages
// to its callback on the processing thread, sends its own messages and asks
// for leave before closing.
//
// Lifecycle (as the exported functions drive it): construct, init() (connect
// and register), start(), ... send() ..., stop() (the close handshake, then
// the join), delete. stop() must come before delete once start() has run.
#ifndef VEXA_CLIENT_IPCCLIENT_H
#define VEXA_CLIENT_IPCCLIENT_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "core/ipcbase.h"
#include "vexatool.h"

namespace vexa {

class IPCClient : public IPCBase {
  public:
    // servPath is "tcp://:PORT" (127.0.0.1) or "tcp://HOST:PORT", HOST a dotted
    // IPv4 address; pieces after the port are ignored. A null dev counts as "".
    // connectTimeoutMs 0 connects blocking; above 0 gives up after about that
    // long and leaves the socket non-blocking for good.
    // Throws comm::MyException (logged "serv_path invalid %s") for any other
    // address or a port that converts to 0.
    IPCClient(const char* servPath, ClientCallback callback, void* user, const char* dev,
              int32_t testItem, int32_t connectTimeoutMs);
    // Closes the socket if it is still open. The processing thread must have
    // been stopped before.
    ~IPCClient() override;

    // One message from this client (its dev and test item). False for a
    // negative or too large length, a closed connection or a failed write.
    // Any thread may call it, the callback included.
    bool send(int32_t eventId, const void* data, int32_t dataLen);

  protected:
    // Creates and connects the socket (throws comm::MyException when that
    // fails) and registers with CLIENT_IPC_CONFIG; returns 1 when the
    // registration was written, 0 when not.
    int setupSocket() override;
    // Sends CLIENT_IPC_EXIT and waits up to 2000 ms in all for
    // CLIENT_IPC_EXIT_ACK (or for the connection to go), whatever the server
    // does. Nothing when the socket is already closed.
    void onStop() override;
    // Waits 5 ms for a message and delivers it; false once the socket is
    // closed. Never waits inside a message: a server that stalls mid-message
    // fails the read after the read budget, and a stop is seen at once.
    bool processOnce() override;

  private:
    // Closes the socket (once no sender is writing on it) and logs it.
    void closeSocket();
    bool hasSocket() const { return m_conn != nullptr && m_conn->isOpen(); }
    bool deliver(const IPCMessage& msg);
    void reportServerGone();

    // Made by setupSocket, before any other thread may use it.
    std::shared_ptr<Connection> m_conn;
    int32_t m_connectTimeoutMs;
    std::string m_dev;
    int32_t m_testItem;
    int32_t m_port = 0;
    std::string m_host;
    // Sent with the registration; "" when this test was not given one.
    std::string m_launchToken;
    // Set by the processing thread when the server grants closing or the
    // connection is lost; polled by the thread in onStop.
    std::atomic<bool> m_canClose{false};
};

}  // namespace vexa

#endif  // VEXA_CLIENT_IPCCLIENT_H
