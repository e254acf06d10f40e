#include "comm/time_util.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace comm {
namespace {

// Room for any date-time text a caller's format is expected to produce; longer
// output is cut.
const size_t kFormatBufferSize = 1024;

// Local calendar record of `seconds`. localtime_r rather than localtime: the
// logger stamps lines from many threads at once, and localtime's record is one
// shared static. The zone is loaded once, before the first conversion, under
// the guard of a function-local static; a TZ changed later takes a tzset call.
std::tm local_tm(time_t seconds) {
    static const bool zoneLoaded = (tzset(), true);
    (void)zoneLoaded;
    std::tm tm{};
    localtime_r(&seconds, &tm);
    return tm;
}

PreciseTime precise_now() {
    PreciseTime t{};
    get_precise_time(t);
    return t;
}

}  // namespace

int get_precise_time(PreciseTime& out) {
    timeval tv{};
    struct timezone tz {};
    if (gettimeofday(&tv, &tz) < 0)
        return -1;
    out = precise_time_from(tv);
    out.minutesWest = static_cast<int16_t>(tz.tz_minuteswest);
    out.dstFlag = static_cast<int16_t>(tz.tz_dsttime);
    return 0;
}

PreciseTime precise_time_from(const timeval& tv) {
    PreciseTime t{};
    int64_t seconds = static_cast<int64_t>(tv.tv_sec);
    int64_t millis = (static_cast<int64_t>(tv.tv_usec) + 500) / 1000;
    // 999500 us and up round to 1000 ms: carry into the seconds so a stamp never
    // shows a four-digit millisecond. Out-of-range microseconds normalise too.
    seconds += millis / 1000;
    millis %= 1000;
    if (millis < 0) {
        millis += 1000;
        seconds -= 1;
    }
    t.seconds = seconds;
    t.millis = static_cast<uint16_t>(millis);
    return t;
}

int64_t now_seconds() {
    return static_cast<int64_t>(time(nullptr));
}

uint64_t now_ms() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return timeval_to_ms(tv);
}

int get_time_of_day(timeval* tv) {
    return gettimeofday(tv, nullptr);
}

std::tm now_local_tm() {
    return local_tm(time(nullptr));
}

double elapsed_ms(int64_t sec1, int64_t usec1, int64_t sec2, int64_t usec2) {
    return std::fma(static_cast<double>(sec1 - sec2), 1000.0,
                    static_cast<double>(usec1 - usec2) / 1000.0);
}

uint64_t timeval_to_ms(const timeval& tv) {
    return static_cast<uint64_t>(tv.tv_sec) * 1000 + static_cast<uint64_t>(tv.tv_usec) / 1000;
}

timeval ms_to_timeval(uint64_t ms) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(ms / 1000);
    tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
    return tv;
}

std::string now_file_stamp() {
    std::tm tm = now_local_tm();
    char buf[128];
    std::snprintf(buf, sizeof(buf), "%04d%02d%02d_%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

std::string now_compact_stamp() {
    std::tm tm = now_local_tm();
    char buf[128];
    std::snprintf(buf, sizeof(buf), "%04d%02d%02d%02d%02d%02d", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

std::string now_display_stamp() {
    std::tm tm = now_local_tm();
    char buf[128];
    std::snprintf(buf, sizeof(buf), "%04d/%02d/%02d %02d:%02d:%02d", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buf;
}

std::string now_stamp_with_format(const char* format) {
    if (format == nullptr)
        return std::string();
    PreciseTime t = precise_now();
    std::tm tm = local_tm(static_cast<time_t>(t.seconds));
    char buf[kFormatBufferSize];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(buf, sizeof(buf), format, tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(t.millis));
#pragma GCC diagnostic pop
    return buf;
}

std::string now_file_stamp_ms() {
    PreciseTime t = precise_now();
    std::tm tm = local_tm(static_cast<time_t>(t.seconds));
    char buf[128];
    std::snprintf(buf, sizeof(buf), "%04d%02d%02d_%02d%02d%02d_%03d", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<int>(t.millis));
    return buf;
}

std::string now_display_stamp_ms() {
    return display_stamp_ms(precise_now());
}

std::string now_clock_stamp_ms() {
    PreciseTime t = precise_now();
    std::tm tm = local_tm(static_cast<time_t>(t.seconds));
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%02d:%02d:%02d.%03d", tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<int>(t.millis));
    return buf;
}

std::string display_stamp_ms(const PreciseTime& t) {
    std::tm tm = local_tm(static_cast<time_t>(t.seconds));
    char buf[128];
    std::snprintf(buf, sizeof(buf), "%04d/%02d/%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<int>(t.millis));
    return buf;
}

size_t DisplayStampCache::format(const PreciseTime& t, char* out) {
    if (!m_valid || t.seconds != m_seconds) {
        std::tm tm = local_tm(static_cast<time_t>(t.seconds));
        int length = std::snprintf(m_prefix, sizeof(m_prefix), "%04d/%02d/%02d %02d:%02d:%02d",
                                   tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                                   tm.tm_min, tm.tm_sec);
        m_prefixLength = std::min(static_cast<size_t>(std::max(length, 0)), sizeof(m_prefix) - 1);
        m_seconds = t.seconds;
        m_valid = true;
    }
    // A stamp always fits (the longest year has 11 characters); the bound in
    // the loop only guards the buffer.
    char millis[8];
    if (t.millis < 1000) {
        millis[0] = '.';
        millis[1] = static_cast<char>('0' + t.millis / 100);
        millis[2] = static_cast<char>('0' + t.millis / 10 % 10);
        millis[3] = static_cast<char>('0' + t.millis % 10);
        millis[4] = '\0';
    } else {
        std::snprintf(millis, sizeof(millis), ".%03d", static_cast<int>(t.millis));
    }
    size_t length = m_prefixLength;
    std::memcpy(out, m_prefix, length);
    for (const char* c = millis; *c != '\0' && length < kDisplayStampBufferSize - 1; ++c)
        out[length++] = *c;
    out[length] = '\0';
    return length;
}

std::string format_time(const char* format, int64_t seconds) {
    if (format == nullptr)
        return std::string();
    std::tm tm = local_tm(static_cast<time_t>(seconds));
    char buf[kFormatBufferSize];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(buf, sizeof(buf), format, tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
#pragma GCC diagnostic pop
    return buf;
}

std::string format_time_ms(const char* format, uint64_t ms) {
    if (format == nullptr)
        return std::string();
    std::tm tm = local_tm(static_cast<time_t>(ms / 1000));
    char buf[kFormatBufferSize];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(buf, sizeof(buf), format, tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms % 1000));
#pragma GCC diagnostic pop
    return buf;
}

int64_t parse_time(const char* format, const char* text) {
    if (format == nullptr || text == nullptr)
        return -1;
    // Cleared first: fields the format does not fill (all of them when the text
    // does not match) read as zero.
    std::tm tm{};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::sscanf(text, format, &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour, &tm.tm_min,
                &tm.tm_sec);
#pragma GCC diagnostic pop
    // Unsigned steps: a year or month near INT_MIN wraps instead of overflowing.
    tm.tm_year = static_cast<int>(static_cast<unsigned>(tm.tm_year) - 1900u);
    tm.tm_mon = static_cast<int>(static_cast<unsigned>(tm.tm_mon) - 1u);
    tm.tm_isdst = -1;
    return static_cast<int64_t>(mktime(&tm));
}

}  // namespace comm
