// The libraries of a build that the lab is given: found without running anything of it, and shown to it in its view.

#include "lab/LabGivenProgram.h"
#include "lab/Namespaces.h"
#include "lab/ProgramLibraries.h"

#include <gtest/gtest.h>

#include <elf.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

using labtest::GivenProgram;
using labtest::LabRun;
using testsupport::readAll;
using testsupport::writeAll;

class LibrariesOfAProgram : public GivenProgram {
protected:
    // A copy of the borrower that names its library so, by as many letters.
    std::string borrowerOf(const std::string& name) {
        const std::string before = "liblab_borrowed.so", program = folder_.file("borrower");
        std::string bytes = readAll(borrower_);
        bytes.replace(bytes.find(before), before.size(), name);
        writeAll(program, bytes);
        chmod(program.c_str(), 0755);
        return program;
    }

    void expectRefused(const std::string& program, const std::string& reason) {
        const LabRun run = replay({"--program", program});
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.err, "fernhill-lab: " + program + ": " + reason + "\n");
    }

    void expectBorrowed(const std::string& program) {
        const LabRun run = replay({"--program", program});
        EXPECT_NE(run.err.find("the word is borrowed\n"), std::string::npos) << run.err;
    }

    const std::string library_ = folder_.file("liblab_borrowed.so");
};

// All files that the interpreter names, without links.
std::set<std::string> namedByInterpreter(const std::string& program) {
    std::set<std::string> files;
    std::FILE* const output = popen(("/lib64/ld-linux-x86-64.so.2 --list " + program).c_str(), "r");
    char line[4096];
    while (std::fgets(line, sizeof line, output)) {
        const std::string text = line;
        const auto begin = text.find('/'), end = text.find(" (0x");
        if (begin != std::string::npos) files.insert(fs::canonical(text.substr(begin, end - begin)));
    }
    pclose(output);
    return files;
}

TEST(LibrariesOfABuild, AreThoseThatItsInterpreterNames) {
    for (const char* name : {"/src/fernhill", "/tests/lab_tests", "/tests/lab_neighbour"}) {
        const std::string program = std::string(OSTLER_BINARY_DIR) + name;
        std::set<std::string> files;
        for (const std::string& file : lab::librariesOf(program))
            files.insert(fs::canonical(file));
        EXPECT_GE(files.size(), 3u);
        EXPECT_EQ(files, namedByInterpreter(program)) << name;
    }
}

TEST_F(LibrariesOfAProgram, AreNoneThatAuditItsLoadingOutsideOfTheView) {
    const std::string trace = folder_.file("audited");
    setenv("OSTLER_AUDITED", trace.c_str(), 1);
    const LabRun run = replay({"--program", audited_});

    EXPECT_NE(run.err.find("word -logecho\n"), std::string::npos) << run.err;
    EXPECT_FALSE(fs::exists(trace)) << "it has run outside";
}

TEST_F(LibrariesOfAProgram, AreNotLookedForInFoldersThatAreNotWhole) {
    fs::copy(borrowed_, library_);
    fs::current_path(folder_.path());
    const std::string program = borrowerOf("liblab_borrowed.so");
    for (const char* list : {".", "", "relative:./also"}) {
        setenv("LD_LIBRARY_PATH", list, 1);
        expectRefused(program, "its library liblab_borrowed.so is not found; install it, or name its folder, "
                               "from / on, in LD_LIBRARY_PATH");
    }
}

TEST_F(LibrariesOfAProgram, MayNotBeNamedFromAFolderThatItDoesNotRunIn) {
    writeAll(folder_.file("lib/ab_borrowed.so"), readAll(borrowed_));
    fs::current_path(folder_.path());
    expectRefused(
        borrowerOf("lib/ab_borrowed.so"),
        "its library lib/ab_borrowed.so is named from the folder where it runs, which in the lab is "
        "/; link it with a library that has a name (-soname)");
}

TEST_F(LibrariesOfAProgram, MayBeNamedByAWholePathWhereThereIsNothing) {
    expectRefused(borrowerOf("/tmp/lab_absent.so"),
                  "its library /tmp/lab_absent.so is not there; install it");
}

