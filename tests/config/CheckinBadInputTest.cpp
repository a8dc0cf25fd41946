// Replies of any content, and the file that they leave behind.

#include "config/CheckinReply.h"
#include "config/Configuration.h"
#include "platform/NameLookup.h"
#include "support/SettingsWorld.h"
#include "support/StoredSettings.h"
#include "support/TestChild.h"

#include <algorithm>
#include <random>
#include <sys/socket.h>

namespace {

using testsupport::changes;
using testsupport::Settings;
using testsupport::settingsIn;

// Knows every name, so that no look-up is tried again later.
class EveryName final : public platform::NameLookup {
public:
    bool gethostbyname2(const char*, int family, platform::HostEntry& entry) override {
        entry.addresses = {std::string("\x7f\0\0\x02", 4)};
        return family == AF_INET;
    }

    bool gethostbyname(const char* name, platform::HostEntry& entry) override {
        return gethostbyname2(name, AF_INET, entry);
    }
};

class CheckinBadInput : public testsupport::SettingsWorld {
protected:
    CheckinBadInput() {
        platform::nameLookupService.install(*new EveryName);
        givenFile(testsupport::fullSettings);
    }

    static bool listsAServer(const CheckinReply& reply) {
        return std::any_of(reply.serverNames.begin(), reply.serverNames.end(),
                           [](const std::string& name) { return !name.empty(); });
    }

    // The settings that a reply names.
    static std::vector<std::string> named(const CheckinReply& reply) {
        std::vector<std::string> names;
        if (reply.dormant) names.push_back("FilteringDisabled");
        if (!reply.nextCheckIn.empty()) names.push_back("CheckInTimeStamp");
        if (listsAServer(reply)) names.insert(names.end(), {"ServerName", "Servers"});
        return names;
    }

    std::vector<std::string> storedServers() const {
        std::vector<std::string> names;
        const auto rows = testsupport::valueOf(settingsIn(file()), "Servers");
        const std::string start = "<ServerName ServerType=\"1\">", end = "</ServerName>\n";
        for (std::size_t at = 0; at < rows.size(); at = rows.find(end, at) + end.size())
            names.push_back(rows.substr(at + start.size(), rows.find(end, at) - at - start.size()));
        return names;
    }

    // Takes the reply; the file then holds what it held, but for what the reply named.
    void takeAndCheck(const std::string& body) const {
        const Settings before = settingsIn(file());
        const auto reply = readCheckinReply(body.c_str());
        if (!reply) return;
        applyCheckinReply(*reply);
        const Settings after = settingsIn(file());
        ASSERT_EQ(after.size(), before.size()) << body << "\n" << file();
        const auto allowed = named(*reply);
        for (const std::string& changed : changes(before, after))
            EXPECT_NE(std::find(allowed.begin(), allowed.end(), changed), allowed.end())
                << changed << " after " << body;
        if (!reply->nextCheckIn.empty()) {
            EXPECT_EQ(testsupport::valueOf(after, "CheckInTimeStamp"), reply->nextCheckIn);
        }
        if (listsAServer(*reply)) {
            EXPECT_EQ(storedServers(), listedServers());
        }
    }

    // Loads the file in this process, in which nothing else has touched the settings, and holds what the
    // memory has against it.
    void expectLoadsAsStored() const {
        ASSERT_TRUE(Configuration::loadConfig());
        EXPECT_EQ(Configuration::configString(), file());
    }
};

const std::vector<std::string> wickedReplies = {
    "<a><ServerName>x<!-- <Servers></Servers> --></ServerName></a>",
    "<a><ServerName>x<!y</ServerName></ServerName></a>",
    "<a><ServerName>x<?y</Servers></Fernhill></ServerName></a>",
    "<a><ServerName>]]>&lt;\"'></ServerName></a>",
    "<a><ServerName>\n\t </ServerName><ServerName>\xff\xfe\x01</ServerName></a>",
    "<a><NextCheckIn>1<!</CheckInTimeStamp><LogLevel>0</LogLevel></NextCheckIn></a>",
    "<a><NextCheckIn><!--</Fernhill>--></NextCheckIn></a>",
    "<a><NextCheckIn>" + std::string(100000, '>') + "</NextCheckIn></a>",
    "<Fernhill><LogLevel>0</LogLevel><MachineUUID>x</MachineUUID><BlockOnFailure>false</BlockOnFailure>"
    "<Servers></Servers><Users></Users></Fernhill>",
    "<a></b><Dormant>true</b><ServerName>x</a></a></a>",
    "<a/><Dormant/>",
};

TEST_F(CheckinBadInput, AfterAWickedReplyTheFileParsesAgainWithEverySettingThatWasNotNamed) {
    ASSERT_TRUE(testsupport::passesInChild([this] {
        Configuration::loadConfig();
        for (const std::string& body : wickedReplies)
            takeAndCheck(body);
    }));
    expectLoadsAsStored();
}

// Makes replies out of elements of the service, each with any content, and of loose pieces between them.
class AnyReply {
public:
    std::string next() {
        std::string body = "<a>";
        for (unsigned parts = random_() % 5; parts > 0; --parts)
            body += random_() % 3 == 0 ? pieces(8) : element();
        return body;
    }

private:
    std::string pieces(unsigned limit) {
        static const std::vector<std::string> all = {"x",
                                                     "1",
                                                     "true",
                                                     " ",
                                                     "\n",
                                                     "<!--",
                                                     "-->",
                                                     "<!",
                                                     "<?",
                                                     ">",
                                                     "<",
                                                     "/",
                                                     "\"",
                                                     "<b/>",
                                                     "</Fernhill>",
                                                     "<Servers>",
                                                     "</Servers>",
                                                     "</CheckInTimeStamp>",
                                                     "%s",
                                                     "%n",
                                                     "&amp;",
                                                     "<ServerName>",
                                                     "</ServerName>",
                                                     "</NextCheckIn>",
                                                     "<a>",
                                                     "</a>"};
        std::string text;
        for (unsigned length = random_() % limit; length > 0; --length)
            text += all[random_() % all.size()];
        return text;
    }

    std::string element() {
        static const std::vector<std::string> names = {"ServerName", "ServerName", "NextCheckIn", "Dormant",
                                                       "Zip"};
        const std::string& name = names[random_() % names.size()];
        return "<" + name + ">" + pieces(4) + "</" + name + ">";
    }

    std::mt19937 random_{20261114};
};

TEST_F(CheckinBadInput, WhateverAReplyHoldsTheFileParsesAgainWithEverySettingThatWasNotNamed) {
    ASSERT_TRUE(testsupport::passesInChild([this] {
        Configuration::loadConfig();
        AnyReply replies;
        int withServers = 0, withTimes = 0;
        for (int i = 0; i < 2000; ++i) {
            const std::string body = replies.next();
            takeAndCheck(body);
            const auto reply = readCheckinReply(body.c_str());
            withServers += reply && listsAServer(*reply);
            withTimes += reply && !reply->nextCheckIn.empty();
        }
        EXPECT_GT(withServers, 100); // the replies say something
        EXPECT_GT(withTimes, 50);
    }));
    expectLoadsAsStored();
}

} // namespace
