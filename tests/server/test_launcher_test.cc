// The test launcher: the argument vectors it builds, and what launched
// programs really receive, end to end through IPCServer::run_test.
#include "server/test_launcher.h"

#include <dirent.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "server/ipcserver.h"
#include "server_test_util.h"
#include "support/test_support.h"

namespace {

using srvtest::Event;
using srvtest::EventLog;
using srvtest::ServerPtr;
using vexa::LaunchPlan;
using Words = std::vector<std::string>;

// ---- Argument vectors ----

TEST(CommandArgs, AddressThenDeviceThenExtras) {
    EXPECT_EQ(vexa::build_cmd_args("tcp://:6000", "dev1", "x y"), " -t tcp://:6000 -d dev1 x y");
    EXPECT_EQ(vexa::build_cmd_args("tcp://:6000", nullptr, nullptr), " -t tcp://:6000");
    EXPECT_EQ(vexa::build_cmd_args("tcp://:6000", "", ""), " -t tcp://:6000");
    EXPECT_EQ(vexa::build_cmd_args("tcp://:6000", nullptr, "x"), " -t tcp://:6000 x");
}

TEST(LaunchPlan, PreCommandWrapsTheTestInOneQuotedArgument) {
    const LaunchPlan plan = vexa::plan_launch("/data/local/tmp/t1",
                                              vexa::build_cmd_args("tcp://:6000", "dev1", nullptr),
                                              "su -c", "cd /data/local/tmp");
    EXPECT_EQ(plan.program, "su");
    EXPECT_TRUE(plan.searchPath);
    EXPECT_EQ(plan.argv,
              (Words{"su", "-c", "cd /data/local/tmp; /data/local/tmp/t1 -t tcp://:6000 -d dev1"}));
}

TEST(LaunchPlan, DefaultPrefixWithoutPreCommandPassesSeparateWords) {
    const LaunchPlan plan = vexa::plan_launch("/data/local/tmp/t1", " -t tcp://:6000", "su -c", "");
    EXPECT_EQ(plan.argv, (Words{"su", "-c", "/data/local/tmp/t1", "-t", "tcp://:6000"}));
}

TEST(LaunchPlan, ExtraArgumentsAreSplitAtSpacesOutsideQuotes) {
    struct Case {
        const char* extra;
        Words tail;
    };
    const Case cases[] = {
        {"a \"b c\" d", {"a", "b c", "d"}},
        {"x \"y z", {"x", "y z"}},
        {"a  b", {"a", "b"}},
        {"\"b  c\"", {"b  c"}},
        {"mid\"quote", {"mid\"quote"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.extra);
        const LaunchPlan plan = vexa::plan_launch(
            "/data/local/tmp/t1", vexa::build_cmd_args("tcp://:6000", nullptr, c.extra), "", "");
        Words expected{"t1", "-t", "tcp://:6000"};
        expected.insert(expected.end(), c.tail.begin(), c.tail.end());
        EXPECT_EQ(plan.argv, expected);
    }
}

TEST(LaunchPlan, EmptyPrefixRunsThePathItself) {
    const LaunchPlan plan = vexa::plan_launch("/data/local/tmp/t1", " -t tcp://:6000", "", "");
    EXPECT_EQ(plan.program, "/data/local/tmp/t1");
    EXPECT_FALSE(plan.searchPath);
    EXPECT_EQ(plan.argv, (Words{"t1", "-t", "tcp://:6000"}));

    const LaunchPlan bare = vexa::plan_launch("t1", " -t tcp://:6000", "", "");
    EXPECT_EQ(bare.program, "t1");
    EXPECT_TRUE(bare.searchPath);
    EXPECT_EQ(bare.argv, (Words{"t1", "-t", "tcp://:6000"}));
}

// ---- End to end ----

#ifdef SERVER_TEST_EMULATOR
constexpr bool kEmulated = true;
const std::string kDirect = SERVER_TEST_EMULATOR;
#else
constexpr bool kEmulated = false;
const std::string kDirect;
#endif
const std::string kPeer = SERVER_TEST_PEER;

// The su prefix that starts `program` (through the emulator in cross builds).
std::string prefix_running(const std::string& program) {
    return kDirect.empty() ? program : kDirect + " " + program;
}

// Children of this process that have exited and not been reaped.
int zombie_children() {
    int zombies = 0;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return -1;
    }
    while (dirent* entry = readdir(proc)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') {
            continue;
        }
        const std::string stat =
            vexa_test::read_file(std::string("/proc/") + entry->d_name + "/stat");
        const std::string::size_type paren = stat.rfind(')');
        if (paren == std::string::npos || paren + 4 >= stat.size()) {
            continue;
        }
        const char state = stat[paren + 2];
        const long ppid = std::strtol(stat.c_str() + paren + 4, nullptr, 10);
        if (state == 'Z' && ppid == static_cast<long>(getpid())) {
            ++zombies;
        }
    }
    closedir(proc);
    return zombies;
}

