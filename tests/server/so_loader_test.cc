// Tests delivered as shared objects: loading, the entry point's arguments and
// the release at the server's destruction, with their log lines.
#include "server/so_loader.h"

#include <dlfcn.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "running_server.h"
#include "server/ipcserver.h"
#include "support/test_support.h"

namespace {

using Lines = std::vector<std::string>;

// The log texts from "ipcserver free start" on, up to "ipcserver free end".
Lines teardown_lines(const std::string& log) {
    const Lines texts = vexa_test::log_texts(log);
    auto start = std::find(texts.begin(), texts.end(), "ipcserver free start");
    auto end = std::find(start, texts.end(), "ipcserver free end");
    return end == texts.end() ? Lines() : Lines(start, end + 1);
}

TEST(Library, EntryPointsGetTheirArgumentsAndAreReleasedAtTeardown) {
    vexa_test::TempDir dir;
    const std::string missing = dir.file("absent.so");
    ASSERT_EQ(dlopen(missing.c_str(), RTLD_LAZY), nullptr);
    const std::string dlerrorText = dlerror();
    const Lines bare = {"ipcserver free start", "ipcserver free end"};
    const Lines released = {"ipcserver free start", "waiting release_so_client...",
                            "release_so_client stopped", "m_hDllLib free start",
                            "ipcserver free end"};
    Lines unreleased = released;
    unreleased.insert(unreleased.begin() + 2, "invalid release_so_client");
    const struct {
        std::string path;
        const char* d;
        const char* extra;
        const char* texts;  // what run_test_so was given after the address; null: not called
        std::string line;
        Lines teardown;
        bool releaseCalled;
    } cases[] = {
        {TEST_LIB_FULL, "dev1", "x \"y z\"", " d=dev1 extra=x \"y z\"",
         std::string("load library:") + TEST_LIB_FULL, released, true},
        {TEST_LIB_FULL, nullptr, nullptr, " d=(null) extra=(null)", "", released, true},
        {TEST_LIB_NO_RELEASE, "dev1", nullptr, " d=dev1 extra=(null)", "", unreleased, false},
        // Without run_test_so the library is closed again at once.
        {TEST_LIB_NO_RUN, "dev1", nullptr, nullptr, "invalid library", bare, false},
        {missing, nullptr, nullptr, nullptr,
         "failed load " + missing + " (maybe not exist). dlerror=" + dlerrorText, bare, false},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path + (c.d != nullptr ? " with texts" : " with nulls"));
        ASSERT_EQ(vexa::SoLoader::m_hDllLib.load(), nullptr);
        const std::string record = dir.file("record" + std::to_string(n++));
        vexa_test::ScopedEnv recording("VEXA_TEST_SO_RECORD", record.c_str());
        srvtest::Running r;
        ASSERT_NE(r.server, nullptr);
        EXPECT_EQ(r.server->run_test(c.path.c_str(), c.d, c.extra), 1);
        Lines expected;
        if (c.texts != nullptr)
            expected.push_back("run_test_so serv=" + r.address() + c.texts);
        EXPECT_EQ(vexa_test::read_lines(record), expected);
        EXPECT_EQ(vexa::SoLoader::m_hDllLib.load() != nullptr, c.texts != nullptr);
        EXPECT_TRUE(r.server->testSoLoaded());
        if (!c.line.empty()) {
            EXPECT_TRUE(vexa_test::log_has(r.log, c.line));
        }
        EXPECT_EQ(vexa_test::count_log_prefix(r.log, "run_test ok"), 0);

        r.server.reset();
        EXPECT_EQ(vexa::SoLoader::m_hDllLib.load(), nullptr);
        if (c.releaseCalled)
            expected.push_back("release_test_so");
        EXPECT_EQ(vexa_test::read_lines(record), expected);
        EXPECT_EQ(teardown_lines(r.log), c.teardown);
    }
}

}  // namespace
