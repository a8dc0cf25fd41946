#include "agent/ResponseTable.h"

#include "agent/ResponseEntry.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/HeldLocks.h"
#include "support/Taken.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

class ResponseTableTest : public testing::Test {
protected:
    void deliver(std::uint32_t sequence, const char* text) {
        table.deliver(sequence, text, std::strlen(text));
    }

    // Waits for the entry and gives it back, as a request's thread does.
    std::string waitAndClose(ResponseEntry* entry) {
        const auto response = Owned<GPString>::adopt(table.wait(entry));
        table.close(entry);
        return response ? response->cstr() : "(null)";
    }

    std::string take(std::uint32_t sequence) {
        GPString* response = nullptr;
        if (!table.take(sequence, response)) return "(nothing)";
        return Owned<GPString>::adopt(response)->cstr();
    }

    ResponseTable table;
};

// The table as a plain list, walked from its head for each number.
class PlainTable {
public:
    struct Entry {
        std::uint32_t sequence;
        std::string response = "(null)";
        int signals = 0;
    };
    using Shared = std::shared_ptr<Entry>;

    Shared open(std::uint32_t sequence) {
        entries_.push_back(std::make_shared<Entry>(Entry{sequence}));
        return entries_.back();
    }

    void deliver(std::uint32_t sequence, const std::string& text) {
        const auto found = find(sequence);
        answer(found == entries_.end() ? open(sequence) : *found, text);
    }

    void wakeHead() {
        if (!entries_.empty()) answer(entries_.front(), "");
    }

    std::string take(std::uint32_t sequence) {
        const auto found = find(sequence);
        if (found == entries_.end()) return "(nothing)";
        const std::string response = (*found)->response;
        entries_.erase(found);
        return response == "(null)" ? "" : response;
    }

    int count() const { return static_cast<int>(entries_.size()); }

private:
    std::vector<Shared>::iterator find(std::uint32_t sequence) {
        return std::find_if(entries_.begin(), entries_.end(),
                            [&](const Shared& entry) { return entry->sequence == sequence; });
    }

    static void answer(const Shared& entry, const std::string& text) {
        entry->response = text;
        ++entry->signals;
    }

    std::vector<Shared> entries_;
};

} // namespace

TEST_F(ResponseTableTest, AReplyWakesTheRequestWithItsNumberAndLeavesTheTable) {
    ResponseEntry* first = table.open(1);
    ResponseEntry* second = table.open(2);
    auto waiting = std::async(std::launch::async, [&] { return waitAndClose(second); });
    deliver(2, "{two}");
    EXPECT_EQ(waiting.get(), "{two}");
    EXPECT_EQ(table.count(), 1);
    deliver(1, "{one}");
    EXPECT_EQ(waitAndClose(first), "{one}");
    EXPECT_EQ(table.count(), 0);
}

TEST_F(ResponseTableTest, AnEntryHasTheCreatorsAndTheListsReferenceBesideTheCallers) {
    ResponseEntry* entry = table.open(1);
    EXPECT_EQ(entry->retainonly(), 4);
    EXPECT_EQ(entry->releaseonly(), 3);
    table.remove(1);
    EXPECT_EQ(entry->retainonly(), 2);
    EXPECT_EQ(entry->releaseonly(), 1);
    table.close(entry);
}

TEST_F(ResponseTableTest, AReplyBeforeTheWaitIsNotLost) {
    ResponseEntry* entry = table.open(5);
    deliver(5, "{}");
    EXPECT_EQ(waitAndClose(entry), "{}");
}

TEST_F(ResponseTableTest, AReplyThatNobodyWaitsForStaysUntilItIsTaken) {
    deliver(9, "{nine}");
    deliver(8, "{eight}");
    EXPECT_EQ(table.count(), 2);
    EXPECT_EQ(take(9), "{nine}");
    EXPECT_EQ(take(9), "(nothing)");
    EXPECT_EQ(table.count(), 1);
}

TEST_F(ResponseTableTest, ASecondFrameWithTheNumberReplacesTheFirst) {
    deliver(9, "{first}");
    deliver(9, "{second}");
    EXPECT_EQ(table.count(), 1);
    EXPECT_EQ(take(9), "{second}");
}

TEST_F(ResponseTableTest, WakeHeadEndsTheFirstWaitWithAnEmptyTextAndNoOther) {
    ResponseEntry* head = table.open(1);
    ResponseEntry* later = table.open(2);
    table.wakeHead();
    EXPECT_EQ(waitAndClose(head), "");
    EXPECT_EQ(later->response, nullptr);
    deliver(2, "{}");
    EXPECT_EQ(waitAndClose(later), "{}");
}