TEST_F(LibrariesOfAProgram, CannotBeShownWhereTheViewHasAFolderOfTheLabs) {
    const std::string volume = "/usr/local/bin", library = volume + "/liblab_borrowed.so";
    ASSERT_TRUE(lab::unshareAsRoot(CLONE_NEWNS));
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("volume", volume.c_str(), "tmpfs", 0, nullptr), 0);
    fs::copy(borrowed_, library);
    setenv("LD_LIBRARY_PATH", volume.c_str(), 1);
    const LabRun run = replay({"--program", borrower_});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err, "fernhill-lab: " + borrower_ + ": it cannot be run: " + library +
                           ": the program needs it and cannot see it there; move it below /opt\n");
    umount2(volume.c_str(), MNT_DETACH);
}

TEST_F(LibrariesOfAProgram, ArePassedOverWhereTheyAreOfAnotherMachine) {
    std::string bytes = readAll(borrowed_);
    bytes[offsetof(Elf64_Ehdr, e_machine)] = static_cast<char>(EM_AARCH64);
    writeAll(folder_.file("other/liblab_borrowed.so"), bytes);
    fs::copy(borrowed_, library_);
    setenv("LD_LIBRARY_PATH", (folder_.file("other") + ":" + folder_.path()).c_str(), 1);
    expectBorrowed(borrower_);
}

TEST_F(LibrariesOfAProgram, LieBehindALinkOrBesideItself) {
    fs::create_directory(folder_.file("libraries"));
    fs::copy(borrowed_, folder_.file("libraries/liblab_borrowed.so"));
    fs::create_directory_symlink(folder_.file("libraries"), folder_.file("link"));
    setenv("LD_LIBRARY_PATH", folder_.file("link").c_str(), 1);
    expectBorrowed(borrower_);

    unsetenv("LD_LIBRARY_PATH");
    fs::copy(neighbour_, folder_.file("libraries/neighbour"));
    expectBorrowed(folder_.file("libraries/neighbour"));
}

TEST_F(LibrariesOfAProgram, LieBesideItOnAVolumeOfItsOwn) {
    const std::string volume = folder_.file("volume");
    fs::create_directory(volume);
    ASSERT_TRUE(lab::unshareAsRoot(CLONE_NEWNS));
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("volume", volume.c_str(), "tmpfs", 0, nullptr), 0);
    fs::copy(neighbour_, volume + "/neighbour");
    fs::copy(borrowed_, volume + "/liblab_borrowed.so");

    expectBorrowed(volume + "/neighbour");
    umount2(volume.c_str(), MNT_DETACH);
}

TEST_F(LibrariesOfAProgram, AreNotLookedForBesideItWhereTheViewHasAFolderOfTheLabs) {
    const std::string volume = "/usr/local/bin", program = volume + "/neighbour";
    ASSERT_TRUE(lab::unshareAsRoot(CLONE_NEWNS));
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("volume", volume.c_str(), "tmpfs", 0, nullptr), 0);
    fs::copy(neighbour_, program);
    fs::copy(borrowed_, library_);
    setenv("LD_LIBRARY_PATH", folder_.path().c_str(), 1);
    const LabRun run = replay({"--program", program});

    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.err,
              "fernhill-lab: " + program + ": it cannot be run: " + program +
                  ": it looks for libraries beside itself, where a program in the lab has a folder of the "
                  "lab's; move it below /opt\n");
    umount2(volume.c_str(), MNT_DETACH);
}

TEST_F(LibrariesOfAProgram, ArePipesOrTextsOrCutShort) {
    setenv("LD_LIBRARY_PATH", folder_.path().c_str(), 1);
    const std::string beginning = "its library " + library_ + " cannot be loaded: ";
    ASSERT_EQ(mkfifo(library_.c_str(), 0700), 0);
    expectRefused(borrower_, beginning + "it is no regular file");

    fs::remove(library_);
    writeAll(library_, "GROUP(liblab_other.so)\n");
    expectRefused(borrower_, beginning + "it is no library");

    writeAll(library_, readAll(borrowed_).substr(0, 500));
    expectRefused(borrower_,
                  beginning + "it is cut short (its table of segments is not whole); build or copy it again");
}

} // namespace
