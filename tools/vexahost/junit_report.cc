// Builds and writes the JUnit XML report.
#include "junit_report.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace vexahost {

namespace {

struct TestCase {
    std::string name;
    double seconds = 0;
    std::string failure;  // empty for a pass
    std::string details;  // what registered, one line each
};

std::string xml_text(const std::string& text) {
    std::string out;
    for (char c : text) {
        unsigned char ch = static_cast<unsigned char>(c);
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                // XML 1.0 has no place for other control characters.
                out += (ch < 0x20 && c != '\n' && c != '\t') ? '?' : c;
        }
    }
    return out;
}

double seconds_between(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

std::string exit_failure(const LaunchRecord& launch) {
    if (!launch.exited)
        return "";
    if (WIFEXITED(launch.waitStatus) && WEXITSTATUS(launch.waitStatus) != 0)
        return "exited with status " + std::to_string(WEXITSTATUS(launch.waitStatus));
    if (WIFSIGNALED(launch.waitStatus))
        return "killed by signal " + std::to_string(WTERMSIG(launch.waitStatus));
    return "";
}

// "dev=DEV item=ITEM": how a registration is named in the report.
std::string registration_label(const TestKey& key) {
    return "dev=" + key.dev + " item=" + std::to_string(key.item);
}

// Fills the verdict of one test case from the registrations that belong to it.
void judge(TestCase& tc, const std::vector<const std::pair<const TestKey, TestState>*>& regs,
           Clock::time_point start, Clock::time_point end, const LaunchRecord* launch) {
    Clock::time_point last = start;
    std::string failure = regs.empty() ? "never registered" : "";
    for (const auto* reg : regs) {
        const TestState& state = reg->second;
        const std::string what = registration_label(reg->first);
        tc.details += what + " pid=" + std::to_string(state.pid) +
                      (state.offline  ? " offline\n"
                       : state.closed ? " closed\n"
                                      : " open\n");
        Clock::time_point ended = state.closed ? state.endedAt : end;
        last = std::max(last, ended);
        if (failure.empty() && state.offline) {
            failure = what + " went offline (9006) without closing";
        } else if (failure.empty() && !state.closed) {
            failure = what + " was still registered when the host stopped";
        }
    }
    if (launch != nullptr) {
        std::string exited = exit_failure(*launch);
        if (!exited.empty())
            failure = failure.empty() ? exited : failure + "; " + exited;
        if (launch->exited)
            last = std::max(last, launch->exitedAt);
    }
    tc.failure = failure;
    tc.seconds = seconds_between(start, last);
}

}  // namespace

bool write_junit_report(const std::string& path, const SessionRecord& session, int32_t ownPid) {
    using Reg = const std::pair<const TestKey, TestState>*;
    std::vector<Reg> inOrder;
    for (const auto& entry : session.tests)
        inOrder.push_back(&entry);
    std::sort(inOrder.begin(), inOrder.end(),
              [](Reg a, Reg b) { return a->second.order < b->second.order; });

    const std::vector<LaunchRecord>& launches = session.launches;
    std::vector<std::vector<Reg>> byLaunch(launches.size());
    std::vector<Reg> unmatched;
    for (Reg reg : inOrder) {
        int32_t pid = reg->second.pid;
        size_t found = launches.size();
        for (size_t i = 0; i < launches.size() && found == launches.size(); ++i) {
            if (launches[i].childPid != 0 && launches[i].childPid == pid)
                found = i;
        }
        // A test library runs in this process; a program started through su
        // has a pid nobody told us.
        for (size_t i = 0; i < launches.size() && found == launches.size(); ++i) {
            bool candidate =
                pid == ownPid ? launches[i].isSo : !launches[i].isSo && launches[i].childPid == 0;
            if (candidate && byLaunch[i].empty())
                found = i;
        }
        if (found < launches.size()) {
            byLaunch[found].push_back(reg);
        } else {
            unmatched.push_back(reg);
        }
    }

    Clock::time_point end = Clock::now();
    std::vector<TestCase> cases;
    for (size_t i = 0; i < launches.size(); ++i) {
        TestCase tc;
        tc.name = launches[i].path;
        judge(tc, byLaunch[i], launches[i].startedAt, end, &launches[i]);
        cases.push_back(tc);
    }
    for (Reg reg : unmatched) {
        TestCase tc;
        tc.name = registration_label(reg->first);
        judge(tc, {reg}, reg->second.registeredAt, end, nullptr);
        cases.push_back(tc);
    }

    size_t failures = 0;
    for (const TestCase& tc : cases)
        failures += tc.failure.empty() ? 0 : 1;
    FILE* out = std::fopen(path.c_str(), "w");
    if (out == nullptr)
        return false;
    std::fprintf(out, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
    std::fprintf(out,
                 "<testsuite name=\"vexahost\" tests=\"%zu\" failures=\"%zu\" time=\"%.3f\">\n",
                 cases.size(), failures, seconds_between(session.startedAt, end));
    for (const TestCase& tc : cases) {
        std::fprintf(out, "  <testcase classname=\"vexahost\" name=\"%s\" time=\"%.3f\">\n",
                     xml_text(tc.name).c_str(), tc.seconds);
        if (!tc.failure.empty())
            std::fprintf(out, "    <failure message=\"%s\"/>\n", xml_text(tc.failure).c_str());
        if (!tc.details.empty())
            std::fprintf(out, "    <system-out>%s</system-out>\n", xml_text(tc.details).c_str());
        std::fprintf(out, "  </testcase>\n");
    }
    std::fprintf(out, "</testsuite>\n");
    return std::fclose(out) == 0;
}

}  // namespace vexahost
