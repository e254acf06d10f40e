// How vexahost learns the exit status of the test programs it launches. The
// library starts programs itself and reaps them without telling anyone, so
// for --junit-xml each program is started through vexahost itself, in a
// hidden mode given as the launcher's prefix command:
//
//   vexahost --report-exit FD INDEX PROGRAM [ARGS...]
//
// That wrapper runs PROGRAM as its child and writes "INDEX pid PID" and then
// "INDEX exit STATUS" (the raw waitpid status) to the inherited pipe FD, and
// exits as the program did.
#ifndef VEXAHOST_EXIT_REPORT_H
#define VEXAHOST_EXIT_REPORT_H

#include <cstddef>
#include <string>

#include "host_session.h"

namespace vexahost {

constexpr char kReportExitOption[] = "--report-exit";

// The wrapper mode; argv[1] is kReportExitOption. Returns the exit status.
int run_and_report(int argc, char** argv);

// The pipe the wrappers write to: the read end stays with the tool, the
// write end is inherited by launched programs.
class ExitReportPipe {
  public:
    ExitReportPipe() = default;
    ~ExitReportPipe();
    ExitReportPipe(const ExitReportPipe&) = delete;
    ExitReportPipe& operator=(const ExitReportPipe&) = delete;

    // False when the pipe or this program's own path cannot be had (a path
    // with a blank cannot be a prefix command); launches then go unwrapped.
    bool open();
    int readFd() const { return m_readFd; }
    // The launcher prefix that starts launch `index` through the wrapper.
    std::string prefixFor(size_t index) const;
    // Reads what is there and hands whole lines to the host. False at EOF.
    bool readReports(Host& host);

  private:
    int m_readFd = -1;
    int m_writeFd = -1;
    std::string m_self;
    std::string m_pending;
};

}  // namespace vexahost

#endif  // VEXAHOST_EXIT_REPORT_H
