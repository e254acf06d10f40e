#include "support/test_support.h"

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace vexa_test {
namespace {

std::string g_root;  // ends with "/"

std::string temp_parent() {
    if (!g_root.empty())
        return g_root;
    const char* tmp = std::getenv("TMPDIR");
    std::string parent = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
    return parent.back() == '/' ? parent : parent + "/";
}

// Removes a directory tree, or a file.
void remove_tree(const std::string& path) {
    if (path.empty() || path == "/")
        return;
    nftw(
        path.c_str(),
        [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

}  // namespace

void set_temp_root(const std::string& dir) {
    g_root = dir;
}

std::string endpoint_dir() {
    return g_root + "vexa/";
}

TempDir::TempDir(const std::string& prefix) {
    std::string pattern = temp_parent() + prefix + "XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
        std::perror(pattern.c_str());
        std::abort();
    }
    m_path = pattern + "/";
}

TempDir::~TempDir() {
    if (std::getenv("VEXA_KEEP_TEST_DIRS") != nullptr) {
        std::fprintf(stderr, "test files kept in %s\n", m_path.c_str());
        return;
    }
    remove_tree(m_path);
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : m_name(name) {
    const char* old = std::getenv(name);
    m_hadOld = old != nullptr;
    m_old = m_hadOld ? old : "";
    if (value != nullptr) {
        setenv(name, value, 1);
    } else {
        unsetenv(name);
    }
}

ScopedEnv::~ScopedEnv() {
    if (m_hadOld) {
        setenv(m_name.c_str(), m_old.c_str(), 1);
    } else {
        unsetenv(m_name.c_str());
    }
}

bool make_dirs(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        mkdir(path.substr(0, slash).c_str(), 0755);
    }
    mkdir(path.c_str(), 0755);
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> read_lines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path, std::ios::binary);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

bool file_exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

std::vector<std::string> log_texts(const std::string& path) {
    // "2016/03/07 14:05:09.042 " is 24 characters.
    std::vector<std::string> texts = read_lines(path);
    for (std::string& text : texts)
        text.erase(0, 24);
    return texts;
}

int count_log_text(const std::string& path, const std::string& text) {
    const std::vector<std::string> texts = log_texts(path);
    return static_cast<int>(std::count(texts.begin(), texts.end(), text));
}

int count_log_prefix(const std::string& path, const std::string& prefix) {
    const std::vector<std::string> texts = log_texts(path);
    return static_cast<int>(std::count_if(texts.begin(), texts.end(), [&](const std::string& t) {
        return t.compare(0, prefix.size(), prefix) == 0;
    }));
}

bool log_has(const std::string& path, const std::string& text) {
    return count_log_text(path, text) > 0;
}

bool wait_log(const std::string& path, const std::string& text, int timeoutMs) {
    return wait_until([&] { return log_has(path, text); }, timeoutMs);
}

bool in_order(const std::vector<std::string>& lines, const std::vector<std::string>& expected) {
    size_t next = 0;
    for (const std::string& line : lines)
        next += next < expected.size() && line == expected[next];
    return next == expected.size();
}

bool has_shape(const std::string& text, const std::string& shape) {
    if (text.size() != shape.size())
        return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (shape[i] == '9' ? !digit : text[i] != shape[i])
            return false;
    }
    return true;
}

bool wait_until(const std::function<bool()>& condition, int timeoutMs) {
    const long long deadline = monotonic_ms() + timeoutMs;
    while (!condition()) {
        if (monotonic_ms() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

long long monotonic_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::vector<std::string> words(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string word; in >> word;)
        out.push_back(word);
    return out;
}

Child::Child(const std::vector<std::string>& argv, const std::string& dir,
             const std::vector<std::string>& env) {
    // Never reused: a spawn may return before the child has opened (and
    // emptied) its files, as it does under an emulator.
    static int count = 0;
    const std::string n = std::to_string(++count);
    m_out = dir + "out" + n + ".txt";
    m_err = dir + "err" + n + ".txt";
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return;
    m_input = fds[1];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, m_out.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_err.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<std::string> entries = env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        const std::string name = entry.substr(0, entry.find('=') + 1);
        if (std::none_of(env.begin(), env.end(),
                         [&](const std::string& own) { return own.rfind(name, 0) == 0; }))
            entries.push_back(entry);
    }
    std::vector<char*> args;
    std::vector<char*> envp;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    for (std::string& e : entries)
        envp.push_back(&e[0]);
    args.push_back(nullptr);
    envp.push_back(nullptr);
    if (posix_spawn(&m_pid, args[0], &actions, nullptr, args.data(), envp.data()) != 0)
        m_pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[0]);
}

Child::~Child() {
    closeInput();
    kill();
}

bool Child::type(const std::string& text) {
    return write(m_input, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void Child::closeInput() {
    if (m_input >= 0)
        close(m_input);
    m_input = -1;
}

bool Child::waitForOutput(const std::string& needle, int timeoutMs) const {
    return wait_until([&] { return out().find(needle) != std::string::npos; }, timeoutMs);
}

int Child::wait(int timeoutMs) {
    int status = 0;
    pid_t reaped = 0;
    if (m_pid <= 0 ||
        !wait_until([&] { return (reaped = waitpid(m_pid, &status, WNOHANG)) != 0; }, timeoutMs)) {
        kill();
        return -1;
    }
    m_pid = -1;
    return reaped > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Child::kill() {
    if (m_pid <= 0)
        return -1;
    ::kill(m_pid, SIGKILL);
    int status = 0;
    const pid_t reaped = waitpid(m_pid, &status, 0);
    m_pid = -1;
    return reaped > 0 ? status : -1;
}

void Child::signal(int signo) {
    if (m_pid > 0)
        ::kill(m_pid, signo);
}

}  // namespace vexa_test
