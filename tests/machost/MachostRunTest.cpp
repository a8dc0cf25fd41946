// machost as a program: what becomes of small executables.

#include "support/MachOBuilder.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
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
    int signal = 0;
};

class MachostRun : public testing::Test {
protected:
    Outcome run(const std::vector<std::uint8_t>& program, const std::vector<std::string>& words = {},
                const std::vector<std::string>& options = {}) {
        testsupport::writeAll(folder.file("program"), {program.begin(), program.end()});
        std::vector<std::string> all = {OSTLER_BINARY_DIR "/machost/machost"};
        all.insert(all.end(), options.begin(), options.end());
        all.push_back(folder.file("program"));
        all.insert(all.end(), words.begin(), words.end());
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) become(all);
        int status = 0;
        waitpid(child, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testsupport::readAll(folder.file("out")),
                testsupport::readAll(folder.file("err")), WIFSIGNALED(status) ? WTERMSIG(status) : 0};
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
        dup2(open(folder.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(open(folder.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
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

TEST_F(MachostRun, BindsAndMovesByChains) {
    // One page of the second segment: a bind, which is called, and 16 bytes behind it a pointer to the 42 that main
    // answers: mov rax, [rip + distance]; mov eax, [rax].
    constexpr std::uint64_t next = std::uint64_t{4} << 51, bind = std::uint64_t{1} << 63;
    const std::string starts = raw<std::uint32_t>(2) + raw<std::uint32_t>(0) + raw<std::uint32_t>(12) +
                               raw<std::uint32_t>(24) + raw<std::uint16_t>(0x1000) + raw<std::uint16_t>(6) +
                               raw<std::uint64_t>(0x1000) + raw<std::uint32_t>(0) + raw<std::uint16_t>(1) +
                               raw<std::uint16_t>(0);
    const auto imports = static_cast<std::uint32_t>(28 + starts.size());
    const std::string chains = raw<std::uint32_t>(0) + raw<std::uint32_t>(28) + raw(imports) +
                               raw(imports + 4) + raw<std::uint32_t>(1) + raw<std::uint32_t>(1) +
                               raw<std::uint32_t>(0) + starts + raw<std::uint32_t>(1 | 1u << 9) +
                               "\0_getpid\0"s;
    const auto distance = [](std::uint64_t data, std::uint64_t end) {
        return raw(static_cast<std::uint32_t>(MachOBuilder::dataAddress + data - MachOBuilder::textAddress -
                                              MachOBuilder::codeOffset - end));
    };
    const std::string code = "\x48\x83\xec\x08\xff\x15"s + distance(0, 10) + "\x48\x8b\x05"s +
                             distance(16, 17) + "\x8b\x00\x48\x83\xc4\x08\xc3"s;
    const Outcome run = this->run(MachOBuilder()
                                      .library("/usr/lib/libSystem.B.dylib")
                                      .pointer(0, bind | next)
                                      .pointer(16, 0x1000 + 64)
                                      .pointer(64, 42)
                                      .chainedFixups(chains)
                                      .code(code)
                                      .bytes());
    EXPECT_EQ(run.status, 42) << run.errors;
}

TEST_F(MachostRun, RunsInitialisersOfBothKindsInFrontOfMain) {
    // Each adds to the data's word at 128, which main answers: add dword [rip + distance], n; ret.
    constexpr std::uint64_t first = 0x900, second = 0x940, word = 0x1000 + 128;
    const auto adding = [](std::uint64_t at, char number) {
        return "\x83\x05"s + raw(static_cast<std::uint32_t>(word - at - 7)) + number + '\xc3';
    };
    const Outcome run =
        this->run(MachOBuilder()
                      .section(MachOBuilder::dataSegment, "__mod_init_func", 0x9, 0, 8)
                      .section(MachOBuilder::dataSegment, "__init_offsets", 0x16, 8, 4)
                      .pointer(0, MachOBuilder::textAddress + first)
                      .pointer(8, second)
                      .rebases("\x11\x21\x00\x51"s)
                      .text(first, adding(first, 40))
                      .text(second, adding(second, 2))
                      .code("\x8b\x05"s +
                            raw(static_cast<std::uint32_t>(word - MachOBuilder::codeOffset - 6)) + "\xc3"s)
                      .bytes());
    EXPECT_EQ(run.status, 42) << run.errors;
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

// Writes the eight bytes of the guard: mov edi, 1; mov rsi, [guard]; mov edx, 8; call [_write]; mov eax, 0.
std::string writeTheGuard() {
    const auto distance = [](std::uint64_t pointer, std::uint64_t end) {
        return raw(static_cast<std::uint32_t>(MachOBuilder::dataAddress + pointer -
                                              MachOBuilder::textAddress - MachOBuilder::codeOffset - end));
    };
    return "\x48\x83\xec\x08\xbf\x01\0\0\0\x48\x8b\x35"s + distance(0, 16) + "\xba\x08\0\0\0\xff\x15"s +
           distance(8, 27) + "\x31\xc0\x48\x83\xc4\x08\xc3"s;
}

TEST_F(MachostRun, DrawsAGuardOfTheStackForEachProcess) {
    const auto program = MachOBuilder()
                             .library("/usr/lib/libSystem.B.dylib")
                             .binds("\x11\x40___stack_chk_guard\0\x51\x71\0\x90\x40_write\0\x90"s)
                             .code(writeTheGuard())
                             .bytes();
    const Outcome first = run(program), second = run(program);
    ASSERT_EQ(first.output.size(), 8u) << first.errors;
    EXPECT_EQ(first.output[0], '\0') << "no text that runs over can leave the guard as it was";
    EXPECT_NE(first.output.substr(1), std::string(7, '\0'));
    EXPECT_NE(first.output, second.output);
}

TEST_F(MachostRun, EndsWithALineAndASignalWhenTheStackWasOverwritten) {
    const Outcome run = this->run(MachOBuilder()
                                      .library("/usr/lib/libSystem.B.dylib")
                                      .binds(bindFirstPointer("___stack_chk_fail"))
                                      .code(callFirstPointer())
                                      .bytes());
    EXPECT_EQ(run.signal, SIGABRT);
    EXPECT_EQ(run.errors, "machost: the program has written beyond an array on its stack\n");
}

// Section types, and protection of memory.
constexpr std::uint32_t regular = 0, initialisers = 9, initialiserOffsets = 0x16, threadRegular = 0x11,
                        threadZeroFill = 0x12, threadVariables = 0x13;
constexpr int codeSegment = MachOBuilder::textSegment, dataSegment = MachOBuilder::dataSegment;

// Damaged programs are refused before anything of them runs, with what is wrong.
class DamagedProgram : public MachostRun {
protected:
    std::string faultOf(const MachOBuilder& builder) {
        const Outcome run = this->run(builder.bytes());
        EXPECT_EQ(run.status, 2) << run.errors;
        const std::string head = "machost: " + folder.file("program") + ": ";
        return run.errors.compare(0, head.size(), head) == 0 ? run.errors.substr(head.size()) : run.errors;
    }

    // One class in the data segment: its record at 64, its data at 128, its methods at 256.
    static MachOBuilder classWith(std::uint64_t dataAt, std::uint64_t methods, std::uint64_t name) {
        constexpr std::uint64_t data = MachOBuilder::dataAddress;
        MachOBuilder builder;
        builder.section(dataSegment, "__objc_classlist", regular, 0, 8).pointer(0, data + 64);
        builder.pointer(64, data + 64).pointer(64 + 32, dataAt);
        builder.pointer(128 + 8, 8).pointer(128 + 24, name).pointer(128 + 32, methods);
        return builder;
    }
};

TEST_F(DamagedProgram, WithAnInitialiserOutsideItsCode) {
    MachOBuilder pointer;
    pointer.section(dataSegment, "__mod_init_func", initialisers, 0, 8).pointer(0, 0x42);
    EXPECT_EQ(faultOf(pointer), "an initialiser lies outside its code\n");
    MachOBuilder inData;
    inData.section(dataSegment, "__mod_init_func", initialisers, 0, 8)
        .pointer(0, MachOBuilder::dataAddress)
        .rebases("\x11\x21\x00\x51"s);
    EXPECT_EQ(faultOf(inData), "an initialiser lies outside its code\n");
    MachOBuilder offset;
    offset.section(dataSegment, "__init_offsets", initialiserOffsets, 0, 4).pointer(0, 0xffffffff);
    EXPECT_EQ(faultOf(offset), "an initialiser lies outside its code\n");
}

TEST_F(DamagedProgram, WithThreadVariablesWhereNothingCanBeWrittenOrApart) {
    MachOBuilder inCode;
    inCode.section(codeSegment, "__thread_vars", threadVariables, 0x900, 24)
        .section(dataSegment, "__thread_bss", threadZeroFill, 0, 8);
    EXPECT_EQ(faultOf(inCode), "something of it lies in memory that is not for it\n");
    MachOBuilder apart;
    apart.section(codeSegment, "__thread_data", threadRegular, 0x900, 8)
        .section(dataSegment, "__thread_bss", threadZeroFill, 0, 8);
    EXPECT_EQ(faultOf(apart), "something of it lies in memory that is not for it\n");
}

TEST_F(DamagedProgram, WithFrameDescriptionsThatLeaveTheirSection) {
    MachOBuilder toTheEnd;
    toTheEnd.section(codeSegment, "__eh_frame", regular, 0xff0, 0x10).text(0xff0, raw<std::uint32_t>(12));
    EXPECT_EQ(faultOf(toTheEnd), "something of it lies in memory that is not for it\n");
    MachOBuilder tooLong;
    tooLong.section(codeSegment, "__eh_frame", regular, 0x900, 16)
        .text(0x900, raw<std::uint32_t>(0x7fffffff));
    EXPECT_EQ(faultOf(tooLong), "its frame descriptions leave their section\n");
    MachOBuilder noCommonPart;
    noCommonPart.section(codeSegment, "__eh_frame", regular, 0x900, 16)
        .text(0x900, raw<std::uint32_t>(12) + raw<std::uint32_t>(0x7fffffff));
    EXPECT_EQ(faultOf(noCommonPart), "its frame descriptions leave their section\n");
}

TEST_F(DamagedProgram, WithAPersonalityOutsideItsMemory) {
    const std::string table = raw<std::uint32_t>(1) + raw<std::uint32_t>(28) + raw<std::uint32_t>(0) +
                              raw<std::uint32_t>(28) + raw<std::uint32_t>(1) + raw<std::uint32_t>(32) +
                              raw<std::uint32_t>(0) + raw<std::uint32_t>(0x70000000);
    EXPECT_EQ(faultOf(MachOBuilder()
                          .section(codeSegment, "__unwind_info", regular, 0x900, table.size())
                          .text(0x900, table)),
              "something of it lies in memory that is not for it\n");
}

TEST_F(DamagedProgram, WithSelectorsThatAreNoTexts) {
    MachOBuilder wild;
    wild.section(dataSegment, "__objc_selrefs", regular, 0, 8).pointer(0, 0x4242424242424242);
    EXPECT_EQ(faultOf(wild), "something of it lies in memory that is not for it\n");
    MachOBuilder endless;
    endless.section(dataSegment, "__objc_selrefs", regular, 0, 8)
        .pointer(0, MachOBuilder::dataAddress + 0xfff)
        .pointer(0xff8, ~0ull)
        .rebases("\x11\x21\x00\x51"s);
    EXPECT_EQ(faultOf(endless), "a text has no end\n");
}

TEST_F(DamagedProgram, WithClassesThatPointAnywhere) {
    constexpr std::uint64_t data = MachOBuilder::dataAddress, wild = 0x424242424240;
    const std::string rebases = "\x11\x21\x00\x51\x21\xc0\x00\x51"s; // the list's pointer, and the isa
    const std::string fault = "something of it lies in memory that is not for it\n";
    const auto placed = [&](MachOBuilder builder, const std::string& more) {
        return builder.rebases(rebases + more);
    };
    const std::string dataPointer = "\x21\xe0\x00\x51"s, name = "\x21\x98\x01\x51"s,
                      methods = "\x21\xa0\x01\x51"s;
    EXPECT_EQ(faultOf(placed(classWith(wild, 0, data + 512), "")), fault);
    EXPECT_EQ(faultOf(placed(classWith(data + 128, 0, wild), dataPointer)), fault);
    EXPECT_EQ(faultOf(placed(classWith(data + 128, wild, data + 512), dataPointer + name)), fault);
    MachOBuilder tooMany = classWith(data + 128, data + 256, data + 512).pointer(256, 24 | 0xffffffull << 32);
    EXPECT_EQ(faultOf(placed(tooMany, dataPointer + name + methods)), fault);
    MachOBuilder small = classWith(data + 128, 0, data + 512).pointer(128 + 8, 4);
    EXPECT_EQ(faultOf(placed(small, dataPointer + name)),
              "a class has objects without room for their class\n");
    MachOBuilder wildAncestor = classWith(data + 128, 0, data + 512).pointer(64 + 8, wild);
    EXPECT_EQ(faultOf(placed(wildAncestor, dataPointer + name)),
              "a class is below something that is no class\n");
    MachOBuilder ownAncestor = classWith(data + 128, 0, data + 512).pointer(64 + 8, data + 64);
    EXPECT_EQ(faultOf(placed(ownAncestor, dataPointer + name + "\x21\xc8\x00\x51"s)),
              "a class is its own ancestor\n");
}

TEST_F(MachostRun, TellsWhatWasNeverReleasedAndInAPlayedWorldEndsWithIt) {
    // The registry's root is asked for and kept: its path stands at 0x900.
    const auto distance = [](std::uint64_t to, std::uint64_t end) {
        return raw(static_cast<std::uint32_t>(to - MachOBuilder::codeOffset - end));
    };
    const auto program = MachOBuilder()
                             .library("/System/Library/Frameworks/IOKit.framework/Versions/A/IOKit")
                             .binds(bindFirstPointer("_IORegistryEntryFromPath"))
                             .text(0x900, "IOService:/")
                             .code("\x48\x83\xec\x08\x31\xff\x48\x8d\x35"s + distance(0x900, 13) +
                                   "\xff\x15"s + distance(0x1000, 19) + "\x31\xc0\x48\x83\xc4\x08\xc3"s)
                             .bytes();
    const Outcome alone = run(program);
    EXPECT_EQ(alone.status, 0);
    EXPECT_EQ(alone.errors, "machost: 1 IOKit entries never released\n");
    const Outcome inWorld = run(program, {}, {"--world", folder.file("nobody")});
    EXPECT_EQ(inWorld.status, 71);
    EXPECT_EQ(inWorld.errors, "machost: 1 IOKit entries never released\n");
}

TEST_F(MachostRun, RefusesOptionsThatItDoesNotKnowOrThatLackTheirWord) {
    const auto program = MachOBuilder().code("\xc3").bytes();
    for (const std::vector<std::string>& options :
         {std::vector<std::string>{"--other", "word"}, std::vector<std::string>{"--root"}})
        EXPECT_EQ(run(program, {}, options).status, 2);
}

TEST_F(MachostRun, RefusesAFileThatIsNoMachO) {
    const Outcome run = this->run({'#', '!', '/', 'b', 'i', 'n', '/', 's', 'h'});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.errors.find("it ends too early"), std::string::npos) << run.errors;
}

} // namespace
