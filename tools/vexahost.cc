// vexahost: a host for test programs, run by a person from a shell on a device
// or a desktop. It starts a server, launches the tests named on its command
// line, prints one line per event and takes commands from standard input.
//
// An event line, on standard output (so are the answers to list and help; the
// tool's own notes go to standard error):
//   HH:MM:SS.mmm recv|sent dev=DEV item=N event=NAME len=N [pid=N | "preview"[...]]
// NAME is CONFIG(9001), CLOSED(9005), OFFLINE(9006) or the number; the preview
// shows up to 40 bytes of the body with '.' for what cannot be printed.
//
// Exit status: 0 after an orderly end (every launched test registered and then
// closed or went offline; quit; end of input with nothing launched; SIGINT or
// SIGTERM), 1 when the server cannot be started, 2 for a usage error.
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "vexatool.h"

namespace {

// The conversation of --demo, the same one the example tests hold.
constexpr int32_t kEchoEvent = 2000;
constexpr int32_t kEchoReplyEvent = 2001;
constexpr int32_t kLeaveEvent = 2099;
constexpr char kDemoPing[] = "ping from host";

constexpr char kDefaultAddress[] = "tcp://:6000";
constexpr size_t kPreviewChars = 40;
constexpr int kPollMs = 100;
// A test that has not registered by then is probably missing or failing.
constexpr auto kRegisterWarning = std::chrono::seconds(10);

constexpr int kExitOk = 0;
constexpr int kExitNoServer = 1;
constexpr int kExitUsage = 2;

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
                 "  -h, --help         this text\n"
                 "\n"
                 "Without --su, programs start directly. The tool ends once every launched test\n"
                 "has registered and then closed, or on quit, Ctrl-C or SIGTERM.\n",
                 prog, kDefaultAddress, kEchoEvent, kDemoPing, kLeaveEvent);
}

