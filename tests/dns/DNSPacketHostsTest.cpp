// The hosts file as the operations find it, read it, and leave it.

#include "dns/DNSPacket.h"

#include "dns/DNSPacketState.h"
#include "gp/GPFilesystem.h"
#include "gp/GPMutex.h"
#include "platform/HostPaths.h"
#include "support/DnsWorld.h"
#include "support/TestChild.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <thread>

using platform::HostPaths;

namespace {

// All hosts that checkHostsFile pins, in its order.
const char* const fixedLines = "216.239.38.120 encrypted.google.com\n"
                               "216.239.38.120 encrypted.google.com.au\n"
                               "216.239.38.120 www.google.co.uk\n"
                               "216.239.38.120 images.google.com\n"
                               "216.239.38.120 images.google.co.uk\n"
                               "216.239.38.120 www.google.com.au\n"
                               "216.239.38.120 www.google.co.zw\n"
                               "216.239.38.120 www.google.com\n"
                               "216.239.38.120 google.com\n"
                               "216.239.38.120 www.youtube.com\n"
                               "216.239.38.120 m.youtube.com\n"
                               "216.239.38.120 youtubei.googleapis.com\n"
                               "204.79.197.220 www.bing.com\n";

const std::string ownLines = "##\n# Host Database\n127.0.0.1\tlocalhost\n255.255.255.255 broadcasthost\n\n"
                             "::1             localhost\n";

class HostsFile : public testsupport::DnsWorld {
protected:
    // Whether a file with this content counts as having a line for host "a".
    static bool hasLineOfA(const std::string& content) {
        givenHosts(content);
        EXPECT_TRUE(hostExistsCheck("a", "192.0.2.1"));
        return hosts() == content;
    }

