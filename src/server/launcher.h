// Turns a test path and the server's settings into the program and argument
// vector a test process is started with, and starts it.
#ifndef VEXA_SERVER_LAUNCHER_H
#define VEXA_SERVER_LAUNCHER_H

#include <string>
#include <vector>

namespace vexa {

struct LaunchPlan {
    std::string program;            // the first word of the command
    bool searchPath = false;        // no '/' in it: execvp looks it up in PATH
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

// vfork and exec. Everything is built before the fork: the child only closes
// `closeInChild` (when >= 0), calls execv/execvp and ends with _exit(255).
// The child's pid, or -1 when vfork fails.
int spawn_test_process(const LaunchPlan& plan, int closeInChild);

}  // namespace vexa

#endif  // VEXA_SERVER_LAUNCHER_H
