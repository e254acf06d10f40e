// Helpers of every test binary, the tool test and the benchmark, free of
// GoogleTest and of the library's internals: temporary directories, scoped
// environment variables, files and log lines, waits, and child processes.
#ifndef VEXA_TESTS_SUPPORT_TEST_SUPPORT_H
#define VEXA_TESTS_SUPPORT_TEST_SUPPORT_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace vexa_test {

// The directory below which TempDir makes its directories: the sandbox of a
// binary with the sandbox main (support/test_main.cc), else $TMPDIR or /tmp.
void set_temp_root(const std::string& dir);
// Directory of the endpoints' logs and marker files in the sandbox.
std::string endpoint_dir();

// A fresh directory, removed with everything in it.
class TempDir {
  public:
    explicit TempDir(const std::string& prefix = "t");
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
void write_file(const std::string& path, const std::string& text);
bool file_exists(const std::string& path);

// The lines with their leading "YYYY/MM/DD hh:mm:ss.mmm " stamp removed.
std::vector<std::string> log_texts(const std::string& path);
// How many log lines have exactly this text after the stamp.
int count_log_text(const std::string& path, const std::string& text);
// How many log lines start with this text after the stamp.
int count_log_prefix(const std::string& path, const std::string& prefix);
bool log_has(const std::string& path, const std::string& text);
bool wait_log(const std::string& path, const std::string& text, int timeoutMs = 10000);
// Whether `expected` appear in `lines` in this order, others possibly between.
bool in_order(const std::vector<std::string>& lines, const std::vector<std::string>& expected);
// Whether `text` has this shape: '9' stands for any digit, every other
// character for itself.
bool has_shape(const std::string& text, const std::string& shape);

// Polls `condition` every few milliseconds; true once it holds, false after
// `timeoutMs`. Time limits in tests are generous: machines are shared.
bool wait_until(const std::function<bool()>& condition, int timeoutMs = 10000);
long long monotonic_ms();
// The blank-separated words of `text` (an emulator's command line, say).
std::vector<std::string> words(const std::string& text);

// A program started with posix_spawn: standard input from a pipe, standard
// output and error into files of `dir`, `env` (NAME=VALUE) over this
// process's environment. Killed and reaped with the object.
class Child {
  public:
    Child(const std::vector<std::string>& argv, const std::string& dir,
          const std::vector<std::string>& env = {});
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool started() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }
    bool type(const std::string& text);
    void closeInput();
    std::string out() const { return read_file(m_out); }
    std::string err() const { return read_file(m_err); }
    bool waitForOutput(const std::string& needle, int timeoutMs = 60000) const;
    // The exit status; -1 when the child did not exit by itself in time (it is
    // then killed) or somebody else reaped it.
    int wait(int timeoutMs = 60000);
    // SIGKILL and reap; the raw wait status, -1 when somebody else reaped it.
    int kill();
    void signal(int signo);

  private:
    std::string m_out;
    std::string m_err;
    pid_t m_pid = -1;
    int m_input = -1;
};

}  // namespace vexa_test

#endif  // VEXA_TESTS_SUPPORT_TEST_SUPPORT_H
