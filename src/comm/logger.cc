#include "comm/logger.h"

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "comm/env_path.h"
#include "comm/file_util.h"
#include "comm/string_util.h"
#include "comm/time_util.h"

namespace comm {
namespace {

// One switch for every logger of the process; see the header.
std::atomic<bool> g_logFlush{true};

// Android's log (logcat), looked up at run time so that the library needs no
// liblog to load; null where there is none. ANDROID_LOG_INFO is 4.
using AndroidLogWrite = int (*)(int priority, const char* tag, const char* text);
constexpr int kAndroidLogInfo = 4;

AndroidLogWrite android_log_write() {
    static const AndroidLogWrite write = []() -> AndroidLogWrite {
        void* liblog = dlopen("liblog.so", RTLD_NOW | RTLD_LOCAL);
        return liblog == nullptr
                   ? nullptr
                   : reinterpret_cast<AndroidLogWrite>(dlsym(liblog, "__android_log_write"));
    }();
    return write;
}

// Each line goes to logcat as well with VEXA_LOGCAT set, and in place of the
// file when the file cannot be opened (an app cannot write the fixed log
// directory). The file's own format stays as it is.
void write_to_android_log(const std::string& logPath, const char* text) {
    AndroidLogWrite write = android_log_write();
    if (write != nullptr) {
        const std::string line = logPath.substr(logPath.rfind('/') + 1) + ": " + text;
        write(kAndroidLogInfo, "vexatool", line.c_str());
    }
}

Logger* create_default_logger() {
    std::string dir = get_log_path();
    if (!is_dir_exist(dir)) {
        make_dir(dir);
    }
    return new Logger(dir + vexa::kCommonLogName);
}

}  // namespace

Logger::Logger(const std::string& path)
    : m_path(path), m_file(nullptr), m_enabled(false), m_buffer(nullptr) {
    open(path, env_get_bool("QZ_LOGPRINT", true), env_get_bool("QZ_LOGAPPEND", true),
         env_get_bool("QZ_LOGFLUSH", true), env_get_int("QZ_LOGMAXSIZE", vexa::kCommonLogMaxSize));
}

Logger::Logger(const std::string& path, bool enabled, bool append)
    : m_path(path), m_file(nullptr), m_enabled(false), m_buffer(nullptr) {
    open(path, enabled, append, env_get_bool("QZ_LOGFLUSH", true), env_get_int("QZ_LOGMAXSIZE", 0));
}

Logger::Logger(const std::string& path, bool enabled, bool append, bool flush, int32_t maxSize)
    : m_path(path), m_file(nullptr), m_enabled(false), m_buffer(nullptr) {
    open(path, enabled, append, flush, maxSize);
}

Logger::~Logger() {
    close();
}

void Logger::open(const std::string& path, bool enabled, bool append, bool flush, int32_t maxSize) {
    LockGuard guard(m_lock);
    m_file = nullptr;
    m_buffer = nullptr;
    m_enabled = enabled;
    if (!enabled) {
        return;
    }
    g_logFlush = flush;
    m_path = path;
    m_maxSize = maxSize > 0 ? maxSize : 0;
    m_append = append;
    if (maxSize > 0 && maxSize <= file_size(path)) {
        file_remove(path);
    }
    m_file = openFile();
    m_size = m_file != nullptr ? std::max<int64_t>(stream_size(m_file), 0) : 0;
    m_toAndroidLog =
        (m_file == nullptr || env_get_bool("VEXA_LOGCAT", false)) && android_log_write() != nullptr;
    if (m_file == nullptr && !m_toAndroidLog) {
        m_enabled = false;
        return;
    }
    m_buffer = static_cast<char*>(std::malloc(vexa::kLogBufferSize));
    if (m_buffer == nullptr) {
        m_enabled = false;
    }
}

void Logger::writeLine(const std::string& text) {
    if (!m_enabled) {
        return;
    }
    LockGuard guard(m_lock);
    writeStamped(text.c_str());
}

void Logger::writeFormat(const char* format, ...) {
    if (!m_enabled) {
        return;
    }
    LockGuard guard(m_lock);
    std::memset(m_buffer, 0, vexa::kLogBufferSize);
    va_list args;
    va_start(args, format);
    std::vsnprintf(m_buffer, vexa::kLogBufferSize - 1, format, args);
    va_end(args);
    writeStamped(m_buffer);
}

// Called with m_lock held. The line is the stamp, a blank, the text and a
// newline, as one fprintf("%s %s\n") would write it: the pieces go into the
// stream's buffer under m_lock and reach the file together at the flush.
void Logger::writeStamped(const char* text) {
    if (m_toAndroidLog) {
        write_to_android_log(m_path, text);
    }
    if (m_file == nullptr) {
        return;
    }
    PreciseTime now{};
    get_precise_time(now);
    char stamp[kDisplayStampBufferSize + 1];
    size_t length = m_stamps.format(now, stamp);
    stamp[length++] = ' ';
    std::fwrite(stamp, 1, length, m_file);
    std::fputs(text, m_file);
    std::fputc('\n', m_file);
    if (g_logFlush) {
        std::fflush(m_file);
    }
    m_size += static_cast<int64_t>(length + std::strlen(text) + 1);
    if (m_maxSize > 0 && m_size >= m_maxSize) {
        restart();
    }
}

void Logger::restart() {
    std::fclose(m_file);
    file_remove(m_path);
    m_file = openFile();
    m_size = 0;
}

FILE* Logger::openFile() {
    // "e": the log must not be inherited by launched test programs.
    return std::fopen(m_path.c_str(), m_append ? "ate" : "wte");
}

void Logger::close() {
    LockGuard guard(m_lock);
    if (m_file != nullptr) {
        std::fclose(m_file);
        m_file = nullptr;
    }
    if (m_buffer != nullptr) {
        std::free(m_buffer);
        m_buffer = nullptr;
    }
}

FILE* Logger::fileHandle() const {
    LockGuard guard(m_lock);
    return m_file;
}

void comm_log(const char* format, ...) {
    // Made once, never destroyed: it serves code up to the very end of the process.
    static Logger* defaultLogger = create_default_logger();
    char text[vexa::kLogBufferSize];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, vexa::kLogBufferSize - 1, format, args);
    va_end(args);
    defaultLogger->writeLine(text);
}

bool comm_log_print_enabled() {
    return env_get_bool("QZ_LOGPRINT", true);
}

bool comm_log_append_enabled() {
    return env_get_bool("QZ_LOGAPPEND", true);
}

bool comm_log_multi_enabled() {
    return env_get_bool("QZ_LOGMULTI", true);
}

std::string comm_log_path() {
    return get_log_path();
}

bool log_flush_enabled() {
    return g_logFlush;
}

}  // namespace comm