    // What is left of the content when the host's lines are removed.
    static std::string without(const std::string& host, const std::string& content) {
        givenHosts(content);
        removeHostEntry(host.c_str());
        return hosts();
    }
};

TEST_F(HostsFile, ANewHostIsAppendedAndRecorded) {
    givenHosts(ownLines);
    givenRecord("earlier\n");
    EXPECT_TRUE(hostExistsCheck("www.alder.test", "192.0.2.1"));
    EXPECT_EQ(hosts(), ownLines + "192.0.2.1 www.alder.test\n");
    EXPECT_EQ(record(), "earlier\nwww.alder.test\n");
}

TEST_F(HostsFile, TheRecordIsMadeAtFirstNeed) {
    hostExistsCheck("www.alder.test", "192.0.2.1");
    EXPECT_EQ(record(), "www.alder.test\n");
}

TEST_F(HostsFile, HostExistsCheckRunTwiceForOneHostAddsOneLine) {
    EXPECT_TRUE(hostExistsCheck("a", "192.0.2.1"));
    EXPECT_TRUE(hostExistsCheck("a", "192.0.2.1"));
    EXPECT_EQ(hosts(), "192.0.2.1 a\n");
    EXPECT_EQ(record(), "a\n");
}

TEST_F(HostsFile, AHostThatIsThereWithAnotherAddressStaysAsItIs) {
    givenHosts("1.2.3.4 a\n");
    EXPECT_TRUE(hostExistsCheck("a", "192.0.2.1"));
    EXPECT_EQ(hosts(), "1.2.3.4 a\n");
    EXPECT_EQ(record(), "");
}

TEST_F(HostsFile, ALineMatchesByWhatFollowsItsFirstRunOfBlanks) {
    EXPECT_TRUE(hasLineOfA("1.2.3.4 a\n"));
    EXPECT_TRUE(hasLineOfA("1.2.3.4    a\n"));
    EXPECT_TRUE(hasLineOfA("# a\n")) << "a comment is no exception";
    EXPECT_TRUE(hasLineOfA(" a\n"));
    EXPECT_TRUE(hasLineOfA(ownLines + "1.2.3.4 a\n1.2.3.4 b\n"));
}

TEST_F(HostsFile, AnotherNameDoesNotMatch) {
    EXPECT_FALSE(hasLineOfA("1.2.3.4 ab\n"));
    EXPECT_FALSE(hasLineOfA("1.2.3.4 ba\n"));
    EXPECT_FALSE(hasLineOfA("1.2.3.4 A\n"));
    EXPECT_FALSE(hasLineOfA("1.2.3.4 \n"));
    EXPECT_FALSE(hasLineOfA("a\n"));
    EXPECT_FALSE(hasLineOfA("1.2.3.4 a \n"));
    EXPECT_FALSE(hasLineOfA(" 1.2.3.4 a\n")) << "the first run of blanks stands in front";
}

TEST_F(HostsFile, ALineWithTwoNamesDoesNotMatchAndNeitherDoesOneWithATab) {
    EXPECT_FALSE(hasLineOfA("1.2.3.4 a b\n"));
    EXPECT_FALSE(hasLineOfA("1.2.3.4\ta\n"));
}

TEST_F(HostsFile, TheLastLineWithoutAFinalLineBreakHasItsLastCharacterCutAndDoesNotMatchTheFullHost) {
    EXPECT_FALSE(hasLineOfA("1.2.3.4 a"));
    EXPECT_TRUE(hasLineOfA("1.2.3.4 ab")) << "it matches the host without that character";
}

TEST_F(HostsFile, AWindowsLineBreakLeavesItsCarriageReturnInTheName) {
    EXPECT_FALSE(hasLineOfA("1.2.3.4 a\r\n"));
}

TEST_F(HostsFile, ANewHostGoesRightBehindALastLineWithoutALineBreak) {
    givenHosts("127.0.0.1 localhost");
    hostExistsCheck("a", "192.0.2.1");
    EXPECT_EQ(hosts(), "127.0.0.1 localhost192.0.2.1 a\n");
}

TEST_F(HostsFile, RemovalTakesAllLinesOfTheHostAndNoOthers) {
    EXPECT_EQ(without("a", "1.2.3.4 a\n" + ownLines + "5.6.7.8  a\n1.2.3.4 ab\n1.2.3.4 a b\n"),
              ownLines + "1.2.3.4 ab\n1.2.3.4 a b\n");
}

TEST_F(HostsFile, RemovalKeepsLinesWithoutABlankAndTheMissingFinalLineBreak) {
    EXPECT_EQ(without("a", "a\n\n1.2.3.4\ta\n1.2.3.4 a\n#end"), "a\n\n1.2.3.4\ta\n#end");
}

TEST_F(HostsFile, RemovalOfALastLineWithoutALineBreakNeedsTheHostWithoutItsLastCharacter) {
    EXPECT_EQ(without("ab", "1.2.3.4 ab"), "1.2.3.4 ab");
    EXPECT_EQ(without("a", "1.2.3.4 b\n1.2.3.4 ab"), "1.2.3.4 b\n");
}

TEST_F(HostsFile, RemovalOfAnUnknownHostLeavesTheContentAsItIs) {
    EXPECT_EQ(without("a", ownLines), ownLines);
    EXPECT_EQ(without("a", ""), "");
}

TEST_F(HostsFile, RemovalLeavesTheWorkFileBehindAndRewritesInPlace) {
    givenHosts("1.2.3.4 a\n1.2.3.4 b\n");
    const std::string otherName = root.path() + "/hosts-by-another-name";
    std::filesystem::create_hard_link(HostPaths::hostsFile(), otherName);
    removeHostEntry("a");
    EXPECT_EQ(testsupport::readAll(HostPaths::hostsWorkFile()), "1.2.3.4 b\n");
    EXPECT_EQ(hosts(), "1.2.3.4 b\n");
    EXPECT_EQ(testsupport::readAll(otherName), "1.2.3.4 b\n");
}

TEST_F(HostsFile, AnOldWorkFileIsWrittenOver) {
    testsupport::writeAll(HostPaths::hostsWorkFile(), std::string(5000, 'x'));
    EXPECT_EQ(without("a", "1.2.3.4 a\n1.2.3.4 b\n"), "1.2.3.4 b\n");
}

TEST_F(HostsFile, ALineOf254BytesIsOneLineAndALongerOneIsReadInPieces) {
    // With its line break, the line fills the limit.
    const std::string longestHost(254 - 8 - 1, 'h');
    EXPECT_EQ(without(longestHost, "1.2.3.4 " + longestHost + "\n"), "");

    // One byte more puts the line break into a piece of its own, and the first piece loses its last character.
    const std::string line = "1.2.3.4 " + longestHost + "h\n";
    EXPECT_EQ(without(longestHost + "h", line), line);
    EXPECT_EQ(without(longestHost, "\n" + line), "\n\n");
}

TEST_F(HostsFile, LinesBeyond255BytesAreCopiedWhole) {
    const std::string lines =
        std::string(255, 'x') + "\n" + std::string(1000, 'y') + " z\n" + std::string(254, 'z');
    EXPECT_EQ(without("a", lines + "\n1.2.3.4 a\n" + lines), lines + "\n" + lines);
}

TEST_F(HostsFile, APieceOfALongLineMatchesLikeALine) {
    // The second piece reads "4 a" and a line break; deliberate.
    const std::string comment = std::string(254, '#');
    EXPECT_EQ(without("a", comment + "4 a\n"), comment);
}

TEST_F(HostsFile, CheckHostsFilePinsThe13FixedHostsInOrder) {
    givenHosts(ownLines);
    DNSPacket::checkHostsFile();
    EXPECT_EQ(hosts(), ownLines + fixedLines);
}

TEST_F(HostsFile, CheckHostsFileAddsOnlyWhatIsMissing) {
    givenHosts("10.0.0.1 www.bing.com\n");
    DNSPacket::checkHostsFile();
    DNSPacket::checkHostsFile();
    const std::string lines = fixedLines;
    EXPECT_EQ(hosts(), "10.0.0.1 www.bing.com\n" + lines.substr(0, lines.find("204.")));
    EXPECT_EQ(record().find("www.bing.com"), std::string::npos);
}

TEST_F(HostsFile, TheLockOfTheTablesIsHeldWhileTheFileIsInUse) {
    givenTables();
    givenRecord("a\n");
    givenName("safe.test", "192.0.2.1");
    // A pipe in its place: whoever opens it waits for the other end.
    std::filesystem::remove(HostPaths::hostsFile());
    ASSERT_EQ(mkfifo(HostPaths::hostsFile(), 0600), 0);
    const auto isLockedDuring = [](const std::function<void()>& work) {
        return testsupport::passesInChild([&] {
            std::thread(work).detach();
            EXPECT_GE(open(HostPaths::hostsFile(), O_WRONLY), 0);
            EXPECT_TRUE(dnsState.mutex->isLocked());
            // At once: the thread reads on and would not let its stream be flushed.
            std::fflush(stdout);
            _exit(HasFailure() ? 1 : 0);
        });
    };
    EXPECT_TRUE(isLockedDuring(DNSPacket::checkHostsFile));
    EXPECT_TRUE(isLockedDuring(DNSPacket::removeHostsFile));
    EXPECT_TRUE(isLockedDuring(DNSPacket::clearHostsDnsRemaps));
    EXPECT_TRUE(isLockedDuring([] { setRemaps({"one.test,safe.test"}); }));
    EXPECT_TRUE(isLockedDuring([] { setRemaps({}); }));
}

TEST_F(HostsFile, RemoveHostsFileTakesTheFixedHostsAndEveryAddedOne) {
    givenHosts(ownLines + fixedLines + "192.0.2.1 added.test\n192.0.2.1 stays.test\n");
    givenRecord("added.test\n");
    DNSPacket::removeHostsFile();
    EXPECT_EQ(hosts(), ownLines + "192.0.2.1 stays.test\n");
    EXPECT_EQ(record(), "");
}

TEST_F(HostsFile, CheckAndRemoveLeaveTheFileAsItWas) {
    givenHosts(ownLines);
    DNSPacket::checkHostsFile();
    DNSPacket::removeHostsFile();
    EXPECT_EQ(hosts(), ownLines);
}

TEST_F(HostsFile, ClearHostsDnsRemapsUndoesWhatTheRecordLists) {
    givenHosts(ownLines + fixedLines + "192.0.2.1 one.test\n192.0.2.2 two.test\n");
    givenRecord("one.test\ntwo.test\n");
    DNSPacket::clearHostsDnsRemaps();
    EXPECT_EQ(hosts(), ownLines + fixedLines) << "fixed hosts that are not recorded stay";
    EXPECT_EQ(record(), "");
}

TEST_F(HostsFile, TheLastCharacterOfARecordedHostIsCutWhateverItIs) {
    givenHosts("192.0.2.1 one\n192.0.2.1 on\n");
    givenRecord("one");
    DNSPacket::clearHostsDnsRemaps();
    EXPECT_EQ(hosts(), "192.0.2.1 one\n");
}

TEST_F(HostsFile, ARecordedLineThatBeginsWithAZeroByteIsNoHost) {
    givenHosts("192.0.2.1 a\n192.0.2.1 b\n");
    givenRecord(std::string("\0a\nb\n", 5));
    DNSPacket::clearHostsDnsRemaps();
    EXPECT_EQ(hosts(), "192.0.2.1 a\n");
    EXPECT_EQ(record(), "");
}

TEST_F(HostsFile, WithoutARecordClearHostsDnsRemapsOnlyCreatesItEmpty) {
    givenHosts(ownLines);
    ASSERT_EQ(fileMode(HostPaths::hostsRecordFile()), 0);
    DNSPacket::clearHostsDnsRemaps();
    EXPECT_EQ(hosts(), ownLines);
    EXPECT_NE(fileMode(HostPaths::hostsRecordFile()), 0);
    EXPECT_EQ(record(), "");
}

// What the rows of a server leave: the tables have the row in any case.
class RowsOfAServer : public HostsFile {
protected:
    RowsOfAServer() {
        givenTables();
        givenHosts(ownLines);
        givenName("safe.test", "192.0.2.1");
    }

