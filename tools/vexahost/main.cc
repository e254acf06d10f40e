// vexahost: a host for test programs, run by a person from a shell on a device
// or a desktop, or by CI. It starts a server, launches the tests named on its
// command line, prints one line per event, takes commands from standard input
// and, at the end, says which tests passed (in its exit status too).
//
// Event lines (event_format.h) go to standard output, and so do the answers
// to list and help; the tool's own notes go to standard error. With --json
// each event is one JSON object instead, and list and help answer on standard
// error. --junit-xml FILE writes a report when the tool stops. The options,
// the exit statuses and the verdict's rules are in the help text (options.cc)
// and verdict.h.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "commands.h"
#include "console.h"
#include "exit_report.h"
#include "host_session.h"
#include "junit_report.h"
#include "options.h"
#include "server_log.h"
#include "verdict.h"
#include "vexatool.h"

namespace {

using vexahost::Console;
using vexahost::ExitReportPipe;
using vexahost::Host;
using vexahost::Options;

constexpr int kPollMs = 100;
// A test that has not registered by then is probably missing or failing.
constexpr auto kRegisterWarning = std::chrono::seconds(10);
// With exit reports: how long a registration may trail its program's exit, and
// how long the tool waits for the exits of tests that closed.
constexpr auto kExitSettle = std::chrono::milliseconds(300);
constexpr auto kExitWait = std::chrono::seconds(5);

constexpr int kExitOk = 0;
constexpr int kExitNoServer = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNoReport = 3;
constexpr int kExitTestFailed = 4;

volatile sig_atomic_t g_stopSignal = 0;

void on_stop_signal(int signo) {
    g_stopSignal = signo;
}

void install_signal_handlers() {
    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    // No SA_RESTART: the main thread's poll should return at once.
    sa.sa_flags = 0;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    // A closed output pipe must not kill the tool before it stops its server.
    signal(SIGPIPE, SIG_IGN);
}

// Says why the server could not be made, as far as its log tells.
void report_failed_start(Console& console, const std::string& address, const std::string& logPath,
                         long logSizeBefore) {
    const std::string reason = vexahost::last_reason(logPath, logSizeBefore);
    if (reason.empty()) {
        console.err("vexahost: cannot start a server on " + address + "; no log tells why (" +
                    logPath + " was not written: --log-dir DIR puts the logs in DIR)\n");
        return;
    }
    console.err("vexahost: cannot start a server on " + address + ": " + reason + "\n" +
                "vexahost: the server's log: " + logPath + "\n");
}

// Reads standard input and runs its commands until the tool should stop; reads
// the exit reports too when there are any. Returns a short reason for stopping.
const char* main_loop(Host& host, Console& console, ExitReportPipe* reports) {
    bool inputOpen = true;
    bool warned = false;
    std::string pending;
    auto started = std::chrono::steady_clock::now();
    for (;;) {
        if (g_stopSignal != 0)
            return g_stopSignal == SIGINT ? "interrupted" : "terminated";
        host.enforceTimeLimit();
        if (host.finished(kExitSettle))
            return "all tests ended";
        if (!warned && host.launched() > host.registered() &&
            std::chrono::steady_clock::now() - started > kRegisterWarning) {
            warned = true;
            console.err("vexahost: " + std::to_string(host.launched() - host.registered()) +
                        " of " + std::to_string(host.launched()) +
                        " launched tests have not registered yet (the server's log says why a "
                        "launch failed)\n");
        }
        if (console.showsStatus()) {
            const vexahost::SessionRecord now = host.record(false);
            console.status("vexahost: " +
                           vexahost::progress_text(now, vexahost::judge_session(now, false)));
        }

        // Standard input first; a closed one is left out with a negative fd.
        pollfd pfds[2] = {{inputOpen ? STDIN_FILENO : -1, POLLIN, 0},
                          {reports != nullptr ? reports->readFd() : -1, POLLIN, 0}};
        int rc = poll(pfds, 2, kPollMs);
        if (rc > 0 && reports != nullptr && pfds[1].revents != 0 && !reports->readReports(host))
            reports = nullptr;
        if (rc <= 0 || !inputOpen || pfds[0].revents == 0)
            continue;
        char buf[4096];
        ssize_t n = read(STDIN_FILENO, buf, sizeof(buf));
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0) {
            inputOpen = false;
            if (!pending.empty() && !vexahost::run_command(host, pending))
                return "quit";
            pending.clear();
            if (host.launched() == 0)
                return "end of input";
            continue;
        }
        pending.append(buf, static_cast<size_t>(n));
        size_t nl;
        while ((nl = pending.find('\n')) != std::string::npos) {
            std::string line = pending.substr(0, nl);
            pending.erase(0, nl + 1);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            if (!vexahost::run_command(host, line))
                return "quit";
        }
    }
}

