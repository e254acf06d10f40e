#include "core/log_dir.h"

#include <sys/stat.h>

#include <cerrno>

#include "comm/env_path.h"
#include "comm/paths_and_limits.h"
#include "comm/string_util.h"

// The build may name another default; see src/CMakeLists.txt.
#ifndef VEXA_ENDPOINT_LOG_DIR
#define VEXA_ENDPOINT_LOG_DIR kDefaultLogDir
#endif

namespace vexa {

std::string endpoint_log_dir() {
    std::string dir = comm::env_get_string(kLogDirVariable);
    if (dir.empty()) {
        return VEXA_ENDPOINT_LOG_DIR;
    }
    if (dir.back() != '/') {
        dir += '/';
    }
    return dir;
}

void make_endpoint_log_dir(const std::string& dir) {
    if (comm::is_dir_exist(dir)) {
        return;
    }
    if (dir == VEXA_ENDPOINT_LOG_DIR) {
        comm::make_dir(dir);  // one level, mode 0600 less the umask: intended
        return;
    }
    for (std::string::size_type slash = dir.find('/', 1); slash != std::string::npos;
         slash = dir.find('/', slash + 1)) {
        if (mkdir(dir.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) {
            return;  // the logger then finds no file to open, as without the setting
        }
    }
}

}  // namespace vexa
