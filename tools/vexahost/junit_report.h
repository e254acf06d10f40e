// The JUnit XML report of --junit-xml: one test case per launched test.
#ifndef VEXAHOST_JUNIT_REPORT_H
#define VEXAHOST_JUNIT_REPORT_H

#include <cstdint>
#include <string>

#include "host_session.h"

namespace vexahost {

// Writes the report of `session` to `path`. A launched test passes when what
// it registered closed in order and it did not exit with a non-zero status;
// it fails when it never registered, went offline, was still registered when
// the tool stopped, or exited otherwise. Registrations are matched to launches
// by the pid the wrapper reported, then (the tool's own pid) to test
// libraries, then in order to programs; one that matches no launch gets a
// test case of its own. Returns false when the file cannot be written.
bool write_junit_report(const std::string& path, const SessionRecord& session, int32_t ownPid);

}  // namespace vexahost

#endif  // VEXAHOST_JUNIT_REPORT_H
