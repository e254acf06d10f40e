// How vexahost learns the exit status of the test programs it launches. The
// library starts programs itself and reaps them without telling anyone, so
// each program is started through vexahost itself, in a hidden mode given as
// the launcher's prefix command, in front of the su prefix when there is one:
//
//   vexahost --report-exit FD INDEX [su -c] PROGRAM [ARGS...]
//
// That wrapper runs the rest of its command line as its child and writes
// "INDEX pid PID" before that child can run, "INDEX error ERRNO" when it
// cannot be executed, and "INDEX exit STATUS" (the raw waitpid status) to the
// inherited pipe FD, and exits as the child did. Through su, the child is su
// and its status is the one su passes back (most pass the command's own).
#ifndef VEXAHOST_EXIT_REPORT_H
#define VEXAHOST_EXIT_REPORT_H

#include <cstddef>
#include <mutex>
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

    // Returns "" when launches can go through the wrapper, else why not:
    // this program's path cannot be had or holds a blank (it could not be a
    // prefix command), it cannot start itself (as under a user-mode
    // emulator), or there is no pipe. Launches then go unwrapped.
    std::string open();
    int readFd() const { return m_readFd; }
    // The launcher prefix that starts launch `index` through the wrapper and
    // then through `suPrefix`, when that is not empty.
    std::string prefixFor(size_t index, const std::string& suPrefix) const;
    // Reads what is there and hands whole lines to the host. False at EOF.
    // Safe from any thread.
    bool readReports(Host& host);

  private:
    int m_readFd = -1;
    int m_writeFd = -1;
    std::string m_self;
    std::mutex m_readLock;  // guards m_pending and the reads
    std::string m_pending;
};

}  // namespace vexahost

#endif  // VEXAHOST_EXIT_REPORT_H