TEST_F(ResponseTableTest, AnEntryWithoutASemaphoreAtTheHeadHidesTheWaitersFromWakeHead) {
    deliver(77, "{logon answer}");
    ResponseEntry* waiter = table.open(1);
    table.wakeHead();
    EXPECT_EQ(waiter->response, nullptr);
    EXPECT_EQ(take(77), "");
    deliver(1, "{}");
    EXPECT_EQ(waitAndClose(waiter), "{}");
}

TEST_F(ResponseTableTest, WakeHeadOfAnEmptyTableDoesNothing) {
    table.wakeHead();
    EXPECT_EQ(table.count(), 0);
}

TEST_F(ResponseTableTest, AWakeWithoutAResponseAnswersNullAndLeavesTheEntry) {
    ResponseEntry* entry = table.open(1);
    platform::semaphoreSignal(entry->semaphore);
    EXPECT_EQ(table.wait(entry), nullptr);
    EXPECT_EQ(table.count(), 1);
    table.close(entry);
}

TEST_F(ResponseTableTest, TwoRequestsThatDrewOneNumberShareTheFirstEntrysFate) {
    ResponseEntry* first = table.open(3);
    ResponseEntry* second = table.open(3);
    deliver(3, "{a}");
    EXPECT_EQ(second->response, nullptr);
    table.remove(3); // the second request's send failed: the entry that is found is the first one's
    table.close(second);
    EXPECT_EQ(waitAndClose(first), "{a}");
    EXPECT_EQ(table.count(), 0);
}

TEST_F(ResponseTableTest, ARequestOutlivesTheRemovalOfItsEntryByAConfigurationFrame) {
    ResponseEntry* entry = table.open(4);
    deliver(4, "{push}");
    EXPECT_EQ(take(4), "{push}");
    EXPECT_EQ(waitAndClose(entry), "{push}");
    EXPECT_EQ(table.count(), 0);
}

TEST_F(ResponseTableTest, EveryOperationWaitsForTheTablesLock) {
    const GPMutex* responseMutex = testsupport::firstLockOf([this] { table.count(); });
    ResponseEntry* answered = table.open(1);
    ResponseEntry* left = table.open(2);
    ResponseEntry* opened = nullptr;
    deliver(1, "{}");
    const std::vector<std::function<void()>> operations = {
        [&] { opened = table.open(3); },
        [&] { EXPECT_EQ(testsupport::taken(table.wait(answered)), "{}"); },
        [&] { table.close(answered); },
        [&] { table.remove(2); },
        [&] { table.close(left); },
        [&] { deliver(4, "{}"); },
        [&] { take(4); },
        [&] { table.wakeHead(); },
        [&] { table.count(); },
    };
    for (std::size_t i = 0; i < operations.size(); ++i) {
        testsupport::StoppedAtLock stopped(responseMutex, operations[i]);
        EXPECT_TRUE(stopped.waits()) << i;
    }
    table.close(opened);
}

TEST_F(ResponseTableTest, AnswersAsAWalkThroughItsListWould) {
    struct Request {
        ResponseEntry* entry;
        PlainTable::Shared plain;
    };
    PlainTable plain;
    std::vector<Request> requests;
    std::mt19937 random{3456};
    const auto below = [&](std::size_t limit) { return random() % limit; };
    for (int step = 0; step < 20000; ++step) {
        const auto sequence = static_cast<std::uint32_t>(below(8));
        const std::string text = std::to_string(step);
        switch (below(7)) {
            case 0:
                if (requests.size() < 10) requests.push_back({table.open(sequence), plain.open(sequence)});
                break;
            case 1:
            case 2:
                deliver(sequence, text.c_str());
                plain.deliver(sequence, text);
                break;
            case 3:
                ASSERT_EQ(take(sequence), plain.take(sequence)) << step;
                break;
            case 4:
                table.remove(sequence);
                plain.take(sequence);
                break;
            case 5:
                table.wakeHead();
                plain.wakeHead();
                break;
            default: {
                const auto woken = std::find_if(requests.begin(), requests.end(),
                                                [](const Request& each) { return each.plain->signals > 0; });
                if (woken == requests.end()) break;
                ASSERT_EQ(waitAndClose(woken->entry), woken->plain->response) << step;
                plain.take(woken->plain->sequence);
                requests.erase(woken);
            }
        }
        ASSERT_EQ(table.count(), plain.count()) << step;
    }
    for (const Request& left : requests)
        table.close(left.entry);
}
