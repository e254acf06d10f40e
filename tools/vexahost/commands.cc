// send, list, quit and help.
#include "commands.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace vexahost {

namespace {

const char kCommandHelp[] =
    "commands:\n"
    "  send DEV ITEM EVENT [TEXT...]  send EVENT with TEXT to the test (DEV \"\" is empty)\n"
    "  list                           the tests that registered\n"
    "  quit                           stop the server and leave\n"
    "  help                           this text\n";

bool parse_int32(const std::string& text, int32_t& value) {
    if (text.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX)
        return false;
    value = static_cast<int32_t>(v);
    return true;
}

// Splits off the next blank-separated word of `line` starting at `pos`.
std::string next_word(const std::string& line, size_t& pos) {
    size_t start = line.find_first_not_of(" \t", pos);
    if (start == std::string::npos) {
        pos = line.size();
        return std::string();
    }
    size_t end = line.find_first_of(" \t", start);
    if (end == std::string::npos)
        end = line.size();
    pos = end;
    return line.substr(start, end - start);
}

void run_send(Host& host, const std::string& line, size_t pos) {
    std::string dev = next_word(line, pos);
    std::string itemText = next_word(line, pos);
    std::string eventText = next_word(line, pos);
    int32_t item = 0;
    int32_t event = 0;
    if (dev.empty() || !parse_int32(itemText, item) || !parse_int32(eventText, event)) {
        host.writeError("vexahost: usage: send DEV ITEM EVENT [TEXT...]\n");
        return;
    }
    if (dev == "\"\"")
        dev.clear();
    // The server would drop it and tell only its log.
    if (!host.isOpen(dev, item)) {
        host.writeError("vexahost: nothing sent: " + pair_label(dev, item) +
                        " is not registered\n");
        return;
    }
    // The body is the rest of the line as typed, inner blanks included.
    size_t textStart = line.find_first_not_of(" \t", pos);
    std::string text = textStart == std::string::npos ? "" : line.substr(textStart);
    host.send(dev, item, event, text.data(), static_cast<int32_t>(text.size()));
}

}  // namespace

bool run_command(Host& host, const std::string& line) {
    size_t pos = 0;
    std::string cmd = next_word(line, pos);
    if (cmd.empty())
        return true;
    if (cmd == "quit" || cmd == "exit")
        return false;
    if (cmd == "help") {
        host.writeNote(kCommandHelp);
    } else if (cmd == "list") {
        host.printList();
    } else if (cmd == "send") {
        run_send(host, line, pos);
    } else {
        host.writeError("vexahost: unknown command \"" + printable(cmd.data(), cmd.size()) +
                        "\" (try help)\n");
    }
    return true;
}

}  // namespace vexahost
