// The readers on what a real resolver wrote; tests/dns/messages/README.md says how it was recorded.

#include "dns/DNSPacket.h"

#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"
#include "support/DnsWorld.h"
#include "support/PacketBuilder.h"

#include <cstdlib>
#include <cstring>
#include <ostream>

using testsupport::PacketBuffer;

namespace {

struct Recorded {
    const char* file;
    bool usable;
    const char* name;     // of the question
    const char* redirect; // "(none)" for a message that passes
};

void PrintTo(const Recorded& recorded, std::ostream* out) { *out << recorded.file; }

const std::string longestName = std::string(63, 'l') + "." + std::string(63, 'o') + "." +
                                std::string(63, 'n') + "." + std::string(56, 'g') + ".test";

const Recorded recordings[] = {
    {"web-search", true, "www.google.com", "forcesafesearch.google.com"},
    {"web-search-query", false, "www.google.com", "(none)"},
    {"web-search-over-ipv6", true, "www.google.com", "forcesafesearch.google.com"},
    {"web-search-without-edns", true, "www.google.com", "forcesafesearch.google.com"},
    {"web-search-in-capitals", true, "WWW.Google.COM", "(none)"},
    {"web-search-aaaa", true, "www.google.com", "(none)"},
    {"video", true, "www.youtube.com", "restrict.youtube.com"},
    {"bing", true, "www.bing.com", "strict.bing.com"},
    {"bing-without-data", true, "www.bing.com", "(none)"},
    {"image-search-nxdomain", true, "images.google.com", "(none)"},
    {"unlisted", true, "www.alder.test", "(none)"},
    {"aliases", true, "shop.alder.test", "(none)"},
    {"mail-exchange", true, "alder.test", "(none)"},
    {"text", true, "alder.test", "(none)"},
    {"service", true, "_imap._tcp.alder.test", "(none)"},
    {"address-to-name", true, "25.2.0.192.in-addr.arpa", "(none)"},
    {"longest-name", true, longestName.c_str(), "(none)"},
    {"root", true, "", "(none)"},
};

std::string packetBytes(const std::string& name) {
    const std::string bytes =
        testsupport::readAll(std::string(OSTLER_TEST_DATA) + "/dns/messages/" + name + ".packet");
    EXPECT_FALSE(bytes.empty()) << name;
    return bytes;
}

class DnsRecordedMessages : public testsupport::DnsWorld, public testing::WithParamInterface<Recorded> {
protected:
    DnsRecordedMessages() : packet_(1, packetBytes(GetParam().file)) { givenTables(); }

    char* packet() { return packet_.packet(); }
    char* message() { return packet() + TCPPacket::ipHeaderSize(packet()) + 8; }
    int messageSize() { return static_cast<int>(packet() + packet_.bytes().size() - message()); }

    std::string redirect() {
        sysctl_result result{};
        return DNSPacket::remap(packet(), &result) ? result.redirectUrl : "(none)";
    }

private:
    PacketBuffer packet_;
};

TEST_P(DnsRecordedMessages, RepliesAreUsableAndQueriesAreNot) {
    EXPECT_EQ(DNSPacket::isUsableDNSPacket(packet()), GetParam().usable);
}

TEST_P(DnsRecordedMessages, TheQuestionDecidesOnTheRedirect) { EXPECT_EQ(redirect(), GetParam().redirect); }

TEST_P(DnsRecordedMessages, ReadNameReadsTheQuestion) {
    char name[dnsNameBufferSize] = {};
    unsigned short nameOffset = 0;
    char* position = message() + 12;
    EXPECT_TRUE(readName(position, name, message(), nameOffset, message(), message() + messageSize()));
    EXPECT_STREQ(name, GetParam().name);
    const std::size_t length = std::strlen(GetParam().name);
    EXPECT_EQ(position - message(), length == 0 ? 12 : 12 + static_cast<std::ptrdiff_t>(length) + 2);
}

TEST_P(DnsRecordedMessages, ParseDomainReadsTheQuestion) {
    int position = 0;
    char* domain =
        parseDomain(reinterpret_cast<unsigned char*>(message()) + 12, &position, messageSize() - 12);
    const std::string name = GetParam().name;
    EXPECT_EQ(std::string(domain ? domain : ""), name);
    EXPECT_EQ(position, name.empty() ? 0 : static_cast<int>(name.size()) + 2);
    std::free(domain);
}

INSTANTIATE_TEST_SUITE_P(Dnsmasq, DnsRecordedMessages, testing::ValuesIn(recordings),
                         [](const testing::TestParamInfo<Recorded>& recorded) {
                             std::string name = recorded.param.file;
                             for (char& c : name)
                                 if (c == '-') c = '_';
                             return name;
                         });

// Walks the answers of a recorded IPv4 reply with parseDomain.
class Answers {
public:
    explicit Answers(const std::string& file) : bytes_(packetBytes(file).substr(20 + 8 + 12)) {
        name();
        skip(4);
    }

