// Linked only into the test copy of libvexatool64.so: when the library is
// loaded, the endpoints' log directory is taken from VEXA_TEST_ENDPOINT_LOG_DIR
// (made if missing), so tests that use the shared library keep their logs in
// their own directory. The shipped library has no such variable.
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "core/log_dir.h"

namespace {

void make_parents(const std::string& dir) {
    for (std::string::size_type slash = dir.find('/', 1); slash != std::string::npos;
         slash = dir.find('/', slash + 1)) {
        mkdir(dir.substr(0, slash).c_str(), 0755);
    }
}

struct EndpointDirFromEnvironment {
    EndpointDirFromEnvironment() {
        const char* dir = std::getenv("VEXA_TEST_ENDPOINT_LOG_DIR");
        if (dir == nullptr || *dir == '\0') {
            return;
        }
        std::string path = dir;
        if (path.back() != '/')
            path += '/';
        make_parents(path);
        vexa::set_endpoint_log_dir_for_testing(path);
    }
};

const EndpointDirFromEnvironment g_endpointDirFromEnvironment;

}  // namespace
