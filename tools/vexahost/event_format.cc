// Text and JSON forms of an event.
#include "event_format.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "vexatool.h"

namespace vexahost {

namespace {

constexpr size_t kPreviewChars = 40;
constexpr int64_t kMicrosPerSecond = 1000000;

// The name of one of the library's own events, null for any other code.
const char* library_event_name(int32_t event) {
    switch (event) {
        case CLIENT_IPC_CONFIG:
            return "CONFIG";
        case CLIENT_IPC_CLOSED:
            return "CLOSED";
        case CLIENT_IPC_OFFLINE:
            return "OFFLINE";
        default:
            return nullptr;
    }
}

// "CONFIG(9001)" for the library's own events, the bare code for others.
std::string event_name(int32_t event) {
    const char* name = library_event_name(event);
    const std::string code = std::to_string(event);
    return name != nullptr ? name + ("(" + code + ")") : code;
}

// Each byte becomes one character, U+0000 to U+00FF, so any body survives.
std::string json_string(const char* data, size_t len) {
    std::string out = "\"";
    for (size_t i = 0; i < len; ++i) {
        unsigned char ch = static_cast<unsigned char>(data[i]);
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += static_cast<char>(ch);
        } else if (ch >= 0x20 && ch < 0x7f) {
            out += static_cast<char>(ch);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", ch);
            out += escaped;
        }
    }
    return out + "\"";
}

// Seconds with exactly six decimals, from whole microseconds: exact for any
// time a peer may send, a negative one included.
std::string seconds_text(int64_t us) {
    uint64_t magnitude = us < 0 ? 0 - static_cast<uint64_t>(us) : static_cast<uint64_t>(us);
    char out[40];
    std::snprintf(out, sizeof(out), "%s%llu.%06llu", us < 0 ? "-" : "",
                  static_cast<unsigned long long>(magnitude / kMicrosPerSecond),
                  static_cast<unsigned long long>(magnitude % kMicrosPerSecond));
    return out;
}

}  // namespace

std::string local_time_ms() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    time_t secs = tv.tv_sec;
    tm local{};
    localtime_r(&secs, &local);
    char hms[16];
    std::strftime(hms, sizeof(hms), "%H:%M:%S", &local);
    char out[32];
    std::snprintf(out, sizeof(out), "%s.%03d", hms, static_cast<int>(tv.tv_usec / 1000));
    return out;
}

int64_t wall_clock_us() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<int64_t>(tv.tv_sec) * kMicrosPerSecond + tv.tv_usec;
}

std::string printable(const char* data, size_t len) {
    std::string out;
    out.reserve(len);
    for (size_t i = 0; i < len; ++i) {
        unsigned char ch = static_cast<unsigned char>(data[i]);
        out += (ch >= 0x20 && ch < 0x7f) ? static_cast<char>(ch) : '.';
    }
    return out;
}

std::string pair_label(const std::string& dev, int32_t item) {
    return "dev=" + printable(dev.data(), dev.size()) + " item=" + std::to_string(item);
}

bool registration_pid(int32_t event, const char* data, int32_t len, int32_t& pid) {
    if (event != CLIENT_IPC_CONFIG || data == nullptr || len < 4)
        return false;
    std::memcpy(&pid, data, sizeof(pid));
    return true;
}

std::string text_event_line(const std::string& time, const EventView& ev) {
    std::string line = time + " " + ev.direction + " " + pair_label(ev.dev, ev.item) +
                       " event=" + event_name(ev.event) + " len=" + std::to_string(ev.len);
    int32_t pid = 0;
    if (registration_pid(ev.event, ev.data, ev.len, pid)) {
        line += " pid=" + std::to_string(pid) + (ev.launched ? " launched" : "");
    } else if (ev.data != nullptr && ev.len > 0) {
        size_t shown = std::min(static_cast<size_t>(ev.len), kPreviewChars);
        line += " \"" + printable(ev.data, shown) + "\"";
        if (shown < static_cast<size_t>(ev.len))
            line += "...";
    }
    return line + "\n";
}

std::string json_event_line(const std::string& time, const EventView& ev) {
    std::string line =
        "{\"time\":\"" + time + "\",\"sent_at\":" + seconds_text(ev.sentAtUs) + ",\"dir\":\"" +
        ev.direction + "\",\"dev\":" + json_string(ev.dev.data(), ev.dev.size()) +
        ",\"item\":" + std::to_string(ev.item) + ",\"event\":" + std::to_string(ev.event);
    if (const char* name = library_event_name(ev.event))
        line += ",\"name\":\"" + std::string(name) + "\"";
    line += ",\"len\":" + std::to_string(ev.len);
    int32_t pid = 0;
    bool hasPid = registration_pid(ev.event, ev.data, ev.len, pid);
    if (hasPid) {
        line +=
            ",\"pid\":" + std::to_string(pid) + ",\"launched\":" + (ev.launched ? "true" : "false");
    }
    if (!ev.program.empty())
        line += ",\"program\":" + json_string(ev.program.data(), ev.program.size());
    if (!hasPid && ev.data != nullptr && ev.len > 0)
        line += ",\"body\":" + json_string(ev.data, static_cast<size_t>(ev.len));
    return line + "}\n";
}

}  // namespace vexahost
