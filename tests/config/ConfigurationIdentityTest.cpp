#include "config/Configuration.h"

#include "config/ConfigurationState.h"
#include "gp/GPAlgorithm.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "support/PlayedInterfaces.h"
#include "support/SettingsWorld.h"

#include <utility>

using Names = std::vector<std::string>;

namespace {

const char* const allZeros = "00000000-0000-0000-0000-000000000000";

class MachineIdentity : public testsupport::SettingsWorld {
protected:
    MachineIdentity() { interfaces_.install(); }

    void giveNetwork(const std::string& hardwareAddress = "\x02\x11\x22\x33\x44\x55") {
        testsupport::EntryBuilder listing;
        listing.link("en0", hardwareAddress).ipv4("en0", "192.0.2.1");
        interfaces_.show(listing);
    }

    static std::string generatedHere() { return Owned<GPString>::adopt(GPAlgorithm::getUUID())->cstr(); }

private:
    testsupport::PlayedInterfaces interfaces_;
};

TEST_F(MachineIdentity, WithoutAStoredOneTheFirstQuestionGeneratesItAndRewritesTheFile) {
    giveNetwork();
    givenFile("<Fernhill><Ostler>true</Ostler></Fernhill>");
    Configuration::loadConfig();
    std::string first;
    EXPECT_TRUE(writesFile([&] { first = Configuration::getUUID()->cstr(); }));
    EXPECT_EQ(first, generatedHere());
    EXPECT_EQ(first.size(), 36u);
    EXPECT_EQ(inFile("MachineUUID"), first);
    EXPECT_EQ(inFile("Ostler"), "true");
    EXPECT_TRUE(log.holds("Generated UUID '" + first + "'"));
}

TEST_F(MachineIdentity, AStoredOneIsAnsweredWithoutAGeneration) {
    givenFile("<Fernhill><MachineUUID>0123</MachineUUID></Fernhill>");
    Configuration::loadConfig();
    EXPECT_FALSE(writesFile([] { EXPECT_STREQ(Configuration::machineGUID(), "0123"); }));
    EXPECT_TRUE(log.messages().empty());
}

TEST_F(MachineIdentity, WithoutANetworkItIsAllZerosAndNothingIsStored) {
    EXPECT_TRUE(writesFile([] {
        auto zeros = Owned<GPString>::adopt(Configuration::getUUID());
        EXPECT_STREQ(zeros->cstr(), allZeros);
    })) << "the file is written even when nothing was generated";
    EXPECT_EQ(inFile("MachineUUID"), "(none)");
    EXPECT_EQ(log.messages(), Names{"[Warning]: failed to create UUID."});
}

TEST_F(MachineIdentity, TheTextOfTheZerosStaysValid) { EXPECT_STREQ(Configuration::machineGUID(), allZeros); }

TEST_F(MachineIdentity, TheZerosAreANewTextEachTime) {
    auto one = Owned<GPString>::adopt(Configuration::getDefaultUUID());
    auto other = Owned<GPString>::adopt(Configuration::getDefaultUUID());
    EXPECT_STREQ(one->cstr(), allZeros);
    EXPECT_NE(one.get(), other.get());
}

TEST_F(MachineIdentity, ARefreshGeneratesItOnceThereIsANetwork) {
    Configuration::refreshUUID();
    EXPECT_EQ(inFile("MachineUUID"), "(none)");
    giveNetwork();
    Configuration::refreshUUID();
    EXPECT_EQ(inFile("MachineUUID"), generatedHere());
}

TEST_F(MachineIdentity, ARefreshLeavesAStoredOneAlone) {
    giveNetwork();
    const std::string first = Configuration::machineGUID();
    giveNetwork("\x02\x99\x99\x99\x99\x99");
    EXPECT_FALSE(writesFile([] { Configuration::refreshUUID(); }));
    EXPECT_EQ(Configuration::machineGUID(), first);
}

TEST_F(MachineIdentity, OnlyAForcedGenerationReplacesAnExistingOne) {
    giveNetwork();
    const std::string first = Configuration::machineGUID();
    giveNetwork("\x02\x99\x99\x99\x99\x99");
    Configuration::generateUUID(false);
    EXPECT_EQ(Configuration::machineGUID(), first);
    EXPECT_FALSE(writesFile([] { Configuration::generateUUID(true); })) << "a generation saves nothing";
    EXPECT_NE(Configuration::machineGUID(), first);
    EXPECT_EQ(Configuration::machineGUID(), generatedHere());
}

TEST_F(MachineIdentity, WithoutItsLockNothingIsGeneratedOrSaved) {
    giveNetwork();
    GPMutex* const lock = std::exchange(configurationState.mutex, nullptr);
    EXPECT_FALSE(writesFile([] { Configuration::loadUUID(); }));
    configurationState.mutex = lock;
    EXPECT_EQ(log.messages(), Names{"[Error]: no Configuration mutex."});
}

TEST_F(MachineIdentity, ThePreviousOneStaysValidForOneGeneration) {
    giveNetwork();
    GPString* first = Configuration::getUUID();
    const std::string text = first->cstr();
    giveNetwork("\x02\x99\x99\x99\x99\x99");
    Configuration::generateUUID(true);
    EXPECT_EQ(text, first->cstr());
}

TEST_F(MachineIdentity, AForcedGenerationThatFailsKeepsTheOldOne) {
    givenFile("<Fernhill><MachineUUID>0123</MachineUUID></Fernhill>");
    Configuration::loadConfig();
    Configuration::generateUUID(true);
    EXPECT_STREQ(Configuration::machineGUID(), "0123");
    EXPECT_EQ(log.messages(), Names{"[Warning]: failed to create UUID."});
}

} // namespace
