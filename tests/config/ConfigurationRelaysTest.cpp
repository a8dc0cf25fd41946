#include "config/Configuration.h"
#include "config/UserRelay.h"

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/SettingsWorld.h"

namespace {

class ConfigurationRelays : public testsupport::SettingsWorld {};

TEST_F(ConfigurationRelays, AStoredRelayIsFoundWithItsTexts) {
    Configuration::setLastRelay("bob", "relay one", "format one");
    UserRelay* relay = Configuration::getLastRelay("bob");
    ASSERT_NE(relay, nullptr);
    EXPECT_STREQ(relay->userName.load()->cstr(), "bob");
    EXPECT_STREQ(Configuration::getLastRelayUser("bob")->cstr(), "relay one");
    EXPECT_STREQ(Configuration::getLastRelayUserFormat("bob")->cstr(), "format one");
}

TEST_F(ConfigurationRelays, AnUnknownUserHasNoRecordAndEmptyTexts) {
    Configuration::setLastRelay("bob", "relay", "format");
    EXPECT_EQ(Configuration::getLastRelay("Bob"), nullptr);
    EXPECT_STREQ(Configuration::getLastRelayUser("Bob")->cstr(), "");
    EXPECT_STREQ(Configuration::getLastRelayUserFormat("Bob")->cstr(), "");
}

TEST_F(ConfigurationRelays, TheReadersCutADomainOff) {
    Configuration::setLastRelay("bob", "relay", "format");
    EXPECT_STREQ(Configuration::getLastRelayUser("DOMAIN\\bob")->cstr(), "relay");
    EXPECT_STREQ(Configuration::getLastRelayUserFormat("DOMAIN\\bob")->cstr(), "format");
    EXPECT_NE(Configuration::getLastRelay("DOMAIN\\bob"), nullptr);
}

TEST_F(ConfigurationRelays, ABackslashAtTheStartIsKeptAndOnlyTheFirstCounts) {
    Configuration::setLastRelay("\\bob", "rooted", "f");
    Configuration::setLastRelay("x\\bob", "nested", "f");
    EXPECT_STREQ(Configuration::getLastRelayUser("\\bob")->cstr(), "rooted");
    EXPECT_STREQ(Configuration::getLastRelayUser("DOMAIN\\x\\bob")->cstr(), "nested");
}

TEST_F(ConfigurationRelays, TheWriterTakesTheNameWithItsDomainAsANewRow) {
    Configuration::setLastRelay("bob", "bare", "f");
    Configuration::setLastRelay("DOMAIN\\bob", "qualified", "f");
    EXPECT_STREQ(Configuration::getLastRelayUser("DOMAIN\\bob")->cstr(), "bare");
    EXPECT_NE(file().find("<DOMAIN\\bob UserFormatType=\"f\">qualified</DOMAIN\\bob>\n"), std::string::npos);
}

TEST_F(ConfigurationRelays, ASecondRelayReplacesTheTextsOfTheSameRecord) {
    Configuration::setLastRelay("bob", "one", "f1");
    UserRelay* record = Configuration::getLastRelay("bob");
    // Nobody else gives the earlier texts back.
    auto earlier = Owned<GPString>::adopt(record->lastRelay.load());
    auto earlierFormat = Owned<GPString>::adopt(record->userFormat.load());
    EXPECT_TRUE(writesFile([] { Configuration::setLastRelay("bob", "two", "f2"); }));
    EXPECT_EQ(Configuration::getLastRelay("bob"), record);
    EXPECT_STREQ(record->lastRelay.load()->cstr(), "two");
    EXPECT_STREQ(record->userFormat.load()->cstr(), "f2");
    EXPECT_STREQ(earlier->cstr(), "one") << "a reader may still hold the earlier text";
}

TEST_F(ConfigurationRelays, RowsAreSavedInOrderWithTheirFormatAsAttribute) {
    Configuration::setLastRelay("bob", "r1", "f1");
    Configuration::setLastRelay("ann", "r2", "f2");
    EXPECT_NE(file().find("<Users>\n<bob UserFormatType=\"f1\">r1</bob>\n"
                          "<ann UserFormatType=\"f2\">r2</ann>\n</Users>\n"),
              std::string::npos);
}

TEST_F(ConfigurationRelays, AnEmptyOrNullUserIsIgnored) {
    EXPECT_FALSE(writesFile([] { Configuration::setLastRelay(nullptr, "r", "f"); }));
    EXPECT_FALSE(writesFile([] { Configuration::setLastRelay("", "r", "f"); }));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(ConfigurationRelays, TheWriterLogsAlwaysAndTheReadersAtBitOne) {
    Configuration::setLastRelay("bob", "r", "f");
    Configuration::getLastRelay("bob");
    Configuration::setVerboseMode(true);
    Configuration::getLastRelay("bob");
    EXPECT_TRUE(log.holds("Configuration::setLastRelay looking for bob r f"));
    EXPECT_EQ(log.countContaining("Configuration::getLastRelay"), 0) << "the verbose flag alone is not bit 1";

    Configuration::setLogLevel(1);
    Configuration::getLastRelay("D\\bob");
    Configuration::getLastRelayUser("D\\bob");
    Configuration::getLastRelayUserFormat("D\\bob");
    EXPECT_TRUE(log.holds("Configuration::getLastRelay looking for bob"));
    EXPECT_TRUE(log.holds("Configuration::getLastRelayUser looking for bob"));
    EXPECT_TRUE(log.holds("Configuration::getLastRelayUserFormat looking for bob"));
}

TEST_F(ConfigurationRelays, ANullRelayAndFormatAreStoredAsEmptyTexts) {
    Configuration::setLastRelay("bob", nullptr, nullptr);
    EXPECT_STREQ(Configuration::getLastRelayUser("bob")->cstr(), "");
    EXPECT_STREQ(Configuration::getLastRelayUserFormat("bob")->cstr(), "");
}

TEST_F(ConfigurationRelays, ARowOfARelayWithoutATextIsWrittenWithAnEmptyOne) {
    Configuration::setLastRelay("bob", nullptr, nullptr);
    EXPECT_NE(file().find("<Users>\n<bob UserFormatType=\"\"></bob>\n</Users>\n"), std::string::npos)
        << file();
}

TEST(UserRelay, TextsAreCopiesAndNullGivesAnEmptyText) {
    char name[] = "bob";
    auto relay = Owned<UserRelay>::adopt(new UserRelay(name, nullptr, "f"));
    name[0] = 'x';
    EXPECT_STREQ(relay->userName.load()->cstr(), "bob");
    EXPECT_STREQ(relay->lastRelay.load()->cstr(), "");
    EXPECT_STREQ(relay->userFormat.load()->cstr(), "f");
}

TEST(UserRelay, SettersStoreCopiesAndLeaveTheEarlierTextAlive) {
    auto relay = Owned<UserRelay>::adopt(new UserRelay("bob", "r", "f"));
    GPString* earlier[] = {relay->userName, relay->lastRelay, relay->userFormat};
    relay->setUserName("ann");
    relay->setLastRelay(nullptr);
    relay->setUserFormat("g");
    EXPECT_STREQ(relay->userName.load()->cstr(), "ann");
    EXPECT_STREQ(relay->lastRelay.load()->cstr(), "");
    EXPECT_STREQ(relay->userFormat.load()->cstr(), "g");
    EXPECT_STREQ(earlier[0]->cstr(), "bob");
    for (GPString* text : earlier)
        text->release();
}

TEST(UserRelay, NamesItsClassInOneOfTheTwoWays) {
    auto relay = Owned<UserRelay>::adopt(new UserRelay("bob", "r", "f"));
    auto name = Owned<GPString>::adopt(relay->className());
    EXPECT_STREQ(name->cstr(), "UserRelay");
    EXPECT_STREQ(relay->cclassName(), "GPObject");
}

} // namespace
