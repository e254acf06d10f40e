#include "comm/file_util.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>

namespace comm {
namespace {

// Full paths of listed files must fit a 1000-byte buffer with its terminating zero.
const size_t kMaxListedPath = 999;
const size_t kCopyChunk = 16384;

}  // namespace

bool file_exists(const std::string& path) {
    std::ifstream in(path.c_str(), std::ios::in);
    return in.is_open();
}

int32_t file_size(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return -1;
    return static_cast<int32_t>(st.st_size);
}

int32_t stream_size(FILE* stream) {
    if (stream == nullptr)
        return -1;
    int fd = fileno(stream);
    if (fd < 0)
        return -1;
    struct stat st {};
    if (fstat(fd, &st) != 0)
        return -1;
    return static_cast<int32_t>(st.st_size);
}

int file_remove(const std::string& path) {
    return std::remove(path.c_str()) == 0 ? 0 : -1;
}

bool file_read_all(const std::string& path, std::string& out) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr)
        return false;
    std::string data;
    char chunk[kCopyChunk];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), f)) > 0)
        data.append(chunk, n);
    // A read error (a directory, for one) leaves `out` as it was.
    bool ok = std::ferror(f) == 0;
    std::fclose(f);
    if (ok)
        out.swap(data);
    return ok;
}

int32_t file_read(const std::string& path, void* buffer, int32_t size) {
    // "e": not inherited by a program another thread launches meanwhile.
    FILE* f = std::fopen(path.c_str(), "rbe");
    if (f == nullptr)
        return 0;
    size_t n = 0;
    if (buffer != nullptr && size > 0)
        n = std::fread(buffer, 1, static_cast<size_t>(size), f);
    std::fclose(f);
    return static_cast<int32_t>(n);
}

bool file_write_string(const std::string& path, const std::string& text) {
    return file_write(path, text.data(), static_cast<int32_t>(text.size()));
}

bool file_write(const std::string& path, const void* data, int32_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
        return false;
    // Only the opening is reported; a short write is not.
    if (data != nullptr && size > 0)
        std::fwrite(data, 1, static_cast<size_t>(size), f);
    std::fclose(f);
    return true;
}

bool file_copy(const std::string& source, const std::string& target) {
    // The source is opened first so that a missing source leaves the target alone.
    FILE* in = std::fopen(source.c_str(), "rb");
    if (in == nullptr)
        return false;
    FILE* out = std::fopen(target.c_str(), "wb");
    if (out == nullptr) {
        std::fclose(in);
        return false;
    }
    char chunk[kCopyChunk];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), in)) > 0)
        std::fwrite(chunk, 1, n, out);
    std::fclose(out);
    std::fclose(in);
    return true;
}

std::string file_base_name(const std::string& name) {
    // The last '.' of the whole text, even in a directory name: "/a.b/c" gives "/a".
    std::string::size_type pos = name.rfind('.');
    if (pos == std::string::npos)
        return name;
    return name.substr(0, pos);
}

std::string file_extension(const std::string& name) {
    std::string::size_type pos = name.rfind('.');
    if (pos == std::string::npos)
        return std::string();
    return name.substr(pos + 1);
}

void list_files(const std::string& directory, std::vector<std::string>& out) {
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr)
        return;
    while (const dirent* entry = readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        // Links and entries of unknown type are skipped too, by design.
        if (entry->d_type != DT_REG)
            continue;
        // No separator is added: the directory ends with "/".
        if (directory.size() + std::strlen(entry->d_name) > kMaxListedPath)
            continue;
        out.push_back(directory + entry->d_name);
    }
    closedir(dir);
}

}  // namespace comm
