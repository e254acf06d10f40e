// Log lines reaching Android's log through liblog, found at run time. Debian's
// liblog (android-liblog) prints each to standard error as
// "<tag> <priority letter> <date> <time> <pid> <tid> <text>"; CTest points the
// library path at it (tests/comm/CMakeLists.txt).
#include <dlfcn.h>

#include <string>

#include <gtest/gtest.h>

#include "comm/logger.h"
#include "support/test_support.h"

namespace {

using vexa_test::ScopedEnv;
using vexa_test::TempDir;

TEST(LoggerLogcat, LinesGoToTheAndroidLogWhenAskedOrWhenTheFileCannotBeOpened) {
    if (dlopen("liblog.so", RTLD_NOW) == nullptr) {
        GTEST_SKIP() << "no liblog.so on the library path (Debian's android-liblog-dev)";
    }
    TempDir tmp;
    const struct {
        const char* logcat;  // VEXA_LOGCAT, null for unset
        const char* dir;     // below tmp; "missing/" cannot be opened
        bool enabled;
        bool toLogcat;
    } cases[] = {{nullptr, "", true, false},
                 {"1", "", true, true},
                 {"0", "missing/", true, true},
                 {"1", "", false, false}};
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(n);
        ScopedEnv logcat("VEXA_LOGCAT", c.logcat);
        const std::string name = std::to_string(n++) + ".log";
        const std::string path = tmp.path() + c.dir + name;
        testing::internal::CaptureStderr();
        {
            comm::Logger logger(path, c.enabled, true, true, 0);
            logger.writeFormat("text %d", 7);
        }
        const std::string logged = testing::internal::GetCapturedStderr();
        EXPECT_EQ(logged.find("vexatool I ") != std::string::npos, c.toLogcat) << logged;
        EXPECT_EQ(logged.find(" " + name + ": text 7\n") != std::string::npos, c.toLogcat);
        const bool toFile = c.enabled && *c.dir == '\0';
        EXPECT_EQ(
            vexa_test::has_shape(vexa_test::read_file(path), "9999/99/99 99:99:99.999 text 7\n"),
            toFile);
    }
}

}  // namespace
