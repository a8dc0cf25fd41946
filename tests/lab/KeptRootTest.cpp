// A folder given for the daemon's files that a program may have written to before: nothing in it leads elsewhere.

#include "lab/Policy.h"
#include "lab/RootFolder.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;

using lab::RootFolder;
using testsupport::readAll;
using testsupport::TemporaryFolder;
using testsupport::writeAll;

std::string refusalOf(const std::string& root) {
    try {
        const RootFolder made(root);
        return "";
    } catch (const lab::InputError& error) {
        return error.what();
    }
}

TEST(KeptRoot, HasAWholePathWithoutLinks) {
    const TemporaryFolder folder;
    fs::create_directory(folder.file("real"));
    fs::create_directory_symlink(folder.file("real"), folder.file("link"));
    fs::current_path(folder.path());
    const std::string real = fs::canonical(folder.path()) / "real";

    EXPECT_EQ(RootFolder("link").path(), real);
    EXPECT_EQ(RootFolder("link/new/").path(), real + "/new");
    EXPECT_EQ(RootFolder("none/../real").path(), real);
}

TEST(KeptRoot, WithALinkForOneOfItsFoldersIsRefusedAndNothingMadeBehindIt) {
    for (const char* name : {"Library", "Library/Logs", "Library/twsys", "var/run", "var/run/fernhill", "bin",
                             "usr", "usr/local/bin", "usr/local/etc", "system"}) {
        const TemporaryFolder folder;
        const std::string root = folder.file("root"), link = root + "/" + name;
        fs::create_directories(fs::path(link).parent_path());
        fs::create_directory(folder.file("elsewhere"));
        fs::create_directory_symlink(folder.file("elsewhere"), link);

        const std::string refusal = refusalOf(root);
        EXPECT_EQ(refusal.rfind(link, 0), 0u) << refusal;
        EXPECT_NE(refusal.find(": a link lies there or on the way, and none is followed; remove it, or give "
                               "another folder"),
                  std::string::npos)
            << refusal;
        EXPECT_TRUE(fs::is_empty(folder.file("elsewhere"))) << name;
    }
}

TEST(KeptRoot, WithALinkOrPipeForTheOutputIsRefused) {
    const TemporaryFolder folder;
    writeAll(folder.file("other"), "kept");
    const std::string root = folder.file("root"), output = root + "/daemon-output.txt";
    fs::create_directory(root);
    fs::create_symlink(folder.file("other"), output);
    EXPECT_EQ(refusalOf(root), output +
                                   ": a link lies there or on the way, and none is followed; remove it, or "
                                   "give another folder");
    EXPECT_EQ(readAll(folder.file("other")), "kept");

    fs::remove(output);
    ASSERT_EQ(mkfifo(output.c_str(), 0600), 0);
    EXPECT_EQ(refusalOf(root), output + ": it is no regular file; remove it, or give another folder");
}

TEST(KeptRoot, GetsALinkMeanwhileThroughWhichNoOutputIsWrittenOrRead) {
    const TemporaryFolder folder;
    const RootFolder root(folder.file("root"));
    writeAll(folder.file("other"), "kept");
    fs::remove(root.output());
    fs::create_symlink(folder.file("other"), root.output());

    EXPECT_LT(root.openOutput(), 0);
    EXPECT_EQ(root.outputTail(), "");
    EXPECT_EQ(readAll(folder.file("other")), "kept");
}

TEST(KeptRoot, WithALinkOrPipeForAConfigurationIsNotWrittenThrough) {
    const TemporaryFolder folder;
    const std::string given = folder.file("given"), configuration = given + "/Library/twsys/fernhill.xml";
    const lab::RootFolder root(given);
    writeAll(folder.file("other"), "kept");
    fs::create_symlink(folder.file("other"), configuration);
    EXPECT_THROW(root.configure(false, 0), lab::InputError);
    EXPECT_EQ(readAll(folder.file("other")), "kept");

    fs::remove(configuration);
    ASSERT_EQ(mkfifo(configuration.c_str(), 0600), 0);
    EXPECT_THROW(root.configure(false, 0), lab::InputError);
}

} // namespace
