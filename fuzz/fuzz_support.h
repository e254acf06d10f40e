// Helpers shared by the fuzz targets.
//
// A private temporary directory for one fuzzing process: the endpoints write
// their logs into endpoint_log_dir() and the common logger into QZ_LOGPATH;
// both are pointed below a directory made with mkdtemp (in $TMPDIR, else
// /tmp) before anything is created, and the tree is removed when the process
// exits normally.
#ifndef VEXA_FUZZ_FUZZ_SUPPORT_H
#define VEXA_FUZZ_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vexa_fuzz {

// Makes the sandbox once; later calls do nothing. Aborts when it cannot be made.
void init_sandbox();
// A path inside the sandbox (init_sandbox must have run).
std::string sandbox_file(const std::string& name);

// The input cut at every NUL byte. The pieces hold no NUL; an input without
// one is a single piece, an empty input none.
std::vector<std::string> split_at_nul(const uint8_t* data, size_t size);

// Prints the failed condition and aborts; see FUZZ_CHECK.
[[noreturn]] void check_failed(const char* what, const char* file, int line);

}  // namespace vexa_fuzz

// Stops the fuzzer with a message when an invariant does not hold; libFuzzer
// reports the abort as a crash and keeps the input.
#define FUZZ_CHECK(cond)                                        \
    do {                                                        \
        if (!(cond)) {                                          \
            vexa_fuzz::check_failed(#cond, __FILE__, __LINE__); \
        }                                                       \
    } while (0)

#endif  // VEXA_FUZZ_FUZZ_SUPPORT_H
