// Builds that cannot be run: refused with status 2 and one line that names the file, the reason and the way out.

#include "lab/LabGivenProgram.h"
#include "support/MachOBuilder.h"

#include <gtest/gtest.h>

#include <elf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>

namespace {

namespace fs = std::filesystem;

using labtest::GivenProgram;
using labtest::LabRun;
using testsupport::readAll;
using testsupport::writeAll;

class RefusedProgram : public GivenProgram {
protected:
    // A build with these bytes, which may be executed.
    std::string program(const std::string& bytes) {
        writeAll(program_, bytes);
        chmod(program_.c_str(), 0755);
        return program_;
    }

    // This build, with one number of its header changed.
    template <class Number>
    std::string programWith(std::size_t offset, Number number) {
        std::string bytes = readAll(fernhill_);
        std::memcpy(&bytes[offset], &number, sizeof number);
        return program(bytes);
    }

    // Changes the segments of this type in the bytes of a build.
    static void change(std::string& bytes, Elf64_Word type, const std::function<void(Elf64_Phdr&)>& how) {
        Elf64_Ehdr header;
        std::memcpy(&header, bytes.data(), sizeof header);
        for (int i = 0; i < header.e_phnum; ++i) {
            Elf64_Phdr segment;
            char* const place = &bytes[header.e_phoff + i * sizeof segment];
            std::memcpy(&segment, place, sizeof segment);
            if (segment.p_type == type) how(segment);
            std::memcpy(place, &segment, sizeof segment);
        }
    }

    void expectRefused(const std::string& path, const std::string& reason) {
        const LabRun run = replay({"--program", path});
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.err, "fernhill-lab: " + path + ": " + reason + "\n");
    }

    const std::string program_ = folder_.file("program");
};

TEST_F(RefusedProgram, IsNoProgram) {
    expectRefused(
        program("allow *\n"),
        "it is neither a Mach-O file for x86-64 nor a program of this system; give a build of the daemon");
}

TEST_F(RefusedProgram, IsAScript) {
    expectRefused(
        program("#!/bin/sh\n"),
        "it is neither a Mach-O file for x86-64 nor a program of this system; give a build of the daemon");
}

TEST_F(RefusedProgram, IsAPipe) {
    const std::string pipe = folder_.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0700), 0);
    expectRefused(pipe, "it is no regular file");
}

TEST_F(RefusedProgram, IsALinkToItself) {
    fs::create_symlink("loop", folder_.file("loop"));
    expectRefused(folder_.file("loop"), "Too many levels of symbolic links");
}

TEST_F(RefusedProgram, MayNotBeExecuted) {
    for (const mode_t mode : {0644, 0000}) {
        program(readAll(fernhill_));
        ASSERT_EQ(chmod(program_.c_str(), mode), 0);
        expectRefused(program_, "it may not be executed; chmod +x lets it");
        ASSERT_EQ(unlink(program_.c_str()), 0);
    }
}

TEST_F(RefusedProgram, IsLargerThanAnyBuild) {
    program(readAll(fernhill_));
    fs::resize_file(program_, (std::uintmax_t{1} << 30) + 1);
    expectRefused(program_, "it is larger than any build of the daemon; give such a build");
}

TEST_F(RefusedProgram, IsCutShort) {
    const std::string whole = readAll(fernhill_);
    expectRefused(program(whole.substr(0, 40)),
                  "it is cut short (its header is not whole); build or copy it again");
    expectRefused(program(whole.substr(0, 100)),
                  "it is cut short (its table of segments is not whole); build or copy it again");
    expectRefused(program(whole.substr(0, 8192)),
                  "it is cut short (a segment lies behind its end); build or copy it again");
}

TEST_F(RefusedProgram, IsOfAnotherMachine) {
    expectRefused(programWith(offsetof(Elf64_Ehdr, e_ident) + EI_CLASS, ELFCLASS32),
                  "it is no program of 64 bits; give a build for x86-64 Linux");
    expectRefused(programWith(offsetof(Elf64_Ehdr, e_machine), Elf64_Half{EM_AARCH64}),
                  "it is a program of another machine (number 183); give a build for x86-64 Linux");
}

TEST_F(RefusedProgram, IsAnObjectFile) {
    expectRefused(programWith(offsetof(Elf64_Ehdr, e_type), Elf64_Half{ET_REL}),
                  "it is an ELF file but no program; give one that is linked");
}

