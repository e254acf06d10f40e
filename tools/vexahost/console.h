// vexahost's output: whole lines on standard output and standard error from
// any thread, and, while standard error is a terminal, one status line at its
// bottom that is rewritten in place as the counts change.
#ifndef VEXAHOST_CONSOLE_H
#define VEXAHOST_CONSOLE_H

#include <cstdio>
#include <mutex>
#include <string>

namespace vexahost {

class Console {
  public:
    // The status line is shown only when standard error is a terminal.
    Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // Each writes whole lines ("...\n") and keeps them apart from other threads'.
    void out(const std::string& text);
    void err(const std::string& text);
    bool showsStatus() const { return m_statusShown; }
    // Replaces the status line; an empty text takes it away.
    void status(const std::string& text);

  private:
    void write(FILE* stream, const std::string& text);

    const bool m_statusShown;  // standard error is a terminal
    const bool m_outShared;    // standard output is a terminal too
    std::mutex m_lock;         // guards m_status and keeps lines whole
    std::string m_status;
};

}  // namespace vexahost

#endif  // VEXAHOST_CONSOLE_H
