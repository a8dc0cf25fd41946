// machost as a program: what becomes of small executables.

#include "support/MachOBuilder.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fcntl.h>

namespace {

using testsupport::MachOBuilder;
using testsupport::raw;
using namespace std::string_literals;

struct Outcome {
    int status = -1;
    std::string output;
    std::string errors;
};

class MachostRun : public testing::Test {
protected:
    Outcome run(const std::vector<std::uint8_t>& program, std::vector<std::string> words = {}) {
        testsupport::writeAll(folder.file("program"), {program.begin(), program.end()});
        std::vector<std::string> all = {OSTLER_BINARY_DIR "/machost/machost", folder.file("program")};
        all.insert(all.end(), words.begin(), words.end());
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) become(all);
        int status = 0;
        waitpid(child, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testsupport::readAll(folder.file("out")),
                testsupport::readAll(folder.file("err"))};
    }

    // Code that calls through the first pointer of the data segment, then answers 42.
    static std::string callFirstPointer() {
        const auto distance = static_cast<std::uint32_t>(
            MachOBuilder::dataAddress - MachOBuilder::textAddress - MachOBuilder::codeOffset - 10);
        return "\x48\x83\xec\x08\xff\x15"s + raw(distance) + "\x48\x83\xc4\x08\xb8\x2a\0\0\0\xc3"s;
    }

    static std::string bindFirstPointer(const std::string& symbol) {
        return "\x11\x40"s + symbol + "\0\x51\x71\0\x90"s;
    }

    testsupport::TemporaryFolder folder;

private:
    [[noreturn]] void become(std::vector<std::string>& words) {
        dup2(open(folder.file("out").c_str(), O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
        dup2(open(folder.file("err").c_str(), O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        std::vector<char*> pointers;
        for (std::string& word : words)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);
        execv(pointers[0], pointers.data());
        _exit(127);
    }
};

TEST_F(MachostRun, EndsWithWhatMainAnswers) {
    const Outcome run = this->run(MachOBuilder().code("\xb8\x2a\0\0\0\xc3"s).bytes());
    EXPECT_EQ(run.status, 42);
    EXPECT_EQ(run.output + run.errors, "");
}

TEST_F(MachostRun, HandsTheWordsToMain) {
    // mov eax, edi; ret
    const Outcome run = this->run(MachOBuilder().code("\x89\xf8\xc3").bytes(), {"one", "two"});
    EXPECT_EQ(run.status, 3);
}

TEST_F(MachostRun, BindsAnImportToWhatIsPlayed) {
    const Outcome run = this->run(MachOBuilder()
                                      .library("/usr/lib/libSystem.B.dylib")
                                      .binds(bindFirstPointer("_getpid"))
                                      .code(callFirstPointer())
                                      .bytes());
    EXPECT_EQ(run.status, 42);
    EXPECT_EQ(run.errors, "");
}

TEST_F(MachostRun, EndsAtTheCallOfAnImportThatNothingPlays) {
    const Outcome run = this->run(MachOBuilder()
                                      .library("/usr/lib/libSystem.B.dylib")
                                      .binds(bindFirstPointer("_nobodyPlaysThis"))
                                      .code(callFirstPointer())
                                      .bytes());
    EXPECT_EQ(run.status, 70);
    EXPECT_EQ(run.errors, "machost: nothing plays _nobodyPlaysThis of /usr/lib/libSystem.B.dylib\n");
}

TEST_F(MachostRun, DoesNotMindAnImportThatIsNeverCalled) {
    const Outcome run = this->run(MachOBuilder()
                                      .library("/usr/lib/libSystem.B.dylib")
                                      .binds(bindFirstPointer("_nobodyPlaysThis"))
                                      .code("\xb8\x2a\0\0\0\xc3"s)
                                      .bytes());
    EXPECT_EQ(run.status, 42);
}

TEST_F(MachostRun, RefusesAFileThatIsNoMachO) {
    const Outcome run = this->run({'#', '!', '/', 'b', 'i', 'n', '/', 's', 'h'});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.errors.find("it ends too early"), std::string::npos) << run.errors;
}

} // namespace
