#include "config/FilterCheck.h"

#include "config/Configuration.h"
#include "config/FilterIPAddresses.h"
#include "support/PlayedNames.h"
#include "support/SettingsWorld.h"

#include <sys/socket.h>
#include <thread>

namespace {

class FilterCheckTest : public testsupport::SettingsWorld {
protected:
    FilterCheckTest() {
        names_.install();
        names_.answer("localhost", AF_INET, {"127.0.0.1"});
    }

    // Blocks until the current snapshot is there.
    static FilterIPAddresses* snapshot() {
        FilterIPAddresses* current = nullptr;
        while (!(current = FilterIPAddresses::getCurrentIPAddresses()))
            std::this_thread::yield();
        return current;
    }

private:
    // Outlives the test: the rebuild task may still look names up.
    testsupport::PlayedNames& names_ = *new testsupport::PlayedNames;
};

TEST_F(FilterCheckTest, TheLocalAgentBecomesTheOnlyServerWhateverTheListHeld) {
    givenServers({"a.example", "b.example"});
    EXPECT_STREQ(Configuration::serverName(), "a.example");
    EXPECT_TRUE(writesFile([] { FilterCheck::setServerToLocalhost(); }));
    EXPECT_EQ(listedServers(), std::vector<std::string>{"localhost"});
    EXPECT_STREQ(Configuration::serverName(), "localhost");
    EXPECT_EQ(inFile("ServerName"), "localhost");
    EXPECT_NE(file().find("<Servers>\n<ServerName ServerType=\"1\">localhost</ServerName>\n</Servers>\n"),
              std::string::npos);
}

TEST_F(FilterCheckTest, TheNewRecordIsCurrentEvenWhenTheOldOneHadTheSameName) {
    givenServers({"localhost"});
    FilterServer* old = Configuration::getCurrentServer();
    FilterCheck::setServerToLocalhost();
    EXPECT_NE(Configuration::getCurrentServer(), old);
    EXPECT_EQ(Configuration::getCurrentServer(), Configuration::getFilterServer("localhost"));
}

TEST_F(FilterCheckTest, TheChangeHasTheAddressesBuilt) {
    FilterCheck::setServerToLocalhost();
    FilterIPAddresses* built = snapshot();
    EXPECT_EQ(built->count, 1);
    EXPECT_EQ(built->addresses[0], 0x7f000001u);
    built->release();
}

TEST_F(FilterCheckTest, NoAddressPassesAsUpdateTraffic) {
    EXPECT_FALSE(FilterCheck::isUpdateBypass(0));
    EXPECT_FALSE(FilterCheck::isUpdateBypass(0x7f000001));
    EXPECT_FALSE(FilterCheck::isUpdateBypass(0xffffffff));
}

} // namespace
