// Main of every test binary that links the internal library: it gives the
// process a private sandbox directory for the common log and the endpoint logs,
// so that CTest can run the binaries in parallel.
#include <gtest/gtest.h>

namespace vexa_test {
void init_sandbox(const char* programName);
void remove_sandbox();
}  // namespace vexa_test

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    vexa_test::init_sandbox(argv[0]);
    int rc = RUN_ALL_TESTS();
    vexa_test::remove_sandbox();
    return rc;
}
