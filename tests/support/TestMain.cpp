#include "support/ParentDeath.h"
#include "support/RefusingServices.h"
#include "support/WholeRun.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace {

// A scratch root has a short path, and so do sockets. A temporary folder with a long one is left alone.
void chooseTemporaryFolder() {
    constexpr std::size_t longest = 30;
    const char* given = std::getenv("TMPDIR");
    if (given && std::strlen(given) > longest) setenv("TMPDIR", "/tmp", 1);
}

} // namespace

int main(int argc, char** argv) {
    chooseTemporaryFolder();
    testsupport::endForksWithTheirParents();
    testsupport::installRefusingServices();
    testing::InitGoogleTest(&argc, argv);
    const testsupport::WholeRun run;
    return RUN_ALL_TESTS();
}
