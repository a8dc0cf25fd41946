// Whole updates of the running daemon, from the agent's push to the update program: packages come from a real server
// through the real session, and the dialog is one that the machine's dialog program shows.

#include "app/DaemonWorld.h"
#include "platform/Clock.h"
#include "platform/FileManager.h"
#include "platform/HostPaths.h"
#include "platform/UrlSession.h"
#include "platform/UserDialog.h"
#include "support/AnswerServer.h"

#include <cstdlib>

using testsupport::eventually;
using testsupport::readAll;

namespace {

// The real clock, but for the time that an update waits for a young link, which passes at once.
class SettledClock final : public platform::Clock {
public:
    std::int64_t microseconds() override { return real().microseconds(); }
    std::time_t seconds() override { return real().seconds(); }
    void sleepMicroseconds(unsigned microseconds) override { real().sleepMicroseconds(microseconds); }
    void sleepSeconds(unsigned seconds) override {
        if (seconds != 300) real().sleepSeconds(seconds);
    }
    std::int64_t eventWaitLimit(int seconds) override { return real().eventWaitLimit(seconds); }

private:
    static platform::Clock& real() { return platform::clockService.backend(); }
};

class DaemonFetchesUpdates : public DaemonWorld {
protected:
    DaemonFetchesUpdates() {
        surroundings = [] {
            platform::clockService.install(*new SettledClock);
            platform::urlSessionService.install(platform::urlSessionService.backend());
            platform::fileManagerService.install(platform::fileManagerService.backend());
            platform::userDialogService.install(platform::userDialogService.backend());
        };
        setenv("DISPLAY", ":played", 1);
        std::filesystem::create_directories(platform::HostPaths::updateDirectory());
        // What the update program finds in the configuration.
        tools.programs().addAt(platform::HostPaths::updateHelper(),
                               "cp '" + root.configurationFile() + "' '" + root.path() + "/seen'");
        givenConfiguration("<Fernhill><LogLevel>1</LogLevel></Fernhill>");
    }

    // Once the daemon has spoken, the agent has its connection.
    void push(const std::string& url) {
        agent->awaitFrame();
        agent->push(R"({"bypass_on_failure":true,"update_url":")" + url + R"(","other":1})");
    }

    std::string seen() const { return readAll(root.path() + "/seen"); }

    std::string package() const { return readAll(platform::HostPaths::updatePackage()); }

    // The calls of the dialog program so far.
    std::vector<std::string> dialogs() const {
        std::vector<std::string> found;
        for (const std::string& call : tools.calls())
            if (call.rfind("zenity", 0) == 0) found.push_back(call);
        return found;
    }
};

std::string answer(const std::string& status, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

} // namespace

TEST_F(DaemonFetchesUpdates, AskAndRunTheUpdateProgramAfterAPressOfTheButton) {
    tools.programs().add("zenity", "exit 0");
    startDaemon();
    testsupport::AnswerServer server({answer("200 OK", "the package")});
    push(server.url("/OstlerUpdate.dmg"));
    EXPECT_TRUE(eventually([&] { return !seen().empty(); })) << testing::PrintToString(daemon->log());
    EXPECT_NE(seen().find("<UpdateReady>false</UpdateReady>"), std::string::npos);
    EXPECT_EQ(package(), "the package");
    EXPECT_EQ(dialogs(),
              std::vector<std::string>{
                  "zenity --question --no-markup --title=Ostler has an update for you --text=Your device "
                  "needs to be "
                  "updated with the latest features and performance improvements. --ok-label=Update Now "
                  "--cancel-label=Update Later"});
    EXPECT_TRUE(daemon->logs("updatePopUp seeing Update Now click"));
}

TEST_F(DaemonFetchesUpdates, WaitForTheEveningWhenTheUserSaysLater) {
    tools.programs().add("zenity", "exit 1");
    startDaemon();
    testsupport::AnswerServer server({answer("200 OK", "the package")});
    push(server.url("/OstlerUpdate.dmg"));
    EXPECT_TRUE(daemon->awaitLog("updateThread updatingpopup time check"));
    EXPECT_NE(configuration().find("<UpdateReady>true</UpdateReady>"), std::string::npos);
    EXPECT_EQ(package(), "the package");
}

TEST_F(DaemonFetchesUpdates, AskNobodyWhenTheServerHasNone) {
    startDaemon();
    testsupport::AnswerServer server({answer("404 Not Found", "no")});
    push(server.url("/OstlerUpdate.dmg"));
    EXPECT_TRUE(
        daemon->awaitLog("updateThread unable to download the file: " + server.url("/OstlerUpdate.dmg")));
    EXPECT_TRUE(daemon->logs("downloadFileFromUrl server error: (null)"));
    EXPECT_EQ(dialogs(), std::vector<std::string>());
    EXPECT_EQ(package(), "");
}

TEST_F(DaemonFetchesUpdates, EndInOrderWhileADialogIsUp) {
    tools.programs().add("zenity", "echo up > '" + root.path() + "/up'; exec sleep 30");
    tools.programs().addAt(platform::HostPaths::updateCopyHelper(), "exit 0");
    startDaemon();
    testsupport::AnswerServer server({answer("200 OK", "the package")});
    push(server.url("/OstlerUpdate.dmg"));
    ASSERT_TRUE(eventually([&] { return readAll(root.path() + "/up") == "up\n"; }));
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->awaitEnd(), 0) << daemon->output();
    EXPECT_EQ(seen(), "");
}
