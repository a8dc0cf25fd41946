// What the shipped program has but starts from no switch, and the services behind it: the same expectations for this
// system's build and for the Mac's, which is taken when the environment variable OSTLER_SERVICES names one that was
// built of tests/machost/programs.

#include "machost/programs/Services.h"

#include "lab/MacProgram.h"
#include "platform/FileManager.h"
#include "platform/HostPaths.h"
#include "platform/UrlSession.h"
#include "platform/UserDialog.h"
#include "support/AnswerServer.h"
#include "support/Eventually.h"
#include "support/ManualClock.h"
#include "support/PlayedDirectory.h"
#include "support/PlayedHostName.h"
#include "support/PlayedNames.h"
#include "support/Sanitizers.h"
#include "support/ScratchRoot.h"
#include "support/SlapdServer.h"
#include "support/StandInPrograms.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>

using testsupport::readAll;
using testsupport::writeAll;

namespace {

using Words = std::vector<std::string>;

constexpr const char* users = "dsRecTypeStandard:Users";
constexpr const char* groups = "dsRecTypeStandard:Groups";
constexpr const char* computers = "dsRecTypeStandard:Computers";
constexpr const char* recordName = "dsAttrTypeStandard:RecordName";

std::string macServices() {
    const char* program = std::getenv("OSTLER_SERVICES");
    return program ? program : "";
}

class Services : public testing::Test {
protected:
    Services() {
        platform::directoryService.install(platform::directoryService.backend());
        platform::fileManagerService.install(platform::fileManagerService.backend());
        platform::urlSessionService.install(platform::urlSessionService.backend());
        testsupport::ManualClock::installed().setEventWait(5000000, false);
    }

    enum class Surroundings { played, ofThisMachine };

    // What a run prints, with its status if that is not 0. The services that are in force are played to it, or it sees
    // this machine below the root.
    std::string run(Words words, Surroundings where) const {
        words.insert(words.begin(), "services");
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) become(words, where);
        int status = 0;
        waitpid(child, &status, 0);
        const std::string end = WIFEXITED(status) ? "status " + std::to_string(WEXITSTATUS(status))
                                                  : "signal " + std::to_string(WTERMSIG(status));
        return readAll(outputs.file("out")) + readAll(outputs.file("err")) + (status == 0 ? "" : end + "\n");
    }
    std::string played(const Words& words) const { return run(words, Surroundings::played); }
    std::string alone(const Words& words) const { return run(words, Surroundings::ofThisMachine); }

    // A path as the program under test has to name it.
    std::string path(const std::string& below) const {
        return macServices().empty() ? root.path() + below : below;
    }

