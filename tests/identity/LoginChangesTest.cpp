// The watch of the console user.

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "identity/UserAuth.h"
#include "support/IdentityWorld.h"
#include "support/LivingObjects.h"

#include <mutex>
#include <thread>
#include <unistd.h>

namespace {

std::mutex mutex; // guards both
std::vector<std::string> reported;
std::thread::id reporter;

void report(const char* name) {
    std::lock_guard<std::mutex> lock(mutex);
    reported.emplace_back(name);
    reporter = std::this_thread::get_id();
}

std::vector<std::string> reports() {
    std::lock_guard<std::mutex> lock(mutex);
    return reported;
}

class LoginChangesTest : public testsupport::IdentityWorld {
protected:
    // Watches on a thread of its own and waits until the user who is there has been picked up.
    void startWatch() {
        EXPECT_TRUE(UserAuth::registerLoginChanges(report, true));
        EXPECT_TRUE(console.waitUntilDelivered());
    }

    // Another user comes to the console, or the same one again.
    void logIn(const std::string& name) {
        console.seat(name);
        notify();
    }

    void notify() {
        console.notify();
        EXPECT_TRUE(console.waitUntilDelivered());
    }

    static std::string consoleName() {
        const auto name = Owned<GPString>::adopt(UserAuth::consoleName());
        return name ? name->cstr() : "(null)";
    }

    using Names = std::vector<std::string>;
};

} // namespace

TEST_F(LoginChangesTest, TheConsoleNameIsNullWithNobodyThere) { EXPECT_EQ(consoleName(), "(null)"); }

TEST_F(LoginChangesTest, AConsoleUserWithABackslashInTheNameIsPassedOnWithIt) {
    console.seat("CORP\\alice");
    EXPECT_EQ(consoleName(), "CORP\\alice");
    startWatch();
    EXPECT_EQ(reports(), Names{"CORP\\alice"});
    EXPECT_STREQ(UserAuth::userName(), "CORP\\alice");
}

TEST_F(LoginChangesTest, TheConsoleNameHasRoomFor254Bytes) {
    console.seat(std::string(254, 'a'));
    EXPECT_EQ(consoleName(), std::string(254, 'a'));
    console.seat(std::string(255, 'a'));
    EXPECT_EQ(consoleName(), "(null)");
}

TEST_F(LoginChangesTest, AnEmptyConsoleNameIsANameLikeAnother) {
    console.seat("alice");
    startWatch();
    logIn("");
    notify();
    EXPECT_EQ(reports(), (Names{"alice", ""}));
    EXPECT_EQ(UserAuth::userName(), nullptr);
}

TEST_F(LoginChangesTest, AUserWhoIsAlreadyLoggedOnGivesACallbackAtStart) {
    console.seat("alice");
    startWatch();
    EXPECT_EQ(reports(), Names{"alice"});
}

TEST_F(LoginChangesTest, WithNobodyThereAtStartTheFirstUserGivesTheCallback) {
    startWatch();
    EXPECT_EQ(reports(), Names{});
    logIn("alice");
    EXPECT_EQ(reports(), Names{"alice"});
}

TEST_F(LoginChangesTest, TheSameUserReportedTwiceGivesOneCallback) {
    console.seat("alice");
    startWatch();
    logIn("alice");
    notify();
    EXPECT_EQ(reports(), Names{"alice"});
}

TEST_F(LoginChangesTest, EachOtherUserGivesACallback) {
    console.seat("alice");
    startWatch();
    logIn("bob");
    logIn("alice");
    EXPECT_EQ(reports(), (Names{"alice", "bob", "alice"}));
}

TEST_F(LoginChangesTest, NobodyAtTheConsoleChangesNothing) {
    console.seat("alice");
    startWatch();
    console.leave();
    notify();
    EXPECT_STREQ(UserAuth::userName(), "alice");
    logIn("alice");
    EXPECT_EQ(reports(), Names{"alice"});
}

