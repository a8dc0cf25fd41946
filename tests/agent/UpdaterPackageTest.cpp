// The package that a check-in names: fetched from a server, unpacked by the real unzip, its script started.

#include "agent/Updater.h"

#include "gp/GPAutoReleasePool.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AnswerServer.h"
#include "support/Await.h"
#include "support/HTTPRequestWorld.h"
#include "support/LoopbackPeer.h"
#include "support/ScratchRoot.h"
#include "support/StandInPrograms.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using testsupport::AnswerServer;
using testsupport::comesTrue;
using testsupport::readAll;
using testsupport::writeAll;

namespace fs = std::filesystem;

namespace {

std::string answerWith(const std::string& body, const std::string& status = "200 OK") {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

constexpr fs::perms onlyOwnerWrites = fs::perms(0755);

class UpdaterPackageTest : public testsupport::HTTPRequestWorld {
protected:
    UpdaterPackageTest() {
        testsupport::ManualClock::installed().letSleepsPass(true);
        fs::create_directories(temporary());
        fs::permissions(temporary(), fs::perms::all | fs::perms::sticky_bit);
        programs_.add("sudo", "exec \"$@\"");
    }

    static bool process(const std::string& url) {
        auto* pool = new GPAutoReleasePool;
        const auto text = Owned<GPString>::adopt(new GPString(url.c_str()));
        const bool done = Updater::processZip(text.get());
        EXPECT_EQ(text->cstr(), url);
        pool->drain();
        return done;
    }

    // The bytes of a zip package whose script, when it runs, writes its words and `text` into a file.
    std::string package(const std::string& text) const {
        const testsupport::TemporaryFolder folder;
        const std::string script = folder.file("update.cmd");
        writeAll(script, "#!/bin/sh\necho \"$# $1 " + text + "\" > '" + mark() + ".part'\nmv '" + mark() +
                             ".part' '" + mark() + "'\n");
        fs::permissions(script, fs::perms::owner_all);
        const std::string pack = "cd '" + folder.path() + "' && python3 -m zipfile -c p.zip update.cmd";
        EXPECT_EQ(std::system(pack.c_str()), 0);
        return readAll(folder.file("p.zip"));
    }

    std::string temporary() const { return root_.path() + "/tmp"; }
    std::string mark() const { return root_.path() + "/installed"; }
    std::string work(const std::string& name) const { return root_.path() + "/tmp/tw/" + name; }

    // Puts a folder with these permissions where packages go.
    void makeWorkFolder(fs::perms permissions) const {
        fs::create_directories(work(""));
        fs::permissions(work(""), permissions);
    }

    // Expects that a package is neither fetched nor run, which reads as a fetch that failed.
    void expectRefusal() {
        AnswerServer server({answerWith("content")});
        EXPECT_FALSE(process(server.url("/pkg.zip")));
        testsupport::connectTo(server.port()); // the one connection that the server waits for
        EXPECT_EQ(server.request(), "");
        EXPECT_TRUE(log_.holds("unable to download the file: " + server.url("/pkg.zip") +
                               " to: " + work("pkg.zip") + "\n"));
        EXPECT_EQ(log_.countContaining("command "), 0);
    }

    bool isInstalled() const {
        return comesTrue([this] { return fs::exists(mark()); });
    }

    testsupport::ScratchRoot root_;
    testsupport::StandInPrograms programs_;
};

} // namespace

TEST_F(UpdaterPackageTest, APackageIsFetchedUnpackedAndItsScriptRunWithTheDirectory) {
    AnswerServer server({answerWith(package("one"))});
    const std::string url = server.url("/updates/pkg.zip");
    EXPECT_TRUE(process(url));
    ASSERT_TRUE(isInstalled());
    EXPECT_EQ(readAll(mark()), "1 " + work("pkg") + " one\n");
    EXPECT_TRUE(fs::exists(work("pkg.zip")));
    EXPECT_EQ(server.request().substr(0, 22), "GET /updates/pkg.zip H");
    EXPECT_TRUE(log_.holds("downloading the file: " + url + " to: " + work("pkg.zip") + "\n"));
    EXPECT_TRUE(log_.holds("command unzip " + work("pkg.zip") + " -d " + work("pkg") + "\n"));
    EXPECT_TRUE(log_.holds("command sudo " + work("pkg") + "/update.cmd " + work("pkg") + " \n"));
    EXPECT_EQ(programs_.calls(),
              std::vector<std::string>{"sudo " + work("pkg") + "/update.cmd " + work("pkg")});
}

TEST_F(UpdaterPackageTest, APackageThatComesAgainReplacesTheOneBefore) {
    AnswerServer server({answerWith(package("one")), answerWith(package("two"))});
    EXPECT_TRUE(process(server.url("/pkg.zip")));
    ASSERT_TRUE(isInstalled());
    fs::remove(mark());
    EXPECT_TRUE(process(server.url("/pkg.zip")));
    ASSERT_TRUE(isInstalled());
    EXPECT_EQ(readAll(mark()), "1 " + work("pkg") + " two\n");
}

TEST_F(UpdaterPackageTest, TheScriptIsNotWaitedFor) {
    AnswerServer server({answerWith(package("one"))});
    programs_.add("sudo", "while [ ! -e '" + root_.path() + "/go' ]; do sleep 0.01; done; exec \"$@\"");
    EXPECT_TRUE(process(server.url("/pkg.zip")));
    EXPECT_FALSE(fs::exists(mark()));
    writeAll(root_.path() + "/go", "");
    EXPECT_TRUE(isInstalled());
}

TEST_F(UpdaterPackageTest, AServerThatIsNotThereIsAFailure) {
    const std::string url = "http://127.0.0.1:" + std::to_string(closedPort_) + "/pkg.zip";
    EXPECT_FALSE(process(url));
    EXPECT_TRUE(log_.holds("unable to download the file: " + url + " to: " + work("pkg.zip") + "\n"));
    EXPECT_EQ(log_.countContaining("command "), 0);
}

TEST_F(UpdaterPackageTest, AFileThatCannotBeStoredIsAFailure) {
    fs::create_directories(work("pkg.zip"));
    AnswerServer server({answerWith("x")});
    EXPECT_FALSE(process(server.url("/pkg.zip")));
    EXPECT_EQ(log_.countContaining("unable to download the file: "), 1);
}

TEST_F(UpdaterPackageTest, AnErrorPageIsTakenForAPackageAndItsUnpackingFailsUnseen) {
    AnswerServer server({answerWith("<html>not found</html>", "404 Not Found")});
    EXPECT_TRUE(process(server.url("/pkg.zip")));
    EXPECT_EQ(readAll(work("pkg.zip")), "<html>not found</html>");
    EXPECT_FALSE(fs::exists(work("pkg")));
    EXPECT_TRUE(comesTrue([this] { return programs_.calls().size() == 1; }));
}

TEST_F(UpdaterPackageTest, AUrlWithNoSlashOrWithItsOnlySlashInFrontFetchesNothing) {
    EXPECT_TRUE(process("pkg.zip"));
    EXPECT_TRUE(process("/pkg.zip"));
    EXPECT_TRUE(process(""));
    EXPECT_TRUE(log_.messages().empty());
    EXPECT_TRUE(fs::is_directory(work("")));
}

TEST_F(UpdaterPackageTest, AFileNameWithoutADotIsFetchedButNotUnpacked) {
    AnswerServer server({answerWith("content")});
    EXPECT_TRUE(process(server.url("/updates/pkg")));
    EXPECT_EQ(readAll(work("pkg")), "content");
    EXPECT_EQ(log_.countContaining("command "), 0);
}

TEST_F(UpdaterPackageTest, TheDirectoryIsThePathUpToTheLastDot) {
    AnswerServer server({answerWith("no package")});
    EXPECT_TRUE(process(server.url("/agent-mac-1.5.2")));
    EXPECT_TRUE(
        log_.holds("command unzip " + work("agent-mac-1.5.2") + " -d " + work("agent-mac-1.5") + "\n"));
}

TEST_F(UpdaterPackageTest, AWorkingDirectoryThatIsThereIsUsed) {
    makeWorkFolder(onlyOwnerWrites);
    writeAll(work("before"), "kept");
    AnswerServer server({answerWith("content")});
    EXPECT_TRUE(process(server.url("/pkg")));
    EXPECT_EQ(readAll(work("before")), "kept");
}

TEST_F(UpdaterPackageTest, AWorkingDirectoryIsMadeForItsOwnerAlone) {
    umask(0);
    AnswerServer server({answerWith(package("one"))});
    EXPECT_TRUE(process(server.url("/pkg.zip")));
    EXPECT_TRUE(isInstalled());
    EXPECT_EQ(fs::status(work("")).permissions(), fs::perms::owner_all);
}

TEST_F(UpdaterPackageTest, AWorkingDirectoryThatOthersMayWriteToIsRefused) {
    makeWorkFolder(fs::perms(0757));
    expectRefusal();
}

TEST_F(UpdaterPackageTest, AWorkingDirectoryThatItsGroupMayWriteToIsRefused) {
    makeWorkFolder(fs::perms(0775));
    expectRefusal();
}

TEST_F(UpdaterPackageTest, AWorkingDirectoryOfSomebodyElsesIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "only the superuser can give a folder away";
    makeWorkFolder(onlyOwnerWrites);
    constexpr uid_t nobody = 65534;
    ASSERT_EQ(chown(work("").c_str(), nobody, nobody), 0);
    expectRefusal();
}

TEST_F(UpdaterPackageTest, ALinkInTheWorkingDirectorysPlaceIsRefused) {
    const testsupport::TemporaryFolder other;
    fs::create_directory_symlink(other.path(), root_.path() + "/tmp/tw");
    expectRefusal();
    EXPECT_TRUE(fs::is_empty(other.path()));
}

TEST_F(UpdaterPackageTest, ALinkToNothingInTheWorkingDirectorysPlaceIsRefused) {
    fs::create_directory_symlink(root_.path() + "/made", root_.path() + "/tmp/tw");
    expectRefusal();
    EXPECT_FALSE(fs::exists(root_.path() + "/made"));
}

TEST_F(UpdaterPackageTest, AFileInTheWorkingDirectorysPlaceIsRefused) {
    writeAll(root_.path() + "/tmp/tw", "");
    expectRefusal();
}

TEST_F(UpdaterPackageTest, AWorkingDirectoryThatOthersMayMoveAwayIsRefused) {
    makeWorkFolder(onlyOwnerWrites);
    fs::permissions(temporary(), fs::perms::all);
    expectRefusal();
}

TEST_F(UpdaterPackageTest, AWorkingDirectoryThatTheOwnerOfItsPlaceMayMoveAwayIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "only the superuser can give a folder away";
    makeWorkFolder(onlyOwnerWrites);
    constexpr uid_t nobody = 65534;
    ASSERT_EQ(chown(temporary().c_str(), nobody, nobody), 0);
    expectRefusal();
}

TEST_F(UpdaterPackageTest, AUrlThatFetchesNothingIsNoFailureWhateverTheWorkingDirectoryIs) {
    makeWorkFolder(fs::perms::all);
    EXPECT_TRUE(process("pkg.zip"));
    EXPECT_TRUE(log_.messages().empty());
}

TEST_F(UpdaterPackageTest, APackageIsANewFileAndIsNotWrittenThroughALinkOrAnotherName) {
    makeWorkFolder(onlyOwnerWrites);
    const std::string precious = root_.path() + "/precious";
    writeAll(precious, "precious");
    fs::create_symlink(precious, work("linked"));
    fs::create_hard_link(precious, work("named"));
    AnswerServer server({answerWith("first"), answerWith("second")});
    EXPECT_TRUE(process(server.url("/linked")));
    EXPECT_TRUE(process(server.url("/named")));
    EXPECT_EQ(readAll(precious), "precious");
    EXPECT_FALSE(fs::is_symlink(work("linked")));
    EXPECT_EQ(readAll(work("linked")), "first");
    EXPECT_EQ(readAll(work("named")), "second");
}
