// Host state, event lines and typed commands of vexahost.
#include "host_session.h"

#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "vexatool.h"

namespace vexahost {

namespace {

constexpr size_t kPreviewChars = 40;

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

// The name of one of the library's own events, null for any other code.
const char* library_event_name(int32_t event) {
    switch (event) {
        case CLIENT_IPC_CONFIG:
            return "CONFIG";
        case CLIENT_IPC_CLOSED:
            return "CLOSED";
        case CLIENT_IPC_OFFLINE:
            return "OFFLINE";
        default:
            return nullptr;
    }
}

// "CONFIG(9001)" for the library's own events, the bare code for others.
std::string event_name(int32_t event) {
    const char* name = library_event_name(event);
    const std::string code = std::to_string(event);
    return name != nullptr ? name + ("(" + code + ")") : code;
}

// A 9001's body: the test's pid, when it holds one.
bool registration_pid(int32_t event, const char* data, int32_t len, int32_t& pid) {
    if (event != CLIENT_IPC_CONFIG || data == nullptr || len < 4)
        return false;
    std::memcpy(&pid, data, sizeof(pid));
    return true;
}

// Each byte becomes one character, U+0000 to U+00FF, so any body survives.
std::string json_string(const char* data, size_t len) {
    std::string out = "\"";
    for (size_t i = 0; i < len; ++i) {
        unsigned char ch = static_cast<unsigned char>(data[i]);
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += static_cast<char>(ch);
        } else if (ch >= 0x20 && ch < 0x7f) {
            out += static_cast<char>(ch);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", ch);
            out += escaped;
        }
    }
    return out + "\"";
}

// One JSON object on one line: time, dir, dev, item, event, name (for the
// library's own codes), len, and pid (9001) or body (the whole body).
std::string json_event(const std::string& time, const char* direction, const std::string& dev,
                       int32_t item, int32_t event, const char* data, int32_t len) {
    std::string line = "{\"time\":\"" + time + "\",\"dir\":\"" + direction +
                       "\",\"dev\":" + json_string(dev.data(), dev.size()) +
                       ",\"item\":" + std::to_string(item) + ",\"event\":" + std::to_string(event);
    if (const char* name = library_event_name(event))
        line += ",\"name\":\"" + std::string(name) + "\"";
    line += ",\"len\":" + std::to_string(len);
    int32_t pid = 0;
    if (registration_pid(event, data, len, pid)) {
        line += ",\"pid\":" + std::to_string(pid);
    } else if (data != nullptr && len > 0) {
        line += ",\"body\":" + json_string(data, static_cast<size_t>(len));
    }
    return line + "}\n";
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

}  // namespace

size_t Host::noteLaunched(const std::string& path, bool isSo, bool reportsExit) {
    std::lock_guard<std::mutex> guard(m_lock);
    LaunchRecord launch;
    launch.path = path;
    launch.isSo = isSo;
    launch.reportsExit = reportsExit;
    launch.startedAt = Clock::now();
    m_launches.push_back(launch);
    return m_launches.size() - 1;
}

void Host::noteChildPid(size_t index, int32_t pid) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (index < m_launches.size())
        m_launches[index].childPid = pid;
}

void Host::noteExit(size_t index, int waitStatus) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (index < m_launches.size() && !m_launches[index].exited) {
        m_launches[index].exited = true;
        m_launches[index].waitStatus = waitStatus;
        m_launches[index].exitedAt = Clock::now();
    }
}

void Host::onEvent(int32_t item, int32_t event, const char* dev, const char* data, int32_t len) {
    std::string devText = dev != nullptr ? dev : "";
    printEvent("recv", devText, item, event, data, len);
    {
        std::lock_guard<std::mutex> guard(m_lock);
        TestKey key{devText, item};
        if (event == CLIENT_IPC_CONFIG) {
            TestState state;
            registration_pid(event, data, len, state.pid);
            state.order = m_registrations++;
            state.registeredAt = Clock::now();
            m_tests[key] = state;
        } else if (event == CLIENT_IPC_CLOSED || event == CLIENT_IPC_OFFLINE) {
            auto it = m_tests.find(key);
            if (it != m_tests.end() && !it->second.closed) {
                it->second.closed = true;
                it->second.offline = event == CLIENT_IPC_OFFLINE;
                it->second.endedAt = Clock::now();
            }
        }
    }
    if (!m_demo)
        return;
    if (event == CLIENT_IPC_CONFIG) {
        send(devText, item, kEchoEvent, kDemoPing, sizeof(kDemoPing) - 1);
    } else if (event == kEchoReplyEvent) {
        send(devText, item, kLeaveEvent, "", 0);
    }
}

