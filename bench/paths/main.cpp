// Chosen paths, for counting their instructions under callgrind: each runs once uncounted, then counted, and the counts
// are dumped under its name. Outside of callgrind it only runs them.

#include "config/Configuration.h"
#include "config/ConfigurationState.h"
#include "gp/GPDOMElement.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "packet/HijackPacket.h"
#include "packet/PacketVerdicts.h"
#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"
#include "platform/Clock.h"
#include "platform/HostPaths.h"
#include "support/ClientHelloBuilder.h"
#include "support/PacketBuilder.h"

#include <valgrind/callgrind.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

using testsupport::ClientHelloBuilder;
using testsupport::PacketBuffer;
using testsupport::PacketBuilder;

namespace {

constexpr int times = 200;

// Stands still until it is moved, so that every run does the same.
class StillClock final : public platform::Clock {
public:
    std::int64_t microseconds() override { return now; }
    std::time_t seconds() override { return static_cast<std::time_t>(now / 1000000); }
    void sleepMicroseconds(unsigned) override {}
    void sleepSeconds(unsigned) override {}
    std::int64_t eventWaitLimit(int) override { return 0; }

    std::int64_t now = 1794635810LL * 1000000;
};

StillClock& still = *new StillClock;

template <class Path>
void count(const char* name, Path path) {
    path(0);
    CALLGRIND_ZERO_STATS;
    CALLGRIND_START_INSTRUMENTATION;
    for (int i = 1; i <= times; ++i)
        path(i);
    CALLGRIND_STOP_INSTRUMENTATION;
    CALLGRIND_DUMP_STATS_AT(name);
}

PacketBuffer hello(int connection) {
    return PacketBuilder::ipv4()
        .from("10.0.0.2", 20000 + connection)
        .to("93.184.216.34", 443)
        .payload(ClientHelloBuilder().sessionIdLength(32).cipherSuitesLength(32).build())
        .build();
}

std::string urlOf(int connection) { return "https://host" + std::to_string(connection) + ".example.org"; }

void countVerdicts(const char* name, PacketBuffer packet) {
    sysctl_result result{};
    count(name, [&](int) { tcpOutBoundCallback(packet.packet(), &result); });
}

void countPackets() {
    countVerdicts("acknowledgement", PacketBuilder::ipv4().build());
    countVerdicts("data-ipv4", PacketBuilder::ipv4().payload(std::string(1400, 'x')).build());
    countVerdicts("data-ipv6", PacketBuilder::ipv6().payload(std::string(1400, 'x')).build());
}

void countUrls() {
    PacketBuffer get = PacketBuilder::ipv4().payload(testsupport::getRequest("/a/path?with=query")).build();
    count("url-of-a-get", [&](int) { TCPPacket::httpURL(get.packet())->release(); });
    PacketBuffer tls = hello(0);
    count("url-of-a-hello", [&](int) { TCPPacket::httpsURL(tls.packet())->release(); });
}

// A record's whole life: made, answered, found, and taken out when its time is over.
void countRecords() {
    PacketBuffer stranger = PacketBuilder::ipv4().payload("x").build();
    std::vector<PacketBuffer> packets;
    std::vector<std::string> urls;
    for (int i = 0; i <= times; ++i) {
        packets.push_back(hello(i));
        urls.push_back(urlOf(i));
    }
    count("life-of-a-record", [&](int i) {
        char* const packet = packets[static_cast<std::size_t>(i)].packet();
        const char* const url = urls[static_cast<std::size_t>(i)].c_str();
        HijackPacket::create(packet, url, true);
        HijackPacket::resolve(url, nullptr);
        HijackPacket::find(packet);
        still.now += 121 * 1000000LL;
        HijackPacket::find(stranger.packet());
    });
    for (int i = 0; i < 1000; ++i) {
        PacketBuffer packet = hello(i);
        HijackPacket::create(packet.packet(), urlOf(i).c_str(), true);
        HijackPacket::resolve(urlOf(i).c_str(), nullptr);
    }
    // Of many connections, since the places of their keys differ from run to run.
    std::vector<PacketBuffer> strangers;
    for (int i = 0; i <= times; ++i)
        strangers.push_back(
            PacketBuilder::ipv4().from("10.0.0.3", 20000 + i).payload(std::string(1400, 'x')).build());
    sysctl_result result{};
    count("data-among-1000-records",
          [&](int i) { tcpOutBoundCallback(strangers[static_cast<std::size_t>(i)].packet(), &result); });
}

void countTexts() {
    std::string document = "<root>";
    for (int i = 0; i < 100; ++i)
        document += "<entry id=\"" + std::to_string(i) + "\"><name>host.example.org</name></entry>";
    document += "</root>";
    count("xml-of-100-entries", [&](int) { GPDOMElement::parse(document.c_str())->release(); });
    count("log-line",
          [](int i) { logf("[%d] OstCommFilterQueryThread redirectURL: %s", i, "http://localhost:6543/"); });
}

// 1,000 records that run out at one moment, and the packets that take them all out.
void countBurst() {
    PacketBuffer stranger = PacketBuilder::ipv4().payload("x").build();
    std::vector<PacketBuffer> packets;
    std::vector<std::string> urls;
    for (int i = 0; i < 1000; ++i) {
        packets.push_back(hello(i));
        urls.push_back(urlOf(i));
    }
    count("burst-of-1000-records", [&](int) {
        for (std::size_t i = 0; i < packets.size(); ++i)
            HijackPacket::create(packets[i].packet(), urls[i].c_str(), true);
        still.now += 121 * 1000000LL;
        for (std::size_t left = packets.size(); left > 0; left /= 2)
            HijackPacket::find(stranger.packet());
    });
}

void countSettings() {
    for (int i = 0; i < 100; ++i)
        Configuration::addServerName(("filter" + std::to_string(i) + ".example.org").c_str(), false);
    count("settings-saved", [](int) { Configuration::saveConfig(true); });
    count("settings-loaded", [](int) {
        configurationState.bConfigLoaded = false;
        Configuration::loadConfig();
    });
}

} // namespace

int main() {
    platform::clockService.install(still);
    char folder[] = "/tmp/fernhill-paths-XXXXXX";
    if (!mkdtemp(folder)) return 1;
    platform::HostPaths::setRoot(folder);
    std::filesystem::create_directories(platform::HostPaths::settingsDirectory());
    setLogName("log");
    setLogDirectory(folder);
    Configuration::addServerName("localhost", false, true);
    countPackets();
    countUrls();
    countBurst();
    countRecords();
    countTexts();
    countSettings();
    std::filesystem::remove_all(folder);
    return 0;
}
