#include "comm/time_util.h"

#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace {

// Pins the local time zone for one test and restores the previous one.
class ScopedTimeZone {
  public:
    explicit ScopedTimeZone(const char* zone) : m_env(new vexa_test::ScopedEnv("TZ", zone)) {
        tzset();
    }
    ~ScopedTimeZone() {
        m_env.reset();
        tzset();
    }

  private:
    std::unique_ptr<vexa_test::ScopedEnv> m_env;
};

timeval make_tv(time_t sec, suseconds_t usec) {
    timeval tv{};
    tv.tv_sec = sec;
    tv.tv_usec = usec;
    return tv;
}

const char kSixInts[] = "%d-%d-%d %d:%d:%d";

TEST(TimeUtil, FormatAndParseInUtcAndLocalTime) {
    ScopedTimeZone zone("UTC0");
    EXPECT_EQ(comm::format_time("%04d-%02d-%02d %02d:%02d:%02d", 0), "1970-01-01 00:00:00");
    EXPECT_EQ(comm::format_time_ms("%d/%d/%d %d:%d:%d.%03d", 1457359509042ULL),
              "2016/3/7 14:5:9.042");
    EXPECT_EQ(comm::parse_time(kSixInts, "2016-3-7 14:05:09"), 1457359509);
    // Rounding in the precise time, truncation in the plain conversion.
    EXPECT_EQ(comm::precise_time_from(make_tv(10, 1999)).millis, 2);
    EXPECT_EQ(comm::timeval_to_ms(make_tv(10, 1999)), 10001u);
    // Parsing is in local time, and missing fields are zero.
    ScopedTimeZone cet("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(comm::parse_time(kSixInts, "2016-3-7 14:05:09"), 1457355909);  // UTC+1
    EXPECT_EQ(comm::parse_time(kSixInts, "2016-7-1 12:00:00"), 1467367200);  // UTC+2
    EXPECT_EQ(comm::parse_time(kSixInts, "2016-3-7"), 1457305200);           // midnight
    EXPECT_EQ(comm::parse_time(kSixInts, "garbage"), comm::parse_time(kSixInts, "0-0-0 0:0:0"));
}

// The logger's stamps come from a cache that converts the calendar once per
// second; they must read exactly as display_stamp_ms's, also when the second
// changes (here into the next day through the millisecond carry), when the
// clock is set back and for a millisecond count a stamp never normally has.
TEST(TimeUtil, StampCacheGivesTheFullConversionsTextAcrossSeconds) {
    ScopedTimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
    // 2016-03-07 23:59:59 CET.
    const time_t lastSecond = 1457391599;
    const std::vector<comm::PreciseTime> times = {
        comm::precise_time_from(make_tv(lastSecond, 0)),
        comm::precise_time_from(make_tv(lastSecond, 998000)),
        comm::precise_time_from(make_tv(lastSecond, 999499)),
        comm::precise_time_from(make_tv(lastSecond, 999600)),  // 00:00:00.000 of 03/08
        comm::precise_time_from(make_tv(lastSecond + 1, 1000)),
        comm::precise_time_from(make_tv(lastSecond, 250000)),               // the clock set back
        comm::precise_time_from(make_tv(lastSecond + 86400 * 120, 42000)),  // summer time
        comm::PreciseTime{lastSecond, 1234, 0, 0},
    };
    comm::DisplayStampCache cache;
    std::vector<std::string> stamps;
    for (const comm::PreciseTime& t : times) {
        char out[comm::kDisplayStampBufferSize];
        const size_t length = cache.format(t, out);
        EXPECT_EQ(std::strlen(out), length);
        EXPECT_EQ(std::string(out), comm::display_stamp_ms(t));
        stamps.emplace_back(out);
    }
    EXPECT_EQ(stamps[0], "2016/03/07 23:59:59.000");
    EXPECT_EQ(stamps[2], "2016/03/07 23:59:59.999");
    EXPECT_EQ(stamps[3], "2016/03/08 00:00:00.000");
    EXPECT_EQ(stamps[4], "2016/03/08 00:00:00.001");
    EXPECT_EQ(stamps[5], "2016/03/07 23:59:59.250");
    EXPECT_EQ(stamps[6], "2016/07/06 00:59:59.042");
    EXPECT_EQ(stamps[7], "2016/03/07 23:59:59.1234");
}

}  // namespace
