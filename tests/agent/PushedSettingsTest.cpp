// Configuration frames of any content, and the file that they leave behind.

#include "agent/AgentLink.h"
#include "agent/OstComm.h"
#include "agent/UpdatePrompts.h"
#include "config/Configuration.h"
#include "support/SettingsWorld.h"
#include "support/StoredSettings.h"
#include "support/TestChild.h"

#include <random>

namespace {

using testsupport::changes;
using testsupport::settingsIn;

class PushedSettings : public testsupport::SettingsWorld {
protected:
    PushedSettings() { givenFile(testsupport::fullSettings); }

    // Takes the push as the link's reader hands it on; the file then holds what it held, but for the one
    // setting that a push can name. No update starts, since one is running.
    void takeAndCheck(const std::string& body) const {
        updating = 1;
        const auto before = settingsIn(file());
        agentLink.responses().deliver(7, body.data(), body.size());
        loadConfigResponseThread(new std::uint32_t(7));
        const auto after = settingsIn(file());
        ASSERT_EQ(after.size(), before.size()) << body;
        for (const std::string& changed : changes(before, after))
            EXPECT_EQ(changed, "BlockOnFailure") << body;
    }
};

} // namespace

TEST_F(PushedSettings, WhateverAPushHoldsTheFileParsesAgainWithEverySettingThatWasNotNamed) {
    ASSERT_TRUE(testsupport::passesInChild([this] {
        Configuration::loadConfig();
        const std::vector<std::string> pieces = {"{",
                                                 "}",
                                                 "\"bypass_on_failure\":",
                                                 "\"update_url\":",
                                                 "false",
                                                 "true",
                                                 ",",
                                                 "\"",
                                                 "null",
                                                 ":",
                                                 " ",
                                                 "</BlockOnFailure>",
                                                 "<Fernhill>",
                                                 "\\",
                                                 "\n",
                                                 "\xff",
                                                 "%s%n",
                                                 "http://h/p.dmg"};
        std::mt19937 random(20261114);
        for (int i = 0; i < 1500; ++i) {
            std::string body = "{";
            for (unsigned length = random() % 20; length > 0; --length)
                body += pieces[random() % pieces.size()];
            takeAndCheck(body);
        }
        takeAndCheck("");
        takeAndCheck("{\"bypass_on_failure\":" + std::string(100000, '<') + ",");
    }));
    ASSERT_TRUE(Configuration::loadConfig());
    EXPECT_EQ(Configuration::configString(), file());
}
