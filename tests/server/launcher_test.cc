// The test launcher: the argument vectors it builds, and what launched
// programs really receive, end to end through IPCServer::run_test.
#include "server/launcher.h"

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/launch_token.h"
#include "running_server.h"
#include "server/ipcserver.h"

namespace {

using Words = std::vector<std::string>;

TEST(LaunchPlan, CommandLinesOfEveryPrefixForm) {
    const auto argv = [](const std::string& path, const char* d, const char* extra, const char* su,
                         const char* pre) {
        return vexa::plan_launch(path, vexa::build_cmd_args("tcp://:6000", d, extra), su, pre).argv;
    };
    const std::string t1 = "/data/local/tmp/t1";
    // A pre-command wraps the test in one argument of the prefix; without one
    // the words stay apart.
    EXPECT_EQ(argv(t1, "dev1", nullptr, "su -c", "cd /data/local/tmp"),
              (Words{"su", "-c", "cd /data/local/tmp; /data/local/tmp/t1 -t tcp://:6000 -d dev1"}));
    EXPECT_EQ(argv(t1, "dev1", "x y", "su -c", ""),
              (Words{"su", "-c", t1, "-t", "tcp://:6000", "-d", "dev1", "x", "y"}));
    // Empty texts add nothing; extra arguments are split at spaces outside quotes.
    EXPECT_EQ(argv(t1, "", "", "", ""), (Words{"t1", "-t", "tcp://:6000"}));
    const struct {
        const char* extra;
        Words words;
    } splits[] = {{"a \"b c\" d", {"a", "b c", "d"}},
                  {"x \"y z", {"x", "y z"}},
                  {"a  b", {"a", "b"}},
                  {"\"b  c\"", {"b  c"}},
                  {"mid\"quote", {"mid\"quote"}}};
    for (const auto& c : splits) {
        Words expected{"t1", "-t", "tcp://:6000"};
        expected.insert(expected.end(), c.words.begin(), c.words.end());
        EXPECT_EQ(argv(t1, nullptr, c.extra, "", ""), expected) << c.extra;
    }
    // The program is the prefix's first word, else the path; a name without a
    // '/' is looked up in PATH.
    const vexa::LaunchPlan su = vexa::plan_launch(t1, " -t x", "su -c", "");
    const vexa::LaunchPlan direct = vexa::plan_launch(t1, " -t x", "", "");
    const vexa::LaunchPlan bare = vexa::plan_launch("t1", " -t x", "", "");
    EXPECT_TRUE(su.program == "su" && su.searchPath);
    EXPECT_TRUE(direct.program == t1 && !direct.searchPath);
    EXPECT_TRUE(bare.program == "t1" && bare.searchPath);
    EXPECT_EQ(bare.argv, (Words{"t1", "-t", "x"}));
}

// The emulator that runs this build's programs; empty natively.
const std::string kDirect = VEXA_TEST_EMULATOR;
const bool kEmulated = !kDirect.empty();
const std::string kPeer = VEXA_PEER_PROGRAM;

// The su prefix that starts `program` (through the emulator in cross builds).
std::string prefix_running(const std::string& program) {
    return kDirect.empty() ? program : kDirect + " " + program;
}

// A started server; the launched peer records its pid and arguments in
// `file`. Each test leaves no child behind, so that the next one starts clean.
class Launch : public testing::Test {
  protected:
    void TearDown() override {
        r.server.reset();
        vexa_test::wait_until([] { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; },
                              30000);
    }

    // The arguments the recording program wrote; it is reaped and its record
    // removed. Its token and the sockets it inherited are kept in `token`
    // and `inherited`.
    Words recorded() {
        EXPECT_TRUE(vexa_test::wait_until([&] { return !vexa_test::read_file(file).empty(); }));
        Words lines = vexa_test::read_lines(file);
        std::remove(file.c_str());
        if (lines.size() < 3)
            return Words();
        waitpid(static_cast<pid_t>(std::atoi(lines[0].c_str())), nullptr, 0);
        inherited = std::atoi(lines.back().c_str() + std::strlen("sockets "));
        token = lines[lines.size() - 2].substr(std::strlen("token "));
        return Words(lines.begin() + 1, lines.end() - 2);
    }

    // Argument vector with element 0 dropped, which the emulator changes.
    static Words tail(const Words& argv) {
        return argv.empty() ? argv : Words(argv.begin() + 1, argv.end());
    }

