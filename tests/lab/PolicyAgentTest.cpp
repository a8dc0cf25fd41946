#include "lab/PolicyAgent.h"

#include "platform/ByteOrder.h"
#include "support/Eventually.h"
#include "support/FewDescriptors.h"
#include "support/FixedPorts.h"
#include "support/Patience.h"
#include "support/Sanitizers.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using lab::Policy;
using lab::PolicyAgent;

// The daemon's end of a connection to the stand-in. Its buffer does not grow with what is not read: on some machines all
// the answers of a test would fit into it.
class Client {
public:
    explicit Client(int port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        constexpr int room = 65536;
        EXPECT_EQ(setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room), 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~Client() {
        if (socket_ >= 0) close(socket_);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void send(const std::string& bytes) {
        EXPECT_EQ(::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    // Logs on, or asks about a URL.
    void logOn() { send(lab::agentFrame(3, 1, "{}")); }
    void ask(std::uint32_t sequence, const std::string& url) {
        send(lab::agentFrame(1, sequence, "{\"url\":\"" + url + "\"}"));
    }

    // The next frame as "TYPE SEQUENCE BODY"; "closed" at the end of the link.
    std::string frame() {
        while (received_.size() < 12 || received_.size() < platform::readBig32(received_.data())) {
            if (!receive()) return "closed";
        }
        const std::size_t length = platform::readBig32(received_.data());
        const std::string text = std::to_string(platform::readBig32(received_.data() + 4)) + " " +
                                 std::to_string(platform::readBig32(received_.data() + 8)) + " " +
                                 received_.substr(12, length - 12);
        received_.erase(0, length);
        return text;
    }

    // Ends the link at once, unread bytes and all.
    void reset() {
        const linger atOnce{1, 0};
        setsockopt(socket_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        close(std::exchange(socket_, -1));
    }

    // All bytes up to the end of the link.
    std::string rest() {
        while (receive()) {
        }
        return received_;
    }

    // Whether nothing has come.
    bool quiet() {
        pollfd waiting{socket_, POLLIN, 0};
        return received_.empty() && poll(&waiting, 1, 0) == 0;
    }

private:
    bool receive() {
        char buffer[4096];
        pollfd waiting{socket_, POLLIN, 0};
        if (poll(&waiting, 1, testsupport::patienceMilliseconds) != 1) return false;
        const ssize_t count = recv(socket_, buffer, sizeof buffer, 0);
        if (count <= 0) return false;
        received_.append(buffer, static_cast<std::size_t>(count));
        return true;
    }

    int socket_;
    std::string received_;
};

class PolicyAgentTest : public testing::Test {
protected:
    // Starts an agent with this policy and a client on its link.
    void start(const std::string& policy, bool ownTime = false) {
        testsupport::claimFixedPorts();
        agent_ = std::make_unique<PolicyAgent>(Policy::parse(policy, "policy"), ownTime);
        agent_->listen();
        agent_->start();
        client_ = std::make_unique<Client>(PolicyAgent::linkPort);
    }

    bool awaitQuestions(long count) {
        return agent_->waitUntil([&](const auto& counters) { return counters.questions >= count; },
                                 testsupport::patienceMilliseconds);
    }

    std::unique_ptr<PolicyAgent> agent_;
    std::unique_ptr<Client> client_;
};

TEST_F(PolicyAgentTest, AnAllowedUrlIsAnsweredWithEmptyBracesUnderItsNumber) {
    start("allow *");
    client_->ask(7, "http://a/");
    EXPECT_EQ(client_->frame(), "1 7 {}");
    EXPECT_EQ(agent_->counters().answers, 1);
}

TEST_F(PolicyAgentTest, ABlockedUrlsRedirectHasNoBlankBehindTheColon) {
    start("block * http://localhost:6543/b");
    client_->ask(8, "http://a/");
    EXPECT_EQ(client_->frame(), "1 8 {\"redirect\":\"http://localhost:6543/b\"}");
}

TEST_F(PolicyAgentTest, TheUrlIsTakenByItsPositionWhateverItHolds) {
    start("silent *");
    client_->ask(1, "http://a/\"}\\{\"url\":\"");
    ASSERT_TRUE(awaitQuestions(1));
    EXPECT_EQ(agent_->takeQuestions().at(0).url, "http://a/\"}\\{\"url\":\"");
    EXPECT_TRUE(agent_->takeQuestions().empty());
}

TEST_F(PolicyAgentTest, ABodyTooShortForAUrlIsAQuestionAboutNothing) {
    start("allow *");
    client_->send(lab::agentFrame(1, 3, "{}"));
    EXPECT_EQ(client_->frame(), "1 3 {}");
    EXPECT_EQ(agent_->takeQuestions().at(0).url, "");
}

TEST_F(PolicyAgentTest, ASilentAgentNeverAnswersAndGoesOn) {
    start("silent http://a/\n");
    client_->ask(1, "http://a/");
    client_->ask(2, "http://b/");
    EXPECT_EQ(client_->frame(), "1 2 {}");
    EXPECT_EQ(agent_->counters().questions, 2);
    EXPECT_EQ(agent_->counters().answers, 1);
}

TEST_F(PolicyAgentTest, GarbleAnswersWithNonsense) {
    start("garble *");
    client_->ask(1, "http://a/");
    EXPECT_EQ(client_->frame(), "1 1 <<<this is no answer>>>");
    EXPECT_EQ(agent_->counters().answers, 1);
}

TEST_F(PolicyAgentTest, RetryAsksToBeAskedAgainThatOftenThenTheNextRuleAnswers) {
    start("retry 2 *\nblock * http://page/");
    for (std::uint32_t number : {1u, 2u}) {
        client_->ask(number, "http://a/");
        EXPECT_EQ(client_->frame(), "1 " + std::to_string(number) + R"( {"error":"TW Host lookup timeout"})");
    }
    client_->ask(3, "http://a/");
    EXPECT_EQ(client_->frame(), "1 3 {\"redirect\":\"http://page/\"}");
    const auto counters = agent_->counters();
    EXPECT_EQ(counters.questions, 3);
    EXPECT_EQ(counters.retriesSent, 2);
    EXPECT_EQ(counters.repeats, 2);
    EXPECT_EQ(counters.answers, 1);
    const auto questions = agent_->takeQuestions();
    EXPECT_FALSE(questions.at(0).repeated);
    EXPECT_TRUE(questions.at(1).repeated && questions.at(2).repeated);
}

TEST_F(PolicyAgentTest, DropClosesTheLinkInsteadOfAnsweringAndTakesTheNextLink) {
    start("drop http://a/");
    client_->ask(1, "http://a/");
    EXPECT_EQ(client_->frame(), "closed");
    EXPECT_EQ(agent_->counters().drops, 1);
    client_ = std::make_unique<Client>(PolicyAgent::linkPort);
    client_->ask(2, "http://b/");
    EXPECT_EQ(client_->frame(), "1 2 {}");
}

TEST_F(PolicyAgentTest, DropClosesTheLinkBehindTheAnswersThatItHasNoRoomFor) {
    constexpr std::uint32_t count = 500;
    start("drop http://z/\nblock * http://page/" + std::string(40000, 'x'));
    std::string questions;
    for (std::uint32_t number = 1; number <= count; ++number)
        questions += lab::agentFrame(1, number, R"({"url":"http://a/"})");
    client_->send(questions + lab::agentFrame(1, count + 1, R"({"url":"http://z/"})"));
    ASSERT_TRUE(agent_->waitUntil([](const auto& counters) { return counters.answers > count; },
                                  testsupport::patienceMilliseconds));
    for (std::uint32_t number = 1; number <= count; ++number) {
        const std::string beginning = "1 " + std::to_string(number) + " {";
        ASSERT_EQ(client_->frame().substr(0, beginning.size()), beginning);
    }
    EXPECT_EQ(client_->frame(), "closed");
}

TEST_F(PolicyAgentTest, ASlowAnswerWaitsUntilItsTimeHasBeenPlayed) {
    start("slow 700 http://a/");
    client_->ask(1, "http://a/");
    client_->ask(2, "http://b/");
    EXPECT_EQ(client_->frame(), "1 2 {}");
    const auto slow = agent_->takeSlow();
    ASSERT_EQ(slow.size(), 1u);
    EXPECT_EQ(slow[0].url, "http://a/");
    EXPECT_EQ(slow[0].milliseconds, 700);
    EXPECT_TRUE(agent_->takeSlow().empty());
    EXPECT_TRUE(client_->quiet());
    agent_->sendSlow(slow[0]);
    EXPECT_EQ(client_->frame(), "1 1 {}");
}

TEST_F(PolicyAgentTest, InItsOwnTimeASlowAnswerLeavesByItself) {
    start("slow 20 *", true);
    client_->ask(1, "http://a/");
    EXPECT_EQ(client_->frame(), "1 1 {}");
    EXPECT_TRUE(agent_->takeSlow().empty());
}

TEST_F(PolicyAgentTest, SlowAnswersThatAreDueGoWithALinkThatIsReset) {
    constexpr std::uint32_t count = 100;
    const std::string url = "http://" + std::string(50, 'a') + "/";
    testsupport::claimFixedPorts();
    agent_ =
        std::make_unique<PolicyAgent>(Policy::parse("slow 0 *" + std::string(50, 'a') + "*", "policy"), true);
    agent_->setNumbers([this](std::uint32_t sequence) {
        if (sequence == count) client_->reset(); // before the answers that are due leave
        return sequence;
    });
    agent_->listen();
    agent_->start();
    client_ = std::make_unique<Client>(PolicyAgent::linkPort);
    std::string questions;
    for (std::uint32_t number = 1; number <= count; ++number)
        questions += lab::agentFrame(1, number, "{\"url\":\"" + url + "\"}");
    client_->send(questions);
    ASSERT_TRUE(awaitQuestions(count));

    client_ = std::make_unique<Client>(PolicyAgent::linkPort);
    client_->ask(7, "http://b/");
    EXPECT_EQ(client_->frame(), "1 7 {}");
    EXPECT_LT(agent_->counters().answers, count);
}

TEST_F(PolicyAgentTest, APushFollowsEachLogon) {
    start("push {\"bypass_on_failure\":false}\npush {\"a\":1}");
    EXPECT_TRUE(client_->quiet());
    for (int i = 0; i < 2; ++i) {
        client_->logOn();
        EXPECT_EQ(client_->frame().substr(13), R"({"bypass_on_failure":false,"update_url":"","end":1})");
        const std::string second = client_->frame();
        EXPECT_EQ(second.substr(0, 2), "5 ");
        EXPECT_EQ(second.substr(13), R"({"a":1,"update_url":"","end":1})");
    }
    EXPECT_EQ(agent_->counters().pushes, 4);
    EXPECT_EQ(agent_->counters().logons, 2);
}

TEST_F(PolicyAgentTest, QuestionsBehindAPushWaitUntilItHasBeenTakenIn) {
    start("push {}\nblock http://a/ http://page/");
    client_->logOn();
    EXPECT_EQ(client_->frame().substr(0, 2), "5 ");
    client_->ask(1, "http://a/");
    client_->ask(2, "http://b/");
    client_->logOn();
    EXPECT_EQ(client_->frame().substr(0, 2), "5 ");
    EXPECT_EQ(agent_->counters().questions, 0);
    EXPECT_TRUE(client_->quiet());
    agent_->answerDeferred();
    EXPECT_EQ(client_->frame(), "1 1 {\"redirect\":\"http://page/\"}");
    EXPECT_EQ(client_->frame(), "1 2 {}");
    client_->ask(3, "http://b/");
    EXPECT_EQ(client_->frame(), "1 3 {}");
}

TEST_F(PolicyAgentTest, QuestionsThatWaitAreCounted) {
    start("push {}");
    client_->logOn();
    EXPECT_EQ(client_->frame().substr(0, 2), "5 ");
    client_->ask(1, "http://a/");
    client_->ask(2, "http://b/");
    EXPECT_TRUE(agent_->waitUntil([](const auto& counters) { return counters.deferred == 2; },
                                  testsupport::patienceMilliseconds));
    EXPECT_EQ(agent_->counters().questions, 0);
    agent_->answerDeferred();
    EXPECT_EQ(client_->frame(), "1 1 {}");
    EXPECT_EQ(client_->frame(), "1 2 {}");
    EXPECT_EQ(agent_->counters().deferred, 0);
}

TEST_F(PolicyAgentTest, InItsOwnTimeNoAnswerWaitsBehindAPush) {
    start("push {}", true);
    client_->logOn();
    EXPECT_EQ(client_->frame().substr(0, 2), "5 ");
    client_->ask(1, "http://a/");
    EXPECT_EQ(client_->frame(), "1 1 {}");
}

TEST_F(PolicyAgentTest, FramesMayComeInPiecesAndSeveralAtOnce) {
    start("allow *");
    const std::string both = lab::agentFrame(3, 1, "{}") + lab::agentFrame(1, 2, R"({"url":"http://a/"})");
    client_->send(both.substr(0, 5));
    client_->send(both.substr(5, 13));
    client_->send(both.substr(18));
    EXPECT_EQ(client_->frame(), "1 2 {}");
    EXPECT_EQ(agent_->counters().logons, 1);
}

TEST_F(PolicyAgentTest, FramesOfOtherTypesAreNotAnswered) {
    start("allow *");
    client_->send(lab::agentFrame(4, 1, "{}") + lab::agentFrame(99, 2, ""));
    client_->ask(3, "http://a/");
    EXPECT_EQ(client_->frame(), "1 3 {}");
}

TEST_F(PolicyAgentTest, ALengthThatCannotBeClosesTheLink) {
    start("allow *");
    client_->send(std::string("\0\0\0\x0b", 4) + std::string(8, '\0'));
    EXPECT_EQ(client_->frame(), "closed");
    Client other(PolicyAgent::linkPort);
    other.send(std::string("\x7f\0\0\0", 4) + std::string(8, '\0'));
    EXPECT_EQ(other.frame(), "closed");
}

TEST_F(PolicyAgentTest, ANewLinkReplacesTheOneBefore) {
    start("allow *");
    client_->ask(1, "http://a/");
    EXPECT_EQ(client_->frame(), "1 1 {}");
    Client second(PolicyAgent::linkPort);
    EXPECT_EQ(client_->frame(), "closed");
    second.ask(2, "http://a/");
    EXPECT_EQ(second.frame(), "1 2 {}");
}

TEST_F(PolicyAgentTest, TheLinkCountsAsLinkedFromItsLogonToItsEnd) {
    start("drop *");
    EXPECT_FALSE(agent_->counters().linked);
    client_->logOn();
    EXPECT_TRUE(agent_->waitUntil([](const auto& counters) { return counters.linked; },
                                  testsupport::patienceMilliseconds));
    client_->ask(1, "http://a/");
    EXPECT_EQ(client_->frame(), "closed");
    EXPECT_FALSE(agent_->counters().linked);
}

TEST_F(PolicyAgentTest, ALinkThatTakesNoAnswersKeepsNobodyWaitingAndGetsThemAllLater) {
    constexpr std::uint32_t count = 3000;
    const std::string page = "http://page/" + std::string(4000, 'x');
    // So long that one read of the link takes only a few hundred.
    const std::string url = "http://a/" + std::string(100, 'x');
    start("block * " + page);
    for (std::uint32_t number = 1; number <= count; ++number)
        client_->ask(number, url);
    auto seen = std::async(std::launch::async, [this] {
        return agent_->waitUntil([](const auto& counters) { return counters.questions >= count; }, 300);
    });
    if (seen.wait_for(testsupport::patience) != std::future_status::ready) {
        client_.reset(); // which frees whoever waits
        FAIL() << "who asks after the counters waits for the link";
    }
    EXPECT_FALSE(seen.get()) << "it has been read on";
    for (std::uint32_t number = 1; number <= count; ++number)
        ASSERT_EQ(client_->frame(), "1 " + std::to_string(number) + " {\"redirect\":\"" + page + "\"}");
}

TEST_F(PolicyAgentTest, ALinkThatTakesNoAnswersIsReplacedByTheNext) {
    start("block * http://page/" + std::string(4000, 'x'));
    for (std::uint32_t number = 1; number <= 3000; ++number)
        client_->ask(number, "http://a/");
    ASSERT_TRUE(awaitQuestions(1));
    Client second(PolicyAgent::linkPort);
    second.ask(7, "http://a/");
    EXPECT_EQ(second.frame().substr(0, 4), "1 7 ");
}

TEST_F(PolicyAgentTest, QuestionsThatNobodyTakesAreReadOnlyUpToALimit) {
    constexpr long count = 60;
    for (const char* policy : {"allow *", "slow 1000 *", "push {}"}) {
        start(policy);
        client_->logOn();
        auto asked = std::async(std::launch::async, [this] {
            for (std::uint32_t number = 1; number <= count; ++number)
                client_->ask(number, std::string(1000000, 'x'));
        });
        const auto all = [](const auto& counters) { return counters.questions + counters.deferred >= count; };
        EXPECT_FALSE(agent_->waitUntil(all, 500)) << policy << ": they have all been read";
        EXPECT_TRUE(testsupport::eventually([&] {
            agent_->takeQuestions();
            agent_->takeSlow();
            if (agent_->counters().deferred > 0) agent_->answerDeferred();
            return agent_->waitUntil(all, 1);
        })) << policy
            << ": they are not read on";
        agent_.reset(); // which frees whoever still asks
        asked.wait();
    }
}

// The checks for threads see it if what is taken is not guarded.
TEST_F(PolicyAgentTest, QuestionsAreTakenWhileItIsStoppedAndStartedAnew) {
    start("allow *");
    std::atomic<bool> over{false};
    auto taker = std::async(std::launch::async, [&] {
        long taken = 0;
        while (!over)
            taken += static_cast<long>(agent_->takeQuestions().size());
        return taken;
    });
    // Also where a port cannot be had, or the taker would be waited for without end.
    const std::unique_ptr<std::atomic<bool>, void (*)(std::atomic<bool>*)> ending(
        &over, [](std::atomic<bool>* it) { *it = true; });
    for (std::uint32_t round = 1; round <= 10; ++round) {
        client_->ask(round, "http://a/");
        EXPECT_EQ(client_->frame(), "1 " + std::to_string(round) + " {}");
        agent_->stop();
        agent_->listen();
        agent_->start();
        client_ = std::make_unique<Client>(PolicyAgent::linkPort);
    }
    over = true;
    EXPECT_EQ(taker.get() + static_cast<long>(agent_->takeQuestions().size()), 10);
}

TEST_F(PolicyAgentTest, InALiveRunQuestionsAreReadHoweverManyHaveNotBeenTaken) {
    constexpr long count = 20;
    start("allow *", true);
    auto asked = std::async(std::launch::async, [this] {
        for (std::uint32_t number = 1; number <= count; ++number)
            client_->ask(number, std::string(1000000, 'x'));
    });
    EXPECT_TRUE(awaitQuestions(count));
    agent_.reset(); // which frees whoever still asks
    asked.wait();
}

TEST_F(PolicyAgentTest, WhatComesInPlaceOfAnAnswerIsTakenWholeBeforeTheLinkIsClosed) {
    const std::string bytes(20000000, 'x');
    testsupport::claimFixedPorts();
    agent_ = std::make_unique<PolicyAgent>(Policy::parse("", "policy"), false);
    agent_->setConduct([&](std::uint32_t, const std::string&) { return PolicyAgent::Conduct{bytes, true}; });
    agent_->listen();
    agent_->start();
    client_ = std::make_unique<Client>(PolicyAgent::linkPort);
    client_->ask(1, "http://a/");
    client_->ask(2, "http://a/");
    EXPECT_TRUE(client_->rest() == bytes);
    EXPECT_EQ(agent_->counters().questions, 1);
}

TEST_F(PolicyAgentTest, TheBlockPageIsServedOnItsPort) {
    start("allow *");
    Client browser(PolicyAgent::pagePort);
    browser.send("GET /shop HTTP/1.1\r\nHost: localhost:6543\r\n\r\n");
    const std::string page = browser.rest();
    EXPECT_EQ(page.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << page;
    EXPECT_NE(page.find("This page is blocked"), std::string::npos);
}

TEST_F(PolicyAgentTest, ABrowserThatAsksNothingKeepsNoOtherWaiting) {
    start("allow *");
    Client silent(PolicyAgent::pagePort);
    Client browser(PolicyAgent::pagePort);
    browser.send("GET / HTTP/1.1\r\n\r\n");
    EXPECT_NE(browser.rest().find("This page is blocked"), std::string::npos);
    EXPECT_TRUE(silent.quiet()) << "the end of it has been waited for";
}

TEST_F(PolicyAgentTest, NoMoreBrowsersThatAskNothingAreKeptThanAnyoneHas) {
    start("allow *");
    Client first(PolicyAgent::pagePort);
    std::vector<std::unique_ptr<Client>> others;
    for (int i = 0; i < 64; ++i)
        others.push_back(std::make_unique<Client>(PolicyAgent::pagePort));
    EXPECT_TRUE(testsupport::eventually([&] { return !first.quiet(); })) << "it has not been closed";
    others.back()->send("GET / HTTP/1.1\r\n\r\n");
    EXPECT_NE(others.back()->rest().find("This page is blocked"), std::string::npos);
}

TEST_F(PolicyAgentTest, APortThatIsTakenIsAnErrorThatNamesIt) {
    start("allow *");
    PolicyAgent second(Policy::parse("", "policy"), false);
    try {
        second.listen();
        FAIL() << "no error";
    } catch (const lab::InputError& error) {
        EXPECT_STREQ(error.what(),
                     "127.0.0.1:3456: Address already in use (is an agent or another lab running?)");
    }
}

TEST_F(PolicyAgentTest, TheWordsOfARuleAreKeptOnceForAllItsQuestions) {
    start("block * http://page/" + std::string(1000, 'x'));
    for (std::uint32_t number = 1; number <= 2; ++number)
        client_->ask(number, "http://a/");
    ASSERT_TRUE(awaitQuestions(2));
    const auto questions = agent_->takeQuestions();
    EXPECT_EQ(questions.at(0).decision.redirect, "http://page/" + std::string(1000, 'x'));
    EXPECT_EQ(questions.at(0).decision.redirect.data(), questions.at(1).decision.redirect.data());
    EXPECT_EQ(questions.at(0).decision.rule.data(), questions.at(1).decision.rule.data());
}

TEST_F(PolicyAgentTest, InALiveRunQuestionsThatThereIsNoRoomForAreAnsweredAndLeftOut) {
    start("allow *", true);
    const auto ask = [this](std::uint32_t first, std::uint32_t last) {
        for (std::uint32_t number = first; number <= last; ++number) {
            client_->ask(number, std::string(1000000, 'x'));
            ASSERT_EQ(client_->frame(), "1 " + std::to_string(number) + " {}");
        }
    };
    ask(1, 20);
    EXPECT_EQ(agent_->counters().questions, 20);
    EXPECT_EQ(agent_->counters().untold, 3);
    EXPECT_EQ(agent_->takeQuestions().size(), 17u);
    ask(21, 22);
    EXPECT_EQ(agent_->counters().untold, 3);
    EXPECT_EQ(agent_->takeQuestions().size(), 2u);
}

TEST_F(PolicyAgentTest, InALiveRunNoMoreSlowAnswersWaitThanThereIsRoomFor) {
    constexpr long count = 30;
    start("slow 300 *", true);
    auto asked = std::async(std::launch::async, [this] {
        for (std::uint32_t number = 1; number <= count; ++number)
            client_->ask(number, std::string(1000000, 'x'));
    });
    long most = 0;
    EXPECT_TRUE(agent_->waitUntil(
        [&](const auto& counters) {
            most = std::max(most, counters.questions - counters.answers);
            return counters.answers == count;
        },
        testsupport::patienceMilliseconds))
        << "they are not read on";
    EXPECT_LE(most, 17);
    agent_.reset(); // which frees whoever still asks
    asked.wait();
}

// How often no connection could be accepted.
std::atomic<int> refusals{0};

} // namespace

extern "C" int __real_accept4(int listener, sockaddr* address, socklen_t* length, int flags);
extern "C" int __wrap_accept4(int listener, sockaddr* address, socklen_t* length, int flags) {
    const int accepted = __real_accept4(listener, address, length, flags);
    if (accepted < 0) ++refusals;
    return accepted;
}

namespace {

TEST_F(PolicyAgentTest, AConnectionThatNoDescriptorIsLeftForIsTriedNowAndThenUntilThereIsOne) {
    if (testsupport::sanitized) GTEST_SKIP() << "a checker needs descriptors of its own";
    start("allow *");
    client_->ask(1, "http://a/");
    EXPECT_EQ(client_->frame(), "1 1 {}");
    std::unique_ptr<Client> other;
    for (const int port : {PolicyAgent::linkPort, PolicyAgent::pagePort}) {
        {
            const testsupport::FewDescriptors few(1); // for the client's end
            refusals = 0;
            const auto since = std::chrono::steady_clock::now();
            other = std::make_unique<Client>(port);
            EXPECT_TRUE(testsupport::eventually([] { return refusals >= 4; }));
            EXPECT_GE(std::chrono::steady_clock::now() - since, std::chrono::milliseconds(250))
                << port << ": it is tried without a pause";
        }
        other->send(port == PolicyAgent::linkPort ? lab::agentFrame(1, 2, R"({"url":"http://a/"})")
                                                  : "GET / HTTP/1.1\r\n\r\n");
        if (port == PolicyAgent::linkPort)
            EXPECT_EQ(other->frame(), "1 2 {}");
        else
            EXPECT_NE(other->rest().find("This page is blocked"), std::string::npos);
        other.reset();
    }
}

} // namespace
