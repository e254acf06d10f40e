#include "support/test_support.h"

#include <arpa/inet.h>
#include <ftw.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "core/log_dir.h"

namespace vexa_test {
namespace {

std::string g_root;  // the sandbox, ends with "/"

std::string make_temp_dir(const std::string& parent, const std::string& prefix) {
    std::string pattern = parent + prefix + "XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed under " << parent << ": " << std::strerror(errno);
        return parent;
    }
    return pattern + "/";
}

void remove_tree(const std::string& path) {
    if (path.empty() || path == "/")
        return;
    nftw(
        path.c_str(),
        [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

}  // namespace

// Called once by the test main.
void init_sandbox(const char* programName) {
    const char* tmp = std::getenv("TMPDIR");
    std::string parent = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
    if (parent.back() != '/')
        parent += '/';
    const std::string base = programName;
    g_root = make_temp_dir(parent, "vexa-" + base.substr(base.rfind('/') + 1) + "-");
    make_dirs(g_root + "qz/");
    make_dirs(endpoint_dir());
    // The common log and every endpoint log of this process stay in the sandbox.
    setenv("QZ_LOGPATH", (g_root + "qz/").c_str(), 1);
    vexa::set_endpoint_log_dir_for_testing(endpoint_dir());
}

void remove_sandbox() {
    if (std::getenv("VEXA_KEEP_TEST_DIRS") != nullptr) {
        std::fprintf(stderr, "test files kept in %s\n", g_root.c_str());
        return;
    }
    remove_tree(g_root);
}

std::string endpoint_dir() {
    return g_root + "vexa/";
}

TempDir::TempDir() : m_path(make_temp_dir(g_root, "t")) {}

TempDir::~TempDir() {
    remove_tree(m_path);
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : m_name(name) {
    const char* old = std::getenv(name);
    m_hadOld = old != nullptr;
    if (m_hadOld)
        m_old = old;
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

bool log_has(const std::string& path, const std::string& text) {
    return count_log_text(path, text) > 0;
}

bool wait_log(const std::string& path, const std::string& text, int timeoutMs) {
    return wait_until([&] { return log_has(path, text); }, timeoutMs);
}

std::string line_starting(const std::vector<std::string>& lines, const std::string& prefix) {
    for (const std::string& line : lines) {
        if (line.compare(0, prefix.size(), prefix) == 0)
            return line;
    }
    return "";
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

int free_loopback_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
        port = ntohs(addr.sin_port);
    }
    close(fd);
    return port;
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

}  // namespace vexa_test
