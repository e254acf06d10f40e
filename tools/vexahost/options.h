// vexahost's command line: the options, the tests with their -d values, the
// help text, and the checks made before anything starts.
#ifndef VEXAHOST_OPTIONS_H
#define VEXAHOST_OPTIONS_H

#include <string>
#include <vector>

namespace vexahost {

constexpr char kDefaultAddress[] = "tcp://:6000";

// One TEST on the command line, with the -d value that came last before it.
struct TestToLaunch {
    std::string path;
    std::string dValue;
};

struct Options {
    std::string address = kDefaultAddress;
    std::string extraArgs;
    bool su = false;
    std::string suPrefix = "su -c";
    std::string preCmd;
    bool demo = false;
    bool json = false;
    std::string junitPath;
    double timeoutSeconds = 0;  // 0: no limit
    std::string logDir;         // absolute; empty: the library's own rule
    std::vector<TestToLaunch> tests;
};

// Fills `opts` from the command line. Prints the help or the version and
// exits 0 when asked for; returns false after printing why the command line
// is not usable.
bool parse_options(int argc, char** argv, Options& opts);

// True for a path the launcher loads as a test library: one ending in ".so".
bool is_test_library(const std::string& path);

// The launcher reports nothing when a test cannot start, so catch the common
// mistakes before it; a test library without a '/' gets "./" in front.
// Returns false after printing the first problem.
bool check_tests(std::vector<TestToLaunch>& tests, bool su, const char* prog);

}  // namespace vexahost

#endif  // VEXAHOST_OPTIONS_H
