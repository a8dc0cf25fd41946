#include "platform/linux/LdapNode.h"

#include "support/Await.h"
#include "support/LoopbackPeer.h"
#include "support/ProcessDescriptors.h"
#include "support/Sanitizers.h"
#include "support/TemporaryFolder.h"
#include "support/TlsServer.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace platform;

namespace {

// The library reads it once, when the first of these tests needs it.
[[maybe_unused]] const int anyCertificateWillDo = setenv("LDAPTLS_REQCERT", "never", 1);

// The settings in a file of this content, "uri|base"; "(none)" without any.
std::string settingsIn(const std::string& content) {
    const testsupport::TemporaryFolder folder;
    testsupport::writeAll(folder.file("ldap.conf"), content);
    const auto settings = readLdapSettings(folder.file("ldap.conf"));
    return settings ? settings->uri + "|" + settings->base : "(none)";
}

// A field of an answer: its kind, its length in the four bytes' form, and what it holds.
std::string field(int kind, const std::string& content, std::size_t length) {
    std::string head = {static_cast<char>(kind), static_cast<char>(0x84)};
    for (const int shift : {24, 16, 8, 0})
        head += static_cast<char>(length >> shift);
    return head + content;
}
std::string field(int kind, const std::string& content) { return field(kind, content, content.size()); }

std::string message(int kind, const std::string& content) {
    return field(0x30, field(2, "\1") + field(kind, content));
}

const std::string lastMessage = message(0x65, field(10, std::string(1, '\0')) + field(4, "") + field(4, ""));

std::string entryOfAlice(const std::string& value) {
    const std::string attribute = field(0x30, field(4, "description") + field(0x31, field(4, value)));
    return message(0x64, field(4, "uid=alice") + field(0x30, attribute));
}

// The error's text of a search there, "" when it went well.
std::string search(const LdapSettings& settings, DirectoryRecords& records) {
    DirectoryQueryTerms terms;
    terms.recordType = kODRecordTypeUsers;
    terms.attribute = kODAttributeTypeRecordName;
    terms.queryValue = "alice";
    terms.returnAttributes = kODAttributeTypeAllAttributes;
    DirectoryError error;
    const bool whole = LdapNode(settings).find(terms, records, error);
    EXPECT_EQ(whole, error.description.empty());
    return error.description;
}

std::string local(const char* scheme, int port) {
    return std::string(scheme) + "://127.0.0.1:" + std::to_string(port);
}

// The same of a search whose server answers this and leaves the connection open.
std::string searchAnswered(const std::string& answer, DirectoryRecords& records, int seconds = 30,
                           const char* scheme = "ldap", long bytes = LdapSettings{}.answerBytes) {
    testsupport::LoopbackListener listener;
    testsupport::Peer server;
    std::thread serving([&] {
        server = listener.accept();
        server.read(1);
        server.send(answer);
    });
    const std::string error =
        search({local(scheme, listener.port()), "dc=x", seconds, seconds, bytes}, records);
    serving.join();
    return error;
}

// The beginning of a record of TLS of that kind.
std::string recordOf(char kind) { return {kind, 3, 3, 0x40, 0}; }

// Sends what begins so, and after a pause goes on so slowly that the client never waits a second for a byte. Whether the
// client has closed its end before the tests' patience was over.
bool isLeftWhileItComes(int connection, const std::string& head, int pauseMilliseconds = 0) {
    send(connection, head.data(), head.size(), MSG_NOSIGNAL);
    poll(nullptr, 0, pauseMilliseconds);
    return testsupport::comesTrue([&] {
        send(connection, "x", 1, MSG_NOSIGNAL);
        pollfd end = {connection, POLLRDHUP, 0};
        return poll(&end, 1, 10) == 1;
    });
}

std::string nameOf(const char* uri) { return LdapNode({uri, "dc=x"}).name(); }

} // namespace

TEST(LdapSettings, AreTheUriAndBaseLines) {
    EXPECT_EQ(
        settingsIn(
            "#\n# LDAP Defaults\n#\n\nBASE\tdc=example,dc=com\nURI\tldap://a ldap://b:666\nSIZELIMIT 12\n"),
        "ldap://a ldap://b:666|dc=example,dc=com");
    EXPECT_EQ(settingsIn("  uri ldap://a \r\n  Base  dc=x, dc=y  \t\r\n"), "ldap://a|dc=x, dc=y");
}

