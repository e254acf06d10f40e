// Clock readings, conversions and the fixed date-time text formats of the
// library. All calendar fields are local time. Every function may be called from
// any thread; the local zone is read once (call tzset after changing TZ).
#ifndef VEXA_COMM_TIME_UTIL_H
#define VEXA_COMM_TIME_UTIL_H

#include <sys/time.h>

#include <cstdint>
#include <ctime>
#include <string>

namespace comm {

struct PreciseTime {
    int64_t seconds;      // since the Unix epoch
    uint16_t millis;      // 0-999, rounded from the microseconds
    int16_t minutesWest;  // as gettimeofday reports it
    int16_t dstFlag;      // as gettimeofday reports it
};

// gettimeofday with milliseconds rounded to the nearest one; 999.5 ms and up
// carry into the next second. 0, or -1 when gettimeofday fails.
int get_precise_time(PreciseTime& out);
// The rounding of get_precise_time applied to a given time value.
PreciseTime precise_time_from(const timeval& tv);

int64_t now_seconds();             // time(NULL)
uint64_t now_ms();                 // gettimeofday, microseconds truncated
int get_time_of_day(timeval* tv);  // gettimeofday without time zone
std::tm now_local_tm();

// (sec1 - sec2) * 1000 + (usec1 - usec2) / 1000.0
double elapsed_ms(int64_t sec1, int64_t usec1, int64_t sec2, int64_t usec2);
uint64_t timeval_to_ms(const timeval& tv);
timeval ms_to_timeval(uint64_t ms);

std::string now_file_stamp();     // "%04d%02d%02d_%02d%02d%02d"
std::string now_compact_stamp();  // "%04d%02d%02d%02d%02d%02d"
std::string now_display_stamp();  // "%04d/%02d/%02d %02d:%02d:%02d"
// The caller's format gets year, month, day, hour, minute, second, millisecond.
std::string now_stamp_with_format(const char* format);
std::string now_file_stamp_ms();     // "%04d%02d%02d_%02d%02d%02d_%03d"
std::string now_display_stamp_ms();  // "%04d/%02d/%02d %02d:%02d:%02d.%03d", the log stamp
std::string now_clock_stamp_ms();    // "%02d:%02d:%02d.%03d"
// The log stamp of a given precise time.
std::string display_stamp_ms(const PreciseTime& t);

// Room for a log stamp and its NUL: 23 characters for years 0-9999, more for
// others (a year is printed with at least four digits).
constexpr size_t kDisplayStampBufferSize = 64;

// Makes the same text as display_stamp_ms, without a calendar conversion for
// every stamp: it keeps the "YYYY/MM/DD hh:mm:ss" part of the second it saw
// last and converts again only when the second changes (either way: a clock
// set back is converted afresh too). Not synchronised: one owner serialises
// its calls (the Logger, under its line lock).
class DisplayStampCache {
  public:
    // Writes the stamp of `t` and a NUL into `out` (kDisplayStampBufferSize
    // bytes); returns the stamp's length.
    size_t format(const PreciseTime& t, char* out);

  private:
    bool m_valid = false;
    int64_t m_seconds = 0;
    size_t m_prefixLength = 0;
    char m_prefix[kDisplayStampBufferSize] = {};  // without the ".mmm"
};

// The caller's format gets year, month, day, hour, minute, second (and millisecond).
std::string format_time(const char* format, int64_t seconds);
std::string format_time_ms(const char* format, uint64_t ms);

// sscanf of six integers (year, month, day, hour, minute, second), then mktime.
// -1 when mktime fails.
int64_t parse_time(const char* format, const char* text);

}  // namespace comm

#endif  // VEXA_COMM_TIME_UTIL_H
