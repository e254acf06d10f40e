// Host state, event lines and time limits of vexahost.
#include "host_session.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "process_tree.h"
#include "verdict.h"
#include "vexatool.h"

namespace vexahost {

namespace {

// Event lines kept for the report, per pair; later ones are only counted.
constexpr size_t kMaxEventLog = 64 * 1024;

}  // namespace

size_t Host::noteLaunched(const LaunchRecord& launch) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_launches.push_back(launch);
    m_launches.back().startedAt = Clock::now();
    return m_launches.size() - 1;
}

void Host::noteChildPid(size_t index, int32_t pid) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (index < m_launches.size())
        m_launches[index].childPid = pid;
}

void Host::noteStartError(size_t index, int error) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (index < m_launches.size())
        m_launches[index].startError = error;
}

void Host::noteExit(size_t index, int waitStatus) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (index < m_launches.size() && !m_launches[index].exited) {
        m_launches[index].exited = true;
        m_launches[index].waitStatus = waitStatus;
        m_launches[index].exitedAt = Clock::now();
    }
}

// `line` runs from the registering pid up to the tool; empty when the pid is
// not below the tool (a test started by a su daemon, or a stranger).
size_t Host::matchLaunch(int32_t pid, const std::vector<int32_t>& line) const {
    for (size_t i = 0; i < m_launches.size(); ++i) {
        int32_t child = m_launches[i].childPid;
        if (child > 0 && std::find(line.begin(), line.end(), child) != line.end())
            return i;
    }
    // Otherwise the first launch without a registration whose pid cannot tell:
    // a test library registers with the tool's own pid; a program started
    // without the wrapper or through su has a pid nobody reported.
    const bool own = pid == static_cast<int32_t>(getpid());
    for (size_t i = 0; i < m_launches.size(); ++i) {
        const LaunchRecord& launch = m_launches[i];
        bool candidate =
            own ? launch.isSo : !launch.isSo && (launch.childPid == 0 || launch.throughSu);
        bool taken = std::any_of(m_tests.begin(), m_tests.end(),
                                 [i](const auto& entry) { return entry.second.launch == i; });
        if (candidate && !taken)
            return i;
    }
    return kNoLaunch;
}

void Host::onEvent(int32_t item, int32_t event, const char* dev, int64_t sentAtUs, const char* data,
                   int32_t len) {
    EventView ev;
    ev.dev = dev != nullptr ? dev : "";
    ev.item = item;
    ev.event = event;
    ev.sentAtUs = sentAtUs;
    ev.data = data;
    ev.len = len;
    const TestKey key{ev.dev, item};
    if (event == CLIENT_IPC_CONFIG) {
        int32_t pid = 0;
        registration_pid(event, data, len, pid);
        // Read while the test is surely alive; the wrapper's report of its
        // child was written before that child could run.
        const std::vector<int32_t> line = line_to_ancestor(pid, getpid());
        if (m_readReports)
            m_readReports();
        std::lock_guard<std::mutex> guard(m_lock);
        TestState state;
        state.pid = pid;
        state.launched = !line.empty();
        state.launch = matchLaunch(pid, line);
        state.timedOut = state.launch != kNoLaunch && m_launches[state.launch].timedOut;
        state.order = m_registrations++;
        state.registeredAt = Clock::now();
        m_tests[key] = state;
        ev.launched = state.launched;
    } else if (event == CLIENT_IPC_CLOSED || event == CLIENT_IPC_OFFLINE) {
        std::lock_guard<std::mutex> guard(m_lock);
        auto it = m_tests.find(key);
        if (it != m_tests.end() && !it->second.closed) {
            it->second.closed = true;
            it->second.offline = event == CLIENT_IPC_OFFLINE;
            it->second.endedAt = Clock::now();
        }
    }
    printEvent(ev);
    if (!m_demo)
        return;
    if (event == CLIENT_IPC_CONFIG) {
        send(ev.dev, item, kEchoEvent, kDemoPing, sizeof(kDemoPing) - 1);
    } else if (event == kEchoReplyEvent) {
        send(ev.dev, item, kLeaveEvent, "", 0);
    }
}

void Host::send(const std::string& dev, int32_t item, int32_t event, const char* data,
                int32_t len) {
    void* srv = server();
    if (srv == nullptr)
        return;
    EventView ev;
    ev.direction = "sent";
    ev.dev = dev;
    ev.item = item;
    ev.event = event;
    ev.sentAtUs = wall_clock_us();
    ev.data = data;
    ev.len = len;
    // Printed first, so that a quick answer never shows up above its question.
    printEvent(ev);
    ipc_send_command(srv, dev.c_str(), item, event, data, len);
}

bool Host::isOpen(const std::string& dev, int32_t item) {
    std::lock_guard<std::mutex> guard(m_lock);
    auto it = m_tests.find(TestKey{dev, item});
    return it != m_tests.end() && !it->second.closed;
}

bool Host::launchSettled(size_t index, Clock::time_point now, Clock::duration settle) const {
    const LaunchRecord& launch = m_launches[index];
    if (launch.timedOut)
        return true;
    bool any = false;
    bool open = false;
    for (const auto& entry : m_tests) {
        if (entry.second.launch == index) {
            any = true;
            open = open || (!entry.second.closed && !entry.second.timedOut);
        }
    }
    if (any && !open)
        return true;
    // A program that ended without registering never will; one that did may
    // still be on its way when the exit is seen.
    return launch.reportsExit && launch.exited && now - launch.exitedAt >= settle && !open;
}

