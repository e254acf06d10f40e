#include "fuzz_support.h"

#include <ftw.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>


namespace vexa_fuzz {
namespace {

std::string& root() {
    static std::string path;
    return path;
}

int remove_entry(const char* path, const struct stat* /*st*/, int /*type*/, struct FTW* /*ftw*/) {
    std::remove(path);
    return 0;
}

void remove_sandbox() {
    if (!root().empty()) {
        nftw(root().c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }
}

void make_private_dir(const std::string& path) {
    // The library's own make_dir uses mode 0600, which leaves no search bit;
    // the sandbox directories are made here, usable, before any endpoint runs.
    if (mkdir(path.c_str(), 0700) != 0) {
        std::perror(path.c_str());
        std::abort();
    }
}

}  // namespace

void init_sandbox() {
    if (!root().empty()) {
        return;
    }
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vexa-fuzz-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    root() = pattern + "/";
    std::atexit(remove_sandbox);
    make_private_dir(root() + "endpoint");
    make_private_dir(root() + "common");
    setenv("QZ_LOGPATH", (root() + "common/").c_str(), 1);
    setenv("VEXA_LOG_DIR", (root() + "endpoint/").c_str(), 1);
}

std::string sandbox_file(const std::string& name) {
    return root() + name;
}

std::vector<std::string> split_at_nul(const uint8_t* data, size_t size) {
    std::vector<std::string> pieces;
    if (size == 0) {
        return pieces;
    }
    const char* text = reinterpret_cast<const char*>(data);
    size_t start = 0;
    for (size_t i = 0; i <= size; ++i) {
        if (i == size || text[i] == '\0') {
            pieces.emplace_back(text + start, i - start);
            start = i + 1;
        }
    }
    return pieces;
}

void check_failed(const char* what, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: invariant failed: %s\n", file, line, what);
    std::abort();
}

}  // namespace vexa_fuzz
