// A program the launcher tests start, standing in for a test program or for
// the su prefix. It links nothing of the library: its frame is written out by
// hand.
//
// - With VEXA_TEST_ARGV_FILE set, it first writes its pid and then its
//   arguments, one per line, to that file (through a temporary file and a
//   rename, so a reader never sees half of it).
// - With --connect it connects to the port at the end of the address after
//   -t, registers with the value after -d as device string and the number
//   after --item as test item, and then either leaves at once (--exit) or
//   reads until the stream ends, writes the file after --eof-marker and sleeps
//   the milliseconds after --linger-ms before it ends.
// - Without --connect it ends right away with status 0.
// It never outlives 60 seconds.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
    alarm(60);
    if (const char* record = std::getenv("VEXA_TEST_ARGV_FILE")) {
        const std::string temp = std::string(record) + ".part";
        if (FILE* out = std::fopen(temp.c_str(), "w")) {
            std::fprintf(out, "%d\n", static_cast<int>(getpid()));
            for (int i = 0; i < argc; ++i)
                std::fprintf(out, "%s\n", argv[i]);
            std::fclose(out);
            std::rename(temp.c_str(), record);
        }
    }
    const char* address = nullptr;
    const char* dev = nullptr;
    const char* eofMarker = nullptr;
    int item = -1;
    int lingerMs = 0;
    bool connectFlag = false;
    bool exitFlag = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : "";
        connectFlag = connectFlag || arg == "--connect";
        exitFlag = exitFlag || arg == "--exit";
        address = arg == "-t" ? next : address;
        dev = arg == "-d" ? next : dev;
        eofMarker = arg == "--eof-marker" ? next : eofMarker;
        item = arg == "--item" ? std::atoi(next) : item;
        lingerMs = arg == "--linger-ms" ? std::atoi(next) : lingerMs;
    }
    if (!connectFlag)
        return 0;
    if (address == nullptr || std::strrchr(address, ':') == nullptr || dev == nullptr)
        return 2;
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(std::atoi(std::strrchr(address, ':') + 1)));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
        return 3;
    // CLIENT_IPC_CONFIG: dev, item, event 9001, time 1.2, length 4, the pid.
    unsigned char frame[104] = {};
    std::strncpy(reinterpret_cast<char*>(frame), dev, 79);
    const uint32_t fields[5] = {static_cast<uint32_t>(item), 9001, 1, 2, 4};
    for (int f = 0; f < 5; ++f) {
        for (int b = 0; b < 4; ++b)
            frame[80 + 4 * f + b] = static_cast<unsigned char>(fields[f] >> (24 - 8 * b));
    }
    const int32_t pid = static_cast<int32_t>(getpid());
    std::memcpy(frame + 100, &pid, sizeof(pid));
    if (write(fd, frame, sizeof(frame)) != static_cast<ssize_t>(sizeof(frame)))
        return 3;
    if (exitFlag)
        return 0;
    char buffer[4096];
    while (read(fd, buffer, sizeof(buffer)) > 0) {
    }
    if (eofMarker != nullptr) {
        if (FILE* out = std::fopen(eofMarker, "w"))
            std::fclose(out);
    }
    usleep(static_cast<useconds_t>(lingerMs) * 1000);
    return 0;
}
