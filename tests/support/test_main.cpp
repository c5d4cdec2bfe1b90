// Runs the tests of a program, each with the number of servers that the environment asks for.
#include "host/reference/settings.h"
#include "tests/support/options.h"

#include <gtest/gtest.h>

namespace {

class ServersOfEachTest : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& /*test*/) override {
        reference_host::SetNumberOfServers(test_options::servers());
    }
};

}  // namespace

#if defined(__SANITIZE_ADDRESS__)
// The NRRD reader that imports use leaks the parts of headers that it refuses. Outside of sanitizers it works in a
// process of its own.
extern "C" [[gnu::visibility("default")]] const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libITKNrrdIO\n";
}
#endif

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (test_options::servers() > 0) {
        testing::UnitTest::GetInstance()->listeners().Append(new ServersOfEachTest);
    }
    return RUN_ALL_TESTS();
}
