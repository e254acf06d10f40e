// Builds and writes the JUnit XML report.
#include "junit_report.h"

#include <unistd.h>

#include <climits>
#include <cstdio>

namespace vexahost {

namespace {

std::string xml_text(const std::string& text) {
    std::string out;
    for (char c : text) {
        unsigned char ch = static_cast<unsigned char>(c);
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                // XML 1.0 has no place for other control characters.
                out += (ch < 0x20 && c != '\n' && c != '\t') ? '?' : c;
        }
    }
    return out;
}

std::string host_name() {
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof(name) - 1) != 0)
        return "localhost";
    return name;
}

}  // namespace

bool write_junit_report(const std::string& path, const Verdict& verdict, time_t started,
                        double seconds) {
    FILE* out = std::fopen(path.c_str(), "w");
    if (out == nullptr)
        return false;
    tm local{};
    localtime_r(&started, &local);
    char timestamp[32];
    std::strftime(timestamp, sizeof(timestamp), "%Y-%m-%dT%H:%M:%S", &local);
    std::fprintf(out, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
    std::fprintf(out,
                 "<testsuite name=\"vexahost\" tests=\"%zu\" failures=\"%zu\" errors=\"0\" "
                 "skipped=\"%zu\" time=\"%.3f\" timestamp=\"%s\" hostname=\"%s\">\n",
                 verdict.cases.size(), verdict.failed, verdict.skipped, seconds, timestamp,
                 xml_text(host_name()).c_str());
    for (const TestCase& tc : verdict.cases) {
        std::fprintf(out, "  <testcase classname=\"vexahost\" name=\"%s\" time=\"%.3f\">\n",
                     xml_text(tc.name).c_str(), tc.seconds);
        const std::string reason = xml_text(tc.reason);
        if (tc.outcome == Outcome::kFailed) {
            std::fprintf(out, "    <failure message=\"%s\">%s</failure>\n", reason.c_str(),
                         reason.c_str());
        } else if (tc.outcome == Outcome::kSkipped) {
            std::fprintf(out, "    <skipped message=\"%s\"/>\n", reason.c_str());
        }
        if (!tc.output.empty())
            std::fprintf(out, "    <system-out>%s</system-out>\n", xml_text(tc.output).c_str());
        std::fprintf(out, "  </testcase>\n");
    }
    std::fprintf(out, "</testsuite>\n");
    return std::fclose(out) == 0;
}

}  // namespace vexahost
