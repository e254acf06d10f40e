// Runs the vexahost tool as a person would, with the two example tests, and
// reads what it prints. Every run gets a private directory for the endpoint
// logs and a loopback port that was free a moment before.
#include <signal.h>
#include <sys/socket.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/framed_peer.h"
#include "support/test_support.h"

namespace {

using vexa_test::Child;

size_t count_of(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size()))
        ++n;
    return n;
}

class VexahostTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // A tool that ended early must fail the test, not kill it when typed to.
        ::signal(SIGPIPE, SIG_IGN);
        vexa_test::make_dirs(m_dir.file("logs"));
    }

    // A child whose endpoint logs, and those of everything it starts, go to
    // the test's directory.
    std::unique_ptr<Child> run(std::vector<std::string> argv, bool keepInput = false) {
        std::vector<std::string> env = {"VEXA_LOG_DIR=" + m_dir.file("logs/"),
                                        "QZ_LOGPATH=" + m_dir.file("logs/")};
        // With TZ unset, glibc's tzset copies its zone name again on every
        // call, under a lock ThreadSanitizer cannot see, in a host that logs
        // from several threads: a fixed zone keeps those false reports away.
        if (std::getenv("TZ") == nullptr)
            env.push_back("TZ=UTC0");
        auto child = std::make_unique<Child>(argv, m_dir.path(), env);
        EXPECT_TRUE(child->started());
        if (!keepInput)
            child->closeInput();
        return child;
    }
    // vexahost with `args`; under an emulator the tool also starts its test
    // programs through it, by way of the su prefix.
    std::unique_ptr<Child> startHost(const std::vector<std::string>& args, bool keepInput = false) {
        std::vector<std::string> argv = m_emulator;
        argv.push_back(VEXAHOST_PATH);
        if (!m_emulator.empty())
            argv.insert(argv.end(), {"--su-prefix", VEXA_TEST_EMULATOR});
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv, keepInput);
    }

    const std::vector<std::string> m_emulator = vexa_test::words(VEXA_TEST_EMULATOR);
    vexa_test::TempDir m_dir{"vexahost-test-"};
    const int m_port = vexa_test::free_loopback_port();
    const std::string m_address = "tcp://:" + std::to_string(m_port);
};

// The demo with both examples, each with its own device string, extra
// arguments for both and the logs under --log-dir: the whole exchange, in
// order, for each item, both closed, and a run that passes.
TEST_F(VexahostTest, DemoRunsTheWholeExchangeWithBothExamples) {
    const std::string logs = m_dir.file("tool-logs/");
    auto host = startHost({"--demo", "-a", m_address, "--log-dir", logs, "-x", "--verbose -q 3",
                           "-d", "unit7", EXAMPLE_TEST_PATH, "-d", "unit8", EXAMPLE_TEST_SO_PATH});
    ASSERT_EQ(host->wait(), 0) << host->out() << host->err();
    const std::string out = host->out();
    EXPECT_EQ(count_of(out, "event=CONFIG(9001) len=4 pid="), 2u) << out;
    EXPECT_EQ(count_of(out, "event=CLOSED(9005)"), 2u) << out;
    EXPECT_EQ(count_of(out, "OFFLINE"), 0u) << out;
    for (const auto& pair : {std::make_pair("unit7", "1"), std::make_pair("unit8", "2")}) {
        const std::string at =
            std::string(" dev=") + pair.first + " item=" + pair.second + " event=";
        // The greeting comes from the test's main thread, in no fixed place.
        EXPECT_NE(out.find("recv" + at + "1000 len=16 \"hello from " + pair.first + "\""),
                  std::string::npos)
            << out;
        size_t last = 0;
        for (const std::string& step :
             {"recv" + at + "CONFIG(9001) len=4 pid=",
              "sent" + at + "2000 len=14 \"ping from host\"",
              "recv" + at + "2001 len=14 \"ping from host\"", "sent" + at + "2099 len=0",
              "recv" + at + "2098 len=3 \"bye\"", "recv" + at + "CLOSED(9005)"}) {
            const size_t found = out.find(step, last);
            EXPECT_NE(found, std::string::npos) << step << " after the step before\n" << out;
            last = found == std::string::npos ? last : found;
        }
    }
    // Both were started by the tool (the library runs in its own process).
    EXPECT_EQ(count_of(out, " launched\n"), 2u) << out;
    // --log-dir reaches the server and the program it launched.
    EXPECT_TRUE(vexa_test::file_exists(logs + "ipc_client_unit7.log"));
    EXPECT_TRUE(vexa_test::file_exists(logs + "ipc_server_" + std::to_string(m_port) + ".log"));
    const std::string err = host->err();
    EXPECT_NE(err.find("stopping (all tests ended)"), std::string::npos) << err;
    EXPECT_NE(err.find("vexahost: 2 passed, 0 failed in "), std::string::npos) << err;
    // Not a terminal: no status line.
    EXPECT_EQ(err.find('\r'), std::string::npos) << err;
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
    // A pair that is not registered gets nothing, and the user hears so.
    host->type("send example 9 2000 lost\nsend example 1 2099\n");
    EXPECT_EQ(host->wait(), 0) << host->out() << host->err();
    EXPECT_NE(host->out().find("recv dev=example item=1 event=CLOSED(9005)"), std::string::npos);
    const std::string err = host->err();
    EXPECT_NE(err.find("unknown command \"bogus\""), std::string::npos) << err;
    EXPECT_NE(err.find("usage: send DEV ITEM EVENT"), std::string::npos) << err;
    EXPECT_NE(err.find("nothing sent: dev=example item=9 is not registered"), std::string::npos);
    EXPECT_EQ(host->out().find("item=9"), std::string::npos) << host->out();
}

