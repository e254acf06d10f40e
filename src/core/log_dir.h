// Directory of the endpoints' log files and marker files.
//
// The shipped library always uses the build-time default "/mnt/sdcard/vexa/";
// no environment variable or exported function changes it. The setter exists
// only so that test binaries, which link the internal library, can give every
// test process a private directory and run in parallel without touching the
// device path. Nothing in the library calls it.
#ifndef VEXA_CORE_LOG_DIR_H
#define VEXA_CORE_LOG_DIR_H

#include <string>

namespace vexa {

// The directory, ending with "/".
std::string endpoint_log_dir();
// Test seam, see above. `dir` must end with "/".
void set_endpoint_log_dir_for_testing(const std::string& dir);

}  // namespace vexa

#endif  // VEXA_CORE_LOG_DIR_H
