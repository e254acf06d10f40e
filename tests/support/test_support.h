// Helpers shared by the test binaries: private temporary directories, scoped
// environment variables, files and log lines, free loopback ports and waits.
#ifndef VEXA_TESTS_SUPPORT_TEST_SUPPORT_H
#define VEXA_TESTS_SUPPORT_TEST_SUPPORT_H

#include <functional>
#include <string>
#include <vector>

namespace vexa_test {

// Directory of the endpoints' logs and marker files in this process's
// private sandbox, which the test main makes before any test runs and
// removes after the last one.
std::string endpoint_dir();

// A fresh directory below the sandbox, removed with everything in it.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    // Ends with "/".
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + name; }

  private:
    std::string m_path;
};

// Sets (or, with a null value, unsets) one environment variable and restores
// the previous state when it goes out of scope.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    std::string m_name;
    std::string m_old;
    bool m_hadOld;
};

// Makes `path` and any missing parents; true when it exists afterwards.
bool make_dirs(const std::string& path);
// The whole file, "" when it cannot be read.
std::string read_file(const std::string& path);
// The file's lines without their newline characters.
std::vector<std::string> read_lines(const std::string& path);
// Writes `text` to `path`, replacing it.
void write_file(const std::string& path, const std::string& text);

// The lines with their leading "YYYY/MM/DD hh:mm:ss.mmm " stamp removed.
std::vector<std::string> log_texts(const std::string& path);
// How many log lines have exactly this text after the stamp.
int count_log_text(const std::string& path, const std::string& text);
bool log_has(const std::string& path, const std::string& text);
// Waits until the log at `path` has a line with exactly this text.
bool wait_log(const std::string& path, const std::string& text, int timeoutMs = 10000);
// The first of `lines` that starts with `prefix`, "" when none does.
std::string line_starting(const std::vector<std::string>& lines, const std::string& prefix);
// Whether `expected` appear in `lines` in this order, others possibly between.
bool in_order(const std::vector<std::string>& lines, const std::vector<std::string>& expected);
// Whether `text` has this shape: '9' stands for any digit, every other
// character for itself.
bool has_shape(const std::string& text, const std::string& shape);

// A TCP port on 127.0.0.1 that was free a moment ago.
int free_loopback_port();
// Polls `condition` every few milliseconds; true once it holds, false after
// `timeoutMs`. Time limits in tests are generous: machines are shared.
bool wait_until(const std::function<bool()>& condition, int timeoutMs = 10000);
// Milliseconds of the monotonic clock.
long long monotonic_ms();

}  // namespace vexa_test

#endif  // VEXA_TESTS_SUPPORT_TEST_SUPPORT_H