// Stopping with nothing launched passes; stopping while a test is still
// registered fails it (exit status 4).
TEST_F(VexahostTest, StopsOnEndOfInputQuitAndSigterm) {
    auto idle = startHost({"-a", m_address});
    EXPECT_EQ(idle->wait(), 0) << idle->err();
    EXPECT_NE(idle->err().find("stopping (end of input)"), std::string::npos) << idle->err();
    EXPECT_NE(idle->err().find("vexahost: 0 passed, 0 failed in "), std::string::npos);
    // A test that is never told to leave keeps the tool running until quit.
    auto quit = startHost({"-a", m_address, EXAMPLE_TEST_PATH}, true);
    ASSERT_TRUE(quit->waitForOutput("event=CONFIG(9001)")) << quit->err();
    quit->type("quit\n");
    EXPECT_EQ(quit->wait(), 4) << quit->err();
    auto term = startHost({"-a", m_address, EXAMPLE_TEST_PATH});
    ASSERT_TRUE(term->waitForOutput("event=CONFIG(9001)")) << term->err();
    term->signal(SIGTERM);
    EXPECT_EQ(term->wait(), 4) << term->err();
    EXPECT_NE(term->err().find("stopping (terminated)"), std::string::npos) << term->err();
    EXPECT_NE(term->err().find("vexahost: 0 passed, 1 failed in "), std::string::npos);
}

TEST_F(VexahostTest, RefusesWhatItCannotRun) {
    {
        // The port is taken: the server cannot listen, and its log says why.
        vexa_test::Listener taken;
        const std::string port = std::to_string(taken.port());
        auto host = startHost({"-a", "tcp://:" + port, "--log-dir", m_dir.file("taken")});
        EXPECT_EQ(host->wait(), 1);
        EXPECT_NE(host->err().find("cannot start a server on tcp://:" + port +
                                   ": bind error=Address already in use"),
                  std::string::npos)
            << host->err();
        EXPECT_NE(host->err().find(m_dir.file("taken/ipc_server_" + port + ".log")),
                  std::string::npos)
            << host->err();
    }
    auto nonsense = startHost({"-a", "nonsense"});
    EXPECT_EQ(nonsense->wait(), 1);
    EXPECT_NE(nonsense->err().find("serv_path invalid nonsense"), std::string::npos);
    auto missing = startHost({"-a", m_address, m_dir.file("missing_test")});
    EXPECT_EQ(missing->wait(), 2);
    EXPECT_NE(missing->err().find("no such test"), std::string::npos) << missing->err();
    auto lateD = startHost({"-a", m_address, EXAMPLE_TEST_PATH, "-d", "unit7"});
    EXPECT_EQ(lateD->wait(), 2);
    EXPECT_NE(lateD->err().find("-d after the last TEST"), std::string::npos) << lateD->err();
    EXPECT_EQ(startHost({"--timeout", "0", "-a", m_address})->wait(), 2);
    // The example program itself fails without a host.
    std::vector<std::string> argv = m_emulator;
    argv.insert(argv.end(), {EXAMPLE_TEST_PATH, "-t", m_address});
    auto alone = run(argv);
    EXPECT_EQ(alone->wait(), 1);
    EXPECT_NE(alone->err().find("cannot reach the host at " + m_address), std::string::npos);
}

}  // namespace
