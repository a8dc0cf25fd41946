// The libraries of files that no build would have: found, or refused, in bounded time and memory.

#include "lab/ProgramLibraries.h"

#include "lab/Descriptor.h"
#include "lab/LabElfBuilder.h"
#include "lab/LibraryFolders.h"
#include "lab/Policy.h"
#include "support/Patience.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

using labtest::ElfBuilder;
using testsupport::writeAll;
using Paths = std::vector<std::string>;

class ProgramLibraries : public testing::Test {
protected:
    void SetUp() override { unsetenv("LD_LIBRARY_PATH"); }

    std::string refusal(std::chrono::milliseconds patience = testsupport::patience) const {
        try {
            lab::librariesOf(program_, patience);
            return "";
        } catch (const lab::InputError& error) {
            const std::string words = error.what(), beginning = program_ + ": ";
            EXPECT_EQ(words.rfind(beginning, 0), 0u) << words;
            return words.substr(beginning.size());
        }
    }

    // A program and so many libraries, each of which needs the next, with these folders in front of their own.
    void writeChain(int count, const std::function<std::string(int)>& foldersOf) const {
        for (int i = 0; i <= count; ++i) {
            ElfBuilder file;
            if (i < count) file.needs("lib" + std::to_string(i + 1) + ".so");
            file.pathForAll(foldersOf(i) + folder_.path());
            if (i == 0)
                file.writeProgram(program_);
            else
                file.writeLibrary(folder_.file("lib" + std::to_string(i) + ".so"));
        }
    }

    const testsupport::TemporaryFolder folder_;
    const std::string program_ = folder_.file("program");
};

TEST_F(ProgramLibraries, AreLookedForOnceInAFolderThatIsNamedOften) {
    std::string often;
    for (int i = 0; i < 1900; ++i)
        often += "/:";
    writeChain(200, [&](int) { return often; });
    EXPECT_EQ(lab::librariesOf(program_, testsupport::patience).size(), 201u);
}

// In front of the only one that has them stands the same one, named by each library on the way.
TEST_F(ProgramLibraries, AreLookedForOnceInAFolderThatManyLibrariesName) {
    constexpr int count = 511;
    for (int i = 0; i <= count; ++i) {
        ElfBuilder file;
        if (i < count) file.needs("lib" + std::to_string(i + 1) + ".so");
        file.pathForAll(i == 0 ? "/:" + folder_.path() : "/");
        if (i == 0)
            file.writeProgram(program_);
        else
            file.writeLibrary(folder_.file("lib" + std::to_string(i) + ".so"));
    }
    EXPECT_EQ(lab::librariesOf(program_, testsupport::patience).size(), count + 1u);
}

TEST_F(ProgramLibraries, AreNotLookedForInMoreFoldersThanAnyBuilds) {
    writeChain(200, [](int i) {
        std::string folders;
        for (int j = 0; j < 300; ++j)
            folders += "/" + std::to_string(i * 300 + j) + ":";
        return folders;
    });
    EXPECT_EQ(refusal(), "its libraries are to be looked for in more folders than any build's; name fewer "
                         "in LD_LIBRARY_PATH, or where it is linked (-rpath)");
}

TEST_F(ProgramLibraries, AreNotLookedForInMoreFoldersThanAnybodyNames) {
    std::string folders;
    for (int j = 0; j < 2000; ++j)
        folders += "/" + std::to_string(j) + ":";
    setenv("LD_LIBRARY_PATH", folders.c_str(), 1);
    writeChain(200, [](int) { return ""; });
    EXPECT_EQ(refusal(), "its libraries are to be looked for in more folders than any build's; name fewer "
                         "in LD_LIBRARY_PATH, or where it is linked (-rpath)");
}

TEST_F(ProgramLibraries, AreNoMoreThanAnyBuilds) {
    writeChain(512, [](int) { return ""; });
    EXPECT_EQ(lab::librariesOf(program_, testsupport::patience).size(), 513u);
    writeChain(513, [](int) { return ""; });
    EXPECT_EQ(refusal(), "it has more libraries than any build; give a build of the daemon");
}

TEST_F(ProgramLibraries, HaveNoMoreNamesThanAnyBuilds) {
    ElfBuilder program, library;
    program.pathForItself(folder_.path());
    for (int i = 0; i < 5; ++i) {
        program.needs("lib" + std::to_string(i) + ".so");
        library.writeLibrary(folder_.file("lib" + std::to_string(i) + ".so"));
    }
    program.writeProgram(program_);
    EXPECT_EQ(lab::librariesOf(program_, testsupport::patience).size(), 6u);

    for (int i = 0; i < 1000; ++i)
        library.needs(std::string(4000, 'x'));
    for (int i = 0; i < 5; ++i)
        library.writeLibrary(folder_.file("lib" + std::to_string(i) + ".so"));
    EXPECT_EQ(refusal(),
              "its libraries have more names and folders than any build's; give a build of the daemon");
}

