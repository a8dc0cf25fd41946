// The hosts file when something is in the way: it stays whole.

#include "dns/DNSPacket.h"

#include "gp/GPFilesystem.h"
#include "platform/HostPaths.h"
#include "support/DnsWorld.h"
#include "support/NetworkNamespace.h"
#include "support/SystemCallFailure.h"
#include "support/TestChild.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

using platform::HostPaths;
using testsupport::NamespaceResult;

namespace {

constexpr int nobody = 65534;

class HostsFileFailures : public testsupport::DnsWorld {
protected:
    // Runs `body` as a user for whom a file without write permission is read-only.
    bool passesAsOrdinaryUser(const std::function<void()>& body) const {
        return testsupport::passesInChild([&] {
            if (geteuid() == 0) {
                for (const auto& entry : std::filesystem::recursive_directory_iterator(root.path()))
                    ASSERT_EQ(chown(entry.path().c_str(), nobody, nobody), 0);
                ASSERT_EQ(chown(root.path().c_str(), nobody, nobody), 0);
                ASSERT_EQ(seteuid(nobody), 0);
            }
            body();
        });
    }

    // Runs `body` in a child in which no file can grow beyond `bytes`.
    static bool passesWithFilesUpTo(std::size_t bytes, const std::function<void()>& body) {
        return testsupport::passesInChild([&] {
            std::signal(SIGXFSZ, SIG_IGN);
            const rlimit limit{bytes, bytes};
            ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
            body();
        });
    }

    static std::string folder() { return std::filesystem::path(HostPaths::hostsFile()).parent_path(); }

    static void makeFolderOf(const char* path) {
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(path);
    }

