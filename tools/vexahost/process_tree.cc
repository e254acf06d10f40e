// Parent links from /proc/<pid>/stat.
#include "process_tree.h"

#include <dirent.h>
#include <signal.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace vexahost {

namespace {

// Deeper chains than this are not followed (a tree that changes while it is
// read could otherwise lead round in a loop).
constexpr int kMaxDepth = 64;
constexpr size_t kMaxTree = 4096;

// The parent of `pid`, or -1 when it cannot be read.
int32_t parent_of(int32_t pid) {
    char path[32];
    std::snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
    FILE* f = std::fopen(path, "re");
    if (f == nullptr)
        return -1;
    char buf[512];
    size_t n = std::fread(buf, 1, sizeof(buf) - 1, f);
    std::fclose(f);
    buf[n] = '\0';
    // "pid (comm) state ppid ...": comm may hold blanks and parentheses, so
    // the fields start after the last ')'.
    const char* close = std::strrchr(buf, ')');
    int ppid = -1;
    char state = 0;
    if (close == nullptr || std::sscanf(close + 1, " %c %d", &state, &ppid) != 2)
        return -1;
    return ppid;
}

}  // namespace

std::vector<int32_t> line_to_ancestor(int32_t pid, int32_t ancestor) {
    std::vector<int32_t> line;
    for (int depth = 0; depth < kMaxDepth && pid > 0; ++depth) {
        line.push_back(pid);
        if (pid == ancestor)
            return line;
        pid = parent_of(pid);
    }
    return {};
}

int signal_tree(int32_t root, int signo) {
    if (root <= 0)
        return ESRCH;
    std::multimap<int32_t, int32_t> children;
    if (DIR* proc = opendir("/proc")) {
        while (dirent* entry = readdir(proc)) {
            if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0])))
                continue;
            int32_t pid = static_cast<int32_t>(std::atoi(entry->d_name));
            int32_t parent = parent_of(pid);
            if (parent > 0)
                children.emplace(parent, pid);
        }
        closedir(proc);
    }
    // The whole tree is listed before anything is signalled: a child whose
    // parent dies first moves to another parent.
    std::vector<int32_t> tree{root};
    for (size_t i = 0; i < tree.size() && tree.size() < kMaxTree; ++i) {
        auto range = children.equal_range(tree[i]);
        for (auto it = range.first; it != range.second; ++it)
            tree.push_back(it->second);
    }
    int refused = 0;
    for (int32_t pid : tree) {
        if (kill(pid, signo) != 0 && errno != ESRCH && refused == 0)
            refused = errno;
    }
    return refused;
}

}  // namespace vexahost
