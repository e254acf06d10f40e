#include "server/launcher.h"

#include <unistd.h>

#include "comm/string_util.h"

namespace vexa {
namespace {

bool begins_with_quote(const std::string& word) {
    return !word.empty() && word.front() == '"';
}
bool ends_with_quote(const std::string& word) {
    return !word.empty() && word.back() == '"';
}

}  // namespace

std::string build_cmd_args(const std::string& servPath, const char* dValue, const char* extraArgs) {
    std::string args = " -t " + servPath;
    if (dValue != nullptr && *dValue != '\0') {
        args += " -d ";
        args += dValue;
    }
    if (extraArgs != nullptr && *extraArgs != '\0') {
        args += " ";
        args += extraArgs;
    }
    return args;
}

LaunchPlan plan_launch(const std::string& testPath, const std::string& cmdArgs,
                       const std::string& suFilePath, const std::string& suPreCmd) {
    std::string cmd = testPath + cmdArgs;
    if (!suFilePath.empty()) {
        // Only a pre-command brings the quotes; plain "su -c" gets separate words.
        if (!suPreCmd.empty()) {
            cmd = "\"" + suPreCmd + "; " + cmd + "\"";
        }
        cmd = suFilePath + " " + cmd;
    }
    comm::trim(cmd);
    std::vector<std::string> words;
    comm::split_by_string(cmd, " ", words, true);

    LaunchPlan plan;
    plan.program = words.empty() ? std::string() : words[0];
    std::string::size_type slash = plan.program.rfind('/');
    plan.searchPath = slash == std::string::npos;
    plan.argv.push_back(plan.searchPath ? plan.program : plan.program.substr(slash + 1));

    for (size_t i = 1; i < words.size(); ++i) {
        std::string word = words[i];
        if (begins_with_quote(word) && !ends_with_quote(word)) {
            // The empty words of a run of spaces come back as one space each.
            while (i + 1 < words.size() && !ends_with_quote(word)) {
                word += " " + words[++i];
            }
        }
        if (word.empty()) {
            continue;
        }
        if (begins_with_quote(word))
            word.erase(0, 1);
        if (ends_with_quote(word))
            word.pop_back();
        plan.argv.push_back(word);
    }
    return plan;
}

int spawn_test_process(const LaunchPlan& plan, int closeInChild) {
    std::vector<char*> argv;
    argv.reserve(plan.argv.size() + 1);
    for (const std::string& arg : plan.argv) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    const char* program = plan.program.c_str();
    const bool searchPath = plan.searchPath;
    char* const* args = argv.data();

    pid_t pid = vfork();
    if (pid == 0) {
        // The child shares the parent's memory until exec: no allocation, no
        // stdio, no destructors here. close() only touches the child's own
        // descriptor table.
        if (closeInChild >= 0) {
            close(closeInChild);  // NOLINT(clang-analyzer-unix.Vfork)
        }
        if (searchPath) {
            execvp(program, args);  // NOLINT(clang-analyzer-unix.Vfork)
        } else {
            execv(program, args);
        }
        _exit(255);
    }
    return pid;
}

}  // namespace vexa
