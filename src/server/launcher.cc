#include "server/launcher.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "comm/logger.h"
#include "comm/string_util.h"
#include "core/launch_token.h"
#include "server/so_loader.h"

extern char** environ;

namespace vexa {
namespace {

bool begins_with_quote(const std::string& word) {
    return !word.empty() && word.front() == '"';
}
bool ends_with_quote(const std::string& word) {
    return !word.empty() && word.back() == '"';
}

// All a child after vfork needs, made before it.
struct ChildStart {
    const char* program;
    bool searchPath;
    char* const* argv;
    char* const* envp;
    int closeInChild;
    int report;  // the status pipe's end for the exec's errno, -1 for none
};

// The child shares the parent's memory until exec: no allocation, no stdio,
// no destructors here. close() and write() only touch the child's own
// descriptors.
[[noreturn]] void exec_child(const ChildStart& start) {
    if (start.closeInChild >= 0) {
        close(start.closeInChild);
    }
    if (start.searchPath) {
        execvpe(start.program, start.argv, start.envp);
    } else {
        execve(start.program, start.argv, start.envp);
    }
    const int error = errno;
    if (start.report >= 0) {
        [[maybe_unused]] const ssize_t written = write(start.report, &error, sizeof(error));
    }
    _exit(255);
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

std::vector<std::string> child_environment(const std::string& token) {
    std::vector<std::string> environment;
    const std::string name = std::string(kLaunchTokenVariable) + "=";
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        // A token this process was itself launched with is not passed on.
        if (std::strncmp(*entry, name.c_str(), name.size()) != 0) {
            environment.emplace_back(*entry);
        }
    }
    if (!token.empty()) {
        environment.push_back(name + token);
    }
    return environment;
}

int spawn_test_process(const LaunchPlan& plan, const std::vector<std::string>& environment,
                       int closeInChild, int* execError) {
    std::vector<char*> argv;
    argv.reserve(plan.argv.size() + 1);
    for (const std::string& arg : plan.argv) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    envp.reserve(environment.size() + 1);
    for (const std::string& entry : environment) {
        envp.push_back(const_cast<char*>(entry.c_str()));
    }
    envp.push_back(nullptr);
    // The child writes its exec's errno here; a successful exec closes it.
    int status[2] = {-1, -1};
    if (pipe2(status, O_CLOEXEC) != 0) {
        status[0] = status[1] = -1;
    }
    const ChildStart start{plan.program.c_str(), plan.searchPath, argv.data(),
                           envp.data(),          closeInChild,    status[1]};

    pid_t pid = vfork();
    if (pid == 0) {
        exec_child(start);  // NOLINT(clang-analyzer-unix.Vfork)
    }
    *execError = 0;
    if (status[1] >= 0) {
        close(status[1]);
        // vfork returns once the child has exec'd or ended, so this never waits.
        int error = 0;
        ssize_t got;
        do {
            got = read(status[0], &error, sizeof(error));
        } while (got < 0 && errno == EINTR);
        if (pid > 0 && got == static_cast<ssize_t>(sizeof(error))) {
            *execError = error;
        }
        close(status[0]);
    }
    return pid;
}

TestLauncher::TestLauncher(const std::string& servPath, comm::Logger* logger)
    : m_servPath(servPath), m_logger(logger) {}

void TestLauncher::setSuFilePath(const char* suFilePath, const char* suPreCmd) {
    if (suFilePath == nullptr) {
        return;
    }
    const char* preCmd = suPreCmd != nullptr ? suPreCmd : "";
    m_logger->writeFormat("set su_file_path:%s su_pre_cmd:%s", suFilePath, preCmd);
    comm::LockGuard guard(m_lock);
    m_suFilePath = suFilePath;
    m_suPreCmd = preCmd;
}

bool TestLauncher::run(const char* testPath, const char* dValue, const char* extraArgs,
                       int listenSocket) {
    const std::string path = testPath != nullptr ? testPath : "";
    std::string suFilePath;
    std::string suPreCmd;
    {
        comm::LockGuard guard(m_lock);
        suFilePath = m_suFilePath;
        suPreCmd = m_suPreCmd;
    }
    const std::string cmdArgs = build_cmd_args(m_servPath, dValue, extraArgs);
    m_logger->writeFormat("run_test %s %s", path.c_str(), cmdArgs.c_str());
    // Never logged and never in this process's own environment.
    const std::string token = m_tokens.issue();
    if (token.empty()) {
        // A test without its token could be taken over, or could not register.
        m_logger->writeFormat("run_test: no launch token, the random source failed: %s%s",
                              std::strerror(errno),
                              m_withoutToken ? "" : "; the test is not started");
        if (!m_withoutToken) {
            return false;
        }
    }

    if (comm::ends_with(path, ".so")) {
        m_testSoLoaded = true;
        set_in_process_token(m_servPath, token);
        SoLoader::load_test_so(path, dValue, extraArgs, m_servPath, m_logger);
        return false;
    }
    const LaunchPlan plan = plan_launch(path, cmdArgs, suFilePath, suPreCmd);
    int execError = 0;
    const int pid = spawn_test_process(plan, child_environment(token), listenSocket, &execError);
    if (pid < 0) {
        m_logger->writeFormat("run_test: fork failed: %s", std::strerror(errno));
    } else if (execError != 0) {
        m_logger->writeFormat("run_test: cannot execute %s: %s", plan.program.c_str(),
                              std::strerror(execError));
    }
    if (pid > 0) {
        comm::LockGuard guard(m_lock);
        m_children.push_back(pid);
        m_childCount = m_children.size();
    }
    m_logger->writeFormat("run_test ok, ppid=%d pthreadid=%lu", static_cast<int>(getpid()),
                          static_cast<unsigned long>(pthread_self()));
    m_lastRunMs = comm::tick_ms();
    return pid > 0;
}

void TestLauncher::settle() const {
    constexpr uint32_t kSettleMs = 500;
    if (comm::tick_ms() - m_lastRunMs.load() > kSettleMs - 1) {
        return;
    }
    m_logger->writeLine("delay 500ms as just ipc_run_test");
    comm::sleep_ms(kSettleMs);
}

void TestLauncher::reap() {
    if (m_childCount.load() == 0) {
        return;
    }
    comm::LockGuard guard(m_lock);
    for (auto child = m_children.begin(); child != m_children.end();) {
        const pid_t pid = waitpid(*child, nullptr, WNOHANG);
        if (pid == 0) {
            ++child;
            continue;
        }
        if (pid > 0) {
            m_logger->writeFormat("waitpid pid=%d", static_cast<int>(pid));
        }
        // Reaped, or reaped by someone else (ECHILD): forgotten either way.
        child = m_children.erase(child);
    }
    m_childCount = m_children.size();
}

}  // namespace vexa
