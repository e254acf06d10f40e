#include "core/server_address.h"

#include <cstring>
#include <vector>

#include "comm/string_util.h"

namespace vexa {
namespace {

constexpr char kTcpPrefix[] = "tcp://";
constexpr char kLoopbackPrefix[] = "tcp://:";
constexpr char kLoopbackHost[] = "127.0.0.1";

}  // namespace

bool parse_server_address(const std::string& text, ServerAddress* out) {
    if (comm::starts_with(text, kLoopbackPrefix)) {
        out->host = kLoopbackHost;
        out->port = comm::to_int(text.substr(std::strlen(kLoopbackPrefix)));
        return out->port != 0;
    }
    if (!comm::starts_with(text, kTcpPrefix)) {
        return false;
    }
    std::vector<std::string> pieces;
    comm::split_by_char(text.substr(std::strlen(kTcpPrefix)), ':', pieces, false);
    if (pieces.size() < 2) {
        return false;
    }
    out->host = pieces[0];
    out->port = comm::to_int(pieces[1]);
    return out->port != 0;
}

std::string server_log_tag(const std::string& text) {
    std::string tag;
    if (comm::starts_with(text, kLoopbackPrefix)) {
        tag = text.substr(std::strlen(kLoopbackPrefix));
    } else if (comm::starts_with(text, kTcpPrefix)) {
        tag = text.substr(std::strlen(kTcpPrefix));
        comm::replace_all(tag, ":", ".");
    }
    return tag;
}

}  // namespace vexa
