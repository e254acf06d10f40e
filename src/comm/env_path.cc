#include "comm/env_path.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "comm/paths_and_limits.h"

namespace comm {
namespace {

const size_t kExeLinkBufferSize = 260;

// The variable's text, or null when it is unset or empty.
const char* env_text(const char* name) {
    if (name == nullptr)
        return nullptr;
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0')
        return nullptr;
    return value;
}

bool begins_with_quote(const std::string& s) {
    return !s.empty() && s.front() == '"';
}

bool ends_with_quote(const std::string& s) {
    return !s.empty() && s.back() == '"';
}

void strip_quotes(std::string& s) {
    std::string::size_type first = s.find_first_not_of('"');
    if (first == std::string::npos) {
        s.clear();
        return;
    }
    s.erase(0, first);
    s.erase(s.find_last_not_of('"') + 1);
}

std::atomic<uint32_t> g_randomCounter{0};

// Everything up to and including the last '/'; "" when there is none.
std::string cut_after_last_slash(const std::string& path) {
    // A value without a trailing slash loses its last component. Intended.
    std::string::size_type pos = path.rfind('/');
    if (pos == std::string::npos)
        return std::string();
    return path.substr(0, pos + 1);
}

}  // namespace

std::string env_get_string(const char* name) {
    if (name == nullptr)
        return std::string();
    const char* value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

bool env_get_bool(const char* name, bool defaultValue) {
    const char* value = env_text(name);
    if (value == nullptr)
        return defaultValue;
    // Only the exact text "0" is false; "false", "no", " 0" and "00" are true.
    return std::strcmp(value, "0") != 0;
}

int32_t env_get_int(const char* name, int32_t defaultValue) {
    const char* value = env_text(name);
    if (value == nullptr)
        return defaultValue;
    // atoi semantics: leading digits only, text without digits is 0 (not the default).
    return static_cast<int32_t>(std::strtol(value, nullptr, 10));
}

double env_get_double(const char* name, double defaultValue) {
    const char* value = env_text(name);
    if (value == nullptr)
        return defaultValue;
    return std::strtod(value, nullptr);
}

bool env_set(const char* name, const char* value) {
    if (name == nullptr || value == nullptr)
        return false;
    return setenv(name, value, 1) == 0;
}

std::string get_exe_path() {
    const char* value = env_text("QZ_EXEPATH");
    if (value != nullptr)
        return cut_after_last_slash(value);
    char buf[kExeLinkBufferSize] = {};
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf));
    // A target of 260 bytes or more may be cut: no directory rather than a wrong one.
    if (n < 0 || static_cast<size_t>(n) > sizeof(buf) - 1)
        return std::string();
    return cut_after_last_slash(buf);
}

std::string get_work_path() {
    const char* value = env_text("QZ_WORKPATH");
    return value == nullptr ? std::string() : cut_after_last_slash(value);
}

std::string get_ini_path() {
    const char* value = env_text("QZ_INIPATH");
    return value == nullptr ? get_exe_path() : cut_after_last_slash(value);
}

std::string get_resource_path() {
    const char* value = env_text("QZ_RESOURCEPATH");
    return value == nullptr ? get_ini_path() : cut_after_last_slash(value);
}

std::string get_log_path() {
    const char* value = env_text("QZ_LOGPATH");
    return value == nullptr ? std::string(vexa::kDefaultLogDir) : cut_after_last_slash(value);
}

int32_t random_below(int32_t n) {
    uint32_t counter = g_randomCounter.load();
    uint32_t next;
    do {
        next = (counter + 1) % 30;
    } while (!g_randomCounter.compare_exchange_weak(counter, next));
    timeval tv{};
    gettimeofday(&tv, nullptr);
    // Reseeded on every call; the counter separates calls within one microsecond.
    // Unsigned 32-bit arithmetic, wrapping.
    uint32_t seed =
        static_cast<uint32_t>(tv.tv_sec) * 1000u + next * static_cast<uint32_t>(tv.tv_usec);
    std::srand(seed);
    int r = std::rand();
    if (n == 0)
        return r;
    return r % n;
}

void regroup_quoted_args(int argc, const char* const* argv, int* outArgc, char*** outArgv) {
    if (outArgc == nullptr || outArgv == nullptr)
        return;
    *outArgc = 0;
    *outArgv = nullptr;
    if (argc <= 0 || argv == nullptr)
        return;

    std::vector<std::string> args;
    args.reserve(static_cast<size_t>(argc));
    for (int i = 0; i < argc; ++i)
        args.emplace_back(argv[i] == nullptr ? "" : argv[i]);

    std::vector<std::string> regrouped;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        // A lone '"' both begins and ends with a quote, so it is not joined.
        if (begins_with_quote(arg) && !ends_with_quote(arg)) {
            while (i + 1 < args.size()) {
                ++i;
                arg += ' ';
                arg += args[i];
                if (ends_with_quote(args[i]))
                    break;
            }
        }
        strip_quotes(arg);
        regrouped.push_back(std::move(arg));
    }

    size_t first = 0;
    while (first < regrouped.size() && regrouped[first].compare(0, 1, "-") != 0)
        ++first;
    if (first == regrouped.size())
        return;

    const size_t count = regrouped.size() - first;
    // One extra null slot ends the vector, so it can be handed to execv as it is.
    char** result = new char*[count + 1];
    for (size_t i = 0; i < count; ++i) {
        const std::string& arg = regrouped[first + i];
        result[i] = new char[arg.size() + 1];
        std::memcpy(result[i], arg.c_str(), arg.size() + 1);
    }
    result[count] = nullptr;
    *outArgc = static_cast<int>(count);
    *outArgv = result;
}

void release_args(int argc, char** argv) {
    if (argv == nullptr)
        return;
    for (int i = 0; i < argc; ++i)
        delete[] argv[i];
    delete[] argv;
}

}  // namespace comm
