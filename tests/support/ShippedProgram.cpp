#include "support/ShippedProgram.h"

#include "app/Switches.h"
#include "platform/HostPaths.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

#ifdef OSTLER_LAB_WORLD
#include "lab/MacProgram.h"
#endif

namespace testsupport {
namespace {

[[noreturn]] void runOwn(std::vector<std::string> words) {
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const int status = ostlerMain(static_cast<int>(words.size()), argv.data());
    if (testing::Test::HasFailure()) _exit(97);
    // As main would end, while background threads go on.
    std::exit(status);
}

} // namespace

std::string macProgram() {
    const char* program = std::getenv("OSTLER_PROGRAM");
    return program ? program : "";
}

std::string shownPath(const std::string& path) {
    const std::string root = platform::HostPaths::root();
    const bool isBelow = !root.empty() && path.compare(0, root.size(), root) == 0;
    return isBelow && !macProgram().empty() ? path.substr(root.size()) : path;
}

void becomeShippedProgram(const std::vector<std::string>& words) {
#ifdef OSTLER_LAB_WORLD
    if (!macProgram().empty())
        lab::becomeMacProgram(macProgram(), platform::HostPaths::root(), words, testing::Test::HasFailure);
#endif
    runOwn(words);
}

} // namespace testsupport
