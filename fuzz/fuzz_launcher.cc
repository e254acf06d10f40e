// The launcher's command line: build_cmd_args and plan_launch on texts taken
// from the input, which is cut at its NUL bytes into the test path, the -d
// value, the extra arguments, the su prefix, the pre-command and the server
// address, in this order. A missing -d value or extra argument text is null; a
// missing su prefix is the default "su -c", a missing pre-command empty, a
// missing address "tcp://:6000". Nothing is started.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "server/launcher.h"

namespace {

const char kWhitespace[] = " \t\r\n";

// Everything but whitespace and double quotes, in order: the splitting and
// unquoting may only drop those.
std::string solid(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c != '"' && std::string(kWhitespace).find(c) == std::string::npos) {
            out += c;
        }
    }
    return out;
}

bool has_nul(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<std::string> fields = vexa_fuzz::split_at_nul(data, size);
    auto field = [&](size_t i) { return i < fields.size() ? &fields[i] : nullptr; };
    const std::string testPath = fields.empty() ? std::string() : fields[0];
    const char* dValue = field(1) != nullptr ? field(1)->c_str() : nullptr;
    const char* extraArgs = field(2) != nullptr ? field(2)->c_str() : nullptr;
    const std::string suFilePath = field(3) != nullptr ? *field(3) : "su -c";
    const std::string suPreCmd = field(4) != nullptr ? *field(4) : "";
    const std::string servPath = field(5) != nullptr ? *field(5) : "tcp://:6000";

    const std::string cmdArgs = vexa::build_cmd_args(servPath, dValue, extraArgs);
    std::string expectedArgs = " -t " + servPath;
    if (dValue != nullptr && *dValue != '\0') {
        expectedArgs += std::string(" -d ") + dValue;
    }
    if (extraArgs != nullptr && *extraArgs != '\0') {
        expectedArgs += std::string(" ") + extraArgs;
    }
    FUZZ_CHECK(cmdArgs == expectedArgs);

    const vexa::LaunchPlan plan = vexa::plan_launch(testPath, cmdArgs, suFilePath, suPreCmd);
    std::string cmd = testPath + cmdArgs;
    if (!suFilePath.empty()) {
        cmd = suFilePath + " " + (suPreCmd.empty() ? cmd : "\"" + suPreCmd + "; " + cmd + "\"");
    }

    // The arguments always hold "-t", so there is a first word.
    FUZZ_CHECK(!plan.argv.empty());
    FUZZ_CHECK(!plan.program.empty());
    FUZZ_CHECK(plan.program.find_first_of(kWhitespace) != 0);
    FUZZ_CHECK(plan.program.find(' ') == std::string::npos);
    const std::string::size_type slash = plan.program.rfind('/');
    FUZZ_CHECK(plan.searchPath == (slash == std::string::npos));
    FUZZ_CHECK(plan.argv[0] ==
               (slash == std::string::npos ? plan.program : plan.program.substr(slash + 1)));
    // Only a program that ends with '/' (a directory, which exec refuses)
    // gives an empty argv[0].
    FUZZ_CHECK(!plan.argv[0].empty() || plan.program.back() == '/');
    FUZZ_CHECK(!has_nul(plan.program));

    std::string rest;
    for (size_t i = 0; i < plan.argv.size(); ++i) {
        FUZZ_CHECK(!has_nul(plan.argv[i]));
        if (i > 0) {
            rest += plan.argv[i];
        }
    }
    FUZZ_CHECK(solid(cmd) == solid(plan.program) + solid(rest));

    // Without quotes nothing is joined: each argument is one non-empty word.
    if (cmd.find('"') == std::string::npos) {
        for (size_t i = 1; i < plan.argv.size(); ++i) {
            FUZZ_CHECK(!plan.argv[i].empty());
            FUZZ_CHECK(plan.argv[i].find(' ') == std::string::npos);
        }
    }
    return 0;
}
