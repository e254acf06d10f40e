#include "server/so_loader.h"

#include <dlfcn.h>
#include <unistd.h>

#include "comm/logger.h"

namespace vexa {
namespace {

using RunTestSo = int (*)(const char* servPath, const char* dValue, const char* extraArgs);
using ReleaseTestSo = void (*)();

}  // namespace

std::atomic<void*> SoLoader::m_hDllLib{nullptr};

void SoLoader::load_test_so(const std::string& path, const char* dValue, const char* extraArgs,
                            const std::string& servPath, comm::Logger* logger) {
    // A file path makes this fail and leaves the working directory alone;
    // the call is kept because a library directory may depend on it.
    if (chdir(path.c_str()) != 0) {
    }
    logger->writeFormat("load library:%s", path.c_str());
    void* handle = dlopen(path.c_str(), RTLD_LAZY);
    m_hDllLib = handle;
    if (handle == nullptr) {
        const char* error = dlerror();
        logger->writeFormat("failed load %s (maybe not exist). dlerror=%s", path.c_str(),
                            error != nullptr ? error : "");
        return;
    }
    auto runTest = reinterpret_cast<RunTestSo>(dlsym(handle, "run_test_so"));
    if (runTest == nullptr) {
        logger->writeLine("invalid library");
        dlclose(handle);
        m_hDllLib = nullptr;
        return;
    }
    runTest(servPath.c_str(), dValue, extraArgs);
}

void SoLoader::release_test_so_client(comm::Logger* logger) {
    void* handle = m_hDllLib;
    auto release = handle != nullptr
                       ? reinterpret_cast<ReleaseTestSo>(dlsym(handle, "release_test_so"))
                       : nullptr;
    if (release == nullptr) {
        logger->writeLine("invalid release_so_client");
        return;
    }
    release();
}

void SoLoader::close() {
    void* handle = m_hDllLib.exchange(nullptr);
    if (handle != nullptr) {
        dlclose(handle);
    }
}

}  // namespace vexa
