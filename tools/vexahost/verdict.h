// Which tests passed and why the others failed: one verdict that the exit
// status, the summary, the status line and the JUnit report all read.
//
// Each launch is one test case. A test passes when what it registered closed
// in order (9005) and its program, where its exit is known, exited with
// status 0. It fails when it could not be started, never registered, went
// offline (9006), timed out, was still registered when the tool stopped, or
// exited otherwise. A pair that registered but belongs to no launch (a client
// started by hand, say) is no test of this run: it gets a case of its own,
// skipped, that tells what became of it.
#ifndef VEXAHOST_VERDICT_H
#define VEXAHOST_VERDICT_H

#include <cstddef>
#include <string>
#include <vector>

#include "host_session.h"

namespace vexahost {

enum class Outcome { kRunning, kPassed, kFailed, kSkipped };

struct TestCase {
    std::string name;  // the program as given and its pairs ("PATH dev=D item=N")
    Outcome outcome = Outcome::kRunning;
    std::string reason;  // why it failed, or what became of a skipped pair ("; " between)
    double seconds = 0;
    std::string output;  // its event lines and how its program ended
};

struct Verdict {
    std::vector<TestCase> cases;
    size_t passed = 0;
    size_t failed = 0;
    size_t skipped = 0;
};

// With `final` the run is over and a test still running fails; without it
// (while the run goes on) only what has already gone wrong counts.
Verdict judge_session(const SessionRecord& session, bool final);

// "timed out after N s", and the note in parentheses when there is one.
std::string timeout_reason(double seconds, const std::string& note);

// "N launched, N registered, N closed, N failed": the status line's counts.
std::string progress_text(const SessionRecord& session, const Verdict& verdict);

}  // namespace vexahost

#endif  // VEXAHOST_VERDICT_H