    // Takes what room the disk of the hosts file has left.
    static void fillDisk() {
        FILE* filler = std::fopen((folder() + "/filler").c_str(), "w");
        ASSERT_NE(filler, nullptr);
        std::setvbuf(filler, nullptr, _IONBF, 0);
        while (std::fputc('f', filler) != EOF) {
        }
        std::fclose(filler);
    }
};

TEST_F(HostsFileFailures, WithoutAHostsFileAHostIsNotPinnedNorRecorded) {
    std::filesystem::remove(HostPaths::hostsFile());
    EXPECT_TRUE(hostExistsCheck("a", "192.0.2.1"));
    DNSPacket::checkHostsFile();
    EXPECT_FALSE(ifExist(HostPaths::hostsFile()));
    EXPECT_FALSE(ifExist(HostPaths::hostsRecordFile()));
}

TEST_F(HostsFileFailures, WithoutAHostsFileNothingIsRemovedAndTheRecordIsKept) {
    std::filesystem::remove(HostPaths::hostsFile());
    givenRecord("a\n");
    removeHostEntry("a");
    DNSPacket::removeHostsFile();
    EXPECT_FALSE(ifExist(HostPaths::hostsFile()));
    EXPECT_EQ(record(), "a\n");
}

TEST_F(HostsFileFailures, AHostsFileThatCannotBeReadIsLeftAlone) {
    makeFolderOf(HostPaths::hostsFile());
    EXPECT_TRUE(hostExistsCheck("a", "192.0.2.1"));
    removeHostEntry("a");
    EXPECT_TRUE(isDirectory(HostPaths::hostsFile()));
    EXPECT_FALSE(ifExist(HostPaths::hostsRecordFile()));
}

TEST_F(HostsFileFailures, AReadOnlyHostsFileStaysWholeAndNothingIsRecorded) {
    givenHosts("192.0.2.1 a\n192.0.2.1 b\n");
    givenRecord("a\n");
    chmod(HostPaths::hostsFile(), 0444);
    EXPECT_TRUE(passesAsOrdinaryUser([] {
        EXPECT_TRUE(hostExistsCheck("c", "192.0.2.1"));
        removeHostEntry("b");
        DNSPacket::removeHostsFile();
        EXPECT_EQ(hosts(), "192.0.2.1 a\n192.0.2.1 b\n");
        EXPECT_EQ(record(), "a\n") << "what could not be taken out is not forgotten";
    }));
}

TEST_F(HostsFileFailures, AHostsFileThatOnlyOthersMayReadStaysWhole) {
    givenHosts("192.0.2.1 a\n");
    chmod(HostPaths::hostsFile(), 0200);
    EXPECT_TRUE(passesAsOrdinaryUser([] {
        EXPECT_TRUE(hostExistsCheck("a", "192.0.2.1"));
        removeHostEntry("a");
        chmod(HostPaths::hostsFile(), 0600);
        EXPECT_EQ(hosts(), "192.0.2.1 a\n");
    }));
}

TEST_F(HostsFileFailures, AWorkFileThatDoesNotOpenLeavesTheHostsFileWhole) {
    givenHosts("192.0.2.1 a\n192.0.2.1 b\n");
    givenRecord("a\n");
    makeFolderOf(HostPaths::hostsWorkFile());
    removeHostEntry("a");
    DNSPacket::removeHostsFile();
    EXPECT_EQ(hosts(), "192.0.2.1 a\n192.0.2.1 b\n");
    EXPECT_EQ(record(), "a\n");
}

TEST_F(HostsFileFailures, AWorkFileThatTakesNoByteLeavesTheHostsFileWhole) {
    givenHosts("192.0.2.1 a\n192.0.2.1 b\n");
    std::filesystem::create_symlink("/dev/full", HostPaths::hostsWorkFile());
    removeHostEntry("a");
    EXPECT_EQ(hosts(), "192.0.2.1 a\n192.0.2.1 b\n");
}

TEST_F(HostsFileFailures, AHostsFileThatCannotBeReadToItsEndStaysWhole) {
    givenHosts("192.0.2.1 a\n192.0.2.1 b\n");
    EXPECT_TRUE(testsupport::passesInChild([] {
        // The next file that is opened gets the lowest free descriptor.
        const int next = open("/dev/null", O_RDONLY);
        close(next);
        const std::string before = hosts();
        ASSERT_TRUE(testsupport::failSystemCall(SYS_read, EIO, static_cast<unsigned>(next)));
        EXPECT_TRUE(hostExistsCheck("c", "192.0.2.1"));
        removeHostEntry("a");
        struct stat found {};
        ASSERT_EQ(stat(HostPaths::hostsFile(), &found), 0);
        EXPECT_EQ(static_cast<std::size_t>(found.st_size), before.size());
    }));
    EXPECT_EQ(hosts(), "192.0.2.1 a\n192.0.2.1 b\n");
}

TEST_F(HostsFileFailures, ARecordThatCannotBeReadToItsEndIsKept) {
    givenHosts("192.0.2.1 a\n");
    givenRecord("a\n");
    EXPECT_TRUE(testsupport::passesInChild([] {
        const int next = open("/dev/null", O_RDONLY);
        close(next);
        ASSERT_TRUE(testsupport::failSystemCall(SYS_read, EIO, static_cast<unsigned>(next)));
        DNSPacket::clearHostsDnsRemaps();
    }));
    EXPECT_EQ(hosts(), "192.0.2.1 a\n");
    EXPECT_EQ(record(), "a\n");
}

// A hosts file that can be emptied, as it is before the copy back, and then takes no byte.
class HostsFileThatTakesNoByte : public HostsFileFailures {
protected:
    HostsFileThatTakesNoByte() : file_(memfd_create("hosts", MFD_ALLOW_SEALING)) {
        EXPECT_EQ(write(file_, lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
        EXPECT_EQ(fcntl(file_, F_ADD_SEALS, F_SEAL_GROW), 0);
        std::filesystem::remove(HostPaths::hostsFile());
        std::filesystem::create_symlink("/proc/self/fd/" + std::to_string(file_), HostPaths::hostsFile());
        givenRecord("a\n");
    }
    ~HostsFileThatTakesNoByte() override { close(file_); }

    // From now on the hosts file takes what is written; it holds what the ruin holds.
    static void mend(const std::string& ruin) {
        std::filesystem::remove(HostPaths::hostsFile());
        givenHosts(ruin);
    }

    static std::string workFile() { return testsupport::readAll(HostPaths::hostsWorkFile()); }

    const std::string lines = "127.0.0.1 localhost\n192.0.2.1 a\n192.0.2.1 b\n";

private:
    const int file_;
};

TEST_F(HostsFileThatTakesNoByte, WhatTheHostsFileLosesStaysInTheWorkFileAndOnRecord) {
    DNSPacket::removeHostsFile();
    EXPECT_EQ(hosts(), "");
    EXPECT_EQ(workFile(), lines);
    EXPECT_EQ(record(), "a\n");
}

TEST_F(HostsFileThatTakesNoByte, NoFurtherRemovalWritesOverTheOnlyWholeCopy) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        DNSPacket::removeHostsFile();
        DNSPacket::clearHostsDnsRemaps();
        removeHostEntry("b");
        EXPECT_TRUE(hostExistsCheck("c", "192.0.2.1"));
    }
    EXPECT_EQ(workFile(), lines);
    EXPECT_EQ(record(), "a\n");
}

TEST_F(HostsFileThatTakesNoByte, OnceTheFileTakesBytesAgainTheNextRemovalBringsItsLinesBackFirst) {
    DNSPacket::removeHostsFile();
    removeHostEntry("b");
    mend("");
    DNSPacket::removeHostsFile();
    EXPECT_EQ(hosts(), "127.0.0.1 localhost\n192.0.2.1 b\n");
    EXPECT_EQ(record(), "");
}

TEST_F(HostsFileThatTakesNoByte, AProcessThatStartsAnewBringsTheLinesBackToo) {
    EXPECT_TRUE(testsupport::passesInChild([] { removeHostEntry("b"); }));
    mend("127.0.0.1 loc");
    removeHostEntry("a");
    EXPECT_EQ(hosts(), "127.0.0.1 localhost\n");
}

TEST_F(HostsFileThatTakesNoByte, ANewPinBringsTheLinesBackFirst) {
    removeHostEntry("b");
    mend("127.0.0.1 loc");
    EXPECT_TRUE(hostExistsCheck("a", "192.0.2.9"));
    EXPECT_TRUE(hostExistsCheck("c", "192.0.2.1"));
    EXPECT_EQ(hosts(), "127.0.0.1 localhost\n192.0.2.1 a\n192.0.2.1 c\n");
    EXPECT_EQ(record(), "a\nc\n");
}

TEST_F(HostsFileFailures, AfterACopyBackThatCouldNotBeginTheHostsFileIsTakenAsItIs) {
    givenHosts("192.0.2.1 a\n192.0.2.1 b\n");
    chmod(HostPaths::hostsFile(), 0444);
    EXPECT_TRUE(passesAsOrdinaryUser([] {
        removeHostEntry("a");
        chmod(HostPaths::hostsFile(), 0644);
        givenHosts("192.0.2.1 somebody.else\n192.0.2.1 b\n");
        removeHostEntry("b");
        EXPECT_EQ(hosts(), "192.0.2.1 somebody.else\n");
    }));
}

TEST_F(HostsFileFailures, ACopyBackThatEndedUnnoticedTakesNothingFromWhatWasAddedBehindIt) {
    testsupport::writeAll(HostPaths::hostsWorkFile(), "192.0.2.1 b\n");
    testsupport::writeAll(HostPaths::hostsUnfinishedFile(), "");
    givenHosts("192.0.2.1 b\n192.0.2.1 somebody.else\n");
    removeHostEntry("b");
    EXPECT_EQ(hosts(), "192.0.2.1 somebody.else\n");
    EXPECT_FALSE(ifExist(HostPaths::hostsUnfinishedFile()));
}

TEST_F(HostsFileFailures, AMarkOfAnUnfinishedCopyBackWithoutAWorkFileMeansNothing) {
    testsupport::writeAll(HostPaths::hostsUnfinishedFile(), "");
    givenHosts("192.0.2.1 a\n192.0.2.1 b\n");
    removeHostEntry("a");
    EXPECT_EQ(hosts(), "192.0.2.1 b\n");
}

TEST_F(HostsFileFailures, AMarkThatCannotBeMadeLeavesTheHostsFileWhole) {
    givenHosts("192.0.2.1 a\n192.0.2.1 b\n");
    std::filesystem::create_symlink(folder() + "/missing/mark", HostPaths::hostsUnfinishedFile());
    removeHostEntry("a");
    EXPECT_EQ(hosts(), "192.0.2.1 a\n192.0.2.1 b\n");
}

TEST_F(HostsFileFailures, AMarkThatCannotBeTakenAwayLeavesHostsFileAndWorkFileWhole) {
    givenHosts("192.0.2.1 a\n192.0.2.1 b\n");
    testsupport::writeAll(HostPaths::hostsWorkFile(), "192.0.2.1 a\n");
    makeFolderOf(HostPaths::hostsUnfinishedFile());
    testsupport::writeAll(std::string(HostPaths::hostsUnfinishedFile()) + "/file", "");
    removeHostEntry("a");
    EXPECT_EQ(hosts(), "192.0.2.1 a\n192.0.2.1 b\n");
    EXPECT_EQ(testsupport::readAll(HostPaths::hostsWorkFile()), "192.0.2.1 a\n");
}

TEST_F(HostsFileFailures, ARecordThatDoesNotOpenTakesThePinBack) {
    givenHosts("192.0.2.1 b\n");
    makeFolderOf(HostPaths::hostsRecordFile());
    EXPECT_TRUE(hostExistsCheck("a", "192.0.2.1"));
    EXPECT_EQ(hosts(), "192.0.2.1 b\n");
}

TEST_F(HostsFileFailures, ARecordThatTakesNoByteTakesThePinBack) {
    givenHosts("192.0.2.1 b\n");
    std::filesystem::create_symlink("/dev/full", HostPaths::hostsRecordFile());
    EXPECT_TRUE(hostExistsCheck("a", "192.0.2.1"));
    EXPECT_EQ(hosts(), "192.0.2.1 b\n");
}

TEST_F(HostsFileFailures, ALineThatFitsOnlyInPartIsTakenBack) {
    givenHosts("192.0.2.1 b\n");
    EXPECT_TRUE(passesWithFilesUpTo(16, [] {
        EXPECT_TRUE(hostExistsCheck("a", "192.0.2.1"));
        EXPECT_EQ(hosts(), "192.0.2.1 b\n");
        EXPECT_EQ(record(), "");
    }));
}

TEST_F(HostsFileFailures, AWorkFileThatTakesOnlyAPartLeavesTheHostsFileWhole) {
    const std::string lines = "192.0.2.1 b\n192.0.2.1 c\n192.0.2.1 a\n";
    givenHosts(lines);
    givenRecord("a\n");
    EXPECT_TRUE(passesWithFilesUpTo(16, [&] {
        removeHostEntry("a");
        DNSPacket::clearHostsDnsRemaps();
        EXPECT_EQ(hosts(), lines);
        EXPECT_EQ(record(), "a\n");
    }));
}

TEST_F(HostsFileFailures, OnAFullDiskTheHostsFileStaysWhole) {
    constexpr std::size_t page = 4096;
    const auto result = testsupport::runOnSmallDisk(folder(), 8 * page, [] {
        // Five bytes short of two pages: a new line begins to fit.
        std::string lines = "192.0.2.1 a\n";
        while (lines.size() < 2 * page - 5 - 20)
            lines += "192.0.2.1 b\n";
        lines += "#" + std::string(2 * page - 5 - lines.size() - 2, '-') + "\n";
        givenHosts(lines);
        givenRecord("a\n");
        fillDisk();

        EXPECT_TRUE(hostExistsCheck("c", "192.0.2.1"));
        EXPECT_EQ(hosts(), lines);
        EXPECT_EQ(record(), "a\n");

        removeHostEntry("a");
        DNSPacket::removeHostsFile();
        EXPECT_EQ(hosts(), lines);
        EXPECT_EQ(record(), "a\n");

        std::filesystem::remove(folder() + "/filler");
        DNSPacket::removeHostsFile();
        EXPECT_EQ(hosts(), lines.substr(12)) << "with room again, the host goes";
        EXPECT_EQ(record(), "");
    });
    if (result == NamespaceResult::unavailable) GTEST_SKIP() << "no mount namespace on this machine";
    EXPECT_EQ(result, NamespaceResult::passed);
}

} // namespace
