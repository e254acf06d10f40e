#include "core/launch_token.h"

#include <cstdint>
#include <map>

#include "comm/env_path.h"
#include "comm/file_util.h"
#include "comm/platform.h"
#include "comm/thread_util.h"

namespace vexa {
namespace {

comm::Lock g_inProcessLock;

std::map<std::string, std::string>& in_process_tokens() REQUIRES(g_inProcessLock) {
    static std::map<std::string, std::string> tokens;
    return tokens;
}

// The system's random source without a file where it can, else /dev/urandom.
bool read_random(uint8_t* bytes, size_t size) {
    return comm::fill_random(bytes, size) ||
           comm::file_read("/dev/urandom", bytes, static_cast<int32_t>(size)) ==
               static_cast<int32_t>(size);
}

}  // namespace

std::string make_launch_token() {
    uint8_t bytes[kLaunchTokenLength / 2];
    if (!read_random(bytes, sizeof(bytes))) {
        return std::string();
    }
    static const char kDigits[] = "0123456789abcdef";
    std::string token;
    token.reserve(kLaunchTokenLength);
    for (uint8_t byte : bytes) {
        token += kDigits[byte >> 4];
        token += kDigits[byte & 0x0f];
    }
    return token;
}

bool is_launch_token(const char* text, size_t length) {
    if (text == nullptr || length != kLaunchTokenLength) {
        return false;
    }
    for (size_t i = 0; i < length; ++i) {
        const char c = text[i];
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
    }
    return true;
}

void set_in_process_token(const std::string& servPath, const std::string& token) {
    comm::LockGuard guard(g_inProcessLock);
    in_process_tokens()[servPath] = token;
}

void forget_in_process_token(const std::string& servPath) {
    comm::LockGuard guard(g_inProcessLock);
    in_process_tokens().erase(servPath);
}

std::string client_launch_token(const std::string& servPath) {
    {
        comm::LockGuard guard(g_inProcessLock);
        auto found = in_process_tokens().find(servPath);
        if (found != in_process_tokens().end()) {
            return found->second;
        }
    }
    const std::string token = comm::env_get_string(kLaunchTokenVariable);
    return is_launch_token(token.data(), token.size()) ? token : std::string();
}

}  // namespace vexa
