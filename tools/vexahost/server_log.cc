// Reading the reason of a failed start from the server's log.
#include "server_log.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace vexahost {

namespace {

constexpr char kDefaultLogDir[] = "/mnt/sdcard/vexa/";
constexpr char kTcpPrefix[] = "tcp://";
constexpr char kLoopbackPrefix[] = "tcp://:";

// What the endpoint logs as it is taken down after a failure.
bool is_teardown(const std::string& text) {
    return text == "ipcserver free start" || text == "ipcserver free end" || text == "~IPCBase";
}

// "2025/01/31 12:00:00.000 text" gives "text".
std::string without_stamp(const std::string& line) {
    if (line.empty() || !std::isdigit(static_cast<unsigned char>(line[0])))
        return line;
    size_t first = line.find(' ');
    size_t second = first == std::string::npos ? first : line.find(' ', first + 1);
    return second == std::string::npos ? line : line.substr(second + 1);
}

}  // namespace

std::string endpoint_log_dir() {
    const char* dir = std::getenv("VEXA_LOG_DIR");
    if (dir == nullptr || *dir == '\0')
        return kDefaultLogDir;
    std::string text = dir;
    return text.back() == '/' ? text : text + "/";
}

std::string server_log_path(const std::string& address) {
    std::string tag;
    if (address.compare(0, std::strlen(kLoopbackPrefix), kLoopbackPrefix) == 0) {
        tag = address.substr(std::strlen(kLoopbackPrefix));
    } else if (address.compare(0, std::strlen(kTcpPrefix), kTcpPrefix) == 0) {
        tag = address.substr(std::strlen(kTcpPrefix));
        for (char& c : tag)
            c = c == ':' ? '.' : c;
    }
    return endpoint_log_dir() + "ipc_server_" + tag + ".log";
}

long file_size(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : 0;
}

std::string last_reason(const std::string& path, long offset) {
    std::ifstream in(path);
    // A log that was started afresh is read from its beginning.
    if (file_size(path) >= offset)
        in.seekg(offset);
    std::string line;
    std::string reason;
    while (std::getline(in, line)) {
        std::string text = without_stamp(line);
        if (!text.empty() && !is_teardown(text))
            reason = text;
    }
    return reason;
}

}  // namespace vexahost
