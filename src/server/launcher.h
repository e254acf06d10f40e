// The tests a server starts: programs started as child processes (through the
// su prefix or directly) and test libraries loaded into this process. Turns a
// test path and the server's settings into the program and argument vector a
// test process is started with, gives every launch a fresh launch token, and
// reaps exactly the programs it started.
#ifndef VEXA_SERVER_LAUNCHER_H
#define VEXA_SERVER_LAUNCHER_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "comm/thread_util.h"
#include "server/registration_policy.h"

namespace comm {
class Logger;
}

namespace vexa {

struct LaunchPlan {
    std::string program;            // the first word of the command
    bool searchPath = false;        // no '/' in it: looked up in PATH
    std::vector<std::string> argv;  // argv[0] is the program's file name
};

// " -t <servPath>", then " -d <dValue>" and " <extraArgs>" when given and not empty.
std::string build_cmd_args(const std::string& servPath, const char* dValue, const char* extraArgs);

// The command is testPath + cmdArgs; with a su prefix it becomes
// `su_file_path cmd`, or `su_file_path "su_pre_cmd; cmd"` when a pre-command is
// set (the quotes only then). The text is split at single spaces; a word that
// opens a double quote is joined with the following ones until one closes it,
// keeping the spacing inside, and one quote is taken off each end.
LaunchPlan plan_launch(const std::string& testPath, const std::string& cmdArgs,
                       const std::string& suFilePath, const std::string& suPreCmd);

// This process's environment with VEXA_LAUNCH_TOKEN set to `token` (left out
// when the token is empty), as "NAME=value" entries.
std::vector<std::string> child_environment(const std::string& token);

// vfork and exec with `environment`. Everything is built before the fork: the
// child only closes `closeInChild` (when >= 0), execs and, when that fails,
// reports errno on a close-on-exec pipe and ends with _exit(255). The child's
// pid, or -1 when vfork fails; *execError is the exec's errno, 0 when the
// program was started.
int spawn_test_process(const LaunchPlan& plan, const std::vector<std::string>& environment,
                       int closeInChild, int* execError);

class TestLauncher {
  public:
    // servPath: the server's address, which every test receives.
    TestLauncher(const std::string& servPath, comm::Logger* logger);

    // Whether a test may be started without a launch token (which only the
    // open policy does not ask for). Default: no.
    void allowWithoutToken(bool allowed) { m_withoutToken = allowed; }

    // The su prefix and pre-command of later launches (default "su -c", "").
    void setSuFilePath(const char* suFilePath, const char* suPreCmd) EXCLUDES(m_lock);
    // Starts one test, with a fresh token: a ".so" path is loaded into this
    // process; anything else is started as a program, whose failure to start
    // is logged with the system's reason. Without a token (no random source)
    // nothing is started unless allowWithoutToken. True when a program was
    // started (it is then to be reaped).
    bool run(const char* testPath, const char* dValue, const char* extraArgs, int listenSocket)
        EXCLUDES(m_lock);
    // Collects the programs it started that have ended, without waiting;
    // other children of the process are left alone.
    void reap() EXCLUDES(m_lock);
    bool hasChildren() const { return m_childCount.load() != 0; }

    bool testSoLoaded() const { return m_testSoLoaded.load(); }
    // Within 500 ms of the last program launch, sleeps 500 ms (a settling
    // delay for the host, not a termination); otherwise returns at once.
    void settle() const;
    const LaunchTokens& tokens() const { return m_tokens; }

  private:
    const std::string m_servPath;
    comm::Logger* const m_logger;
    LaunchTokens m_tokens;
    comm::Lock m_lock;
    std::string m_suFilePath GUARDED_BY(m_lock) = "su -c";
    std::string m_suPreCmd GUARDED_BY(m_lock);
    std::vector<pid_t> m_children GUARDED_BY(m_lock);  // launched, not reaped
    std::atomic<size_t> m_childCount{0};               // m_children.size()
    std::atomic<bool> m_testSoLoaded{false};
    std::atomic<bool> m_withoutToken{false};
    std::atomic<uint32_t> m_lastRunMs{0};
};

}  // namespace vexa

#endif  // VEXA_SERVER_LAUNCHER_H
