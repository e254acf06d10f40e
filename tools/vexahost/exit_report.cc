// The exit-reporting wrapper and the tool's end of its pipe.
#include "exit_report.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace vexahost {

namespace {

constexpr int kExitNotRun = 255;  // what the library's launcher gives a failed exec

// True when this program, started as a new process, runs (it prints its
// version there). Under a user-mode emulator a binary for another machine
// cannot be started directly, and the wrapper could not be either.
bool can_start_itself(const std::string& self) {
    pid_t probe = fork();
    if (probe == 0) {
        int null = ::open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execl(self.c_str(), self.c_str(), "--version", static_cast<char*>(nullptr));
        _exit(kExitNotRun);
    }
    int status = 0;
    while (probe > 0 && waitpid(probe, &status, 0) < 0) {
        if (errno != EINTR)
            return false;
    }
    return probe > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int run_and_report(int argc, char** argv) {
    if (argc < 5)
        return kExitNotRun;
    int fd = std::atoi(argv[2]);
    const char* index = argv[3];
    // The test itself gets nothing of ours; a tool that went away must not
    // kill the wrapper while it reports.
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    signal(SIGPIPE, SIG_IGN);

    // The argument vector as the launcher would have built it: element 0 is
    // the program's name after its last '/', and only a name is looked up.
    const char* program = argv[4];
    const char* slash = std::strrchr(program, '/');
    std::vector<char*> args;
    args.push_back(const_cast<char*>(slash != nullptr ? slash + 1 : program));
    for (int i = 5; i < argc; ++i)
        args.push_back(argv[i]);
    args.push_back(nullptr);

    // The child waits for the gate to close: the tool then has the child's
    // pid before the program can register with it.
    int gate[2] = {-1, -1};
    if (pipe2(gate, O_CLOEXEC) != 0)
        gate[0] = gate[1] = -1;
    pid_t child = fork();
    if (child == 0) {
        if (gate[1] >= 0) {
            close(gate[1]);
            char byte;
            while (read(gate[0], &byte, 1) < 0 && errno == EINTR) {
            }
        }
        if (slash != nullptr) {
            execv(program, args.data());
        } else {
            execvp(program, args.data());
        }
        dprintf(fd, "%s error %d\n", index, errno);
        _exit(kExitNotRun);
    }
    if (gate[0] >= 0)
        close(gate[0]);
    if (child < 0) {
        dprintf(fd, "%s error %d\n%s exit %d\n", index, errno, index, kExitNotRun << 8);
        return kExitNotRun;
    }
    dprintf(fd, "%s pid %d\n", index, static_cast<int>(child));
    if (gate[1] >= 0)
        close(gate[1]);
    // Ctrl-C reaches the whole process group; the test decides how to end.
    signal(SIGINT, SIG_IGN);
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return kExitNotRun;
    }
    dprintf(fd, "%s exit %d\n", index, status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

ExitReportPipe::~ExitReportPipe() {
    if (m_readFd >= 0)
        close(m_readFd);
    if (m_writeFd >= 0)
        close(m_writeFd);
}

std::string ExitReportPipe::open() {
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0)
        return "its own path cannot be read";
    m_self.assign(self, static_cast<size_t>(n));
    if (m_self.find_first_of(" \t") != std::string::npos)
        return "its path holds a blank";
    if (!can_start_itself(m_self))
        return "it cannot start itself here";
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return std::strerror(errno);
    m_readFd = fds[0];
    m_writeFd = fds[1];
    // Only the write end crosses into the launched wrappers.
    fcntl(m_writeFd, F_SETFD, 0);
    fcntl(m_readFd, F_SETFL, O_NONBLOCK);
    return "";
}

std::string ExitReportPipe::prefixFor(size_t index, const std::string& suPrefix) const {
    return m_self + " " + kReportExitOption + " " + std::to_string(m_writeFd) + " " +
           std::to_string(index) + (suPrefix.empty() ? "" : " " + suPrefix);
}

bool ExitReportPipe::readReports(Host& host) {
    std::lock_guard<std::mutex> guard(m_readLock);
    char buf[512];
    ssize_t n;
    while ((n = read(m_readFd, buf, sizeof(buf))) > 0)
        m_pending.append(buf, static_cast<size_t>(n));
    if (n == 0)
        return false;
    if (errno != EAGAIN && errno != EINTR)
        return false;
    size_t nl;
    while ((nl = m_pending.find('\n')) != std::string::npos) {
        unsigned long index = 0;
        char kind[8] = {};
        int value = 0;
        if (std::sscanf(m_pending.substr(0, nl).c_str(), "%lu %7s %d", &index, kind, &value) == 3) {
            if (std::strcmp(kind, "pid") == 0) {
                host.noteChildPid(index, value);
            } else if (std::strcmp(kind, "error") == 0) {
                host.noteStartError(index, value);
            } else if (std::strcmp(kind, "exit") == 0) {
                host.noteExit(index, value);
            }
        }
        m_pending.erase(0, nl + 1);
    }
    return true;
}

}  // namespace vexahost
