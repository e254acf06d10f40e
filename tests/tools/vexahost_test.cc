// Runs the vexahost tool as a person would, with the two example tests, and
// reads what it prints. Every run gets a private directory for the endpoint
// logs and a loopback port that was free a moment before.
#include <arpa/inet.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
// Generous: the machines are shared, and the arm64 suite runs under an emulator.
constexpr auto kRunLimit = std::chrono::seconds(60);

// Words that run a binary of this build; empty when it runs natively.
std::vector<std::string> emulator_words() {
    std::vector<std::string> words;
    std::istringstream in(VEXA_TEST_EMULATOR);
    for (std::string w; in >> w;)
        words.push_back(w);
    return words;
}

class TempDir {
  public:
    TempDir() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vexahost-test-XXXXXX";
        std::vector<char> buf(pattern.begin(), pattern.end());
        buf.push_back('\0');
        if (mkdtemp(buf.data()) != nullptr)
            m_path = std::string(buf.data()) + "/";
    }
    ~TempDir() {
        if (m_path.empty())
            return;
        nftw(
            m_path.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); },
            16, FTW_DEPTH | FTW_PHYS);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    // Ends with "/"; empty when it could not be made.
    const std::string& path() const { return m_path; }

  private:
    std::string m_path;
};

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

bool file_exists(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

size_t count_of(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size()))
        ++n;
    return n;
}

// A port on 127.0.0.1 that was free a moment ago.
int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    close(fd);
    return port;
}

// One child process with its standard input on a pipe and its output in files.
// The endpoint logs of the child and of everything it starts go to dir + "logs/".
class Child {
  public:
    Child(const std::vector<std::string>& argv, const std::string& dir)
        : m_out(dir + "out" + std::to_string(++s_count) + ".txt"),
          m_err(dir + "err" + std::to_string(s_count) + ".txt") {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
            return;
        m_stdin = fds[1];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[0], STDIN_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, m_out.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_err.c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);