// Returns false after printing why the command line is not usable.
bool parse_options(int argc, char** argv, Options& opts) {
    enum { kOptSu = 256, kOptSuPrefix, kOptPreCmd, kOptDemo };
    static const option kLong[] = {{"su", no_argument, nullptr, kOptSu},
                                   {"su-prefix", required_argument, nullptr, kOptSuPrefix},
                                   {"pre-cmd", required_argument, nullptr, kOptPreCmd},
                                   {"demo", no_argument, nullptr, kOptDemo},
                                   {"help", no_argument, nullptr, 'h'},
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
            case 'h':
                print_usage(stdout, argv[0]);
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
            test = "./" + test;
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

std::string local_time_ms() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    time_t secs = tv.tv_sec;
    tm local{};
    localtime_r(&secs, &local);
    char hms[16];
    std::strftime(hms, sizeof(hms), "%H:%M:%S", &local);
    char out[32];
    std::snprintf(out, sizeof(out), "%s.%03d", hms, static_cast<int>(tv.tv_usec / 1000));
    return out;
}

std::string printable(const char* data, size_t len) {
    std::string out;
    out.reserve(len);
    for (size_t i = 0; i < len; ++i) {
        unsigned char ch = static_cast<unsigned char>(data[i]);
        out += (ch >= 0x20 && ch < 0x7f) ? static_cast<char>(ch) : '.';
    }
    return out;
}

std::string event_name(int32_t event) {
    switch (event) {
        case CLIENT_IPC_CONFIG:
            return "CONFIG(9001)";
        case CLIENT_IPC_CLOSED:
            return "CLOSED(9005)";
        case CLIENT_IPC_OFFLINE:
            return "OFFLINE(9006)";
        default:
            return std::to_string(event);
    }
}

struct TestKey {
    std::string dev;
    int32_t item;
    bool operator<(const TestKey& o) const { return std::tie(dev, item) < std::tie(o.dev, o.item); }
};

struct TestState {
    int32_t pid = 0;
    bool closed = false;
};

// State shared between the library's thread (callbacks) and the main thread.
class Host {
  public:
    explicit Host(const Options& opts) : m_demo(opts.demo) {}
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    void setServer(void* server) { m_server.store(server); }
    void* server() const { return m_server.load(); }

    void noteLaunched() {
        std::lock_guard<std::mutex> guard(m_lock);
        ++m_launched;
    }

    // Runs on the library's thread.
    void onEvent(int32_t item, int32_t event, const char* dev, const char* data, int32_t len) {
        std::string devText = dev != nullptr ? dev : "";
        printEvent("recv", devText, item, event, data, len);
        {
            std::lock_guard<std::mutex> guard(m_lock);
            TestKey key{devText, item};
            if (event == CLIENT_IPC_CONFIG) {
                TestState state;
                if (data != nullptr && len >= 4)
                    std::memcpy(&state.pid, data, sizeof(state.pid));
                m_tests[key] = state;
            } else if (event == CLIENT_IPC_CLOSED || event == CLIENT_IPC_OFFLINE) {
                auto it = m_tests.find(key);
                if (it != m_tests.end())
                    it->second.closed = true;
            }
        }
        if (!m_demo)
            return;
        if (event == CLIENT_IPC_CONFIG)
            send(devText, item, kEchoEvent, kDemoPing, sizeof(kDemoPing) - 1);
        else if (event == kEchoReplyEvent)
            send(devText, item, kLeaveEvent, "", 0);
    }

    // The send is made without m_lock: the library's send may wait on the network.
    void send(const std::string& dev, int32_t item, int32_t event, const char* data, int32_t len) {
        void* srv = server();
        if (srv == nullptr)
            return;
        // Printed first, so that a quick answer never shows up above its question.
        printEvent("sent", dev, item, event, data, len);
        ipc_send_command(srv, dev.c_str(), item, event, data, len);
    }

    bool isOpen(const std::string& dev, int32_t item) {
        std::lock_guard<std::mutex> guard(m_lock);
        auto it = m_tests.find(TestKey{dev, item});
        return it != m_tests.end() && !it->second.closed;
    }

    // True once every launched test has registered and then closed.
    bool allDone() {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_launched == 0 || m_tests.size() < m_launched)
            return false;
        for (const auto& entry : m_tests) {
            if (!entry.second.closed)
                return false;
        }
        return true;
    }

    size_t launched() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_launched;
    }

    size_t registered() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_tests.size();
    }

    void printList() {
        std::lock_guard<std::mutex> guard(m_lock);
        std::string text = std::to_string(m_launched) + " launched, " +
                           std::to_string(m_tests.size()) + " registered\n";
        for (const auto& entry : m_tests) {
            text += "  dev=" + printable(entry.first.dev.data(), entry.first.dev.size()) +
                    " item=" + std::to_string(entry.first.item) +
                    " pid=" + std::to_string(entry.second.pid) +
                    (entry.second.closed ? " closed\n" : " open\n");
        }
        writeOut(text);
    }

    void writeOut(const std::string& text) {
        std::lock_guard<std::mutex> guard(m_outLock);
        std::fputs(text.c_str(), stdout);
        std::fflush(stdout);
    }

  private:
    void printEvent(const char* direction, const std::string& dev, int32_t item, int32_t event,
                    const char* data, int32_t len) {
        std::string line = local_time_ms() + " " + direction +
                           " dev=" + printable(dev.data(), dev.size()) +
                           " item=" + std::to_string(item) + " event=" + event_name(event) +
                           " len=" + std::to_string(len);
        if (event == CLIENT_IPC_CONFIG && data != nullptr && len >= 4) {
            int32_t pid = 0;
            std::memcpy(&pid, data, sizeof(pid));
            line += " pid=" + std::to_string(pid);
        } else if (data != nullptr && len > 0) {
            size_t shown = std::min(static_cast<size_t>(len), kPreviewChars);
            line += " \"" + printable(data, shown) + "\"";
            if (shown < static_cast<size_t>(len))
                line += "...";
        }
        writeOut(line + "\n");
    }

    const bool m_demo;
    std::atomic<void*> m_server{nullptr};
    std::mutex m_lock;                     // guards m_launched and m_tests
    size_t m_launched = 0;                 // tests handed to the launcher
    std::map<TestKey, TestState> m_tests;  // every (dev, item) that registered
    std::mutex m_outLock;                  // keeps output lines whole
};

int on_server_event(void* user, int32_t test_item, int32_t event_id, const char* dev,
                    int32_t /*time_sec*/, int32_t /*time_usec*/, const char* data,
                    int32_t data_len) {
    static_cast<Host*>(user)->onEvent(test_item, event_id, dev, data, data_len);
    return 0;
}

const char kCommandHelp[] =
    "commands:\n"
    "  send DEV ITEM EVENT [TEXT...]  send EVENT with TEXT to the test (DEV \"\" is empty)\n"
    "  list                           the tests that registered\n"
    "  quit                           stop the server and leave\n"
    "  help                           this text\n";

bool parse_int32(const std::string& text, int32_t& value) {
    if (text.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX)
        return false;
    value = static_cast<int32_t>(v);
    return true;
}

