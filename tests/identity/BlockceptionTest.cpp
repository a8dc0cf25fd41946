#include "identity/Blockception.h"

#include "config/Configuration.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/DirectoryWorld.h"
#include "support/Objects.h"

using namespace platform;

namespace {

constexpr char node[] = "/LDAPv3/ldap.example.com";

class BlockceptionTest : public testsupport::DirectoryWorld {
protected:
    BlockceptionTest() { directory.addNode(node); }

    DirectoryNodeRef opened() {
        DirectoryError error;
        return directory.nodeWithName(node, error);
    }

    Blockception::Success recordSuccess() {
        return [this](const DirectoryRecords& records) { ends.push_back("success " + described(records)); };
    }

    Blockception::Failure recordFailure() {
        return [this](const DirectoryError& error) { ends.push_back("failure " + error.description); };
    }

    void searchUsers(const DirectoryNodeRef& place) {
        blockception->search(kODRecordTypeUsers, kODAttributeTypeRecordName, "alice", place, 0,
                             recordSuccess(), recordFailure());
    }

    // A record that no node has.
    static std::shared_ptr<const DirectoryRecord> record(const std::string& name) {
        testsupport::PlayedDirectory other;
        other.add("other", kODRecordTypeUsers, {{"RecordName", {name}}});
        return other.records().at(0);
    }

    // What a scheduled query tells its delegate.
    void tellDelegate(const DirectoryRecords* records, const DirectoryError* error) {
        const DirectoryQueryDelegate& delegate = directory.lastDelegate();
        ASSERT_EQ(delegate.object, blockception.get());
        delegate.foundResults(delegate.object, nullptr, records, error);
    }

    void schedule() {
        searchUsers(opened());
        ends.clear();
        blockception->success = recordSuccess();
        blockception->failure = recordFailure();
    }

    const Owned<Blockception> blockception = Owned<Blockception>::adopt(new Blockception);
    Ends ends;
};

} // namespace

TEST_F(BlockceptionTest, HasNoClassNameOfItsOwn) {
    const testsupport::PoolScope pool;
    EXPECT_STREQ(blockception->className()->cstr(), "GPObject");
    EXPECT_TRUE(blockception->isInstanceOf("GPObject"));
}

TEST_F(BlockceptionTest, LooksForTheCachedUserOnce) {
    blockception->searchUserInfo(opened(), nullptr, nullptr);
    EXPECT_EQ(directory.queries(),
              Texts{std::string(node) + " dsRecTypeStandard:Users "
                                        "dsAttrTypeStandard:RecordName=alice dsAttributesAll 1"});
}

TEST_F(BlockceptionTest, LooksForTheComputerByTheHostsNameWithoutItsExtension) {
    blockception->searchComputerInfo(opened(), nullptr, nullptr);
    EXPECT_EQ(directory.queries(),
              Texts{std::string(node) + " dsRecTypeStandard:Computers "
                                        "dsAttrTypeStandard:RecordName=mac01 dsAttributesAll 1"});
}

TEST_F(BlockceptionTest, LooksForAllGroupsWithTheCachedUser) {
    blockception->searchODMembership(opened(), nullptr, nullptr);
    EXPECT_EQ(directory.queries(),
              Texts{std::string(node) + " dsRecTypeStandard:Groups "
                                        "dsAttrTypeStandard:GroupMembership=alice dsAttributesAll 0"});
}

TEST_F(BlockceptionTest, LooksForAllUsersOfTheHomeDirectory) {
    blockception->searchODLocalUser(opened(), nullptr, nullptr);
    EXPECT_EQ(directory.queries(),
              Texts{std::string(node) +
                    " dsRecTypeStandard:Users "
                    "dsAttrTypeStandard:NFSHomeDirectory=/Users/alice dsAttributesAll 0"});
}

TEST_F(BlockceptionTest, AHostWithoutANameIsLookedForByAnEmptyOne) {
    host.host = std::nullopt;
    blockception->searchComputerInfo(opened(), recordSuccess(), recordFailure());
    EXPECT_EQ(ends, Ends{"success ()"});
}

TEST_F(BlockceptionTest, NobodyIsLookedForByAnEmptyName) {
    Configuration::setCachedUserName(nullptr);
    blockception->searchUserInfo(opened(), recordSuccess(), recordFailure());
    EXPECT_EQ(ends, Ends{"success ()"});
}

TEST_F(BlockceptionTest, CallsBackWithAllRecordsBeforeTheSearchReturns) {
    givenUser(node, {{"RecordName", {"alice", "al"}}});
    givenUser(node, {{"RecordName", {"alice 2", "alice"}}});
    searchUsers(opened());
    EXPECT_EQ(ends, Ends{"success (record alice, record alice 2)"});
}

TEST_F(BlockceptionTest, NoMoreThanTheLimitIsFound) {
    givenUser(node);
    givenUser(node);
    blockception->searchUserInfo(opened(), recordSuccess(), recordFailure());
    EXPECT_EQ(ends, Ends{"success (record alice)"});
}

TEST_F(BlockceptionTest, AQueryThatFailsCallsTheFailureAlone) {
    logEverything();
    directory.failQueries(kODRecordTypeUsers, "connection lost");
    searchUsers(opened());
    EXPECT_EQ(ends, Ends{"failure connection lost"});
    EXPECT_TRUE(log.holds("Failed to query Directory Server: connection lost"));
}

