// The agent link with one system call of its threads failing, each call in turn: at the connecting, at a question, at a
// pushed frame and at a reconnect.

#include "agent/AgentLink.h"
#include "agent/OstComm.h"
#include "config/Configuration.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/AgentLinkWorld.h"
#include "support/AgentProcess.h"
#include "support/ChildNotes.h"
#include "support/Eventually.h"
#include "support/ManualClock.h"
#include "support/ProcessDescriptors.h"
#include "support/TracedCalls.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <thread>

using testsupport::beginCalls;
using testsupport::CallsOf;
using testsupport::endCalls;
using testsupport::eventually;

namespace {

constexpr char allowed[] = "{}";
constexpr char failurePolicy[] = "{BOF}";
constexpr char wokenByReconnect[] = "";
constexpr char dead[] = "dead";
// The two waits without an end that the link knows.
constexpr char nobodyReads[] = "waits: the link's reader could not be started";
constexpr char hidden[] = "waits: a frame that nobody took stands in front of it";

constexpr char pushedFrame[] = R"({"bypass_on_failure":false,"other":1})";

// Answers every question but "push", in front of whose answer a configuration frame comes, and "leave".
std::optional<std::string> answerOf(const lab::AgentFrame& question) {
    if (question.body.find("leave") != std::string::npos) return {};
    std::string answer;
    if (question.body.find("push") != std::string::npos)
        answer = lab::agentFrame(lab::configurationFrame, 0x70000000, pushedFrame);
    return answer + lab::agentFrame(lab::policyFrame, question.sequence, allowed);
}

long threads() {
    const std::filesystem::directory_iterator all("/proc/self/task");
    return std::distance(begin(all), end(all));
}

long openOfKind(const std::string& kind) {
    const auto open = testsupport::descriptorsOf(getpid());
    return std::count_if(open.begin(), open.end(),
                         [&](const auto& entry) { return entry.second.rfind(kind, 0) == 0; });
}

struct Question {
    std::atomic<const GPSockets*> socket{nullptr}; // that it goes out on
    std::promise<std::string> answer;
};

// A process with the link of its own. This thread only looks on.
class Link {
public:
    Link() {
        Configuration::setLogLevel(1);
        Configuration::setBOF(false);
        testsupport::ManualClock::installed().setEventWait(testsupport::patienceMicroseconds, false);
    }

    // Asks on a thread of its own: the answer, or the name of the state that keeps it away for good.
    std::string ask(const std::string& about) {
        const int built = timesBuilt();
        const auto question = std::make_shared<Question>();
        std::future<std::string> result = question->answer.get_future();
        std::thread([question, url = "http://" + about + "/"]() mutable {
            OstComm* const link = OstComm::Instance();
            question->socket = agentLink.socket();
            const auto reply = Owned<GPString>::adopt(link->getPolicyCommand(url.data(), 1));
            question->answer.set_value(reply ? reply->cstr() : "(null)");
        }).detach();
        std::string wait;
        const bool settled = eventually([&] {
            if (result.wait_for(std::chrono::seconds(0)) == std::future_status::ready) return true;
            wait = endlessWait(*question, built);
            return !wait.empty();
        });
        EXPECT_TRUE(settled) << "neither an answer nor a state that a rule describes";
        if (!wait.empty()) {
            ++waiting_;
            return wait;
        }
        const std::string text = settled ? result.get() : "hung";
        // The wake-up comes in front of the new link: a question that goes out on the old one in between is lost, by rule.
        if (text == wokenByReconnect) {
            EXPECT_TRUE(eventually([&] { return agentLink.socket() != question->socket; }));
        }
        return text;
    }

    // Asks for a push and waits until a thread has taken the frame, or could not be started: then it stays in the table.
    std::string askForPush() {
        const std::string answer = ask("push");
        EXPECT_TRUE(
            eventually([this] { return threads() <= 1 + waiting_ + (agentLink.isBeingRead() ? 1 : 0); }));
        hasFrameInFront_ = agentLink.responses().count() > waiting_;
        const bool taken = Configuration::isBOFEnabled();
        EXPECT_FALSE(taken && hasFrameInFront_);
        // It comes in front of the answer.
        EXPECT_TRUE(taken || hasFrameInFront_ || answer != allowed);
        return answer;
    }

    bool hasFrameInFront() const { return hasFrameInFront_; }

    // Entries of the questions that wait, and of the frame that nobody took.
    void expectNoEntryLeftOver() const {
        EXPECT_TRUE(eventually(
            [this] { return agentLink.responses().count() == waiting_ + (hasFrameInFront_ ? 1 : 0); }));
    }

    // A connection and its two queues for each time that the link was built, and nothing else.
    void expectNoDescriptorLeftOver() const {
        const long built = world_.log.countContaining("OstComm setUserLogonCommand send success") + 1;
        EXPECT_LE(openOfKind("socket:") - sockets_, built);
        EXPECT_LE(openOfKind("anon_inode:[eventpoll]"), 2 * built);
        EXPECT_EQ(openOfKind(""), others_ + openOfKind("socket:") + openOfKind("anon_inode:[eventpoll]"));
    }

private:
    int timesBuilt() const { return world_.log.countContaining("OstComm socket opened"); }

