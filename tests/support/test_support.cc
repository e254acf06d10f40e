#include "support/test_support.h"

#include <arpa/inet.h>
#include <ftw.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

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

std::string make_temp_dir(const std::string& parent, const char* prefix) {
    std::string pattern = parent + prefix + "XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp failed under " << parent << ": " << std::strerror(errno);
        return parent;
    }
    return std::string(buf.data()) + "/";
}

std::string& root_storage() {
    static std::string root;
    return root;
}

}  // namespace

// Called once by the test main.
void init_sandbox(const char* programName) {
    const char* tmp = std::getenv("TMPDIR");
    std::string parent = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
    if (parent.back() != '/')
        parent += '/';
    std::string base = programName;
    std::string::size_type slash = base.rfind('/');
    if (slash != std::string::npos)
        base = base.substr(slash + 1);
    root_storage() = make_temp_dir(parent, ("vexa-" + base + "-").c_str());
    make_dirs(root_storage() + "qz/");
    make_dirs(endpoint_dir());
    // The common log and every endpoint log of this process stay in the sandbox.
    setenv("QZ_LOGPATH", (root_storage() + "qz/").c_str(), 1);
    vexa::set_endpoint_log_dir_for_testing(endpoint_dir());
}

void remove_sandbox() {
    if (std::getenv("VEXA_KEEP_TEST_DIRS") != nullptr) {
        std::fprintf(stderr, "test files kept in %s\n", root_storage().c_str());
        return;
    }
    remove_tree(root_storage());
}

const std::string& sandbox_root() {
    return root_storage();
}

std::string endpoint_dir() {
    return root_storage() + "vexa/";
}

TempDir::TempDir() : m_path(make_temp_dir(sandbox_root(), "t")) {}

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
    std::string partial;
    std::stringstream parts(path);
    std::string piece;
    if (!path.empty() && path[0] == '/')
        partial = "/";
    while (std::getline(parts, piece, '/')) {
        if (piece.empty())
            continue;
        partial += piece + "/";
        mkdir(partial.c_str(), 0755);
    }
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void remove_tree(const std::string& path) {
    if (path.empty() || path == "/")
        return;
    nftw(
        path.c_str(),
        [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
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
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

std::vector<std::string> log_texts(const std::string& path) {
    // "2016/03/07 14:05:09.042 " is 24 characters.
    const std::string::size_type stampLength = 24;
    std::vector<std::string> texts;
    for (const std::string& line : read_lines(path)) {
        texts.push_back(line.size() >= stampLength ? line.substr(stampLength) : line);
    }
    return texts;
}

int count_log_text(const std::string& path, const std::string& text) {
    int n = 0;
    for (const std::string& t : log_texts(path)) {
        if (t == text)
            ++n;
    }
    return n;
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

int free_loopback_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
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
    long long deadline = monotonic_ms() + timeoutMs;
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