    void setRow(const std::string& host) {
        setRemaps({host + ",safe.test"});
        EXPECT_EQ(remaps(), std::vector<std::string>{host + ",safe.test"});
    }

    void expectNoLine() {
        EXPECT_EQ(hosts(), ownLines);
        EXPECT_EQ(record(), "");
    }

    void expectALineThatIsTakenOutAgain(const std::string& host) {
        EXPECT_EQ(hosts(), ownLines + "192.0.2.1 " + host + "\n");
        EXPECT_EQ(record(), host + "\n");
        DNSPacket::removeHostsFile();
        EXPECT_EQ(hosts(), ownLines);
        EXPECT_EQ(record(), "");
    }
};

TEST_F(RowsOfAServer, AHostThatBeginsWithABlankGetsNoLine) {
    setRow(" one.test");
    expectNoLine();
}

TEST_F(RowsOfAServer, AHostWithALineFeedGetsNoLine) {
    setRow("one.test\n203.0.113.66 bank.test");
    expectNoLine();
    setRow("one.test\n");
    expectNoLine();
    setRow("\none.test");
    expectNoLine();
}

TEST_F(RowsOfAServer, AHostAndAnAddressOf252BytesGetALineThatIsTakenOutAgain) {
    const std::string host(252 - 9, 'h');
    setRow(host);
    expectALineThatIsTakenOutAgain(host);
}

TEST_F(RowsOfAServer, AHostAndAnAddressOfMoreThan252BytesGetNoLine) {
    for (const std::size_t length : {253u, 254u, 255u, 508u, 1000u}) {
        setRow(std::string(length - 9, 'h'));
        expectNoLine();
    }
}

TEST_F(RowsOfAServer, OtherOddHostsGetALineThatIsTakenOutAgain) {
    for (const std::string host :
         {"#one.test", "one.test#", "\tone.test", "one.test\r", "one two", "one.test "}) {
        setRow(host);
        expectALineThatIsTakenOutAgain(host);
    }
}

TEST_F(RowsOfAServer, AnAddressThatIsNoneOfARowGetsNoLineThatCannotBeTakenOut) {
    EXPECT_TRUE(hostExistsCheck("one.test", "192.0.2.1\n192.0.2.2"));
    EXPECT_TRUE(hostExistsCheck("one.test", "192.0.2.1 two.test"));
    expectNoLine();
}

} // namespace