TEST(LdapSettings, OfTheLastLinesCount) {
    EXPECT_EQ(settingsIn("URI ldap://a\nURI ldap://b\nBASE dc=x\nBASE dc=y"), "ldap://b|dc=y");
}

TEST(LdapSettings, AreReadFromAFileThatNoProgramInherits) {
    const testsupport::TemporaryFolder folder;
    const std::string pipe = folder.file("ldap.conf"); // so that reading takes as long as the test wants
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::thread reading([&] { EXPECT_TRUE(readLdapSettings(pipe)); });
    const int end = open(pipe.c_str(), O_WRONLY | O_CLOEXEC);
    const std::string text = "URI ldap://a\nBASE dc=x\n";
    EXPECT_EQ(write(end, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    int waiting = -1;
    EXPECT_TRUE(testsupport::comesTrue([&] { return ioctl(end, FIONREAD, &waiting) == 0 && waiting == 0; }));
    for (const auto& [number, target] : testsupport::handedDown())
        EXPECT_NE(target, pipe);
    close(end);
    reading.join();
}

TEST(LdapSettings, StandInAFileOfAnyLength) {
    const std::string ends = "\nURI ldap://a\nBASE dc=x\n";
    for (const std::size_t length : {4095, 4096, 4097, 8192, 20000})
        EXPECT_EQ(settingsIn(std::string(length - ends.size(), '#') + ends), "ldap://a|dc=x") << length;
}

TEST(LdapSettings, AreNoneWithoutBothLines) {
    EXPECT_EQ(settingsIn(""), "(none)");
    EXPECT_EQ(settingsIn("URI ldap://a\n"), "(none)");
    EXPECT_EQ(settingsIn("BASE dc=x\n"), "(none)");
    EXPECT_EQ(settingsIn("URI\nBASE dc=x\n"), "(none)");
    EXPECT_EQ(settingsIn("#URI ldap://a\n#BASE dc=x\n"), "(none)");
    EXPECT_FALSE(readLdapSettings("/nonexistent/ldap.conf"));
}

TEST(LdapNode, IsNamedByTheHostOfItsFirstAddress) {
    EXPECT_EQ(nameOf("ldap://ldap.example.com"), "/LDAPv3/ldap.example.com");
    EXPECT_EQ(nameOf("ldaps://ldap.example.com:636/"), "/LDAPv3/ldap.example.com:636");
    EXPECT_EQ(nameOf("ldap://first ldap://second"), "/LDAPv3/first");
    EXPECT_EQ(nameOf("ldap://first,ldap://second"), "/LDAPv3/first");
    EXPECT_EQ(nameOf("host"), "/LDAPv3/host");
    EXPECT_EQ(nameOf("ldap://"), "/LDAPv3/");
}

TEST(LdapNode, NamesTheLibraryThatCannotBeLoaded) {
    if (testsupport::sanitized) GTEST_SKIP() << "the checkers need descriptors of their own";
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    DirectoryQueryTerms terms;
    terms.recordType = platform::kODRecordTypeUsers;
    terms.attribute = platform::kODAttributeTypeRecordName;
    platform::DirectoryRecords records;
    platform::DirectoryError error;
    EXPECT_FALSE(platform::LdapNode({"ldap://127.0.0.1:1", "dc=example"}).find(terms, records, error));
    EXPECT_NE(error.description.find("libldap"), std::string::npos) << error.description;

    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(platform::LdapNode({"ldap://127.0.0.1:1", "dc=example"}).find(terms, records, error));
    EXPECT_EQ(error.description.find("libldap"), std::string::npos) << error.description;
}

TEST(LdapNode, EndsAtAMessageThatIsSaidToBeLongerThan64MB) {
    constexpr std::size_t limit = 64 * 1024 * 1024;
    DirectoryRecords records;
    EXPECT_EQ(searchAnswered(field(0x30, "", 0x7FFFFFFF), records), "Can't contact LDAP server");
    EXPECT_EQ(searchAnswered(field(0x30, "", limit + 1), records), "Can't contact LDAP server");
    EXPECT_TRUE(records.empty());
}

TEST(LdapNode, EndsAtAnAnswerThatIsLongerInAllThanTheSettingsAllow) {
    EXPECT_EQ(LdapSettings{}.answerBytes, 256 * 1024 * 1024);
    std::string answer;
    for (int i = 0; i < 10; ++i)
        answer += entryOfAlice(std::string(1000, 'v'));
    answer += lastMessage;
    const long length = static_cast<long>(answer.size());
    DirectoryRecords records;
    EXPECT_EQ(searchAnswered(answer, records, 30, "ldap", length), "");
    EXPECT_EQ(records.size(), 10u);
    EXPECT_EQ(searchAnswered(answer, records, 30, "ldap", length / 2), "Can't contact LDAP server");
    EXPECT_EQ(records.size(), 10u);
}

TEST(LdapNode, ReadsAnEntryOf60MB) {
    const std::string value(60 * 1024 * 1024, 'v');
    DirectoryRecords records;
    EXPECT_EQ(searchAnswered(entryOfAlice(value) + lastMessage, records), "");
    ASSERT_EQ(records.size(), 1u);
    DirectoryDetails details;
    DirectoryError error;
    ASSERT_TRUE(records[0]->recordDetailsForAttributes({"dsAttrTypeNative:description"}, details, error));
    EXPECT_TRUE(details["dsAttrTypeNative:description"] == std::vector<std::string>{value});
}

TEST(LdapNode, EndsAtALongAnswerThatComesByteByByte) {
    const struct {
        const char* scheme;
        std::string head;
    } answers[] = {{"ldap", field(0x30, "", 100000)}, {"ldaps", recordOf(0x16)}};
    for (const auto& [scheme, head] : answers) {
        testsupport::LoopbackListener listener;
        bool left = false;
        std::thread serving([&listener, &left, start = head] {
            const testsupport::Peer server = listener.accept();
            left = isLeftWhileItComes(server.descriptor(), start, 1500); // a read has given up by then
        });
        DirectoryRecords records;
        EXPECT_EQ(search({local(scheme, listener.port()), "dc=x", 1000, 1000, 30}, records),
                  "Can't contact LDAP server");
        serving.join();
        EXPECT_TRUE(left) << scheme;
    }
}

TEST(LdapNode, WaitsForAnAnswerLongerThanForAConnection) {
    testsupport::LoopbackListener listener;
    std::thread serving([&] {
        testsupport::Peer server = listener.accept();
        server.readUntil("alice");
        // Longer than a connection may take, with a read's time more: the next one would fail.
        poll(nullptr, 0, 2500);
        server.send(entryOfAlice("late") + lastMessage);
    });
    DirectoryRecords records;
    EXPECT_EQ(search({local("ldap", listener.port()), "dc=x", 1, 30}, records), "");
    EXPECT_EQ(records.size(), 1u);
    serving.join();
}

TEST(LdapNode, AsksNoServerThatAnAnswerRefersTo) {
    testsupport::LoopbackListener other;
    const std::string referral = field(0xA3, field(4, local("ldap", other.port()) + "/dc=x"));
    const std::string answer = message(0x65, field(10, "\x0a") + field(4, "") + field(4, "") + referral);
    DirectoryRecords records;
    EXPECT_EQ(searchAnswered(answer, records), "Referral");
    pollfd asked = {other.descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&asked, 1, 0), 0);
}

TEST(LdapNode, FailsWithoutAServer) {
    DirectoryRecords records;
    EXPECT_EQ(search({" , ", "dc=x"}, records), "Bad parameter to an ldap routine");
}

TEST(LdapNode, AsksTheServerBehindAnAddressThatIsNone) {
    testsupport::LoopbackListener good;
    std::thread serving([&] {
        testsupport::Peer server = good.accept();
        server.readUntil("alice");
        server.send(entryOfAlice("second") + lastMessage);
        server.readAll();
    });
    DirectoryRecords records;
    EXPECT_EQ(search({"nowhere://x, " + local("ldap", good.port()), "dc=x"}, records), "");
    EXPECT_EQ(records.size(), 1u);
    serving.join();
}

TEST(LdapNode, IsReadOverTls) {
    const testsupport::Certificate certificate("localhost");
    testsupport::TlsServer server(certificate, [](SSL* session) {
        testsupport::tlsReadUntil(session, "alice");
        testsupport::tlsSend(session, entryOfAlice(std::string(100000, 'v')));
        testsupport::tlsSend(session, lastMessage);
    });
    DirectoryRecords records;
    EXPECT_EQ(search({local("ldaps", server.port()), "dc=x"}, records), "");
    EXPECT_TRUE(server.finish());
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]->description(), "uid=alice");
}

