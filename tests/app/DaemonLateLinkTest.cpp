// The daemon while its connection to the agent takes its time. Only the world of the Mac's program can hold one back.

#include "app/DaemonWorld.h"
#include "lab/WorldAnswers.h"
#include "support/ShippedProgram.h"

#include <unistd.h>

namespace {

class DaemonLateLink : public DaemonWorld {
protected:
    void SetUp() override {
        if (testsupport::macProgram().empty()) GTEST_SKIP() << "this build's connections cannot be held back";
        ASSERT_EQ(pipe(letGo), 0);
        surroundings = [this] {
            close(letGo[1]);
            lab::holdConnectionsBack(3456, letGo[0]);
        };
        startDaemon();
    }

    void letTheLinkCome() { close(letGo[1]); }

    int letGo[2] = {-1, -1};
};

} // namespace

TEST_F(DaemonLateLink, IsWaitedForWhilePacketsPass) {
    EXPECT_TRUE(answers(lab::Direction::out));
    EXPECT_TRUE(answers(lab::Direction::in));
    EXPECT_FALSE(daemon->logs("setUserLogonCommand send success"));
    letTheLinkCome();
    const auto logon = agent->awaitFrame(3);
    EXPECT_NE(logon.body.find(R"("username":"alice")"), std::string::npos);
    EXPECT_TRUE(daemon->awaitLog("setUserLogonCommand send success"));
}

TEST_F(DaemonLateLink, GetsTheQuestionsThatItCannotTakeYetWhenItIsThere) {
    request("www.example.com");
    letTheLinkCome();
    const auto question = agent->awaitFrame(1);
    EXPECT_NE(question.body.find("www.example.com"), std::string::npos);
}