TEST_F(ProgramLibraries, MayNotNameMoreThanTheLabReads) {
    ElfBuilder library;
    library.needs("libabsent.so");
    for (int i = 0; i < 5000; ++i)
        library.pathForItself("/");
    library.writeLibrary(folder_.file("libfirst.so"));
    ElfBuilder().needs("libfirst.so").pathForItself(folder_.path()).writeProgram(program_);
    EXPECT_EQ(refusal(), "its library " + folder_.file("libfirst.so") +
                             " cannot be loaded: it names more of libraries than any build; give a build of "
                             "the daemon");
}

TEST_F(ProgramLibraries, AreNotLookedForLongerThanAnyBuilds) {
    writeChain(3, [](int) { return ""; });
    EXPECT_EQ(lab::librariesOf(program_, testsupport::patience).size(), 4u);
    EXPECT_EQ(
        refusal(std::chrono::seconds(0)),
        "its libraries take longer to be found than any build's; name fewer folders in LD_LIBRARY_PATH, "
        "or give a build whose libraries lie on this machine's own volumes");
}

TEST_F(ProgramLibraries, AreNotOpenedWhereTheyAreNoFiles) {
    const std::string pipe = folder_.file("pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0700), 0);
    ElfBuilder().needs(pipe).writeProgram(program_);
    const lab::Descriptor openings(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(openings, pipe.c_str(), IN_OPEN), 0);
    EXPECT_EQ(refusal(), "its library " + pipe + " cannot be loaded: it is no regular file");

    char event[512];
    EXPECT_EQ(read(openings, event, sizeof event), -1) << "it has been opened";
    close(open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_GT(read(openings, event, sizeof event), 0) << "an opening is not seen";
}

TEST_F(ProgramLibraries, MayBeNamedFromTheFolderOfWhoNeedsThem) {
    ElfBuilder().needs("$ORIGIN/libraries/libfirst.so").writeProgram(program_);
    ElfBuilder().needs("${ORIGIN}/libsecond.so").writeLibrary(folder_.file("libraries/libfirst.so"));
    ElfBuilder().writeLibrary(folder_.file("libraries/libsecond.so"));
    const Paths files = lab::librariesOf(program_, testsupport::patience);
    EXPECT_EQ(Paths(files.begin() + 1, files.end()),
              (Paths{folder_.file("libraries/libfirst.so"), folder_.file("libraries/libsecond.so")}));

    fs::remove(folder_.file("libraries/libsecond.so"));
    EXPECT_EQ(refusal(),
              "its library " + folder_.file("libraries/libsecond.so") + " is not there; install it");
}

TEST_F(ProgramLibraries, MayNotBeNamedByOtherWordsOfTheInterpreter) {
    ElfBuilder().needs("$LIB/libfirst.so").writeProgram(program_);
    EXPECT_EQ(refusal(),
              "its library $LIB/libfirst.so begins with a word that the lab does not know; link it with "
              "a library that has a name (-soname)");
    for (const std::string& name : Paths{"/opt/$LIB/libfirst.so", "/opt/${PLATFORM}/libfirst.so"}) {
        ElfBuilder().needs(name).writeProgram(program_);
        EXPECT_EQ(refusal(), "its library " + name +
                                 " has a word in its path that the lab does not know; link it with a library "
                                 "that has a name (-soname)");
    }
}

TEST(FoldersOfLibraries, AreWhatAFileNamesAndThoseThatItIncludesFromItsFolder) {
    const testsupport::TemporaryFolder folder;
    fs::create_directories(folder.file("parts/deep"));
    writeAll(folder.file("configuration"), "/first # and a word\ninclude parts/*.conf\n/last\nrelative\n");
    writeAll(folder.file("parts/a.conf"), "/a\ninclude deep/c.conf\n/behind-c\n");
    writeAll(folder.file("parts/b.conf"), "/b");
    writeAll(folder.file("parts/deep/c.conf"), "/c\n");
    EXPECT_EQ(lab::configuredFolders(folder.file("configuration")),
              (Paths{"/first", "/a", "/c", "/behind-c", "/b", "/last"}));
}

TEST(FoldersOfLibraries, AreReadOnceFromFilesThatIncludeEachOther) {
    const testsupport::TemporaryFolder folder;
    Paths all;
    for (int i = 0; i < 30; ++i) {
        const std::string name = "/" + std::to_string(10 + i);
        writeAll(folder.file(name + ".conf"), "include *.conf\n" + name + "\n");
        all.push_back(name);
    }
    Paths folders = lab::configuredFolders(folder.file("10.conf"));
    std::sort(folders.begin(), folders.end());
    EXPECT_EQ(folders, all);
    EXPECT_EQ(lab::configuredFolders(folder.file("absent")), Paths());
}

} // namespace