TEST(LdapNode, WaitsForAnAnswerOnlySoLongWhereverItStops) {
    EXPECT_EQ(LdapSettings{}.answerSeconds, 30);
    for (const std::string& answer :
         {std::string(), std::string("\x30"), field(0x30, "", 1000), field(0x30, "\2\1\1", 1000)}) {
        DirectoryRecords records;
        EXPECT_EQ(searchAnswered(answer, records, 1), "Timed out") << answer.size();
    }
}

TEST(LdapNode, WaitsForTlsOnlySoLongWhereverItStops) {
    EXPECT_EQ(LdapSettings{}.connectSeconds, 10);
    for (const std::string& answer : {std::string(), std::string("\x16\3\3")}) {
        DirectoryRecords records;
        EXPECT_EQ(searchAnswered(answer, records, 1, "ldaps"), "Can't contact LDAP server") << answer.size();
    }
}

TEST(LdapNode, AsksTheNextServerWhereTlsWithOneStops) {
    const testsupport::Certificate certificate("localhost");
    testsupport::TlsServer good(certificate, [](SSL* session) {
        testsupport::tlsReadUntil(session, "alice");
        testsupport::tlsSend(session, entryOfAlice("second") + lastMessage);
    });
    const testsupport::LoopbackListener stopped; // where the system alone takes the connection
    DirectoryRecords records;
    EXPECT_EQ(
        search({local("ldaps", stopped.port()) + " " + local("ldaps", good.port()), "dc=x", 3}, records), "");
    EXPECT_EQ(records.size(), 1u);
    EXPECT_TRUE(good.finish());
}

