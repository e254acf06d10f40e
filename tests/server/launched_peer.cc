// A program the launcher tests start, standing in for a test program or for
// the su prefix. It links nothing of the library: its frames are written out
// by hand.
//
// - With VEXA_TEST_ARGV_FILE set, it first writes its pid and then its
//   arguments, one per line, to that file (through a temporary file and a
//   rename, so a reader never sees half of it).
// - With --connect it connects to the address after -t, registers with the
//   value after -d as device string and the number after --item as test item,
//   and then either leaves at once (--exit) or reads until the stream ends,
//   writes the file after --eof-marker and sleeps the milliseconds after
//   --linger-ms before it ends.
// - Without --connect it ends right away with status 0.
// It never outlives 60 seconds.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void put32(unsigned char* at, int32_t value) {
    auto bits = static_cast<uint32_t>(value);
    at[0] = static_cast<unsigned char>(bits >> 24);
    at[1] = static_cast<unsigned char>(bits >> 16);
    at[2] = static_cast<unsigned char>(bits >> 8);
    at[3] = static_cast<unsigned char>(bits);
}

void record_argv(const char* path, int argc, char** argv) {
    const std::string temp = std::string(path) + ".part";
    FILE* out = std::fopen(temp.c_str(), "w");
    if (out == nullptr) {
        return;
    }
    std::fprintf(out, "%d\n", static_cast<int>(getpid()));
    for (int i = 0; i < argc; ++i) {
        std::fprintf(out, "%s\n", argv[i]);
    }
    std::fclose(out);
    std::rename(temp.c_str(), path);
}

const char* value_after(int argc, char** argv, const char* flag) {
    for (int i = 0; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], flag) == 0) {
            return argv[i + 1];
        }
    }
    return nullptr;
}

bool has_flag(int argc, char** argv, const char* flag) {
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], flag) == 0) {
            return true;
        }
    }
    return false;
}

int connect_and_register(const char* address, const char* dev, int32_t item) {
    const char* colon = std::strrchr(address, ':');
    if (colon == nullptr) {
        return -1;
    }
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(std::atoi(colon + 1)));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        return -1;
    }
    unsigned char frame[104] = {};
    std::strncpy(reinterpret_cast<char*>(frame), dev, 79);
    put32(frame + 80, item);
    put32(frame + 84, 9001);
    put32(frame + 88, 1);
    put32(frame + 92, 2);
    put32(frame + 96, 4);
    const int32_t pid = static_cast<int32_t>(getpid());
    std::memcpy(frame + 100, &pid, sizeof(pid));
    if (write(fd, frame, sizeof(frame)) != static_cast<ssize_t>(sizeof(frame))) {
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    alarm(60);
    if (const char* record = std::getenv("VEXA_TEST_ARGV_FILE")) {
        record_argv(record, argc, argv);
    }
    if (!has_flag(argc, argv, "--connect")) {
        return 0;
    }
    const char* address = value_after(argc, argv, "-t");
    const char* dev = value_after(argc, argv, "-d");
    const char* item = value_after(argc, argv, "--item");
    if (address == nullptr || dev == nullptr || item == nullptr) {
        return 2;
    }
    int fd = connect_and_register(address, dev, std::atoi(item));
    if (fd < 0) {
        return 3;
    }
    if (has_flag(argc, argv, "--exit")) {
        return 0;
    }
    char buffer[4096];
    while (read(fd, buffer, sizeof(buffer)) > 0) {
    }
    if (const char* marker = value_after(argc, argv, "--eof-marker")) {
        FILE* out = std::fopen(marker, "w");
        if (out != nullptr) {
            std::fclose(out);
        }
    }
    if (const char* linger = value_after(argc, argv, "--linger-ms")) {
        const int ms = std::atoi(linger);
        timespec pause{ms / 1000, (ms % 1000) * 1000000L};
        while (nanosleep(&pause, &pause) != 0) {
        }
    }
    return 0;
}
