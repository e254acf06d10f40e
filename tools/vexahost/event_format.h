// How vexahost writes one event: the text line and the JSON object, from one
// description of the event.
//
//   HH:MM:SS.mmm recv|sent dev=DEV item=N event=NAME len=N [pid=N [launched] | "preview"[...]]
//   {"time":"HH:MM:SS.mmm","sent_at":SECONDS.MICROS,"dir":...,"dev":...,"item":N,"event":N,
//    "name":NAME,"len":N,"pid":N,"launched":BOOL,"program":PATH,"body":TEXT}
#ifndef VEXAHOST_EVENT_FORMAT_H
#define VEXAHOST_EVENT_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace vexahost {

struct EventView {
    const char* direction = "recv";  // "recv" or "sent"
    std::string dev;
    int32_t item = 0;
    int32_t event = 0;
    int64_t sentAtUs = 0;  // the sender's wall-clock time, microseconds since the epoch
    const char* data = nullptr;
    int32_t len = 0;
    bool launched = false;  // a 9001 from a test the tool started
    std::string program;    // the launched program's path, when known
};

// The local time of day with milliseconds, "HH:MM:SS.mmm".
std::string local_time_ms();
// The wall clock in microseconds since the epoch.
int64_t wall_clock_us();
// Each byte that cannot be printed becomes '.'.
std::string printable(const char* data, size_t len);
// "dev=DEV item=N", the device string printable.
std::string pair_label(const std::string& dev, int32_t item);
// A 9001's body: the test's pid, when it holds one.
bool registration_pid(int32_t event, const char* data, int32_t len, int32_t& pid);

// The event line, ending in "\n". NAME is CONFIG(9001), CLOSED(9005),
// OFFLINE(9006) or the bare number; the preview shows up to 40 bytes.
std::string text_event_line(const std::string& time, const EventView& ev);
// The JSON object, ending in "\n": "name" for the library's own codes, "pid"
// and "launched" on a 9001 that holds a pid, "program" when known, "body" (the
// whole body, each byte one character U+0000 to U+00FF) when there is one.
std::string json_event_line(const std::string& time, const EventView& ev);

}  // namespace vexahost

#endif  // VEXAHOST_EVENT_FORMAT_H