TEST(LdapNode, AsksAPlainServerBehindOneWhoseTlsStops) {
    const testsupport::LoopbackListener stopped;
    testsupport::LoopbackListener good;
    std::thread serving([&] {
        testsupport::Peer server = good.accept();
        server.readUntil("alice");
        server.send(entryOfAlice("second") + lastMessage);
        server.readAll();
    });
    DirectoryRecords records;
    EXPECT_EQ(search({local("ldaps", stopped.port()) + "," + local("ldap", good.port()), "dc=x", 1}, records),
              "");
    EXPECT_EQ(records.size(), 1u);
    serving.join();
}

TEST(LdapNode, WaitsOnlySoLongForAServerToLetItStartTls) {
    testsupport::LoopbackListener stopped;
    const std::string uri = local("ldap", stopped.port()) + "/????" + "!StartTLS";
    DirectoryRecords records;
    EXPECT_EQ(search({uri, "dc=x", 1, 1}, records), "Can't contact LDAP server");
    EXPECT_EQ(stopped.accept().read(1), "\x30"); // was asked
}

TEST(LdapNode, WaitsForTlsOnlySoLongHoweverSlowlyARecordComes) {
    testsupport::LoopbackListener listener;
    bool left = false;
    std::thread serving([&] {
        const testsupport::Peer server = listener.accept();
        left = isLeftWhileItComes(server.descriptor(), recordOf(0x16));
    });
    DirectoryRecords records;
    EXPECT_EQ(search({local("ldaps", listener.port()), "dc=x", 1, 1}, records), "Can't contact LDAP server");
    serving.join();
    EXPECT_TRUE(left);
}

TEST(LdapNode, WaitsForAnAnswerOnlySoLongHoweverSlowlyARecordComes) {
    const testsupport::Certificate certificate("localhost");
    bool left = false;
    testsupport::TlsServer server(certificate, [&](SSL* session) {
        testsupport::tlsReadUntil(session, "alice");
        left = isLeftWhileItComes(SSL_get_fd(session), recordOf(0x17));
    });
    DirectoryRecords records;
    EXPECT_EQ(search({local("ldaps", server.port()), "dc=x", 5, 1}, records), "Can't contact LDAP server");
    EXPECT_TRUE(server.finish());
    EXPECT_TRUE(left);
}