int32_t pid_of(const Event& e) {
    int32_t pid = 0;
    if (e.data.size() == sizeof(pid)) {
        std::memcpy(&pid, e.data.data(), sizeof(pid));
    }
    return pid;
}

// Each test leaves no child behind, so that the next one starts clean.
class Launch : public testing::Test {
  protected:
    void TearDown() override {
        vexa_test::wait_until(
            [] {
                int status = 0;
                return waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
            },
            30000);
    }

    // Starts a server on a free port.
    void startServer() {
        port = vexa_test::free_loopback_port();
        tag = srvtest::test_tag();
        log = srvtest::server_log(tag);
        std::remove(log.c_str());  // a repeated run starts a fresh log
        server = srvtest::start_server("tcp://:" + std::to_string(port), &events, tag);
        ASSERT_NE(server, nullptr);
    }

    // The pid and arguments written by the recording program, which is then reaped.
    Words recorded(const std::string& file) {
        EXPECT_TRUE(vexa_test::wait_until([&] { return !vexa_test::read_file(file).empty(); }));
        Words lines = vexa_test::read_lines(file);
        if (lines.empty()) {
            return lines;
        }
        waitpid(static_cast<pid_t>(std::atoi(lines[0].c_str())), nullptr, 0);
        return Words(lines.begin() + 1, lines.end());
    }

    // Argument vector with element 0 dropped, which the emulator changes.
    static Words tail(const Words& argv) {
        return argv.empty() ? argv : Words(argv.begin() + 1, argv.end());
    }

    vexa_test::TempDir dir;
    EventLog events;
    int port = 0;
    std::string tag;
    std::string log;
    ServerPtr server;
};

TEST_F(Launch, SuPrefixReceivesTheTestAndItsArguments) {
    const std::string file = dir.file("argv");
    vexa_test::ScopedEnv record("VEXA_TEST_ARGV_FILE", file.c_str());
    startServer();
    server->set_su_file_path(prefix_running(kPeer).c_str(), "");
    EXPECT_EQ(server->run_test("/data/local/tmp/t1", "dev1", "a \"b c\" d"), 1);

    const Words argv = recorded(file);
    const std::string address = "tcp://:" + std::to_string(port);
    EXPECT_EQ(tail(argv),
              (Words{"/data/local/tmp/t1", "-t", address, "-d", "dev1", "a", "b c", "d"}));
    if (!kEmulated && !argv.empty()) {
        EXPECT_EQ(argv[0], "server_test_peer");
    }
    EXPECT_TRUE(
        srvtest::log_has(log, "set su_file_path:" + prefix_running(kPeer) + " su_pre_cmd:"));
    EXPECT_TRUE(srvtest::log_has(
        log, "run_test ok, ppid=" + std::to_string(getpid()) +
                 " pthreadid=" + std::to_string(static_cast<unsigned long>(pthread_self()))));
    EXPECT_FALSE(server->testSoLoaded());
    server.reset();
}

TEST_F(Launch, PreCommandReachesThePrefixAsOneArgument) {
    const std::string file = dir.file("argv");
    vexa_test::ScopedEnv record("VEXA_TEST_ARGV_FILE", file.c_str());
    startServer();
    server->set_su_file_path((prefix_running(kPeer) + " -c").c_str(), "cd /data/local/tmp");
    server->run_test("/data/local/tmp/t1", "dev1", nullptr);

    const std::string address = "tcp://:" + std::to_string(port);
    EXPECT_EQ(tail(recorded(file)),
              (Words{"-c", "cd /data/local/tmp; /data/local/tmp/t1 -t " + address + " -d dev1"}));
    server.reset();
}

