// The JUnit XML report of --junit-xml: one test case per verdict's case,
// under one suite with the run's start time and this machine's name.
#ifndef VEXAHOST_JUNIT_REPORT_H
#define VEXAHOST_JUNIT_REPORT_H

#include <ctime>
#include <string>

#include "verdict.h"

namespace vexahost {

// Writes the report to `path`: the suite "vexahost" with its timestamp (the
// local time `started`, ISO 8601 to the second), hostname and `seconds`; each
// case with its time, a failure whose message and text are the reasons (or,
// for a pair no launch owns, skipped with what became of it), and its event
// lines in system-out. Returns false when the file cannot be
// written (errno tells why).
bool write_junit_report(const std::string& path, const Verdict& verdict, time_t started,
                        double seconds);

}  // namespace vexahost

#endif  // VEXAHOST_JUNIT_REPORT_H