        std::vector<std::string> env;
        for (char** e = environ; *e != nullptr; ++e) {
            std::string entry = *e;
            if (entry.rfind("LD_LIBRARY_PATH=", 0) != 0 &&
                entry.rfind("VEXA_TEST_ENDPOINT_LOG_DIR=", 0) != 0 &&
                entry.rfind("QZ_LOGPATH=", 0) != 0)
                env.push_back(entry);
        }
        // The testing build of the library logs where we say, never to the device path.
        env.push_back(std::string("LD_LIBRARY_PATH=") + VEXA_TESTING_LIB_DIR);
        env.push_back("VEXA_TEST_ENDPOINT_LOG_DIR=" + dir + "logs/");
        env.push_back("QZ_LOGPATH=" + dir + "logs/");
        // With TZ unset, glibc's tzset frees and copies its zone name again on
        // every call, under a lock ThreadSanitizer cannot see; the host process
        // logs from several threads (its server and a loaded test's client),
        // so a fixed zone keeps those reports, which are not races, away.
        if (std::getenv("TZ") == nullptr)
            env.push_back("TZ=UTC0");
        mkdir((dir + "logs").c_str(), 0700);

        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        std::vector<char*> envp;
        for (std::string& e : env)
            envp.push_back(&e[0]);
        envp.push_back(nullptr);
        if (posix_spawn(&m_pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0)
            m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(fds[0]);
    }
    ~Child() {
        closeStdin();
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool started() const { return m_pid > 0; }
    void signal(int signo) { kill(m_pid, signo); }
    void type(const std::string& text) {
        ASSERT_EQ(write(m_stdin, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    void closeStdin() {
        if (m_stdin >= 0)
            close(m_stdin);
        m_stdin = -1;
    }
    std::string out() const { return read_file(m_out); }
    std::string err() const { return read_file(m_err); }
    bool waitForOutput(const std::string& needle) const {
        for (auto end = Clock::now() + kRunLimit; Clock::now() < end;) {
            if (out().find(needle) != std::string::npos)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    // The exit status; -1 when the child did not end in time (it is killed) or
    // did not exit normally.
    int wait() {
        if (m_pid <= 0)
            return -1;
        int status = 0;
        for (auto end = Clock::now() + kRunLimit; Clock::now() < end;) {
            pid_t r = waitpid(m_pid, &status, WNOHANG);
            if (r == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        ADD_FAILURE() << "child still running after the time limit";
        return -1;
    }

  private:
    // Output files are never reused: a spawn may return before the child has
    // opened (and emptied) them, as it does under an emulator.
    static int s_count;
    std::string m_out;
    std::string m_err;
    pid_t m_pid = -1;
    int m_stdin = -1;
};

int Child::s_count = 0;

class VexahostTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // A tool that ended early must fail the test, not kill it when typed to.
        ::signal(SIGPIPE, SIG_IGN);
        ASSERT_FALSE(m_dir.path().empty());
        m_port = free_port();
        ASSERT_GT(m_port, 0);
        m_address = "tcp://:" + std::to_string(m_port);
    }

    // vexahost with `args`; under an emulator the tool also starts its test
    // programs through it, by way of the su prefix. Its input is closed at
    // once unless the test means to type.
    std::unique_ptr<Child> startHost(const std::vector<std::string>& args, bool keepInput = false) {
        std::vector<std::string> emulator = emulator_words();
        std::vector<std::string> argv = emulator;
        argv.push_back(VEXAHOST_PATH);
        if (!emulator.empty()) {
            std::string prefix;
            for (const std::string& word : emulator)
                prefix += (prefix.empty() ? "" : " ") + word;
            argv.push_back("--su-prefix");
            argv.push_back(prefix);
        }
        argv.insert(argv.end(), args.begin(), args.end());
        auto child = std::make_unique<Child>(argv, m_dir.path());
        EXPECT_TRUE(child->started());
        if (!keepInput)
            child->closeStdin();
        return child;
    }

    std::string log(const std::string& name) const { return m_dir.path() + "logs/" + name; }

    TempDir m_dir;
    int m_port = 0;
    std::string m_address;
};

// The line the tool prints for one event, from "dev=" on (the time stamp and
// direction come before it).
std::string event_line(const std::string& direction, const std::string& dev, int item,
                       const std::string& event, const std::string& rest) {
    return direction + " dev=" + dev + " item=" + std::to_string(item) + " event=" + event +
           " len=" + rest;
}

// The demo's command line: both examples, the whole exchange, both closed.
TEST_F(VexahostTest, DemoRunsTheWholeExchangeWithBothExamples) {
    auto host = startHost({"--demo", "-a", m_address, EXAMPLE_TEST_PATH, EXAMPLE_TEST_SO_PATH});
    ASSERT_EQ(host->wait(), 0) << host->out() << host->err();
    std::string out = host->out();

    EXPECT_EQ(count_of(out, "event=CONFIG(9001) len=4 pid="), 2u) << out;
    EXPECT_EQ(count_of(out, "event=CLOSED(9005)"), 2u) << out;
    EXPECT_EQ(count_of(out, "OFFLINE"), 0u) << out;
    struct Registered {
        std::string dev;
        int item;
    };
    for (const Registered& t : {Registered{"example", 1}, Registered{"so-test", 2}}) {
        std::string hello = "hello from " + t.dev;
        size_t steps[] = {
            out.find(event_line("recv", t.dev, t.item, "CONFIG(9001)", "4 pid=")),
            out.find(event_line("sent", t.dev, t.item, "2000", "14 \"ping from host\"")),
            out.find(event_line("recv", t.dev, t.item, "2001", "14 \"ping from host\"")),
            out.find(event_line("sent", t.dev, t.item, "2099", "0")),
            out.find(event_line("recv", t.dev, t.item, "2098", "3 \"bye\"")),
            out.find(event_line("recv", t.dev, t.item, "CLOSED(9005)", "")),
        };
        for (size_t i = 0; i < sizeof(steps) / sizeof(steps[0]); ++i) {
            ASSERT_NE(steps[i], std::string::npos) << t.dev << " step " << i << "\n" << out;
            if (i > 0) {
                EXPECT_LT(steps[i - 1], steps[i]) << t.dev << " step " << i << "\n" << out;
            }
        }
        EXPECT_NE(out.find(event_line("recv", t.dev, t.item, "1000",
                                      std::to_string(hello.size()) + " \"" + hello + "\"")),
                  std::string::npos)
            << out;
        EXPECT_TRUE(file_exists(log("ipc_client_" + t.dev + ".log")));
    }
    EXPECT_TRUE(file_exists(log("ipc_server_" + std::to_string(m_port) + ".log")));
    EXPECT_NE(host->err().find("stopping (all tests closed)"), std::string::npos) << host->err();
}

TEST_F(VexahostTest, DValueAndExtraArgumentsReachBothTests) {
    auto host = startHost({"--demo", "-a", m_address, "-d", "unit7", "-x", "--verbose -q 3",
                           EXAMPLE_TEST_PATH, EXAMPLE_TEST_SO_PATH});
    ASSERT_EQ(host->wait(), 0) << host->out() << host->err();
    std::string out = host->out();
    // One device string, told apart by the item.
    EXPECT_NE(out.find("recv dev=unit7 item=1 event=CONFIG(9001)"), std::string::npos) << out;
    EXPECT_NE(out.find("recv dev=unit7 item=2 event=CONFIG(9001)"), std::string::npos) << out;
    EXPECT_EQ(count_of(out, "event=1000 len=16 \"hello from unit7\""), 2u) << out;
    EXPECT_EQ(count_of(out, "event=CLOSED(9005)"), 2u) << out;
}

TEST_F(VexahostTest, CommandsFromInputDriveATest) {
    auto host = startHost({"-a", m_address, EXAMPLE_TEST_PATH}, true);
    ASSERT_TRUE(host->waitForOutput("event=1000")) << host->out() << host->err();

    host->type("bogus\nsend example one 2000\n");
    host->type("send example 1 2000   two  words \n");
    ASSERT_TRUE(host->waitForOutput("recv dev=example item=1 event=2001 len=11 \"two  words \""))
        << host->out();
    host->type("list\n");
    ASSERT_TRUE(host->waitForOutput("  dev=example item=1 pid=")) << host->out();
    EXPECT_NE(host->out().find("1 launched, 1 registered"), std::string::npos);

    // A long binary body is shown shortened, with dots for what cannot be printed.
    host->type("send example 1 2000 x\t" + std::string(48, 'x') + "\n");
    ASSERT_TRUE(host->waitForOutput("event=2001 len=50 \"x." + std::string(38, 'x') + "\"...\n"))
        << host->out();

    host->type("send example 1 2099\n");
    EXPECT_EQ(host->wait(), 0) << host->out() << host->err();
    std::string out = host->out();
    EXPECT_NE(out.find("recv dev=example item=1 event=2098 len=3 \"bye\""), std::string::npos);
    EXPECT_NE(out.find("recv dev=example item=1 event=CLOSED(9005)"), std::string::npos);
    std::string err = host->err();
    EXPECT_NE(err.find("unknown command \"bogus\""), std::string::npos) << err;
    EXPECT_NE(err.find("usage: send DEV ITEM EVENT"), std::string::npos) << err;
}

TEST_F(VexahostTest, StopsOnEndOfInputQuitAndSigterm) {
    {
        auto host = startHost({"-a", m_address});
        EXPECT_EQ(host->wait(), 0) << host->err();
        EXPECT_NE(host->err().find("stopping (end of input)"), std::string::npos) << host->err();
    }
    {
        // A test that is never told to leave keeps the tool running until quit.
        auto host = startHost({"-a", m_address, EXAMPLE_TEST_PATH}, true);
        ASSERT_TRUE(host->waitForOutput("event=CONFIG(9001)")) << host->err();
        host->type("quit\n");
        EXPECT_EQ(host->wait(), 0) << host->err();
    }
    {
        auto host = startHost({"-a", m_address, EXAMPLE_TEST_PATH});
        ASSERT_TRUE(host->waitForOutput("event=CONFIG(9001)")) << host->err();
        host->signal(SIGTERM);
        EXPECT_EQ(host->wait(), 0) << host->err();
        EXPECT_NE(host->err().find("stopping (terminated)"), std::string::npos) << host->err();
    }
}

TEST_F(VexahostTest, RefusesWhatItCannotRun) {
    {
        // The port is taken: the server cannot listen.
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<uint16_t>(m_port));
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        ASSERT_EQ(listen(fd, 1), 0);
        auto host = startHost({"-a", m_address});
        EXPECT_EQ(host->wait(), 1);
        close(fd);
        EXPECT_NE(host->err().find("cannot start a server on " + m_address), std::string::npos)
            << host->err();
    }
    {
        auto host = startHost({"-a", "nonsense"});
        EXPECT_EQ(host->wait(), 1);
    }
    {
        auto host = startHost({"-a", m_address, m_dir.path() + "missing_test"});
        EXPECT_EQ(host->wait(), 2);
        EXPECT_NE(host->err().find("no such test"), std::string::npos) << host->err();
    }
}

TEST_F(VexahostTest, ExampleProgramFailsWithoutAHost) {
    std::vector<std::string> argv = emulator_words();
    argv.push_back(EXAMPLE_TEST_PATH);
    argv.push_back("-t");
    argv.push_back(m_address);
    Child nobodyListens(argv, m_dir.path());
    nobodyListens.closeStdin();
    EXPECT_EQ(nobodyListens.wait(), 1);
    EXPECT_NE(nobodyListens.err().find("cannot reach the host at " + m_address), std::string::npos);
}

}  // namespace
