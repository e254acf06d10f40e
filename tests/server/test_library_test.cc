// Tests delivered as shared objects: loading, the entry point's arguments and
// the release at the server's destruction, with their log lines.
#include "server/test_library.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "server/ipcserver.h"
#include "server_test_util.h"
#include "support/test_support.h"

namespace {

using srvtest::EventLog;
using srvtest::ServerPtr;
using Lines = std::vector<std::string>;

// The log texts from "ipcserver free start" on, up to "ipcserver free end".
Lines teardown_lines(const std::string& log) {
    const Lines texts = vexa_test::log_texts(log);
    auto start = std::find(texts.begin(), texts.end(), "ipcserver free start");
    auto end = std::find(start, texts.end(), "ipcserver free end");
    return end == texts.end() ? Lines() : Lines(start, end + 1);
}

class Library : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(vexa::TestLibrary::m_hDllLib.load(), nullptr);
        recordFile = dir.file("record");
        record = std::make_unique<vexa_test::ScopedEnv>("VEXA_TEST_SO_RECORD", recordFile.c_str());
        port = vexa_test::free_loopback_port();
        address = "tcp://:" + std::to_string(port);
        log = srvtest::server_log(srvtest::test_tag());
        server = srvtest::start_server(address, &events, srvtest::test_tag());
        ASSERT_NE(server, nullptr);
    }
    void TearDown() override { server.reset(); }

    vexa_test::TempDir dir;
    std::string recordFile;
    std::unique_ptr<vexa_test::ScopedEnv> record;
    EventLog events;
    int port = 0;
    std::string address;
    std::string log;
    ServerPtr server;
};

TEST_F(Library, EntryPointGetsTheAddressAndBothTextsAndIsReleasedAtTeardown) {
    EXPECT_EQ(server->run_test(TEST_LIB_FULL, "dev1", "x \"y z\""), 1);
    EXPECT_TRUE(server->testSoLoaded());
    EXPECT_NE(vexa::TestLibrary::m_hDllLib.load(), nullptr);
    EXPECT_EQ(vexa_test::read_lines(recordFile),
              Lines{"run_test_so serv=" + address + " d=dev1 extra=x \"y z\""});
    EXPECT_TRUE(srvtest::log_has(log, std::string("load library:") + TEST_LIB_FULL));
    EXPECT_EQ(srvtest::log_line_starting(log, "run_test ok"), "");

    server.reset();
    EXPECT_EQ(vexa::TestLibrary::m_hDllLib.load(), nullptr);
    EXPECT_EQ(vexa_test::read_lines(recordFile).back(), "release_test_so");
    EXPECT_EQ(teardown_lines(log),
              (Lines{"ipcserver free start", "waiting release_so_client...",
                     "release_so_client stopped", "m_hDllLib free start", "ipcserver free end"}));
}

TEST_F(Library, NullTextsReachTheEntryPointAsNull) {
    server->run_test(TEST_LIB_FULL, nullptr, nullptr);
    EXPECT_EQ(vexa_test::read_lines(recordFile),
              Lines{"run_test_so serv=" + address + " d=(null) extra=(null)"});
}

TEST_F(Library, LibraryWithoutRunEntryIsClosedAgain) {
    EXPECT_EQ(server->run_test(TEST_LIB_NO_RUN, "dev1", nullptr), 1);
    EXPECT_TRUE(srvtest::log_has(log, "invalid library"));
    EXPECT_EQ(vexa::TestLibrary::m_hDllLib.load(), nullptr);
    server.reset();
    EXPECT_EQ(teardown_lines(log), (Lines{"ipcserver free start", "ipcserver free end"}));
    EXPECT_TRUE(vexa_test::read_lines(recordFile).empty());
}

TEST_F(Library, LibraryWithoutReleaseEntryIsReportedAtTeardown) {
    server->run_test(TEST_LIB_NO_RELEASE, "dev1", nullptr);
    EXPECT_EQ(vexa_test::read_lines(recordFile).size(), 1u);
    server.reset();
    EXPECT_EQ(teardown_lines(log), (Lines{"ipcserver free start", "waiting release_so_client...",
                                          "invalid release_so_client", "release_so_client stopped",
                                          "m_hDllLib free start", "ipcserver free end"}));
    EXPECT_EQ(vexa::TestLibrary::m_hDllLib.load(), nullptr);
}

TEST_F(Library, MissingFileLeavesTheLinkersMessage) {
    const std::string path = dir.file("absent.so");
    ASSERT_EQ(dlopen(path.c_str(), RTLD_LAZY), nullptr);
    const std::string expected = dlerror();

    EXPECT_EQ(server->run_test(path.c_str(), nullptr, nullptr), 1);
    EXPECT_TRUE(
        srvtest::log_has(log, "failed load " + path + " (maybe not exist). dlerror=" + expected));
    EXPECT_EQ(vexa::TestLibrary::m_hDllLib.load(), nullptr);
    server.reset();
    EXPECT_EQ(teardown_lines(log), (Lines{"ipcserver free start", "ipcserver free end"}));
}

// With a library loaded, children are never reaped by the loop: they may be
// the host's own.
TEST(LibraryLoaded, LoopLeavesChildrenAlone) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(0);
    }
    ASSERT_GT(child, 0);
    {
        vexa_test::TempDir dir;
        vexa_test::ScopedEnv record("VEXA_TEST_SO_RECORD", dir.file("record").c_str());
        EventLog events;
        const int port = vexa_test::free_loopback_port();
        const std::string tag = srvtest::test_tag();
        ServerPtr server = srvtest::start_server("tcp://:" + std::to_string(port), &events, tag);
        ASSERT_NE(server, nullptr);
        server->run_test(TEST_LIB_FULL, nullptr, nullptr);

        // A connection that ends raises the count of children to reap.
        srvtest::RawPeer peer;
        ASSERT_TRUE(peer.connectTo(port));
        peer.close();
        ASSERT_TRUE(vexa_test::wait_until([&] { return server->exitedCount() == 1; }));
        usleep(200 * 1000);
        EXPECT_EQ(srvtest::log_line_starting(srvtest::server_log(tag), "waitpid"), "");
    }
    EXPECT_EQ(waitpid(child, nullptr, 0), child) << "the child was reaped by the server";
}

}  // namespace