TEST_F(BlockceptionTest, AQueryThatCannotBeMadeIsAFailure) {
    logEverything();
    directory.refuseQueries(kODRecordTypeUsers, "no such type");
    searchUsers(opened());
    EXPECT_EQ(ends, Ends{"failure no such type"});
    EXPECT_TRUE(log.holds("Failed to query Directory Server: no such type"));
    EXPECT_EQ(directory.queries(), Texts{});
}

TEST_F(BlockceptionTest, ANodeThatIsNotThereIsAFailure) {
    searchUsers(nullptr);
    EXPECT_EQ(ends, Ends{"failure no node to query"});
}

TEST_F(BlockceptionTest, AFailureIsLoggedAtLogLevelOneAlone) {
    directory.failQueries(kODRecordTypeUsers, "connection lost");
    searchUsers(opened());
    EXPECT_EQ(log.countContaining("Failed to query"), 0);
}

TEST_F(BlockceptionTest, CallbacksThatAreNotSetAreNotCalled) {
    blockception->searchUserInfo(opened(), nullptr, recordFailure());
    directory.failQueries(kODRecordTypeUsers, "connection lost");
    blockception->searchUserInfo(opened(), recordSuccess(), nullptr);
    EXPECT_EQ(ends, Ends{});
}

TEST_F(BlockceptionTest, BothCallbacksAreClearedAfterASearch) {
    searchUsers(opened());
    EXPECT_FALSE(blockception->success);
    EXPECT_FALSE(blockception->failure);
    directory.failQueries(kODRecordTypeUsers, "connection lost");
    searchUsers(opened());
    EXPECT_FALSE(blockception->success);
    EXPECT_FALSE(blockception->failure);
    EXPECT_EQ(blockception->ds, nullptr);
}

TEST_F(BlockceptionTest, ASearchInsideACallbackLeavesTheOuterRecordsAlone) {
    givenUser(node);
    givenComputer(node);
    blockception->searchUserInfo(
        opened(),
        [&](const DirectoryRecords& users) {
            const auto inner = Owned<Blockception>::adopt(new Blockception);
            inner->searchComputerInfo(opened(), recordSuccess(), recordFailure());
            ends.push_back("outer " + described(users));
        },
        nullptr);
    EXPECT_EQ(ends, (Ends{"success (record mac01)", "outer (record alice)"}));
}

TEST_F(BlockceptionTest, ACallbackMaySearchWithTheSameObject) {
    givenUser(node);
    givenComputer(node);
    blockception->searchUserInfo(
        opened(),
        [&](const DirectoryRecords& users) {
            blockception->searchComputerInfo(opened(), recordSuccess(), recordFailure());
            ends.push_back("outer " + described(users));
        },
        nullptr);
    EXPECT_EQ(ends, (Ends{"success (record mac01)", "outer (record alice)"}));
    EXPECT_FALSE(blockception->success);
}

// What a query on a run loop would tell.

TEST_F(BlockceptionTest, AScheduledQueryCollectsItsRecordsUntilItsEnd) {
    schedule();
    const DirectoryRecords first = {record("a")};
    const DirectoryRecords second = {record("b"), record("c")};
    tellDelegate(&first, nullptr);
    tellDelegate(&second, nullptr);
    EXPECT_EQ(ends, Ends{});
    EXPECT_TRUE(blockception->success);
    tellDelegate(nullptr, nullptr);
    EXPECT_EQ(ends, Ends{"success (record a, record b, record c)"});
    EXPECT_FALSE(blockception->success);
    EXPECT_FALSE(blockception->failure);
}

TEST_F(BlockceptionTest, AScheduledQueryThatFailsForgetsItsRecords) {
    schedule();
    const DirectoryRecords records = {record("a")};
    const DirectoryError error = {"connection lost"};
    tellDelegate(&records, nullptr);
    tellDelegate(nullptr, &error);
    EXPECT_EQ(ends, Ends{"failure connection lost"});
    EXPECT_FALSE(blockception->success);
    EXPECT_FALSE(blockception->failure);
    blockception->success = recordSuccess();
    tellDelegate(nullptr, nullptr);
    EXPECT_EQ(ends.back(), "success ()");
}

TEST_F(BlockceptionTest, AScheduledQueryThatFailsForgetsWhatItsCallbackCollectsToo) {
    givenUser("/LDAPv3/ldap.example.com");
    const DirectoryRecords records = directory.records();
    blockception->failure = [&](const DirectoryError&) { blockception->query(nullptr, &records, nullptr); };
    const DirectoryError error{};
    blockception->query(nullptr, nullptr, &error);
    std::size_t count = 99;
    blockception->success = [&](const DirectoryRecords& collected) { count = collected.size(); };
    blockception->query(nullptr, nullptr, nullptr);
    EXPECT_EQ(count, 0u);
}

TEST_F(BlockceptionTest, AScheduledQuerysErrorCountsBeforeItsRecords) {
    schedule();
    const DirectoryRecords records = {record("a")};
    const DirectoryError error = {"connection lost"};
    tellDelegate(&records, &error);
    EXPECT_EQ(ends, Ends{"failure connection lost"});
}

TEST_F(BlockceptionTest, AScheduledQueryWithoutCallbacksEndsQuietly) {
    searchUsers(opened());
    ends.clear();
    const DirectoryError error = {"connection lost"};
    tellDelegate(nullptr, nullptr);
    tellDelegate(nullptr, &error);
    EXPECT_EQ(ends, Ends{});
}