void Host::enforceTimeLimit() {
    if (m_timeoutSeconds <= 0)
        return;
    const int32_t self = static_cast<int32_t>(getpid());
    struct Overdue {
        std::string what;
        size_t launch;
        bool isSo;
        std::vector<int32_t> roots;  // processes whose trees end it
    };
    std::vector<Overdue> overdue;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const Clock::time_point now = Clock::now();
        for (size_t i = 0; i < m_launches.size(); ++i) {
            LaunchRecord& launch = m_launches[i];
            if (launch.timedOut || now - launch.startedAt < m_timeLimit ||
                launchSettled(i, now, {}))
                continue;
            launch.timedOut = true;
            overdue.push_back({launch.path, i, launch.isSo, {}});
            if (launch.childPid > 0)
                overdue.back().roots.push_back(launch.childPid);
        }
        for (auto& entry : m_tests) {
            TestState& test = entry.second;
            bool ownerOverdue = test.launch != kNoLaunch && m_launches[test.launch].timedOut;
            bool overdueAlone = test.launch == kNoLaunch && now - test.registeredAt >= m_timeLimit;
            if (test.closed || test.timedOut || !(ownerOverdue || overdueAlone))
                continue;
            test.timedOut = true;
            auto owner = std::find_if(overdue.begin(), overdue.end(), [&test](const Overdue& o) {
                return o.launch == test.launch;
            });
            if (overdueAlone) {
                overdue.push_back(
                    {pair_label(entry.first.dev, entry.first.item), kNoLaunch, false, {}});
                owner = overdue.end() - 1;
            }
            if (test.launched && test.pid != self && owner != overdue.end())
                owner->roots.push_back(test.pid);
        }
    }
    for (const Overdue& o : overdue) {
        std::string note;
        if (o.isSo) {
            note = "a test library runs inside the tool and cannot be ended";
        } else if (o.roots.empty()) {
            note = "its process is not known to the tool and was not ended";
        }
        for (int32_t root : o.roots) {
            // Only what is still below the tool: a pid may have been reused.
            if (line_to_ancestor(root, self).empty())
                continue;
            int refused = signal_tree(root, SIGKILL);
            if (refused != 0 && note.empty())
                note = std::string("not ended: ") + std::strerror(refused);
        }
        if (o.launch != kNoLaunch) {
            std::lock_guard<std::mutex> guard(m_lock);
            m_launches[o.launch].endNote = note;
        }
        writeError("vexahost: " + o.what + " " + timeout_reason(m_timeoutSeconds, note) + "\n");
    }
}

bool Host::finished(Clock::duration settle) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_launches.empty())
        return false;
    const Clock::time_point now = Clock::now();
    for (size_t i = 0; i < m_launches.size(); ++i) {
        if (!launchSettled(i, now, settle))
            return false;
    }
    return std::all_of(m_tests.begin(), m_tests.end(), [](const auto& entry) {
        return entry.second.closed || entry.second.timedOut;
    });
}

bool Host::exitsPending() {
    std::lock_guard<std::mutex> guard(m_lock);
    return std::any_of(m_launches.begin(), m_launches.end(), [](const LaunchRecord& launch) {
        return launch.reportsExit && !launch.exited && !launch.timedOut;
    });
}

SessionRecord Host::record(bool withEvents) {
    std::lock_guard<std::mutex> guard(m_lock);
    SessionRecord copy{m_startedAt, m_timeoutSeconds, m_timeLimit, m_launches, m_tests, {}};
    if (withEvents)
        copy.events = m_events;
    return copy;
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
        const TestState& test = entry.second;
        text += "  " + pair_label(entry.first.dev, entry.first.item) +
                " pid=" + std::to_string(test.pid) + (test.launched ? " launched" : "") +
                (test.offline  ? " offline"
                 : test.closed ? " closed"
                               : " open");
        if (test.launch != kNoLaunch)
            text += " " + m_launches[test.launch].path;
        text += "\n";
    }
    writeNote(text);
}

void Host::writeNote(const std::string& text) {
    if (m_format == OutputFormat::kText) {
        m_console.out(text);
    } else {
        m_console.err(text);
    }
}

void Host::printEvent(EventView& ev) {
    const TestKey key{ev.dev, ev.item};
    {
        std::lock_guard<std::mutex> guard(m_lock);
        auto it = m_tests.find(key);
        if (it != m_tests.end() && it->second.launch != kNoLaunch)
            ev.program = m_launches[it->second.launch].path;
    }
    const std::string time = local_time_ms();
    const std::string line = text_event_line(time, ev);
    writeOut(m_format == OutputFormat::kJson ? json_event_line(time, ev) : line);
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_tests.count(key) == 0)
        return;  // a send to a pair that never registered
    EventLog& log = m_events[key];
    if (log.text.size() + line.size() <= kMaxEventLog) {
        log.text += line;
    } else {
        ++log.linesLeftOut;
    }
}

int on_server_event(void* user, int32_t test_item, int32_t event_id, const char* dev,
                    int32_t time_sec, int32_t time_usec, const char* data, int32_t data_len) {
    const int64_t sentAtUs = static_cast<int64_t>(time_sec) * 1000000 + time_usec;
    static_cast<Host*>(user)->onEvent(test_item, event_id, dev, sentAtUs, data, data_len);
    return 0;
}

}  // namespace vexahost
