#include "support/ParentDeath.h"
#include "support/RefusingServices.h"
#include "support/WholeRun.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

// A scratch root has a short path, and so do sockets. A temporary folder with a long one is left alone.
void chooseTemporaryFolder() {
    constexpr std::size_t longest = 30;
    const char* given = std::getenv("TMPDIR");
    if (given && std::strlen(given) > longest) setenv("TMPDIR", "/tmp", 1);
}

// A script's shell has what it starts in the background ignore the keyboard's signals, and so would every program that a
// test starts: no shell among them could trap one.
void heedKeyboardSignals() {
    for (int number : {SIGINT, SIGQUIT})
        std::signal(number, SIG_DFL);
}

} // namespace

int main(int argc, char** argv) {
    chooseTemporaryFolder();
    heedKeyboardSignals();
    testsupport::endForksWithTheirParents();
    testsupport::installRefusingServices();
    testing::InitGoogleTest(&argc, argv);
    const testsupport::WholeRun run;
    return RUN_ALL_TESTS();
}
