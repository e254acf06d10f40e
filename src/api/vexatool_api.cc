// The ten exported functions: argument checks, then one call into the
// endpoints. No C++ exception crosses this boundary on the expected paths.
#include <cstring>
#include <string>
#include <utility>

#include "client/ipcclient.h"
#include "comm/string_util.h"
#include "server/ipcserver.h"
#include "vexatool.h"

namespace {

// Construct, init, start; any comm::MyException on the way yields null and
// releases what was made. Other exceptions pass through unchanged.
template <typename Endpoint, typename... Args>
Endpoint* create_endpoint(Args&&... args) {
    Endpoint* endpoint = nullptr;
    try {
        endpoint = new Endpoint(std::forward<Args>(args)...);
    } catch (const comm::MyException&) {
        return nullptr;
    }
    try {
        endpoint->init();
        endpoint->start();
    } catch (const comm::MyException&) {
        delete endpoint;
        return nullptr;
    }
    return endpoint;
}

// The server's log file suffix: the port of "tcp://:PORT", "HOST.PORT" for
// "tcp://HOST:PORT", else empty.
std::string server_log_tag(const std::string& servPath) {
    std::string tag;
    if (comm::starts_with(servPath, "tcp://:")) {
        tag = servPath.substr(std::strlen("tcp://:"));
    } else if (comm::starts_with(servPath, "tcp://")) {
        tag = servPath.substr(std::strlen("tcp://"));
        comm::replace_all(tag, ":", ".");
    }
    return tag;
}

vexa::IPCServer* as_server(void* handle) {
    return static_cast<vexa::IPCServer*>(handle);
}
vexa::IPCClient* as_client(void* handle) {
    return static_cast<vexa::IPCClient*>(handle);
}

// stop() and the destructor end the processing thread and free what a running
// callback still stands on: from inside the endpoint's own callback that is
// refused, and the handle stays valid for a release from another thread.
void release_endpoint(vexa::IPCBase* endpoint) {
    if (endpoint->onProcessingThread()) {
        endpoint->logger()->writeLine("uninit refused: called from the endpoint's own callback");
        return;
    }
    endpoint->stop();
    delete endpoint;
}

}  // namespace

extern "C" {

VEXA_API void* ipc_init_server(const char* serv_path, ServerCallback callback, void* user) {
    // A null address is refused like any invalid one ("serv_path invalid ").
    const std::string path = serv_path != nullptr ? serv_path : "";
    return create_endpoint<vexa::IPCServer>(path, callback, user, server_log_tag(path));
}

VEXA_API void ipc_uninit_server(void* server) {
    if (server != nullptr) {
        release_endpoint(as_server(server));
    }
}

VEXA_API bool ipc_run_test(void* server, const char* test, const char* d_value,
                           const char* extra_args) {
    if (server == nullptr || test == nullptr) {
        return false;
    }
    return as_server(server)->run_test(test, d_value, extra_args) != 0;
}

VEXA_API void ipc_send_command(void* server, const char* dev, int32_t test_item, int32_t event_id,
                               const void* data, int32_t data_len) {
    if (server == nullptr || data_len < 0) {
        return;
    }
    as_server(server)->send_command(dev != nullptr ? dev : "", test_item, event_id, data, data_len);
}

VEXA_API void ipc_kill_client(void* server) {
    if (server != nullptr) {
        as_server(server)->kill_client();
    }
}

VEXA_API void ipc_set_su_file_path(void* server, const char* su_file_path, const char* su_pre_cmd) {
    if (server == nullptr || su_file_path == nullptr || su_pre_cmd == nullptr) {
        return;
    }
    as_server(server)->set_su_file_path(su_file_path, su_pre_cmd);
}

VEXA_API void* ipc_init_client(const char* serv_path, ClientCallback callback, void* user,
                               const char* dev, int32_t test_item) {
    return ipc_init_client2(serv_path, callback, user, dev, test_item, 0);
}

VEXA_API void* ipc_init_client2(const char* serv_path, ClientCallback callback, void* user,
                                const char* dev, int32_t test_item, int32_t connect_timeout_ms) {
    return create_endpoint<vexa::IPCClient>(serv_path, callback, user, dev != nullptr ? dev : "",
                                            test_item, connect_timeout_ms);
}

VEXA_API bool ipc_send_message(void* client, int32_t event_id, const void* data, int32_t data_len) {
    if (client == nullptr || data_len < 0) {
        return false;
    }
    return as_client(client)->send(event_id, data, data_len);
}

VEXA_API void ipc_uninit_client(void* client) {
    if (client != nullptr) {
        release_endpoint(as_client(client));
    }
}

}  // extern "C"
