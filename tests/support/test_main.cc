// Main of every test binary that links the internal library: the process gets
// a private sandbox for its temporary directories, the common log and the
// endpoint logs (also of the programs it launches), so that CTest can run the
// binaries in parallel.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/test_support.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const std::string name = argv[0];
    const vexa_test::TempDir sandbox("vexa-" + name.substr(name.rfind('/') + 1) + "-");
    vexa_test::set_temp_root(sandbox.path());
    vexa_test::make_dirs(sandbox.path() + "qz/");
    vexa_test::make_dirs(vexa_test::endpoint_dir());
    setenv("QZ_LOGPATH", (sandbox.path() + "qz/").c_str(), 1);
    setenv("VEXA_LOG_DIR", vexa_test::endpoint_dir().c_str(), 1);
    const int rc = RUN_ALL_TESTS();
    return rc;
}
