// Time-stamped text logs.
//
// Each endpoint owns one Logger for its own file; code without an endpoint
// (threads, Mutex) writes through comm_log to the process-wide default logger,
// "qzcomm.log" in the log directory. A line is the local time with milliseconds,
// one blank, the text and a newline. Where Android's log exists, lines also go
// there with VEXA_LOGCAT set, and instead of a file that could not be opened.
//
// Thread safety: any number of threads may write through one Logger at once;
// each line reaches the file whole. The flush switch is one flag for all
// loggers: every opening of an enabled logger sets it, so the logger opened
// last decides for all of them.
#ifndef VEXA_COMM_LOGGER_H
#define VEXA_COMM_LOGGER_H

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "comm/paths_and_limits.h"
#include "comm/thread_util.h"
#include "comm/time_util.h"

#if defined(__GNUC__)
#define VEXA_PRINTF_FORMAT(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define VEXA_PRINTF_FORMAT(fmt, args)
#endif

namespace comm {

class Logger {
  public:
    // Settings from QZ_LOGPRINT, QZ_LOGAPPEND, QZ_LOGFLUSH (default on) and
    // QZ_LOGMAXSIZE (default 10485760).
    explicit Logger(const std::string& path);
    // Flush from QZ_LOGFLUSH (default on), size limit from QZ_LOGMAXSIZE (default 0: none).
    Logger(const std::string& path, bool enabled, bool append);
    Logger(const std::string& path, bool enabled, bool append, bool flush, int32_t maxSize);
    ~Logger();

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // A disabled logger touches no file. With maxSize > 0 an existing file of
    // at least that size is deleted first, and so is the file once the lines
    // written bring it to that size: it then starts afresh.
    // A file that cannot be opened leaves the logger without a file, with no
    // report (its lines then go to Android's log where there is one).
    void open(const std::string& path, bool enabled, bool append, bool flush, int32_t maxSize);
    void writeLine(const std::string& text);
    void writeFormat(const char* format, ...) VEXA_PRINTF_FORMAT(2, 3);
    // Closes the file; nothing may be written afterwards.
    void close();
    FILE* fileHandle() const;

  private:
    void writeStamped(const char* text) REQUIRES(m_lock);
    // Deletes the file and opens it again, empty.
    void restart() REQUIRES(m_lock);
    // m_path, for appending or from its start as m_append says.
    FILE* openFile() REQUIRES(m_lock);

    std::string m_path GUARDED_BY(m_lock);
    FILE* m_file GUARDED_BY(m_lock);
    std::atomic<bool> m_enabled;  // set at open, read by every writer
    bool m_toAndroidLog GUARDED_BY(m_lock) = false;
    char* m_buffer GUARDED_BY(m_lock);  // kLogBufferSize bytes
    DisplayStampCache m_stamps GUARDED_BY(m_lock);
    int64_t m_size GUARDED_BY(m_lock) = 0;     // of the file, as far as this logger wrote it
    int64_t m_maxSize GUARDED_BY(m_lock) = 0;  // 0: no limit
    bool m_append GUARDED_BY(m_lock) = true;
    mutable Lock m_lock;
};

// One line to the default logger, created on first use in get_log_path().
void comm_log(const char* format, ...) VEXA_PRINTF_FORMAT(1, 2);

bool comm_log_print_enabled();   // QZ_LOGPRINT, default true
bool comm_log_append_enabled();  // QZ_LOGAPPEND, default true
bool comm_log_multi_enabled();   // QZ_LOGMULTI, default true; nothing acts on it
std::string comm_log_path();     // get_log_path()

// The shared flush flag.
bool log_flush_enabled();

}  // namespace comm

#endif  // VEXA_COMM_LOGGER_H
