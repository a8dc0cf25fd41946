#include "agent/Updater.h"

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/ForkedChild.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <unistd.h>

using testsupport::readAll;
using testsupport::TemporaryFolder;
using testsupport::writeAll;

namespace {

int compare(const char* first, const char* second) {
    const auto a = Owned<GPString>::adopt(new GPString(first));
    const auto b = Owned<GPString>::adopt(new GPString(second));
    return Updater::versionCompare(a.get(), b.get());
}

bool isValid(const char* name) {
    const auto text = Owned<GPString>::adopt(new GPString(name));
    const bool valid = Updater::isValidUpdate(text.get());
    EXPECT_STREQ(text->cstr(), name);
    return valid;
}

// The three numbers of a version with a blank between.
std::string numbersOf(const char* version) {
    const auto text = Owned<GPString>::adopt(new GPString(version));
    int major = 7;
    int minor = 7;
    int patch = 7;
    getVersion(text.get(), major, minor, patch);
    return std::to_string(major) + " " + std::to_string(minor) + " " + std::to_string(patch);
}

TEST(Updater, TheVersionIsMadeOfItsThreeNumbersAndStaysTheSameText) {
    const char* version = Updater::versionString();
    EXPECT_STREQ(version, "1.5.2");
    EXPECT_EQ(Updater::versionString(), version);
}

TEST(Updater, TheEncodedVersionIsMadeOnceAndFitsIntoAUrl) {
    const char* encoded = Updater::encodedVersionString();
    EXPECT_STREQ(encoded, "1.5.2");
    EXPECT_EQ(Updater::encodedVersionString(), encoded);
    EXPECT_NE(Updater::versionString(), encoded);
}

TEST(Updater, ThePathIsWhatStandsBeforeTheLastSlash) {
    Updater::setPath("/usr/local/bin/fernhill");
    EXPECT_STREQ(Updater::exePath(), "/usr/local/bin");
    Updater::setPath("./fernhill");
    EXPECT_STREQ(Updater::exePath(), ".");
}

TEST(Updater, ABareProgramNameLeavesThePathEmpty) {
    Updater::setPath("/usr/local/bin/fernhill");
    Updater::setPath("fernhill");
    EXPECT_EQ(Updater::exePath(), nullptr);
}

TEST(Updater, ALeadingSlashAloneDoesNotCount) {
    Updater::setPath("/fernhill");
    EXPECT_EQ(Updater::exePath(), nullptr);
}

TEST(Updater, AVersionHasThreeNumbersBetweenItsDots) {
    EXPECT_EQ(numbersOf("1.5.2"), "1 5 2");
    EXPECT_EQ(numbersOf("10.0.30"), "10 0 30");
    EXPECT_EQ(numbersOf("1.5.2.9"), "1 5 2");
}

TEST(Updater, AFieldThatIsNoNumberCountsAsMinusOne) { EXPECT_EQ(numbersOf("1.x.2b"), "1 -1 2"); }

TEST(Updater, AVersionWithTooFewFieldsIsReadWithoutHarm) {
    EXPECT_EQ(numbersOf("1.5"), "1 5 0");
    EXPECT_EQ(numbersOf(""), "0 0 0");
}

TEST(Updater, VersionsCompareAsNumbersNotAsText) {
    EXPECT_EQ(compare("1.5.2", "1.10.0"), -1);
    EXPECT_EQ(compare("1.10.0", "1.5.2"), 1);
}

TEST(Updater, TheFirstDifferenceFromTheLeftDecides) {
    EXPECT_EQ(compare("2.0.0", "1.9.9"), 1);
    EXPECT_EQ(compare("1.9.9", "2.0.0"), -1);
    EXPECT_EQ(compare("1.5.3", "1.5.2"), 1);
    EXPECT_EQ(compare("1.5.2", "1.5.3"), -1);
    EXPECT_EQ(compare("1.5.2", "1.5.2"), 0);
    EXPECT_EQ(compare("1.-3.0", "1.2.0"), -1);
}

TEST(Updater, AValidPackageNamesTheSystemAndEndsWithItsVersion) {
    EXPECT_TRUE(isValid("agent-mac-1.5.2"));
    EXPECT_TRUE(isValid("agent-mac-beta-1.5.2"));
    EXPECT_TRUE(isValid("a.b.c-mac"));
}

TEST(Updater, APackageOfAnotherSystemWithAnExtensionOrWithoutFieldsIsNotValid) {
    EXPECT_FALSE(isValid("agent-win-1.5.2"));
    EXPECT_FALSE(isValid("agent-mac-1.5.2.zip"));
    EXPECT_FALSE(isValid("agent"));
    EXPECT_FALSE(isValid("agent-mac"));
    EXPECT_FALSE(isValid("agent-macos-1.5.2"));
    EXPECT_FALSE(isValid("agent-mac-1.5"));
    EXPECT_FALSE(isValid(""));
}

TEST(Updater, FinishingMovesTheWaitingExecutableOverTheOldOne) {
    const TemporaryFolder folder;
    writeAll(folder.file("fernhill"), "old");
    writeAll(folder.file("twupdate"), "new");
    Updater::setPath(folder.file("fernhill").c_str());
    EXPECT_TRUE(Updater::finishUpdate("fernhill"));
    EXPECT_EQ(readAll(folder.file("fernhill")), "new");
    EXPECT_FALSE(std::filesystem::exists(folder.file("twupdate")));
}

TEST(Updater, FinishingNeedsNoOldExecutable) {
    const TemporaryFolder folder;
    writeAll(folder.file("twupdate"), "new");
    Updater::setPath(folder.file("fernhill").c_str());
    EXPECT_TRUE(Updater::finishUpdate("fernhill"));
    EXPECT_EQ(readAll(folder.file("fernhill")), "new");
}

TEST(Updater, FinishingWithNothingWaitingFailsAndTheOldExecutableIsGone) {
    const TemporaryFolder folder;
    writeAll(folder.file("fernhill"), "old");
    Updater::setPath(folder.file("fernhill").c_str());
    EXPECT_FALSE(Updater::finishUpdate("fernhill"));
    EXPECT_FALSE(std::filesystem::exists(folder.file("fernhill")));
}

TEST(Updater, WithoutAPathFinishingWorksInTheCurrentDirectory) {
    const TemporaryFolder folder;
    writeAll(folder.file("twupdate"), "new");
    ASSERT_EQ(chdir(folder.path().c_str()), 0);
    Updater::setPath("fernhill");
    EXPECT_TRUE(Updater::finishUpdate("fernhill"));
    EXPECT_EQ(readAll(folder.file("fernhill")), "new");
}

TEST(Updater, FinishingInACurrentDirectoryThatIsGoneFails) {
    EXPECT_EQ(testsupport::answerOfChild([] {
                  const TemporaryFolder folder;
                  if (chdir(folder.path().c_str()) != 0) return "no folder";
                  std::filesystem::remove_all(folder.path());
                  return Updater::finishUpdate("fernhill") ? "moved" : "failed";
              }),
              "failed");
}

} // namespace
