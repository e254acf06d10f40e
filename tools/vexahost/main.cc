// vexahost: a host for test programs, run by a person from a shell on a device
// or a desktop. It starts a server, launches the tests named on its command
// line, prints one line per event and takes commands from standard input.
//
// An event line, on standard output (so are the answers to list and help; the
// tool's own notes go to standard error):
//   HH:MM:SS.mmm recv|sent dev=DEV item=N event=NAME len=N [pid=N | "preview"[...]]
// NAME is CONFIG(9001), CLOSED(9005), OFFLINE(9006) or the number; the preview
// shows up to 40 bytes of the body with '.' for what cannot be printed. With
// --json each event is one JSON object instead, and list and help answer on
// standard error. --junit-xml FILE writes a report when the tool stops.
//
// Exit status: 0 after an orderly end (every launched test registered and then
// closed or went offline; with --junit-xml also every program ended; quit; end
// of input with nothing launched; SIGINT or SIGTERM), 1 when the server cannot
// be started, 2 for a usage error, 3 when the report cannot be written.
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "exit_report.h"
#include "host_session.h"
#include "junit_report.h"
#include "vexatool.h"

namespace {

using vexahost::ExitReportPipe;
using vexahost::Host;
using vexahost::kDemoPing;
using vexahost::kEchoEvent;
using vexahost::kLeaveEvent;

constexpr char kDefaultAddress[] = "tcp://:6000";
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

volatile sig_atomic_t g_stopSignal = 0;

void on_stop_signal(int signo) {
    g_stopSignal = signo;
}

struct Options {
    std::string address = kDefaultAddress;
    std::string dValue;
    std::string extraArgs;
    bool su = false;
    std::string suPrefix = "su -c";
    std::string preCmd;
    bool demo = false;
    bool json = false;
    std::string junitPath;
    std::vector<std::string> tests;
};

void print_usage(FILE* out, const char* prog) {
    std::fprintf(out,
                 "usage: %s [options] [TEST...]\n"
                 "Starts a server, launches each TEST (a program, or a shared object ending in\n"
                 "\".so\" that is loaded into this process), prints one line per event and reads\n"
                 "commands from standard input (type \"help\").\n"
                 "\n"
                 "  -a ADDR            server address (default %s)\n"
                 "  -d VALUE           passed to every test after \" -d \"\n"
                 "  -x \"ARGS\"          extra arguments for every test\n"
                 "  --su               start programs through the device's \"su -c\"\n"
                 "  --su-prefix TEXT   start programs through TEXT instead (implies --su)\n"
                 "  --pre-cmd TEXT     shell command run before each program inside the su prefix\n"
                 "  --demo             greet each test with %d \"%s\" and send %d when it echoes\n"
                 "  --json             print each event as one JSON object (other text to stderr)\n"
                 "  --junit-xml FILE   write a JUnit XML report, one test case per launched test\n"
                 "  -h, --help         this text\n"
                 "  --version          the tool's (and library's) version\n"
                 "\n"
                 "Without --su, programs start directly. The tool ends once every launched test\n"
                 "has registered and then closed, or on quit, Ctrl-C or SIGTERM.\n",
                 prog, kDefaultAddress, kEchoEvent, kDemoPing, kLeaveEvent);
}

// Returns false after printing why the command line is not usable.
bool parse_options(int argc, char** argv, Options& opts) {
    enum { kOptSu = 256, kOptSuPrefix, kOptPreCmd, kOptDemo, kOptJson, kOptJunitXml, kOptVersion };
    static const option kLong[] = {{"su", no_argument, nullptr, kOptSu},
                                   {"su-prefix", required_argument, nullptr, kOptSuPrefix},
                                   {"pre-cmd", required_argument, nullptr, kOptPreCmd},
                                   {"demo", no_argument, nullptr, kOptDemo},
                                   {"json", no_argument, nullptr, kOptJson},
                                   {"junit-xml", required_argument, nullptr, kOptJunitXml},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, kOptVersion},
                                   {nullptr, 0, nullptr, 0}};
    bool preCmdGiven = false;
    int c;
    while ((c = getopt_long(argc, argv, "a:d:x:h", kLong, nullptr)) != -1) {
        switch (c) {
            case 'a':
                opts.address = optarg;
                break;
            case 'd':
                opts.dValue = optarg;
                break;
            case 'x':
                opts.extraArgs = optarg;
                break;
            case kOptSu:
                opts.su = true;
                break;
            case kOptSuPrefix:
                opts.su = true;
                opts.suPrefix = optarg;
                break;
            case kOptPreCmd:
                preCmdGiven = true;
                opts.preCmd = optarg;
                break;
            case kOptDemo:
                opts.demo = true;
                break;
            case kOptJson:
                opts.json = true;
                break;
            case kOptJunitXml:
                opts.junitPath = optarg;
                break;
            case 'h':
                print_usage(stdout, argv[0]);
                std::exit(kExitOk);
            case kOptVersion:
                std::printf("vexahost %s\n", VEXA_VERSION_STRING);
                std::exit(kExitOk);
            default:
                print_usage(stderr, argv[0]);
                return false;
        }
    }
    for (int i = optind; i < argc; ++i)
        opts.tests.emplace_back(argv[i]);
    // The library runs the pre-command only inside a non-empty su prefix.
    if (preCmdGiven && (!opts.su || opts.suPrefix.empty())) {
        std::fprintf(stderr, "%s: --pre-cmd needs --su or a non-empty --su-prefix\n", argv[0]);
        return false;
    }
    return true;
}