TEST_F(LoginChangesTest, AChangeClearsTheQualifiedNameAndFindsTheNewOne) {
    tools.dsconfigadPrints("bound");
    tools.dsclPrints("AuthenticationAuthority", "AuthenticationAuthority: ;NetLogon;CORP\n");
    console.seat("alice");
    startWatch();
    EXPECT_STREQ(UserAuth::userName(), "CORP\\alice");

    tools.dsclPrints("AuthenticationAuthority", "AuthenticationAuthority: ;ShadowHash;\n");
    logIn("bob");
    EXPECT_STREQ(UserAuth::userName(), "bob");
}

TEST_F(LoginChangesTest, TheOverrideFileNamesTheUserOnTheWatchingThread) {
    tools.writeOverride("<Ldap><User>admin</User><Base>dc=x</Base></Ldap>");
    console.seat("alice");
    startWatch();
    EXPECT_STREQ(UserAuth::userName(), "uid=alice,dc=x");
    EXPECT_EQ(reports(), Names{"alice"});
}

TEST_F(LoginChangesTest, TheCallbackComesAfterTheNamesAreKnownAndOnTheWatchingThread) {
    static std::string known;
    tools.dsconfigadPrints("bound");
    tools.dsclPrints("AuthenticationAuthority", "AuthenticationAuthority: ;NetLogon;CORP\n");
    console.seat("alice");
    UserAuth::registerLoginChanges(
        [](const char* name) {
            known = UserAuth::userName();
            report(name);
        },
        true);
    ASSERT_TRUE(console.waitUntilDelivered());
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(known, "CORP\\alice");
    EXPECT_NE(reporter, std::this_thread::get_id());
}

TEST_F(LoginChangesTest, TheSessionIsNamedAfterTheProcess) {
    startWatch();
    EXPECT_EQ(console.sessionName(), "com.tarnwicksystems.identity_tests" + std::to_string(getpid()));
}

TEST_F(LoginChangesTest, InTheForegroundTheWatchEndsWithItsLoopAndGivesTheSessionBack) {
    console.seat("alice");
    console.endLoop();
    EXPECT_TRUE(UserAuth::registerLoginChanges(report, false));
    EXPECT_EQ(reports(), Names{"alice"});
    EXPECT_EQ(console.sessions(), 0);
    EXPECT_NE(console.sessionName(), "");
}

TEST_F(LoginChangesTest, WithoutASessionTheUserWhoIsThereIsStillPickedUp) {
    console.refuse();
    console.seat("alice");
    EXPECT_TRUE(UserAuth::registerLoginChanges(report, false));
    EXPECT_EQ(reports(), Names{"alice"});
}

TEST_F(LoginChangesTest, WithoutACallbackTheNamesAreKeptAllTheSame) {
    console.seat("alice");
    console.endLoop();
    UserAuth::registerLoginChanges(nullptr, false);
    console.leave();
    EXPECT_STREQ(UserAuth::userName(), "alice");
}

TEST_F(LoginChangesTest, TheSessionIsMadeBeforeTheFirstCallbackAndItsLoopRunsBehindIt) {
    static testsupport::PlayedConsoleUser* seen;
    static int sessions;
    static bool looping;
    seen = &console;
    console.seat("alice");
    console.endLoop();
    UserAuth::registerLoginChanges(
        [](const char*) {
            sessions = seen->sessions();
            looping = seen->hasLooped();
        },
        false);
    EXPECT_EQ(sessions, 1);
    EXPECT_FALSE(looping);
    EXPECT_TRUE(console.hasLooped());
}

TEST_F(LoginChangesTest, AChangeLeavesNoObject) {
    console.endLoop();
    UserAuth::registerLoginChanges(report, false);
    const auto change = [this] {
        for (const char* name : {"alice", "bob", "bob"}) {
            console.seat(name);
            scNotificationCallback(nullptr, nullptr, nullptr);
        }
    };
    EXPECT_EQ(testsupport::objectsLeftBy(change), 0);
    EXPECT_EQ(testsupport::objectsLeftBy([] { loginChangeThread(nullptr); }), 0);
}
