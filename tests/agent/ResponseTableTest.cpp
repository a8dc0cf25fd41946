#include "agent/ResponseTable.h"

#include "agent/ResponseEntry.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>

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
