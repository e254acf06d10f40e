// Test cases from what the session saw.
#include "verdict.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vexahost {

namespace {

using Registration = const std::pair<const TestKey, TestState>*;

double seconds_between(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

void add_reason(std::string& reasons, const std::string& reason) {
    reasons += (reasons.empty() ? "" : "; ") + reason;
}

// How the program ended, or "" when that is not known.
std::string exit_text(const LaunchRecord& launch) {
    if (launch.startError != 0)
        return std::string("could not be started: ") + std::strerror(launch.startError);
    if (!launch.exited)
        return "";
    if (WIFEXITED(launch.waitStatus))
        return "exited with status " + std::to_string(WEXITSTATUS(launch.waitStatus));
    if (WIFSIGNALED(launch.waitStatus))
        return "killed by signal " + std::to_string(WTERMSIG(launch.waitStatus));
    return "";
}

// The registrations' own failures, their event lines, and when the last ended.
void judge_registrations(TestCase& tc, const std::vector<Registration>& regs,
                         const SessionRecord& session, bool final, Clock::time_point now,
                         Clock::time_point& last) {
    for (Registration reg : regs) {
        const TestState& state = reg->second;
        // A test that timed out goes offline when the tool ends it.
        if (state.offline && !state.timedOut) {
            add_reason(tc.reason, pair_label(reg->first.dev, reg->first.item) +
                                      " went offline (9006) without closing");
        } else if (!state.closed && !state.timedOut && final) {
            add_reason(tc.reason, pair_label(reg->first.dev, reg->first.item) +
                                      " was still registered when the host stopped");
        }
        last = std::max(last, state.closed ? state.endedAt : now);
        auto log = session.events.find(reg->first);
        if (log != session.events.end()) {
            tc.output += log->second.text;
            if (log->second.linesLeftOut > 0)
                tc.output += "... " + std::to_string(log->second.linesLeftOut) + " more lines\n";
        }
    }
}

bool all_closed(const std::vector<Registration>& regs) {
    return !regs.empty() && std::all_of(regs.begin(), regs.end(), [](Registration reg) {
        return reg->second.closed && !reg->second.offline;
    });
}

void count(Verdict& verdict, TestCase tc, bool final, bool done) {
    if (tc.outcome == Outcome::kSkipped) {
        verdict.skipped += final ? 1 : 0;
    } else if (!tc.reason.empty()) {
        tc.outcome = Outcome::kFailed;
        ++verdict.failed;
    } else if (final || done) {
        tc.outcome = Outcome::kPassed;
        ++verdict.passed;
    }
    verdict.cases.push_back(std::move(tc));
}

}  // namespace

std::string timeout_reason(double seconds, const std::string& note) {
    char text[64];
    std::snprintf(text, sizeof(text), "timed out after %g s", seconds);
    return text + (note.empty() ? "" : " (" + note + ")");
}

namespace {

TestCase judge_launch(const SessionRecord& session, size_t index,
                      const std::vector<Registration>& inOrder, bool final, Clock::time_point now,
                      bool& done) {
    const LaunchRecord& launch = session.launches[index];
    std::vector<Registration> regs;
    std::copy_if(inOrder.begin(), inOrder.end(), std::back_inserter(regs),
                 [index](Registration reg) { return reg->second.launch == index; });
    TestCase tc;
    tc.name = launch.path;
    for (size_t r = 0; r < regs.size(); ++r)
        tc.name += (r == 0 ? " " : ", ") + pair_label(regs[r]->first.dev, regs[r]->first.item);
    if (regs.empty() && !launch.dValue.empty())
        tc.name += " -d " + launch.dValue;

    if (launch.timedOut)
        add_reason(tc.reason, timeout_reason(session.timeoutSeconds, launch.endNote));
    if (launch.startError == 0 && regs.empty() && final)
        add_reason(tc.reason, "never registered");
    Clock::time_point last = launch.startedAt;
    judge_registrations(tc, regs, session, final, now, last);
    const std::string ended = exit_text(launch);
    const bool exitedCleanly =
        launch.exited && WIFEXITED(launch.waitStatus) && WEXITSTATUS(launch.waitStatus) == 0;
    // The tool's own kill of a test that timed out is no news.
    if (launch.startError != 0 || (launch.exited && !exitedCleanly && !launch.timedOut))
        add_reason(tc.reason, ended);
    if (!ended.empty())
        tc.output += "program " + ended + "\n";
    if (launch.exited) {
        last = std::max(last, launch.exitedAt);
    } else if (regs.empty()) {
        last = now;
    }
    if (launch.timedOut)
        last = std::min(last, launch.startedAt + session.timeLimit);
    tc.seconds = seconds_between(launch.startedAt, last);
    done = all_closed(regs) && (!launch.reportsExit || launch.exited);
    return tc;
}

// A pair no launch owns.
TestCase judge_stray(const SessionRecord& session, Registration reg, bool final,
                     Clock::time_point now) {
    TestCase tc;
    tc.name = pair_label(reg->first.dev, reg->first.item);
    tc.outcome = Outcome::kSkipped;
    add_reason(tc.reason, "registered without a launch of this run");
    if (reg->second.timedOut)
        add_reason(tc.reason, timeout_reason(session.timeoutSeconds, ""));
    Clock::time_point last = reg->second.registeredAt;
    judge_registrations(tc, {reg}, session, final, now, last);
    tc.seconds = seconds_between(reg->second.registeredAt, last);
    return tc;
}

}  // namespace

Verdict judge_session(const SessionRecord& session, bool final) {
    std::vector<Registration> inOrder;
    for (const auto& entry : session.tests)
        inOrder.push_back(&entry);
    std::sort(inOrder.begin(), inOrder.end(),
              [](Registration a, Registration b) { return a->second.order < b->second.order; });
    const Clock::time_point now = Clock::now();
    Verdict verdict;
    for (size_t i = 0; i < session.launches.size(); ++i) {
        bool done = false;
        TestCase tc = judge_launch(session, i, inOrder, final, now, done);
        count(verdict, std::move(tc), final, done);
    }
    for (Registration reg : inOrder) {
        if (reg->second.launch == kNoLaunch)
            count(verdict, judge_stray(session, reg, final, now), final, false);
    }
    return verdict;
}

std::string progress_text(const SessionRecord& session, const Verdict& verdict) {
    size_t closed = 0;
    for (const auto& entry : session.tests)
        closed += entry.second.closed && !entry.second.offline ? 1 : 0;
    return std::to_string(session.launches.size()) + " launched, " +
           std::to_string(session.tests.size()) + " registered, " + std::to_string(closed) +
           " closed, " + std::to_string(verdict.failed) + " failed";
}

}  // namespace vexahost