    std::string name() {
        char* domain = parseDomain(data(), &position_, static_cast<int>(bytes_.size()));
        const std::string text = domain ? domain : "(null)";
        std::free(domain);
        return text;
    }

    void skip(int bytes) { position_ += bytes; }

private:
    unsigned char* data() { return reinterpret_cast<unsigned char*>(&bytes_[0]); }

    std::string bytes_;
    int position_ = 0;
};

constexpr int typeClassLifeLength = 10;

class DnsRecordedAnswers : public testsupport::DnsWorld {};

TEST_F(DnsRecordedAnswers, ParseDomainFollowsAChainOfAliases) {
    Answers answers("aliases");
    EXPECT_EQ(answers.name(), "shop.alder.test");
    answers.skip(typeClassLifeLength);
    EXPECT_EQ(answers.name(), "store.alder.test");
    EXPECT_EQ(answers.name(), "store.alder.test");
    answers.skip(typeClassLifeLength);
    EXPECT_EQ(answers.name(), "www.alder.test");
    EXPECT_EQ(answers.name(), "www.alder.test");
}

TEST_F(DnsRecordedAnswers, ParseDomainReadsAMailExchange) {
    Answers answers("mail-exchange");
    EXPECT_EQ(answers.name(), "alder.test");
    answers.skip(typeClassLifeLength + 2);
    EXPECT_EQ(answers.name(), "mail.alder.test");
}

TEST_F(DnsRecordedAnswers, ParseDomainReadsANameForAnAddress) {
    Answers answers("address-to-name");
    EXPECT_EQ(answers.name(), "25.2.0.192.in-addr.arpa");
    answers.skip(typeClassLifeLength);
    EXPECT_EQ(answers.name(), "mail.alder.test");
}

// Every byte of every recorded message, turned into bytes that mean something to the readers.
class DnsMutatedMessages : public DnsRecordedMessages {};

TEST_P(DnsMutatedMessages, AreReadWithinTheirBoundsAndRedirectedToAHostOfTheTableOrNotAtAll) {
    const std::string original(message(), message() + messageSize());
    for (std::size_t at = 4; at < original.size(); ++at) {
        for (const int byte : {0x00, 0x01, 0x0c, 0x3f, 0x40, 0x7f, 0x80, 0xc0, 0xfe, 0xff}) {
            message()[at] = static_cast<char>(byte);

            const std::string host = redirect();
            EXPECT_TRUE(host == "(none)" || host == "forcesafesearch.google.com" ||
                        host == "restrict.youtube.com" || host == "strict.bing.com")
                << host;

            std::vector<char> exact(message(), message() + messageSize());
            char name[dnsNameBufferSize] = {};
            unsigned short nameOffset = 0;
            char* position = exact.data() + 12;
            if (readName(position, name, exact.data(), nameOffset, exact.data(),
                         exact.data() + exact.size())) {
                EXPECT_GE(position, exact.data());
                EXPECT_LE(position, exact.data() + exact.size());
            } else {
                EXPECT_EQ(position, exact.data() + 12);
            }
            EXPECT_LT(strnlen(name, sizeof name), sizeof name);

            std::vector<unsigned char> data(exact.begin() + 12, exact.end());
            int behind = 0;
            char* domain = parseDomain(data.data(), &behind, static_cast<int>(data.size()));
            EXPECT_GE(behind, 0);
            EXPECT_LE(behind, static_cast<int>(data.size()));
            std::free(domain);

            message()[at] = original[at];
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Dnsmasq, DnsMutatedMessages, testing::ValuesIn(recordings),
                         [](const testing::TestParamInfo<Recorded>& recorded) {
                             std::string name = recorded.param.file;
                             for (char& c : name)
                                 if (c == '-') c = '_';
                             return name;
                         });

} // namespace