// Hands every test to the launcher, each program through the exit-reporting
// wrapper when there is one, and through the su prefix when one is set.
void launch_tests(const Options& opts, void* server, Host& host, Console& console,
                  const ExitReportPipe* reports) {
    const bool su = opts.su && !opts.suPrefix.empty();
    const char* extra = opts.extraArgs.empty() ? nullptr : opts.extraArgs.c_str();
    for (const vexahost::TestToLaunch& test : opts.tests) {
        vexahost::LaunchRecord launch;
        launch.path = test.path;
        launch.dValue = test.dValue;
        launch.isSo = vexahost::is_test_library(test.path);
        launch.throughSu = su && !launch.isSo;
        launch.reportsExit = reports != nullptr && !launch.isSo;
        size_t index = host.noteLaunched(launch);
        if (!launch.isSo) {
            const std::string suPrefix = su ? opts.suPrefix : "";
            const std::string prefix =
                launch.reportsExit ? reports->prefixFor(index, suPrefix) : suPrefix;
            ipc_set_su_file_path(server, prefix.c_str(), su ? opts.preCmd.c_str() : "");
        }
        ipc_run_test(server, test.path.c_str(), test.dValue.empty() ? nullptr : test.dValue.c_str(),
                     extra);
        console.err("vexahost: launched " + test.path +
                    (test.dValue.empty() ? "" : " -d " + test.dValue) + "\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], vexahost::kReportExitOption) == 0)
        return vexahost::run_and_report(argc, argv);
    Options opts;
    if (!vexahost::parse_options(argc, argv, opts) ||
        !vexahost::check_tests(opts.tests, opts.su, argv[0]))
        return kExitUsage;
    // Read by the library when the server is made; the tests inherit it.
    if (!opts.logDir.empty())
        setenv("VEXA_LOG_DIR", opts.logDir.c_str(), 1);

    install_signal_handlers();
    Console console;
    const auto started = std::chrono::steady_clock::now();
    const time_t startedWall = std::time(nullptr);
    // Opened while this is the only thread: it starts a copy of the tool.
    ExitReportPipe reportPipe;
    ExitReportPipe* reports = nullptr;
    for (const vexahost::TestToLaunch& test : opts.tests) {
        if (vexahost::is_test_library(test.path))
            continue;
        const std::string why = reportPipe.open();
        if (why.empty()) {
            reports = &reportPipe;
        } else {
            console.err("vexahost: programs start without the exit-reporting wrapper (" + why +
                        "): their exit statuses are not known\n");
        }
        break;
    }
    Host host(console, opts.demo,
              opts.json ? vexahost::OutputFormat::kJson : vexahost::OutputFormat::kText,
              opts.timeoutSeconds);
    if (reports != nullptr)
        host.setReportReader([reports, &host] { reports->readReports(host); });

    const std::string logPath = vexahost::server_log_path(opts.address);
    const long logSizeBefore = vexahost::file_size(logPath);
    void* server = ipc_init_server(opts.address.c_str(), vexahost::on_server_event, &host);
    if (server == nullptr) {
        report_failed_start(console, opts.address, logPath, logSizeBefore);
        return kExitNoServer;
    }
    host.setServer(server);
    console.err("vexahost: listening on " + opts.address +
                (vexahost::file_size(logPath) > 0 ? " (log: " + logPath + ")\n"
                                                  : " (no log in " + vexahost::endpoint_log_dir() +
                                                        ": --log-dir DIR keeps one)\n"));
    launch_tests(opts, server, host, console, reports);

    const char* reason = main_loop(host, console, reports);
    if (reports != nullptr && g_stopSignal == 0) {
        for (auto end = std::chrono::steady_clock::now() + kExitWait;
             host.exitsPending() && std::chrono::steady_clock::now() < end;) {
            pollfd pfd{reports->readFd(), POLLIN, 0};
            if (poll(&pfd, 1, kPollMs) > 0 && !reports->readReports(host))
                break;
        }
    }
    console.status("");
    console.err(std::string("vexahost: stopping (") + reason + ")\n");
    host.setServer(nullptr);
    ipc_uninit_server(server);

    const vexahost::Verdict verdict = vexahost::judge_session(host.record(), true);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    int status = verdict.failed > 0 ? kExitTestFailed : kExitOk;
    if (!opts.junitPath.empty() &&
        !vexahost::write_junit_report(opts.junitPath, verdict, startedWall, seconds)) {
        console.err("vexahost: cannot write " + opts.junitPath + ": " + std::strerror(errno) +
                    "\n");
        status = kExitNoReport;
    }
    char summary[96];
    std::snprintf(summary, sizeof(summary), "vexahost: %zu passed, %zu failed in %.2f s\n",
                  verdict.passed, verdict.failed, seconds);
    console.err(summary);
    return status;
}
