// Command line and help text of vexahost.
#include "options.h"

#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host_session.h"
#include "vexatool.h"

namespace vexahost {

namespace {

constexpr int kExitOk = 0;
// Far beyond any test, and small enough for every clock to hold.
constexpr double kMaxTimeoutSeconds = 1e7;

void print_usage(FILE* out, const char* prog) {
    std::fprintf(
        out,
        "usage: %s [options] [[-d VALUE] TEST...]...\n"
        "Starts a server, launches each TEST (a program, or a shared object ending in\n"
        "\".so\" that is loaded into this process), prints one line per event and reads\n"
        "commands from standard input (type \"help\").\n"
        "\n"
        "  -a ADDR            server address (default %s)\n"
        "  -d VALUE           passed after \" -d \" to the TESTs that follow, up to the\n"
        "                     next -d (-d \"\" passes none); one before all TESTs: for all\n"
        "  -x \"ARGS\"          extra arguments for every test\n"
        "  --su               start programs through the device's \"su -c\"\n"
        "  --su-prefix TEXT   start programs through TEXT instead (implies --su)\n"
        "  --pre-cmd TEXT     shell command run before each program inside the su prefix\n"
        "  --timeout SECONDS  a test not closed SECONDS after its launch is ended (its\n"
        "                     processes killed where the tool knows them) and fails\n"
        "  --log-dir DIR      the logs of the server and of the tests it starts go to DIR\n"
        "                     (sets VEXA_LOG_DIR; else VEXA_LOG_DIR or /mnt/sdcard/vexa/)\n"
        "  --demo             send each test %d \"%s\", and %d to its echo\n"
        "  --json             print each event as one JSON object (other text to stderr)\n"
        "  --junit-xml FILE   write a JUnit XML report, one test case per launched test\n"
        "  -h, --help         this text\n"
        "  --version          the tool's (and library's) version\n"
        "\n"
        "Without --su, programs start directly. Each program starts through this tool\n"
        "itself (%s, in front of any su prefix), which learns its exit status;\n"
        "through su that is the status su passes back. A registration whose pid is this\n"
        "tool or a process below it is marked \"launched\" (one a su daemon starts is not).\n"
        "The tool ends once every launched test is done (closed, timed out, or its\n"
        "program ended), or on quit, end of input with nothing launched, Ctrl-C or\n"
        "SIGTERM. It then prints \"vexahost: N passed, M failed in T s\" on standard\n"
        "error; while that is a terminal, a status line counts the tests as they go.\n"
        "A test passes when what it registered closed in order (9005) and its program,\n"
        "where its exit is known, exited with status 0.\n"
        "\n"
        "Exit status:\n"
        "  0  every test passed (or none was launched)\n"
        "  1  the server cannot be started (the reason from its log is printed)\n"
        "  2  usage error\n"
        "  3  the JUnit report cannot be written\n"
        "  4  a test failed: it could not start, never registered, went offline (9006),\n"
        "     timed out, was still registered at the end, or exited otherwise\n",
        prog, kDefaultAddress, kEchoEvent, kDemoPing, kLeaveEvent, "--report-exit");
}

bool parse_timeout(const char* text, double& seconds) {
    char* end = nullptr;
    errno = 0;
    seconds = std::strtod(text, &end);
    return errno == 0 && end != text && *end == '\0' && std::isfinite(seconds) && seconds > 0 &&
           seconds <= kMaxTimeoutSeconds;
}

// The tests may change directory (a test library is loaded from its own), so
// the log directory is made absolute.
std::string absolute(const std::string& path) {
    char cwd[PATH_MAX];
    if (path.empty() || path[0] == '/' || getcwd(cwd, sizeof(cwd)) == nullptr)
        return path;
    return std::string(cwd) + "/" + path;
}

}  // namespace

bool is_test_library(const std::string& path) {
    const char suffix[] = ".so";
    const size_t n = sizeof(suffix) - 1;
    return path.size() >= n && path.compare(path.size() - n, n, suffix) == 0;
}

bool parse_options(int argc, char** argv, Options& opts) {
    enum {
        kOptSu = 256,
        kOptSuPrefix,
        kOptPreCmd,
        kOptTimeout,
        kOptLogDir,
        kOptDemo,
        kOptJson,
        kOptJunitXml,
        kOptVersion
    };
    static const option kLong[] = {{"su", no_argument, nullptr, kOptSu},
                                   {"su-prefix", required_argument, nullptr, kOptSuPrefix},
                                   {"pre-cmd", required_argument, nullptr, kOptPreCmd},
                                   {"timeout", required_argument, nullptr, kOptTimeout},
                                   {"log-dir", required_argument, nullptr, kOptLogDir},
                                   {"demo", no_argument, nullptr, kOptDemo},
                                   {"json", no_argument, nullptr, kOptJson},
                                   {"junit-xml", required_argument, nullptr, kOptJunitXml},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, kOptVersion},
                                   {nullptr, 0, nullptr, 0}};
    bool preCmdGiven = false;
    bool dAfterLastTest = false;
    std::string dValue;
    int c;
    // The leading '-' keeps the order: each TEST comes back as 1, after the
    // -d values before it.
    while ((c = getopt_long(argc, argv, "-a:d:x:h", kLong, nullptr)) != -1) {
        switch (c) {
            case 1:
                opts.tests.push_back({optarg, dValue});
                dAfterLastTest = false;
                break;
            case 'a':
                opts.address = optarg;
                break;
            case 'd':
                dValue = optarg;
                dAfterLastTest = true;
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
            case kOptTimeout:
                if (!parse_timeout(optarg, opts.timeoutSeconds)) {
                    std::fprintf(stderr, "%s: --timeout needs seconds above 0, not \"%s\"\n",
                                 argv[0], optarg);
                    return false;
                }
                break;
            case kOptLogDir:
                opts.logDir = absolute(optarg);
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
    // What follows "--" is tests only.
    for (int i = optind; i < argc; ++i) {
        opts.tests.push_back({argv[i], dValue});
        dAfterLastTest = false;
    }
    if (dAfterLastTest && !opts.tests.empty()) {
        std::fprintf(stderr, "%s: -d after the last TEST is for no test (put it before them)\n",
                     argv[0]);
        return false;
    }
    // The library runs the pre-command only inside a non-empty su prefix.
    if (preCmdGiven && (!opts.su || opts.suPrefix.empty())) {
        std::fprintf(stderr, "%s: --pre-cmd needs --su or a non-empty --su-prefix\n", argv[0]);
        return false;
    }
    return true;
}

// Paths without a slash are left alone: a program is then looked up in PATH,
// like in a shell. Through su a test may live where this user cannot look, so
// only a path that surely does not exist is refused there.
bool check_tests(std::vector<TestToLaunch>& tests, bool su, const char* prog) {
    for (TestToLaunch& launch : tests) {
        std::string& test = launch.path;
        struct stat st {};
        bool isSo = is_test_library(test);
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

}  // namespace vexahost