// Splits off the next blank-separated word of `line` starting at `pos`.
std::string next_word(const std::string& line, size_t& pos) {
    size_t start = line.find_first_not_of(" \t", pos);
    if (start == std::string::npos) {
        pos = line.size();
        return std::string();
    }
    size_t end = line.find_first_of(" \t", start);
    if (end == std::string::npos)
        end = line.size();
    pos = end;
    return line.substr(start, end - start);
}

// Returns false when the command asks the tool to quit.
bool run_command(Host& host, const std::string& line) {
    size_t pos = 0;
    std::string cmd = next_word(line, pos);
    if (cmd.empty())
        return true;
    if (cmd == "quit" || cmd == "exit")
        return false;
    if (cmd == "help") {
        host.writeOut(kCommandHelp);
    } else if (cmd == "list") {
        host.printList();
    } else if (cmd == "send") {
        std::string dev = next_word(line, pos);
        std::string itemText = next_word(line, pos);
        std::string eventText = next_word(line, pos);
        int32_t item = 0;
        int32_t event = 0;
        if (dev.empty() || !parse_int32(itemText, item) || !parse_int32(eventText, event)) {
            std::fprintf(stderr, "vexahost: usage: send DEV ITEM EVENT [TEXT...]\n");
            return true;
        }
        if (dev == "\"\"")
            dev.clear();
        // The body is the rest of the line as typed, inner blanks included.
        size_t textStart = line.find_first_not_of(" \t", pos);
        std::string text = textStart == std::string::npos ? "" : line.substr(textStart);
        if (!host.isOpen(dev, item))
            std::fprintf(stderr, "vexahost: note: dev=%s item=%d is not registered\n", dev.c_str(),
                         item);
        host.send(dev, item, event, text.data(), static_cast<int32_t>(text.size()));
    } else {
        std::fprintf(stderr, "vexahost: unknown command \"%s\" (try help)\n", cmd.c_str());
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

// Reads standard input and runs its commands until the tool should stop.
// Returns a short reason for stopping.
const char* main_loop(Host& host) {
    bool inputOpen = true;
    bool warned = false;
    std::string pending;
    auto started = std::chrono::steady_clock::now();
    for (;;) {
        if (g_stopSignal != 0)
            return g_stopSignal == SIGINT ? "interrupted" : "terminated";
        if (host.allDone())
            return "all tests closed";
        if (!warned && host.launched() > host.registered() &&
            std::chrono::steady_clock::now() - started > kRegisterWarning) {
            warned = true;
            std::fprintf(stderr,
                         "vexahost: %zu of %zu launched tests have not registered yet "
                         "(the server's log says why a launch failed)\n",
                         host.launched() - host.registered(), host.launched());
        }

        pollfd pfd{STDIN_FILENO, POLLIN, 0};
        int rc = poll(&pfd, inputOpen ? 1 : 0, kPollMs);
        if (rc <= 0 || !inputOpen)
            continue;
        char buf[4096];
        ssize_t n = read(STDIN_FILENO, buf, sizeof(buf));
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0) {
            inputOpen = false;
            if (!pending.empty() && !run_command(host, pending))
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
            if (!run_command(host, line))
                return "quit";
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options opts;
    if (!parse_options(argc, argv, opts) || !check_tests(opts.tests, opts.su, argv[0]))
        return kExitUsage;

    install_signal_handlers();
    Host host(opts);
    void* server = ipc_init_server(opts.address.c_str(), on_server_event, &host);
    if (server == nullptr) {
        std::fprintf(stderr,
                     "vexahost: cannot start a server on %s (bad address or port in use; "
                     "the server's log has the reason)\n",
                     opts.address.c_str());
        return kExitNoServer;
    }
    host.setServer(server);
    if (!opts.su)
        ipc_set_su_file_path(server, "", "");
    else
        ipc_set_su_file_path(server, opts.suPrefix.c_str(), opts.preCmd.c_str());
    std::fprintf(stderr, "vexahost: listening on %s\n", opts.address.c_str());

    const char* dValue = opts.dValue.empty() ? nullptr : opts.dValue.c_str();
    const char* extra = opts.extraArgs.empty() ? nullptr : opts.extraArgs.c_str();
    for (const std::string& test : opts.tests) {
        host.noteLaunched();
        ipc_run_test(server, test.c_str(), dValue, extra);
        std::fprintf(stderr, "vexahost: launched %s\n", test.c_str());
    }

    const char* reason = main_loop(host);
    std::fprintf(stderr, "vexahost: stopping (%s)\n", reason);
    host.setServer(nullptr);
    ipc_uninit_server(server);
    return kExitOk;
}