    // Whether a question is under way beside those that wait for good.
    bool isFiled() const { return agentLink.responses().count() > (hasFrameInFront_ ? 1 : 0) + waiting_; }

    // The state that keeps a question waiting which was asked when the link had been built so many times.
    std::string endlessWait(const Question& question, int built) const {
        // The question is filed, so its thread will start no other.
        if (!isFiled()) return "";
        // A link that was made anew has woken it, though it may not have run since.
        const bool goesOutHere = agentLink.socket() == question.socket;
        const bool seemsUnread =
            goesOutHere && agentLink.isOpened() && !agentLink.isBeingRead() && threads() == 2 + waiting_;
        // A thread that ends while the system lists them cuts the list short: that of a question that was answered.
        if (seemsUnread && isFiled() && !agentLink.isBeingRead()) return nobodyReads;
        if (hasFrameInFront_ && timesBuilt() > built) return hidden;
        return "";
    }

    testsupport::AgentLinkWorld world_;
    const long sockets_ = openOfKind("socket:");
    const long others_ = openOfKind("") - sockets_;
    int waiting_ = 0;
    bool hasFrameInFront_ = false;
};

// What became of the link, by the answer to a question.
std::string stateBehind(Link& link) {
    const std::string after = link.ask("after");
    link.expectNoDescriptorLeftOver();
    link.expectNoEntryLeftOver();
    if (after != failurePolicy) return after;
    EXPECT_FALSE(OstComm::Instance()->isOpened());
    return dead;
}

class AgentLinkFailedCalls : public testsupport::CallsFailIn<testing::Test> {
protected:
    using Names = std::set<std::string>;

    // Runs `act` on a link that answers, with each call of its threads failing in turn, and notes what it answers and
    // what became of the link.
    void failEachCallBehindAnAnswer(const std::function<std::string(Link&)>& act) {
        testsupport::failEachCall([&] {
            Link link;
            ASSERT_EQ(link.ask("first"), allowed);
            beginCalls(CallsOf::otherThreads);
            const std::string answer = act(link);
            endCalls();
            answers_.add(answer);
            states_.add(stateBehind(link));
        });
    }

    const testsupport::AgentProcess agent_{answerOf};
    const testsupport::ChildNotes answers_{};
    const testsupport::ChildNotes states_{};
};

TEST_F(AgentLinkFailedCalls, OfTheConnectingLeaveALinkThatAnswersOneThatIsDeadOrOneWithoutAReader) {
    testsupport::failEachCall([this] {
        Link link;
        beginCalls(CallsOf::otherThreads);
        const std::string first = link.ask("first");
        endCalls();
        answers_.add(first);
        states_.add(first == nobodyReads ? nobodyReads : stateBehind(link));
    });
    EXPECT_EQ(answers_.seen(), (Names{allowed, failurePolicy, wokenByReconnect, nobodyReads}));
    EXPECT_EQ(states_.seen(), (Names{allowed, dead, nobodyReads}));
}

TEST_F(AgentLinkFailedCalls, OfAQuestionGiveItsAnswerTheFailurePolicyOrTheWakeOfAReconnect) {
    failEachCallBehindAnAnswer([](Link& link) { return link.ask("question"); });
    EXPECT_EQ(answers_.seen(), (Names{allowed, failurePolicy, wokenByReconnect}));
    EXPECT_EQ(states_.seen(), (Names{allowed}));
}

TEST_F(AgentLinkFailedCalls, OfAPushedFrameLeaveItTakenLostOrInTheTable) {
    failEachCallBehindAnAnswer([](Link& link) {
        link.askForPush();
        return std::string(link.hasFrameInFront()          ? "in the table"
                           : Configuration::isBOFEnabled() ? "taken"
                                                           : "lost");
    });
    EXPECT_EQ(answers_.seen(), (Names{"taken", "lost", "in the table"}));
    EXPECT_EQ(states_.seen(), (Names{allowed}));
}

TEST_F(AgentLinkFailedCalls, OfAReconnectLeaveALinkThatAnswersOneThatIsDeadOrOneWithoutAReader) {
    failEachCallBehindAnAnswer([](Link& link) {
        const std::string interrupted = link.ask("leave");
        link.ask("behind"); // the new reader has come by then, or none comes
        return interrupted;
    });
    EXPECT_EQ(answers_.seen(), (Names{wokenByReconnect, failurePolicy}));
    EXPECT_EQ(states_.seen(), (Names{allowed, dead, nobodyReads}));
}

// By rule the one wake-up of a reconnect goes to the head of the table. Where that is a frame whose thread could not be
// started, the question behind it waits without an end; those that come later are answered.
TEST_F(AgentLinkFailedCalls, OfAPushedFramesThreadHideTheQuestionBehindItFromAReconnect) {
    failEachCallBehindAnAnswer([](Link& link) {
        link.askForPush();
        endCalls();
        const std::string interrupted = link.ask("leave");
        EXPECT_EQ(interrupted == hidden, link.hasFrameInFront());
        return interrupted;
    });
    EXPECT_EQ(answers_.seen(), (Names{wokenByReconnect, hidden}));
    EXPECT_EQ(states_.seen(), (Names{allowed}));
}

} // namespace
