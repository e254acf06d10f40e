#include "core/log_dir.h"

#include <mutex>

#include "comm/paths_and_limits.h"

// The build may name another directory; see src/CMakeLists.txt.
#ifndef VEXA_ENDPOINT_LOG_DIR
#define VEXA_ENDPOINT_LOG_DIR kDefaultLogDir
#endif

namespace vexa {
namespace {

std::mutex g_dirLock;

std::string& override_dir() {
    static std::string dir;
    return dir;
}

}  // namespace

std::string endpoint_log_dir() {
    std::lock_guard<std::mutex> guard(g_dirLock);
    const std::string& dir = override_dir();
    return dir.empty() ? std::string(VEXA_ENDPOINT_LOG_DIR) : dir;
}

void set_endpoint_log_dir_for_testing(const std::string& dir) {
    std::lock_guard<std::mutex> guard(g_dirLock);
    override_dir() = dir;
}

}  // namespace vexa
