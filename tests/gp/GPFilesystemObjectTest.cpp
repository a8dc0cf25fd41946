// GPFilesystem objects and the listing of directories.

#include "gp/GPArray.h"
#include "gp/GPData.h"
#include "gp/GPFilesystem.h"
#include "gp/GPList.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/ForkedChild.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using testsupport::readAll;
using testsupport::writeAll;

class GPFilesystemObjectTest : public testing::Test {
protected:
    std::string fileWith(const std::string& name, const std::string& content) {
        writeAll(at(name), content);
        return at(name);
    }
    std::string at(const std::string& name) const { return folder_.file(name); }
    const std::string& folder() const { return folder_.path(); }

    // The last components of what a listing of the folder finds, sorted. What is listed is kept for the
    // life of the process, as the listing leaves it.
    std::vector<std::string> listed(bool recursive, GPFileSearchType type) {
        auto* found = new GPArray;
        kept().push_back(found);
        getDirectoryFiles(folder().c_str(), found, recursive, type);
        std::vector<std::string> names;
        for (int i = 0; i < found->count(); ++i) {
            const std::string path = static_cast<GPFilesystem*>(found->objectAtIndex(i))->fullPath();
            names.push_back(path.substr(folder().size() + 1));
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // Lets a directory of the working directory have the name `name`.
    void nameADirectoryHere(const std::string& name) {
        createDir(at("elsewhere").c_str());
        createDir(at("elsewhere/" + name).c_str());
        ASSERT_EQ(chdir(at("elsewhere").c_str()), 0);
    }

    static std::vector<GPObject*>& kept() {
        static auto* objects = new std::vector<GPObject*>;
        return *objects;
    }

private:
    testsupport::TemporaryFolder folder_;
};

using Names = std::vector<std::string>;

TEST_F(GPFilesystemObjectTest, AListingOfADirectoryHoldingDSStoreOmitsIt) {
    fileWith("a", "x");
    fileWith(".DS_Store", "x");
    fileWith(".hidden", "x");
    EXPECT_EQ(listed(false, GPFileSearchAll), (Names{".hidden", "a"}));
}

TEST_F(GPFilesystemObjectTest, AForeignDirectorysEntriesAreNotSeenAsDirectories) {
    fileWith("a", "x");
    fileWith("sub/b", "x");
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(listed(true, GPFileSearchFiles), (Names{"a", "sub"}));
    EXPECT_EQ(listed(true, GPFileSearchDirectories), Names{});
}

TEST_F(GPFilesystemObjectTest, AnEntryIsADirectoryWhenTheWorkingDirectoryHasOneOfThatName) {
    fileWith("a", "x");
    fileWith("sub/b", "x");
    nameADirectoryHere("sub");
    EXPECT_EQ(listed(false, GPFileSearchDirectories), Names{"sub"});
    EXPECT_EQ(listed(false, GPFileSearchFiles), (Names{"a", "elsewhere"}));
    EXPECT_EQ(listed(false, GPFileSearchAll), (Names{"a", "elsewhere", "sub"}));
}

TEST_F(GPFilesystemObjectTest, ARecursiveListingGoesIntoTheFullPath) {
    fileWith("sub/b", "x");
    nameADirectoryHere("sub");
    EXPECT_EQ(listed(true, GPFileSearchAll), (Names{"elsewhere", "sub", "sub/b"}));
    EXPECT_EQ(listed(true, GPFileSearchFiles), (Names{"elsewhere", "sub/b"}));
    EXPECT_EQ(listed(false, GPFileSearchAll), (Names{"elsewhere", "sub"}));
}

TEST_F(GPFilesystemObjectTest, ARecursiveListingGoesThroughThreeLevelsOfFolders) {
    fileWith("one/two/three/file", "x");
    createDir(at("elsewhere").c_str());
    for (const char* name : {"one", "two", "three"})
        createDir(at(std::string("elsewhere/") + name).c_str());
    ASSERT_EQ(chdir(at("elsewhere").c_str()), 0);

    EXPECT_EQ(listed(true, GPFileSearchAll),
              (Names{"elsewhere", "one", "one/two", "one/two/three", "one/two/three/file"}));
    EXPECT_EQ(listed(true, GPFileSearchFiles), (Names{"elsewhere", "one/two/three/file"}));
    EXPECT_EQ(listed(true, GPFileSearchDirectories), (Names{"one", "one/two", "one/two/three"}));
}

TEST_F(GPFilesystemObjectTest, AFileCanPassForADirectoryAndHasNothingInIt) {
    fileWith("sub", "x");
    nameADirectoryHere("sub");
    EXPECT_EQ(listed(true, GPFileSearchDirectories), Names{"sub"});
}

TEST_F(GPFilesystemObjectTest, ADirectoryThatDoesNotOpenAddsNothing) {
    GPArray found;
    getDirectoryFiles(at("none").c_str(), &found, true, GPFileSearchAll);
    getDirectoryFiles(nullptr, &found, true, GPFileSearchAll);
    EXPECT_EQ(found.count(), 0);
}

TEST_F(GPFilesystemObjectTest, AListedObjectKeepsTheReferenceOfItsCreation) {
    fileWith("a", "x");
    auto* found = new GPArray;
    getDirectoryFiles(folder().c_str(), found, false, GPFileSearchAll);
    auto* entry = static_cast<GPFilesystem*>(found->objectAtIndex(0));
    found->release();
    EXPECT_STREQ(entry->fullPath(), at("a").c_str());
    EXPECT_EQ(entry->retainonly(), 2);
    entry->release();
    entry->release();
}

TEST_F(GPFilesystemObjectTest, AListTakesTheEntriesAsAnArrayDoes) {
    fileWith("a", "x");
    fileWith("b", "x");
    auto* found = new GPList;
    kept().push_back(found);
    getDirectoryFiles(folder().c_str(), found, false, GPFileSearchAll);
    EXPECT_EQ(found->count(), 2);
}

TEST_F(GPFilesystemObjectTest, AListChoosesItsEntriesAsAnArrayDoes) {
    fileWith("sub/b", "x");
    nameADirectoryHere("sub");
    const auto listedIn = [this](const char* path, bool recursive, GPFileSearchType type) {
        auto* found = new GPList;
        kept().push_back(found);
        getDirectoryFiles(path, found, recursive, type);
        Names names;
        for (found->firstObject(); GPObject* entry = found->currentObject(); found->nextObject())
            names.push_back(
                std::string(static_cast<GPFilesystem*>(entry)->fullPath()).substr(folder().size() + 1));
        std::sort(names.begin(), names.end());
        return names;
    };
    EXPECT_EQ(listedIn(folder().c_str(), true, GPFileSearchAll), (Names{"elsewhere", "sub", "sub/b"}));
    EXPECT_EQ(listedIn(folder().c_str(), false, GPFileSearchAll), (Names{"elsewhere", "sub"}));
    EXPECT_EQ(listedIn(folder().c_str(), true, GPFileSearchFiles), (Names{"elsewhere", "sub/b"}));
    EXPECT_EQ(listedIn(folder().c_str(), true, GPFileSearchDirectories), Names{"sub"});
    EXPECT_EQ(listedIn(at("none").c_str(), true, GPFileSearchAll), Names{});
    EXPECT_EQ(listedIn(nullptr, true, GPFileSearchAll), Names{});
}

TEST_F(GPFilesystemObjectTest, AnObjectKeepsACopyOfItsPath) {
    std::string path = "/some/where";
    GPFilesystem file(path.c_str());
    path[1] = 'X';
    EXPECT_STREQ(file.fullPath(), "/some/where");
    file.setPath("/else");
    EXPECT_STREQ(file.fullPath(), "/else");
}

TEST_F(GPFilesystemObjectTest, AnObjectWithoutAPathAnswersWithNothing) {
    GPFilesystem file(nullptr);
    GPData data("x", 1, false);
    EXPECT_EQ(file.fullPath(), nullptr);
    EXPECT_EQ(file.name(), nullptr);
    EXPECT_EQ(file.path(), nullptr);
    EXPECT_EQ(file.size(), 0);
    EXPECT_EQ(file.read(0, 0), nullptr);
    EXPECT_EQ(file.readText(0, 0), nullptr);
    EXPECT_FALSE(file.write("x", 1, true));
    EXPECT_FALSE(file.write(&data));
    EXPECT_FALSE(file.writeFormat("%d", 1));
    EXPECT_FALSE(file.renameFile("x"));
    EXPECT_FALSE(file.deleteFile());
    EXPECT_FALSE(file.isDirectory());
    EXPECT_TRUE(file.isFile());
    file.setPath("/now/there");
    EXPECT_STREQ(file.fullPath(), "/now/there");
}

TEST_F(GPFilesystemObjectTest, CreateFileMakesTheFileIfNothingIsThere) {
    const std::string old = fileWith("old", "content");
    const auto fresh = Owned<GPFilesystem>::adopt(GPFilesystem::createFile(at("new").c_str()));
    const auto kept = Owned<GPFilesystem>::adopt(GPFilesystem::createFile(old.c_str()));
    EXPECT_STREQ(fresh->fullPath(), at("new").c_str());
    EXPECT_TRUE(ifExist(at("new").c_str()));
    EXPECT_EQ(readAll(kept->fullPath()), "content");
    EXPECT_EQ(GPFilesystem::createFile(nullptr), nullptr);
}

TEST_F(GPFilesystemObjectTest, NameAndPathAreBothTheLastComponent) {
    GPFilesystem file("/usr/bin/tool");
    EXPECT_STREQ(file.name(), "tool");
    EXPECT_STREQ(file.path(), "tool");
    EXPECT_STREQ(file.fullPath(), "/usr/bin/tool");
}

TEST_F(GPFilesystemObjectTest, NameWithoutASlashIsTheWholePath) {
    EXPECT_STREQ(GPFilesystem("tool").name(), "tool");
}

TEST_F(GPFilesystemObjectTest, NameOfAFileOfTheRootDirectoryIsNull) {
    GPFilesystem file("/tool");
    EXPECT_EQ(file.name(), nullptr);
    EXPECT_EQ(file.path(), nullptr);
}

TEST_F(GPFilesystemObjectTest, NameBehindATrailingSlashIsEmpty) {
    EXPECT_STREQ(GPFilesystem("/usr/bin/").name(), "");
}

TEST_F(GPFilesystemObjectTest, NameStaysValidWhenTheObjectHasGone) {
    const char* name = nullptr;
    {
        GPFilesystem file("/usr/bin/tool");
        name = file.name();
    }
    EXPECT_STREQ(name, "tool");
}

TEST_F(GPFilesystemObjectTest, TestsAndModesAreThoseOfTheFreeFunctions) {
    const std::string path = fileWith("a", "12345");
    GPFilesystem file(path.c_str());
    EXPECT_EQ(file.size(), 5);
    EXPECT_TRUE(file.isFile());
    EXPECT_FALSE(file.isDirectory());
    EXPECT_FALSE(file.isSymbolicLink());
    EXPECT_FALSE(file.isHidden());
    EXPECT_TRUE(GPFilesystem("~x").isHidden());
    EXPECT_TRUE(file.setFileMode(0604));
    EXPECT_EQ(file.fileMode(), 0604);
    EXPECT_TRUE(file.deleteFile());
    EXPECT_FALSE(ifExist(path.c_str()));
}

TEST_F(GPFilesystemObjectTest, ReadsAreThoseOfTheFreeFunctions) {
    const std::string path = fileWith("a", "12345");
    GPFilesystem file(path.c_str());
    const auto data = Owned<GPData>::adopt(file.read(0, 1));
    const auto text = Owned<GPString>::adopt(file.readText(0, 3));
    EXPECT_EQ(data->length(), 4);
    EXPECT_STREQ(text->cstr(), "45");
    EXPECT_EQ(file.read(1, 0), nullptr);
}

TEST_F(GPFilesystemObjectTest, EveryWriteAppends) {
    const std::string path = fileWith("a", "0");
    GPFilesystem file(path.c_str());
    GPData data("3", 1, false);
    GPString text("4");
    EXPECT_TRUE(file.write("1", 1, true));
    EXPECT_TRUE(file.write("2", 0, false));
    EXPECT_TRUE(file.write(&data));
    EXPECT_TRUE(file.writeText(&text));
    EXPECT_TRUE(file.writeFormat("%d-%s", 5, "six"));
    EXPECT_EQ(readAll(path), "012345-six");
}

TEST_F(GPFilesystemObjectTest, RenameFileTakesTheNewNameAsAFullPath) {
    const std::string path = fileWith("a", "x");
    GPFilesystem file(path.c_str());
    EXPECT_TRUE(file.renameFile(at("b").c_str()));
    EXPECT_STREQ(file.fullPath(), at("b").c_str());
    EXPECT_EQ(readAll(at("b")), "x");
    EXPECT_FALSE(file.renameFile(nullptr));
}

TEST_F(GPFilesystemObjectTest, RenameFileKeepsThePathWhenItFails) {
    GPFilesystem file(at("none").c_str());
    EXPECT_FALSE(file.renameFile(at("b").c_str()));
    EXPECT_STREQ(file.fullPath(), at("none").c_str());
}

TEST_F(GPFilesystemObjectTest, RenameFileInTheRootDirectoryPutsASlashInFrontOfTheNewName) {
    fileWith("a", "x");
    createDir(at("here").c_str());
    const std::string answer = testsupport::answerOfChild([this] {
        if (chroot(folder().c_str()) != 0 || chdir("/here") != 0) return std::string("no root");
        GPFilesystem file("/a");
        const bool renamed = file.renameFile("b");
        return std::string(renamed ? "renamed to " : "not renamed ") + file.fullPath();
    });
    if (answer == "no root") GTEST_SKIP() << "only the superuser may choose a root directory";
    EXPECT_EQ(answer, "renamed to /b");
    EXPECT_EQ(readAll(at("b")), "x");
}

} // namespace
