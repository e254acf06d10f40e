// Tests delivered as shared objects: loaded into the host's own process, their
// run_test_so(serv_path, d_value, extra_args) called once, and their
// release_test_so() called when the server is destroyed.
#ifndef VEXA_SERVER_SO_LOADER_H
#define VEXA_SERVER_SO_LOADER_H

#include <atomic>
#include <string>

namespace comm {
class Logger;
}

namespace vexa {

class SoLoader {
  public:
    // The one loaded test library of the process, null when none. Loading a
    // second one overwrites the slot without closing the first.
    static std::atomic<void*> m_hDllLib;

    // Loads `path` and calls its run_test_so on the calling thread. Failures
    // leave one log line and no library.
    static void load_test_so(const std::string& path, const char* dValue, const char* extraArgs,
                             const std::string& servPath, comm::Logger* logger);
    // Calls the loaded library's release_test_so; the library stays open.
    static void release_test_so_client(comm::Logger* logger);
    // dlclose of the loaded library, which is then forgotten.
    static void close();
};

}  // namespace vexa

#endif  // VEXA_SERVER_SO_LOADER_H