    vexa_test::TempDir dir;
    const std::string file = dir.file("argv");
    vexa_test::ScopedEnv record{"VEXA_TEST_ARGV_FILE", file.c_str()};
    srvtest::Running r;
    int inherited = -1;
    std::string token;
};

// The plans above, through the real launch: a pre-command reaches the prefix
// as one argument.
TEST_F(Launch, LaunchedProgramsReceiveTheirCommandLines) {
    ASSERT_NE(r.server, nullptr);
    const std::string t1 = "/data/local/tmp/t1";
    r.server->set_su_file_path((prefix_running(kPeer) + " -c").c_str(), "cd /data/local/tmp");
    EXPECT_EQ(r.server->run_test(t1.c_str(), "dev1", nullptr), 1);
    EXPECT_EQ(tail(recorded()),
              (Words{"-c", "cd /data/local/tmp; " + t1 + " -t " + r.address() + " -d dev1"}));
    EXPECT_FALSE(r.server->testSoLoaded());
    EXPECT_TRUE(vexa_test::log_has(
        r.log, "run_test ok, ppid=" + std::to_string(getpid()) +
                   " pthreadid=" + std::to_string(static_cast<unsigned long>(pthread_self()))));

    // A bare prefix is looked up in PATH (in cross builds the emulator is what
    // the prefix names).
    if (!kEmulated) {
        vexa_test::ScopedEnv path("PATH", kPeer.substr(0, kPeer.rfind('/')).c_str());
        r.server->set_su_file_path("vexa_peer_program", "");
        r.server->run_test(t1.c_str(), nullptr, nullptr);
        EXPECT_EQ(recorded(), (Words{"vexa_peer_program", t1, "-t", r.address()}));
    }
}

TEST_F(Launch, KillClientWaitsOnlyRightAfterALaunch) {
    ASSERT_NE(r.server, nullptr);
    r.server->set_su_file_path("", "");
    // A program that cannot be started is a launch all the same; the log says why.
    EXPECT_EQ(r.server->run_test("/nonexistent/vexa-no-such-test", nullptr, nullptr), 1);
    EXPECT_TRUE(
        vexa_test::log_has(r.log, "run_test: cannot execute /nonexistent/vexa-no-such-test: " +
                                      std::string(std::strerror(ENOENT))));
    const std::string delay = "delay 500ms as just ipc_run_test";

    long long before = vexa_test::monotonic_ms();
    r.server->kill_client();
    EXPECT_GE(vexa_test::monotonic_ms() - before, 495);
    EXPECT_EQ(vexa_test::count_log_text(r.log, delay), 1);

    // More than 500 ms after the launch now: no wait, no line.
    before = vexa_test::monotonic_ms();
    r.server->kill_client();
    EXPECT_LT(vexa_test::monotonic_ms() - before, 450);
    EXPECT_EQ(vexa_test::count_log_text(r.log, delay), 1);
}

// The loop reaps exactly the programs it launched, registered or not, also
// once a test library is loaded; the host's own children are the host's.
TEST_F(Launch, LaunchedProgramsAndOnlyThoseAreReaped) {
    ASSERT_NE(r.server, nullptr);
    const pid_t own = fork();
    if (own == 0)
        _exit(0);
    ASSERT_GT(own, 0);
    r.server->set_su_file_path(kDirect.c_str(), "");
    r.server->run_test(TEST_LIB_FULL, nullptr, nullptr);
    const auto reaped = [&] { return vexa_test::count_log_prefix(r.log, "waitpid pid="); };
    // Launched while the loop sleeps without a time limit (no client yet):
    // the launch must wake it.
    r.server->run_test(kPeer.c_str(), "silent", nullptr);  // never connects
    EXPECT_TRUE(vexa_test::wait_until([&] { return reaped() == 1; }));
    r.server->run_test(kPeer.c_str(), "zdev", "--client 7 --exit");

    ASSERT_TRUE(r.events.waitFor(CLIENT_IPC_CONFIG, "zdev", 7, 1, 20000));
    const int32_t pid = vexa_test::native32(r.events.matching(CLIENT_IPC_CONFIG)[0].data);
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(r.events.waitFor(CLIENT_IPC_OFFLINE, "zdev", 7));
    ASSERT_TRUE(vexa_test::wait_log(r.log, "waitpid pid=" + std::to_string(pid)));
    EXPECT_TRUE(vexa_test::wait_until([&] { return reaped() == 2; }));
    usleep(100 * 1000);
    EXPECT_EQ(reaped(), 2);
    errno = 0;
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_FALSE(vexa_test::log_has(r.log, "waitpid pid=" + std::to_string(own)));
    EXPECT_EQ(waitpid(own, nullptr, 0), own) << "the host's own child was reaped by the server";
}

// A launched program inherits none of the server's sockets: neither the
// listening one nor those of the connected tests.
TEST_F(Launch, LaunchedProgramsInheritNoSocket) {
    ASSERT_NE(r.server, nullptr);
    vexa_test::FramedConn test;
    ASSERT_TRUE(r.join(test, "held", 1));
    r.server->set_su_file_path(kDirect.c_str(), "");
    r.server->run_test(kPeer.c_str(), nullptr, nullptr);
    EXPECT_FALSE(recorded().empty());
    EXPECT_EQ(inherited, 0);
}

// Each launch hands its program a fresh secret in its environment, never on
// its command line, in the log or in the host's own environment; a token the
// host itself was launched with is not passed on.
TEST_F(Launch, EachProgramGetsAFreshTokenOfItsOwn) {
    ASSERT_NE(r.server, nullptr);
    vexa_test::ScopedEnv fromParent("VEXA_LAUNCH_TOKEN", "0123456789abcdef0123456789abcdef");
    r.server->set_su_file_path(kDirect.c_str(), "");
    std::vector<std::string> tokens;
    for (int i = 0; i < 2; ++i) {
        r.server->run_test(kPeer.c_str(), nullptr, nullptr);
        const Words argv = recorded();
        EXPECT_TRUE(vexa::is_launch_token(token.data(), token.size())) << token;
        EXPECT_EQ(std::find(argv.begin(), argv.end(), token), argv.end());
        EXPECT_EQ(vexa_test::read_file(r.log).find(token), std::string::npos);
        tokens.push_back(token);
    }
    EXPECT_NE(tokens[0], tokens[1]);
    EXPECT_NE(tokens[0], std::getenv("VEXA_LAUNCH_TOKEN"));
}

// A 9001 whose body is the pid followed by `token`.
bool register_with(vexa_test::FramedConn& conn, int port, const std::string& dev,
                   const std::string& token) {
    const int32_t pid = 4242;
    std::string body(reinterpret_cast<const char*>(&pid), sizeof(pid));
    return conn.connectTo(port) && conn.sendMsg(dev, 1, CLIENT_IPC_CONFIG, body + token);
}

// Who may register a pair under each policy. The launched test registers with
// the token its launch gave it; the host sees its 4-byte pid only. A
// registration without a valid token may never take its pair under protect,
// nor anything under launched; a refused one ends its connection, and the
// host hears nothing of it.
TEST_F(Launch, TheRegistrationPolicyDecidesWhoMayTakeAPair) {
    const std::string forged(vexa::kLaunchTokenLength, 'a');
    for (const char* policy : {"protect", "launched", "open"}) {
        SCOPED_TRACE(policy);
        vexa_test::ScopedEnv setting("VEXA_REGISTRATION", policy);
        srvtest::Running s;
        ASSERT_NE(s.server, nullptr);
        s.server->set_su_file_path(kDirect.c_str(), "");
        s.server->run_test(kPeer.c_str(), nullptr, nullptr);
        recorded();
        const bool open = std::string(policy) == "open";
        const bool launchedOnly = std::string(policy) == "launched";

        vexa_test::FramedConn test, plain, impostor, forger, relaunched;
        ASSERT_TRUE(register_with(test, s.port, "dev", token));
        ASSERT_TRUE(s.events.waitFor(CLIENT_IPC_CONFIG, "dev", 1));
        EXPECT_EQ(s.events.matching(CLIENT_IPC_CONFIG)[0].len, 4);
        ASSERT_TRUE(register_with(plain, s.port, "plain", ""));
        EXPECT_EQ(plain.waitEof(launchedOnly ? 10000 : 300), launchedOnly);
        ASSERT_TRUE(register_with(forger, s.port, "dev", forged));
        EXPECT_EQ(forger.waitEof(open ? 300 : 10000), !open);
        ASSERT_TRUE(register_with(impostor, s.port, "dev", ""));
        EXPECT_EQ(impostor.waitEof(open ? 300 : 10000), !open);
        EXPECT_EQ(test.waitEof(open ? 10000 : 300), open);
        if (!open) {
            // The test's own next launch may take its pair back.
            ASSERT_TRUE(register_with(relaunched, s.port, "dev", token));
            EXPECT_TRUE(test.waitEof());
        }
        EXPECT_TRUE(s.events.waitFor(CLIENT_IPC_CONFIG, "dev", 1, open ? 3 : 2));
        EXPECT_EQ(s.events.matching(CLIENT_IPC_CONFIG).size(), open ? 4u : launchedOnly ? 2u : 3u);
        EXPECT_TRUE(s.events.matching(CLIENT_IPC_OFFLINE).empty());
        EXPECT_EQ(vexa_test::count_log_prefix(s.log, "registration refused: "), open           ? 0
                                                                                : launchedOnly ? 3
                                                                                               : 2);
    }
}

}  // namespace
