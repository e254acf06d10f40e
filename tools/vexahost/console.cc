// Lines and the status line on the terminal.
#include "console.h"

#include <unistd.h>

#include <cstdio>

namespace vexahost {

namespace {

// Back to the start of the line and clear it.
constexpr char kClearLine[] = "\r\033[K";

}  // namespace

Console::Console()
    : m_statusShown(isatty(STDERR_FILENO) == 1), m_outShared(isatty(STDOUT_FILENO) == 1) {}

void Console::out(const std::string& text) {
    write(stdout, text);
}

void Console::err(const std::string& text) {
    write(stderr, text);
}

void Console::write(FILE* stream, const std::string& text) {
    std::lock_guard<std::mutex> guard(m_lock);
    // The status line steps aside for the text and comes back below it.
    bool redraw = m_statusShown && !m_status.empty() && (stream == stderr || m_outShared);
    if (redraw)
        std::fputs(kClearLine, stderr);
    std::fputs(text.c_str(), stream);
    std::fflush(stream);
    if (redraw)
        std::fputs(m_status.c_str(), stderr);
}

void Console::status(const std::string& text) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (!m_statusShown || text == m_status)
        return;
    m_status = text;
    std::fputs(kClearLine, stderr);
    std::fputs(m_status.c_str(), stderr);
}

}  // namespace vexahost