TEST_F(RefusedProgram, IsDamaged) {
    expectRefused(programWith(offsetof(Elf64_Ehdr, e_phnum), Elf64_Half{0}),
                  "it is damaged (its header names no segments); build or copy it again");
    expectRefused(programWith(offsetof(Elf64_Ehdr, e_entry), Elf64_Addr{1} << 40),
                  "it is damaged (it begins in no code of its own); build or copy it again");
    expectRefused(programWith(offsetof(Elf64_Ehdr, e_phoff), ~Elf64_Off{0}),
                  "it is cut short (its table of segments is not whole); build or copy it again");
}

TEST_F(RefusedProgram, HasAnInterpreterThatIsNotHere) {
    std::string bytes = readAll(fernhill_);
    bytes.replace(bytes.find("/lib64/ld-linux"), 15, "/lib64/ld-minix");
    expectRefused(program(bytes),
                  "its interpreter \"/lib64/ld-minix-x86-64.so.2\" cannot be run here; install "
                  "it, or give a build for x86-64 Linux");
}

TEST_F(RefusedProgram, HasAnInterpreterThatIsAFolderOrHasNoWholePath) {
    const std::string usual = "/lib64/ld-linux-x86-64.so.2";
    std::string folder = "usr", relative = "interpreter";
    folder.insert(0, usual.size() - folder.size(), '/');
    relative.resize(usual.size(), '-');
    fs::current_path(folder_.path());
    fs::copy(fernhill_, relative);
    for (const std::string& interpreter : {folder, relative}) {
        std::string bytes = readAll(fernhill_);
        bytes.replace(bytes.find(usual), usual.size(), interpreter);
        expectRefused(program(bytes),
                      "its interpreter \"" + interpreter +
                          "\" cannot be run here; install it, or give a build for x86-64 Linux");
    }
}

TEST_F(RefusedProgram, IsLinkedWithoutLibraries) {
    std::string bytes = readAll(fernhill_);
    change(bytes, PT_INTERP, [](Elf64_Phdr& segment) { segment.p_type = PT_NULL; });
    expectRefused(program(bytes),
                  "it is linked without libraries, so no library can play its clock; link it with them");
}

TEST_F(RefusedProgram, HasASegmentWithoutRoomForItsBytes) {
    std::string bytes = readAll(fernhill_);
    change(bytes, PT_LOAD, [](Elf64_Phdr& segment) { segment.p_memsz = segment.p_filesz - 1; });
    expectRefused(program(bytes),
                  "it is damaged (a segment has no room for its bytes); build or copy it again");
}

TEST_F(RefusedProgram, HasItsLibrariesNamesNowhere) {
    std::string bytes = readAll(fernhill_);
    change(bytes, PT_DYNAMIC, [&bytes](const Elf64_Phdr& segment) {
        for (Elf64_Off place = segment.p_offset;; place += sizeof(Elf64_Dyn)) {
            Elf64_Dyn entry;
            std::memcpy(&entry, &bytes[place], sizeof entry);
            if (entry.d_tag == DT_STRTAB) entry.d_un.d_ptr = Elf64_Addr{1} << 40;
            std::memcpy(&bytes[place], &entry, sizeof entry);
            if (entry.d_tag == DT_STRTAB) return;
        }
    });
    expectRefused(program(bytes), "it is damaged (a name lies nowhere in it); build or copy it again");
}

TEST_F(RefusedProgram, LacksALibrary) {
    expectRefused(borrower_, "its library liblab_borrowed.so is not found; install it, or name its folder, "
                             "from / on, in LD_LIBRARY_PATH");
}

TEST_F(RefusedProgram, IsADamagedBuildForTheMac) {
    const std::vector<std::uint8_t> bytes = testsupport::MachOBuilder().code("\xc3").bytes();
    expectRefused(program({bytes.begin(), bytes.begin() + 200}), "it ends too early; build or copy it again");
}

TEST_F(RefusedProgram, IsABuildForTheMacThatMayNotBeExecuted) {
    const std::vector<std::uint8_t> bytes = testsupport::MachOBuilder().code("\xc3").bytes();
    writeAll(program_, {bytes.begin(), bytes.end()});
    ASSERT_EQ(chmod(program_.c_str(), 0644), 0);
    expectRefused(program_, "it may not be executed; chmod +x lets it");
}

} // namespace
