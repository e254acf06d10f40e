// The server address both endpoints take, and the server's log tag made
// from it. One grammar, tried in this order:
//   "tcp://:PORT"              the loopback host 127.0.0.1
//   "tcp://HOST:PORT[:...]"    HOST as given (a dotted IPv4 address; no name
//                              is looked up), pieces after the port ignored
// PORT is read as atoi reads it (the digits at its start) and must not come
// out 0; it is not otherwise checked, and only its low 16 bits reach a socket.
#ifndef VEXA_CORE_SERVER_ADDRESS_H
#define VEXA_CORE_SERVER_ADDRESS_H

#include <cstdint>
#include <string>

namespace vexa {

struct ServerAddress {
    std::string host;
    int32_t port = 0;
};

// False for every other form, and for a port that reads as 0.
bool parse_server_address(const std::string& text, ServerAddress* out);

// The server's log file is "ipc_server_" + this + ".log": the text after
// "tcp://:" for that form, the text after "tcp://" with every ':' made '.'
// for the other (tcp://127.0.0.1:5000 gives 127.0.0.1.5000), else empty.
// Made from any text, valid or not.
std::string server_log_tag(const std::string& text);

}  // namespace vexa

#endif  // VEXA_CORE_SERVER_ADDRESS_H