bool ends_with(const std::string& s, const char* suffix) {
    size_t n = std::strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

// The launcher reports nothing when a test cannot start, so catch the common
// mistakes before it. Paths without a slash are left alone: a program is then
// looked up in PATH, like in a shell. Through su a test may live where this
// user cannot look, so only a path that surely does not exist is refused there.
bool check_tests(std::vector<std::string>& tests, bool su, const char* prog) {
    for (std::string& test : tests) {
        struct stat st {};
        bool isSo = ends_with(test, ".so");
        bool hasSlash = test.find('/') != std::string::npos;
        if (isSo && !hasSlash && stat(test.c_str(), &st) == 0) {
            // dlopen would search the library path, not the current directory.
            test.insert(0, "./");
            continue;
        }
        if (!hasSlash)
            continue;
        if (stat(test.c_str(), &st) != 0 && (errno == ENOENT || !su)) {
            std::fprintf(stderr, "%s: no such test: %s\n", prog, test.c_str());
            return false;
        }
        if (!isSo && !su && access(test.c_str(), X_OK) != 0) {
            std::fprintf(stderr, "%s: not executable: %s\n", prog, test.c_str());
            return false;
        }
    }
    return true;
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

// Reads standard input and runs its commands until the tool should stop; reads
// the exit reports too when there are any. Returns a short reason for stopping.
const char* main_loop(Host& host, ExitReportPipe* reports) {
    bool inputOpen = true;
    bool warned = false;
    std::string pending;
    auto started = std::chrono::steady_clock::now();
    for (;;) {
        if (g_stopSignal != 0)
            return g_stopSignal == SIGINT ? "interrupted" : "terminated";
        if (host.allDone())
            return "all tests closed";
        if (reports != nullptr && host.allEnded(kExitSettle))
            return "all tests ended";
        if (!warned && host.launched() > host.registered() &&
            std::chrono::steady_clock::now() - started > kRegisterWarning) {
            warned = true;
            std::fprintf(stderr,
                         "vexahost: %zu of %zu launched tests have not registered yet "
                         "(the server's log says why a launch failed)\n",
                         host.launched() - host.registered(), host.launched());
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

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::strcmp(argv[1], vexahost::kReportExitOption) == 0)
        return vexahost::run_and_report(argc, argv);
    Options opts;
    if (!parse_options(argc, argv, opts) || !check_tests(opts.tests, opts.su, argv[0]))
        return kExitUsage;

    install_signal_handlers();
    Host host(opts.demo, opts.json ? vexahost::OutputFormat::kJson : vexahost::OutputFormat::kText);
    void* server = ipc_init_server(opts.address.c_str(), vexahost::on_server_event, &host);
    if (server == nullptr) {
        std::fprintf(stderr,
                     "vexahost: cannot start a server on %s (bad address or port in use; "
                     "the server's log has the reason)\n",
                     opts.address.c_str());
        return kExitNoServer;
    }
    host.setServer(server);
    if (!opts.su) {
        ipc_set_su_file_path(server, "", "");
    } else {
        ipc_set_su_file_path(server, opts.suPrefix.c_str(), opts.preCmd.c_str());
    }
    std::fprintf(stderr, "vexahost: listening on %s\n", opts.address.c_str());

    const char* dValue = opts.dValue.empty() ? nullptr : opts.dValue.c_str();
    const char* extra = opts.extraArgs.empty() ? nullptr : opts.extraArgs.c_str();
    // A report wants the programs' exit statuses: programs started directly
    // then go through the exit-reporting wrapper.
    ExitReportPipe reportPipe;
    ExitReportPipe* reports = nullptr;
    if (!opts.junitPath.empty() && !opts.su && reportPipe.open())
        reports = &reportPipe;
    for (const std::string& test : opts.tests) {
        bool isSo = ends_with(test, ".so");
        bool wrapped = reports != nullptr && !isSo;
        size_t index = host.noteLaunched(test, isSo, wrapped);
        if (wrapped)
            ipc_set_su_file_path(server, reports->prefixFor(index).c_str(), "");
        ipc_run_test(server, test.c_str(), dValue, extra);
        std::fprintf(stderr, "vexahost: launched %s\n", test.c_str());
    }

    const char* reason = main_loop(host, reports);
    if (reports != nullptr && g_stopSignal == 0) {
        for (auto end = std::chrono::steady_clock::now() + kExitWait;
             host.exitsPending() && std::chrono::steady_clock::now() < end;) {
            pollfd pfd{reports->readFd(), POLLIN, 0};
            if (poll(&pfd, 1, kPollMs) > 0 && !reports->readReports(host))
                break;
        }
    }
    std::fprintf(stderr, "vexahost: stopping (%s)\n", reason);
    host.setServer(nullptr);
    ipc_uninit_server(server);
    if (!opts.junitPath.empty() &&
        !vexahost::write_junit_report(opts.junitPath, host.record(), getpid())) {
        std::fprintf(stderr, "vexahost: cannot write %s: %s\n", opts.junitPath.c_str(),
                     std::strerror(errno));
        return kExitNoReport;
    }
    return kExitOk;
}
