#include "comm/env_path.h"

#include <unistd.h>

#include <set>

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace {

using vexa_test::ScopedEnv;

const char kVar[] = "VEXA_ENV_PATH_TEST_VALUE";

TEST(EnvPath, TypedGetters) {
    ScopedEnv env(kVar, nullptr);
    EXPECT_FALSE(comm::env_get_bool(kVar, false));
    EXPECT_EQ(comm::env_get_int(kVar, 7), 7);
    ASSERT_TRUE(comm::env_set(kVar, ""));
    EXPECT_TRUE(comm::env_get_bool(kVar, true));
    EXPECT_EQ(comm::env_get_int(kVar, 7), 7);
    // Only the exact text "0" is false.
    for (const char* text : {" 0", "00", "false", "no"}) {
        comm::env_set(kVar, text);
        EXPECT_TRUE(comm::env_get_bool(kVar, false)) << text;
    }
    comm::env_set(kVar, "0");
    EXPECT_FALSE(comm::env_get_bool(kVar, true));
    comm::env_set(kVar, "12abc");
    EXPECT_EQ(comm::env_get_int(kVar, 7), 12);
    comm::env_set(kVar, "abc");
    EXPECT_EQ(comm::env_get_int(kVar, 7), 0);  // not the default
    comm::env_set(kVar, "-2.25e1");
    EXPECT_EQ(comm::env_get_double(kVar, 1.5), -22.5);
    EXPECT_EQ(comm::env_get_string(kVar), "-2.25e1");
}

TEST(EnvPath, DirectoriesCutAfterLastSlash) {
    const struct {
        const char* value;
        const char* expected;
    } cases[] = {{nullptr, "/mnt/sdcard/vexa/"},
                 {"", "/mnt/sdcard/vexa/"},
                 {"/sdcard/x", "/sdcard/"},
                 {"/data/local/tmp/logs/", "/data/local/tmp/logs/"},
                 {"logs", ""}};
    for (const auto& c : cases) {
        ScopedEnv env("QZ_LOGPATH", c.value);
        EXPECT_EQ(comm::get_log_path(), c.expected) << (c.value ? c.value : "(unset)");
    }

    ScopedEnv exe("QZ_EXEPATH", nullptr);
    char self[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
    const std::string target = self;
    if (target.size() <= 259) {
        EXPECT_EQ(comm::get_exe_path(), target.substr(0, target.rfind('/') + 1));
    }
    comm::env_set("QZ_EXEPATH", "/system/bin/tool");
    ScopedEnv ini("QZ_INIPATH", nullptr);
    ScopedEnv resource("QZ_RESOURCEPATH", "");
    ScopedEnv work("QZ_WORKPATH", nullptr);
    EXPECT_EQ(comm::get_ini_path(), "/system/bin/");
    EXPECT_EQ(comm::get_resource_path(), "/system/bin/");
    EXPECT_EQ(comm::get_work_path(), "");
    comm::env_set("QZ_INIPATH", "/etc/vexa/tool.ini");
    EXPECT_EQ(comm::get_resource_path(), "/etc/vexa/");
}

TEST(EnvPath, RandomBelowCoversTheWholeRange) {
    std::set<int32_t> seen;
    for (int i = 0; i < 2000; ++i)
        seen.insert(comm::random_below(7));
    EXPECT_EQ(seen, (std::set<int32_t>{0, 1, 2, 3, 4, 5, 6}));
}

std::vector<std::string> regroup(std::vector<const char*> args) {
    int outArgc = -1;
    char** outArgv = nullptr;
    comm::regroup_quoted_args(static_cast<int>(args.size()), args.data(), &outArgc, &outArgv);
    std::vector<std::string> result(outArgv, outArgv + outArgc);
    if (outArgv != nullptr) {
        EXPECT_EQ(outArgv[outArgc], nullptr);
    }
    comm::release_args(outArgc, outArgv);
    return result;
}

TEST(EnvPath, RegroupQuotedArgs) {
    using Args = std::vector<std::string>;
    EXPECT_EQ(regroup({"prog", "-t", "\"a", "b\"", "-d"}), (Args{"-t", "a b", "-d"}));
    // Leading words dropped, quotes stripped, an unclosed quote runs to the end,
    // a lone quote is an argument of its own.
    EXPECT_EQ(regroup({"prog", "w", "-t", "\"x\"", "\"", "\"a", "b", "c"}),
              (Args{"-t", "x", "", "a b c"}));
    EXPECT_EQ(regroup({"prog", "a", "b"}), Args{});
}

}  // namespace