    testsupport::ScratchRoot root;
    testsupport::TemporaryFolder outputs;

private:
    [[noreturn]] void become(Words& words, Surroundings where) const {
        dup2(open(outputs.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(open(outputs.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        std::vector<char*> pointers;
        if (macServices().empty()) {
            for (std::string& word : words)
                pointers.push_back(word.data());
            const int status = runServices(static_cast<int>(words.size()), pointers.data());
            std::fflush(nullptr);
            _exit(status); // threads of the services may still be at their ends
        }
        if (where == Surroundings::played)
            lab::becomeMacProgram(macServices(), root.path(), words, HasFailure);
        Words all = {lab::machostPath(), "--root", root.path(), macServices()};
        all.insert(all.end(), words.begin() + 1, words.end());
        for (std::string& word : all)
            pointers.push_back(word.data());
        pointers.push_back(nullptr);
        execv(pointers[0], pointers.data());
        _exit(127);
    }
};

class PlayedServices : public Services {
protected:
    PlayedServices() {
        directory.install();
        host.install();
        names.install();
        directory.add("/LDAPv3/server", users,
                      {{"RecordName", {"alice"}}, {"AppleMetaNodeLocation", {"/LDAPv3/server"}}});
        directory.add(
            "/LDAPv3/server", groups,
            {{"RecordName", {"sales", "salespeople"}}, {"GroupMembership", {"alice", "caf\xc3\xa9"}}});
    }

    testsupport::PlayedDirectory directory;
    testsupport::PlayedHostName host;
    testsupport::PlayedNames names;
};

// A desktop whose dialog program is a script of the test's own.
class DialogServices : public Services {
protected:
    DialogServices() {
        platform::userDialogService.install(platform::userDialogService.backend());
        setenv("DISPLAY", ":played", 1);
    }

    testsupport::StandInPrograms programs;
};

using DirectoryServices = Services;
using FileServices = Services;

// A server of the test's beside the services, which make threads of their own.
class TransferServices : public Services {
protected:
    void SetUp() override {
        if (testsupport::threadsChecked) GTEST_SKIP() << "the checker lets no child of this make threads";
    }
};

std::string answer(const std::string& status, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

} // namespace

TEST_F(PlayedServices, TellTheNodesInTheirOrder) {
    directory.addNode("/LDAPv3/other");
    EXPECT_EQ(played({"search", "nodes"}), "node: /LDAPv3/server\nnode: /LDAPv3/other\n");
}

TEST_F(PlayedServices, SearchTheUserInTheDirectory) {
    EXPECT_EQ(played({"search", "alice"}), "user: alice\nuser DN: (none)\nuser OU: (none)\ncomputer: mac01\n"
                                           "computer DN: (none)\nformat: directory\n");
}

TEST_F(PlayedServices, FindRecordsWithAllValuesOfTheirAttributes) {
    EXPECT_EQ(played({"find", "/", groups, recordName, "salespeople"}),
              "record sales (dsRecTypeStandard:Groups)\n"
              "  dsAttrTypeStandard:GroupMembership = alice\n"
              "  dsAttrTypeStandard:GroupMembership = caf\\xc3\\xa9\n"
              "  dsAttrTypeStandard:RecordName = sales\n"
              "  dsAttrTypeStandard:RecordName = salespeople\n");
    EXPECT_EQ(played({"find", "/", users, recordName, "bob"}), "");
}

TEST_F(PlayedServices, TellValuesThatAreNoTextAsBytes) {
    directory.add("/LDAPv3/server", users, {{"RecordName", {"bob"}}, {"objectGUID", {"b\xff\x01"}}});
    EXPECT_EQ(played({"find", "/LDAPv3/server", users, recordName, "bob"}),
              "record bob (dsRecTypeStandard:Users)\n  dsAttrTypeNative:objectGUID = b\\xff\\x01\n"
              "  dsAttrTypeStandard:RecordName = bob\n");
}

TEST_F(PlayedServices, TellWhatWentWrongInTheDirectorysOwnWords) {
    directory.failNodeNames();
    directory.takeAwaySearchNode();
    directory.closeNode("/LDAPv3/server");
    EXPECT_EQ(played({"search", "nodes"}), "error: no names\nstatus 1\n");
    EXPECT_EQ(played({"find", "/", users, recordName, "alice"}), "error: no such type\nstatus 1\n");
    EXPECT_EQ(played({"find", "/LDAPv3/server", users, recordName, "alice"}),
              "error: no node /LDAPv3/server\nstatus 1\n");
}

TEST_F(PlayedServices, TellOfQueriesThatCannotBeMadeOrFail) {
    directory.refuseQueries(groups, "not for you");
    directory.failQueries(users, "connection lost");
    directory.addMute("/LDAPv3/server", computers, {{"RecordName", {"mac01"}}}, "says nothing");
    EXPECT_EQ(played({"find", "/LDAPv3/server", groups, recordName, "sales"}),
              "error: not for you\nstatus 1\n");
    EXPECT_EQ(played({"find", "/LDAPv3/server", users, recordName, "alice"}),
              "error: connection lost\nstatus 1\n");
    EXPECT_EQ(played({"find", "/", computers, recordName, "mac01"}),
              "record mac01 (dsRecTypeStandard:Computers)\nerror: says nothing\nstatus 1\n");
}

TEST_F(PlayedServices, TellTheHostAndTheHome) {
    EXPECT_EQ(played({"host"}), "host mac01.local, home /Users/alice\n");
    host.host.reset();
    EXPECT_EQ(played({"host"}), "host (none), home /Users/alice\n");
}

TEST_F(PlayedServices, PinTheSafeSearchHosts) {
    names.answer("forcesafesearch.google.com", AF_INET, {"216.239.38.120"});
    names.answer("nosslsearch.google.com", AF_INET, {"216.239.38.99"});
    std::filesystem::create_directories(root.path() + "/etc");
    writeAll(root.path() + "/etc/hosts", "127.0.0.1 localhost\n");
    EXPECT_EQ(played({"hosts"}).rfind("no-ssl address: ", 0), 0u);
    const std::string hosts = readAll(root.path() + "/etc/hosts");
    EXPECT_EQ(hosts.rfind("127.0.0.1 localhost\n", 0), 0u) << hosts;
    EXPECT_NE(hosts.find("\n216.239.38.120 www.google.com\n"), std::string::npos) << hosts;
}

TEST_F(DirectoryServices, AreTheMachinesAccountsAndTheServerThatItsSettingsName) {
    const testsupport::SlapdServer server(
        testsupport::accountEntry("fernhill-alice", 5001) +
        testsupport::groupEntry("sales", 2001, "memberUid: fernhill-bob\nmemberUid: fernhill-alice\n") +
        testsupport::computerEntry("mac01"));
    writeAll(platform::HostPaths::ldapClientFile(), server.clientSettings());
    EXPECT_EQ(alone({"search", "nodes"}),
              "node: /Search\nnode: /Local/Default\nnode: " + server.nodeName() + "\n");
    EXPECT_EQ(alone({"find", "/", users, recordName, "fernhill-alice"}),
              "uid=fernhill-alice,dc=example,dc=com (dsRecTypeStandard:Users)\n"
              "  dsAttrTypeStandard:RecordName = fernhill-alice\n");
    EXPECT_EQ(alone({"find", server.nodeName(), groups, "dsAttrTypeStandard:RealName", "sales"}),
              "cn=sales,dc=example,dc=com (dsRecTypeStandard:Groups)\n"
              "  dsAttrTypeStandard:GroupMembership = fernhill-bob\n"
              "  dsAttrTypeStandard:GroupMembership = fernhill-alice\n"
              "  dsAttrTypeStandard:RealName = sales\n");
    EXPECT_EQ(alone({"find", server.nodeName(), users, "dsAttrTypeNative:uidNumber", "5001"}),
              "uid=fernhill-alice,dc=example,dc=com (dsRecTypeStandard:Users)\n"
              "  dsAttrTypeNative:uidNumber = 5001\n");
    EXPECT_EQ(alone({"find", server.nodeName(), users, recordName, "*"}), "");
    EXPECT_EQ(alone({"find", "/", users, recordName, "root"}),
              "/Local/Default root (dsRecTypeStandard:Users)\n  dsAttrTypeStandard:RecordName = root\n");
    EXPECT_EQ(alone({"find", "/Local/Default", users, "dsAttrTypeStandard:UniqueID", "0"}),
              "/Local/Default root (dsRecTypeStandard:Users)\n  dsAttrTypeStandard:UniqueID = 0\n");
}

TEST_F(DirectoryServices, TellOfAServerThatHasGoneOnlyOnItsOwnNode) {
    testsupport::SlapdServer server("");
    writeAll(platform::HostPaths::ldapClientFile(), server.clientSettings());
    server.stop();
    EXPECT_EQ(alone({"find", server.nodeName(), users, recordName, "root"}),
              "error: Can't contact LDAP server\nstatus 1\n");
    EXPECT_EQ(alone({"find", "/", users, recordName, "root"}),
              "/Local/Default root (dsRecTypeStandard:Users)\n  dsAttrTypeStandard:RecordName = root\n");
    EXPECT_EQ(alone({"find", "/Local/Other", users, recordName, "root"}),
              "error: no node /Local/Other\nstatus 1\n");
}

TEST_F(FileServices, RemoveAndMoveWithTheCodesOfWhatWentWrong) {
    writeAll(root.path() + "/one", "1");
    writeAll(root.path() + "/two", "2");
    std::filesystem::create_directories(root.path() + "/folder/inner");
    EXPECT_EQ(alone({"move", path("/one"), path("/folder/inner/a b%")}), "done 0\n");
    EXPECT_EQ(readAll(root.path() + "/folder/inner/a b%"), "1");
    EXPECT_EQ(alone({"move", path("/two"), path("/folder")}), "failed 516\n");
    EXPECT_EQ(alone({"move", path("/one"), path("/three")}), "failed 4\n");
    EXPECT_EQ(alone({"move", path("/two"), path("/nowhere/two")}), "failed 4\n");
    EXPECT_EQ(alone({"remove", path("/folder")}), "done 0\n");
    EXPECT_FALSE(std::filesystem::exists(root.path() + "/folder"));
    EXPECT_EQ(alone({"remove", path("/folder")}), "failed 4\n");
    EXPECT_EQ(alone({"remove", ""}), "failed 4\n");
    EXPECT_EQ(readAll(root.path() + "/two"), "2");
}

TEST_F(FileServices, RemoveALinkAndNotWhatItLeadsTo) {
    writeAll(root.path() + "/target", "kept");
    std::filesystem::create_symlink("target", root.path() + "/link");
    EXPECT_EQ(alone({"remove", path("/link")}), "done 0\n");
    EXPECT_EQ(readAll(root.path() + "/target"), "kept");
}

TEST_F(TransferServices, FetchAFileThatGoesBehindTheCompletion) {
    for (const Surroundings where : {Surroundings::played, Surroundings::ofThisMachine}) {
        testsupport::AnswerServer server({answer("200 OK", "the package")});
        EXPECT_EQ(run({"fetch", server.url("/p.dmg")}, where),
                  "status 200, no error: the package\nafterwards it has gone\n");
        EXPECT_EQ(server.request().rfind("GET /p.dmg HTTP/1.1\r\n", 0), 0u);
    }
}

TEST_F(TransferServices, TellTheStatusOfARefusalAndFollowToAnotherPlace) {
    testsupport::AnswerServer server({answer("404 Not Found", "no"),
                                      "HTTP/1.1 302 Found\r\nLocation: /there\r\nContent-Length: 0\r\n\r\n",
                                      answer("200 OK", "there")});
    EXPECT_EQ(alone({"fetch", server.url("/a")}), "status 404, no error: no\nafterwards it has gone\n");
    EXPECT_EQ(alone({"fetch", server.url("/b")}), "status 200, no error: there\nafterwards it has gone\n");
}

TEST_F(TransferServices, SendDataWithTheirMethod) {
    for (const Surroundings where : {Surroundings::played, Surroundings::ofThisMachine}) {
        testsupport::AnswerServer server({answer("201 Created", "what is not kept")});
        EXPECT_EQ(run({"send", server.url("/u"), "PUT", "some data"}, where),
                  "status 201, no error: (nothing)\nafterwards it has gone\n");
        EXPECT_EQ(server.request().rfind("PUT /u HTTP/1.1\r\n", 0), 0u);
        EXPECT_NE(server.request().find("\r\n\r\nsome data"), std::string::npos);
    }
}

TEST_F(TransferServices, EndWithAnErrorAndNoStatus) {
    const std::string closed = "http://127.0.0.1:" + std::to_string(testsupport::freePort()) + "/";
    for (const std::string& url :
         {closed, std::string("file:///etc/passwd"), std::string("h t"), std::string()})
        EXPECT_EQ(alone({"fetch", url}), "status 0, an error: (nothing)\nafterwards it has gone\n") << url;
    testsupport::AnswerServer server({"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nshort"});
    EXPECT_EQ(alone({"fetch", server.url("/")}), "status 200, an error: (nothing)\nafterwards it has gone\n");
}

TEST_F(TransferServices, NameTheLastComponentOfAnAddress) {
    const std::pair<std::string, std::string> known[] = {
        {"http://host/OstlerUpdate.dmg", "[OstlerUpdate.dmg]\n"},
        {"https://host:8443/a/b%20c.pkg?x=/y#z/w", "[b c.pkg]\n"},
        {"http://host/a/b/", "[b]\n"},
        {"http://host/a%2Fb", "[a/b]\n"},
        {"http://host/a%00b", "[a\\x00b]\n"},
        {"http://host/", "[/]\n"},
        {"http://host//", "[/]\n"},
        {"http://host/a b", "[]\n"},
        {"", "[]\n"}};
    for (const auto& [url, component] : known)
        EXPECT_EQ(alone({"component", url}), component) << url;
}

TEST_F(TransferServices, LetTheLoopRunForItsTime) {
    testsupport::ManualClock::installed().setEventWait(10000, false);
    testsupport::ManualClock::installed().letSleepsPass(true);
    EXPECT_EQ(played({"loop", "1"}), "came back\n");
}

TEST_F(DialogServices, TellTheButtonByTheProgramsStatus) {
    const std::pair<const char*, const char*> ends[] = {{"exit 0", "0"}, {"exit 1", "1"}, {"exit 5", "3"}};
    for (const Surroundings where : {Surroundings::played, Surroundings::ofThisMachine})
        for (const auto& [end, flags] : ends) {
            programs.add("zenity", end);
            EXPECT_EQ(run({"ask", "60", "Header", "No"}, where),
                      std::string("shown\nanswered ") + flags + "\n");
        }
    EXPECT_EQ(programs.calls()[0], "zenity --question --no-markup --title=Header --text=Message \xc3\xa9 "
                                   "--ok-label=Yes --cancel-label=No");
    EXPECT_EQ(programs.calls().back(), programs.calls()[0]);
}

TEST_F(DialogServices, TimeOutAndTakeTheProgramAway) {
    const std::string marks = outputs.file("marks");
    programs.add("kdialog", "trap 'echo gone > " + marks + "; exit 0' TERM; sleep 60 & wait");
    testsupport::ManualClock::installed().setEventWait(200000, false);
    for (const Surroundings where : {Surroundings::played, Surroundings::ofThisMachine}) {
        std::filesystem::remove(marks);
        EXPECT_EQ(run({"ask", "1", "Header", ""}, where), "shown\nanswered 3\n");
        EXPECT_TRUE(testsupport::eventually([&] { return readAll(marks) == "gone\n"; }));
    }
    EXPECT_EQ(programs.calls().back(), "kdialog --title Header --ok-label Yes --msgbox Message \xc3\xa9");
}

TEST_F(DialogServices, WithoutAScreenEndByThemselves) {
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    programs.add("zenity", "exit 0");
    EXPECT_EQ(alone({"ask", "0", "Header", ""}), "shown\nanswered 3\n");
    EXPECT_EQ(programs.calls(), Words());
}