void Host::send(const std::string& dev, int32_t item, int32_t event, const char* data,
                int32_t len) {
    void* srv = server();
    if (srv == nullptr)
        return;
    // Printed first, so that a quick answer never shows up above its question.
    printEvent("sent", dev, item, event, data, len);
    ipc_send_command(srv, dev.c_str(), item, event, data, len);
}

bool Host::isOpen(const std::string& dev, int32_t item) {
    std::lock_guard<std::mutex> guard(m_lock);
    auto it = m_tests.find(TestKey{dev, item});
    return it != m_tests.end() && !it->second.closed;
}

bool Host::allDone() {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_launches.empty() || m_tests.size() < m_launches.size())
        return false;
    for (const auto& entry : m_tests) {
        if (!entry.second.closed)
            return false;
    }
    return true;
}

bool Host::allEnded(Clock::duration settle) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_launches.empty())
        return false;
    Clock::time_point now = Clock::now();
    size_t unreported = 0;
    for (const LaunchRecord& launch : m_launches) {
        // A registration may still be on its way when the exit is seen.
        if (launch.reportsExit && (!launch.exited || now - launch.exitedAt < settle))
            return false;
        unreported += launch.reportsExit ? 0 : 1;
    }
    for (const auto& entry : m_tests) {
        if (!entry.second.closed)
            return false;
    }
    // Test libraries and programs started through su end by closing.
    return m_tests.size() >= unreported;
}

bool Host::exitsPending() {
    std::lock_guard<std::mutex> guard(m_lock);
    for (const LaunchRecord& launch : m_launches) {
        if (launch.reportsExit && !launch.exited)
            return true;
    }
    return false;
}

SessionRecord Host::record() {
    std::lock_guard<std::mutex> guard(m_lock);
    return SessionRecord{m_startedAt, m_launches, m_tests};
}

size_t Host::launched() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_launches.size();
}

size_t Host::registered() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_tests.size();
}

void Host::printList() {
    std::lock_guard<std::mutex> guard(m_lock);
    std::string text = std::to_string(m_launches.size()) + " launched, " +
                       std::to_string(m_tests.size()) + " registered\n";
    for (const auto& entry : m_tests) {
        text += "  dev=" + printable(entry.first.dev.data(), entry.first.dev.size()) +
                " item=" + std::to_string(entry.first.item) +
                " pid=" + std::to_string(entry.second.pid) +
                (entry.second.closed ? " closed\n" : " open\n");
    }
    writeNote(text);
}

void Host::writeOut(const std::string& text) {
    std::lock_guard<std::mutex> guard(m_outLock);
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

void Host::writeNote(const std::string& text) {
    if (m_format == OutputFormat::kText) {
        writeOut(text);
        return;
    }
    std::lock_guard<std::mutex> guard(m_outLock);
    std::fputs(text.c_str(), stderr);
}

void Host::printEvent(const char* direction, const std::string& dev, int32_t item, int32_t event,
                      const char* data, int32_t len) {
    if (m_format == OutputFormat::kJson) {
        writeOut(json_event(local_time_ms(), direction, dev, item, event, data, len));
        return;
    }
    std::string line = local_time_ms() + " " + direction +
                       " dev=" + printable(dev.data(), dev.size()) +
                       " item=" + std::to_string(item) + " event=" + event_name(event) +
                       " len=" + std::to_string(len);
    int32_t pid = 0;
    if (registration_pid(event, data, len, pid)) {
        line += " pid=" + std::to_string(pid);
    } else if (data != nullptr && len > 0) {
        size_t shown = std::min(static_cast<size_t>(len), kPreviewChars);
        line += " \"" + printable(data, shown) + "\"";
        if (shown < static_cast<size_t>(len))
            line += "...";
    }
    writeOut(line + "\n");
}

int on_server_event(void* user, int32_t test_item, int32_t event_id, const char* dev,
                    int32_t /*time_sec*/, int32_t /*time_usec*/, const char* data,
                    int32_t data_len) {
    static_cast<Host*>(user)->onEvent(test_item, event_id, dev, data, data_len);
    return 0;
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
        host.writeNote(kCommandHelp);
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
        if (!host.isOpen(dev, item)) {
            std::fprintf(stderr, "vexahost: note: dev=%s item=%d is not registered\n", dev.c_str(),
                         item);
        }
        host.send(dev, item, event, text.data(), static_cast<int32_t>(text.size()));
    } else {
        std::fprintf(stderr, "vexahost: unknown command \"%s\" (try help)\n", cmd.c_str());
    }
    return true;
}

}  // namespace vexahost