TEST_F(Launch, BareProgramNameIsLookedUpInPath) {
    if (kEmulated) {
        GTEST_SKIP() << "the emulator, not the program, is what the prefix names here";
    }
    const std::string file = dir.file("argv");
    vexa_test::ScopedEnv record("VEXA_TEST_ARGV_FILE", file.c_str());
    const std::string peerDir = kPeer.substr(0, kPeer.rfind('/'));
    vexa_test::ScopedEnv path("PATH", peerDir.c_str());
    startServer();
    server->set_su_file_path("server_test_peer", "");
    server->run_test("/data/local/tmp/t1", nullptr, nullptr);

    const std::string address = "tcp://:" + std::to_string(port);
    EXPECT_EQ(recorded(file), (Words{"server_test_peer", "/data/local/tmp/t1", "-t", address}));
    server.reset();
}

TEST_F(Launch, KillClientWaitsOnlyRightAfterALaunch) {
    startServer();
    server->set_su_file_path("", "");
    // A program that cannot be started is a launch all the same.
    EXPECT_EQ(server->run_test("/nonexistent/vexa-no-such-test", nullptr, nullptr), 1);
    EXPECT_NE(srvtest::log_line_starting(log, "run_test ok, ppid="), "");
    const std::string delay = "delay 500ms as just ipc_run_test";

    long long before = vexa_test::monotonic_ms();
    server->kill_client();
    EXPECT_GE(vexa_test::monotonic_ms() - before, 495);
    EXPECT_EQ(vexa_test::count_log_text(log, delay), 1);

    // More than 500 ms after the launch now: no wait, no line.
    before = vexa_test::monotonic_ms();
    server->kill_client();
    EXPECT_LT(vexa_test::monotonic_ms() - before, 450);
    EXPECT_EQ(vexa_test::count_log_text(log, delay), 1);
}

TEST_F(Launch, ExitedTestIsReapedByTheLoop) {
    startServer();
    server->set_su_file_path(kDirect.c_str(), "");
    server->run_test(kPeer.c_str(), "zdev", "--connect --item 7 --exit");

    ASSERT_TRUE(events.waitFor(CLIENT_IPC_CONFIG, "zdev", 7, 1, 20000));
    const int32_t pid = pid_of(events.matching(CLIENT_IPC_CONFIG)[0]);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(events.waitFor(CLIENT_IPC_OFFLINE, "zdev", 7));
    ASSERT_TRUE(srvtest::wait_log(log, "waitpid pid=" + std::to_string(pid)));

    errno = 0;
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(zombie_children(), 0);
    EXPECT_TRUE(vexa_test::wait_until([&] { return server->exitedCount() == 0; }));
}

// The second test must not inherit the server's end of the first one's
// connection: each child lingers after the end of its stream, so an inherited
// socket would keep the other's connection open for that long.
TEST_F(Launch, LaunchedTestsSeeTheirConnectionsEndAtTeardown) {
    startServer();
    server->set_su_file_path(kDirect.c_str(), "");
    std::vector<int32_t> pids;
    for (int item = 1; item <= 2; ++item) {
        const std::string extra = "--connect --item " + std::to_string(item) + " --eof-marker " +
                                  dir.file("eof" + std::to_string(item)) + " --linger-ms 30000";
        server->run_test(kPeer.c_str(), "two", extra.c_str());
        ASSERT_TRUE(events.waitFor(CLIENT_IPC_CONFIG, "two", item, 1, 20000));
        pids.push_back(pid_of(events.matching(CLIENT_IPC_CONFIG, "two", item)[0]));
    }

    server.reset();
    EXPECT_TRUE(vexa_test::wait_until(
        [&] {
            return access(dir.file("eof1").c_str(), F_OK) == 0 &&
                   access(dir.file("eof2").c_str(), F_OK) == 0;
        },
        5000));
    EXPECT_EQ(access(dir.file("eof1").c_str(), F_OK), 0);
    EXPECT_EQ(access(dir.file("eof2").c_str(), F_OK), 0);
    for (int32_t pid : pids) {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
}

}  // namespace
