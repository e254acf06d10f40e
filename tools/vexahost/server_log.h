// The server's own log, read by vexahost when the server cannot be made: the
// library says why only there.
#ifndef VEXAHOST_SERVER_LOG_H
#define VEXAHOST_SERVER_LOG_H

#include <string>

namespace vexahost {

// The directory the library logs into when an endpoint is made now:
// VEXA_LOG_DIR, else /mnt/sdcard/vexa/; always ending in '/'.
std::string endpoint_log_dir();

// The path of the server's log for `address`: "ipc_server_" and the text
// after "tcp://:" (tcp://:6000), or after "tcp://" with ':' made '.'
// (tcp://127.0.0.1:6000 gives 127.0.0.1.6000), and ".log".
std::string server_log_path(const std::string& address);

// The size of the file at `path`; 0 when there is none.
long file_size(const std::string& path);

// The last line written to `path` from byte `offset` on, without its time
// stamp, leaving out the lines of the endpoint's teardown that follow a
// failure; empty when there is none (no log, or a silenced one).
std::string last_reason(const std::string& path, long offset);

}  // namespace vexahost

#endif  // VEXAHOST_SERVER_LOG_H
