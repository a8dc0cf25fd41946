#pragma once

// The world around a whole daemon: a scratch root, directory tools, a silent kextload, the stand-ins for the
// extension and the agent, and the daemon itself in a process of its own.

#include "lab/ExtensionStandIn.h"
#include "support/AgentStandIn.h"
#include "support/DaemonProcess.h"
#include "support/DirectoryTools.h"
#include "support/Eventually.h"
#include "support/PacketBuilder.h"
#include "support/Patience.h"
#include "support/ProgramSymbols.h"
#include "support/ScratchRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class GPMutex;

class DaemonWorld : public testing::Test {
protected:
    DaemonWorld() { tools.programs().add("kextload", "exit 0"); }

    // Forks the daemon, then serves the extension of that version and, unless told, the agent.
    testsupport::DaemonProcess& prepare(std::int32_t version = 8, bool withAgent = true) {
        daemon = std::make_unique<testsupport::DaemonProcess>(surroundings);
        extension = std::make_unique<lab::ExtensionStandIn>(root.path(), version);
        extension->listen();
        extension->start();
        if (withAgent) agent = std::make_unique<testsupport::AgentStandIn>();
        return *daemon;
    }

    // The daemon with this user at the console, until both listeners are there.
    testsupport::DaemonProcess& startDaemon(const std::string& consoleUser = "alice") {
        prepare().start(consoleUser);
        EXPECT_TRUE(extension->waitForDaemon(testsupport::patienceMilliseconds)) << daemon->output();
        return *daemon;
    }

    // The lock of the link's instance.
    static const GPMutex* linkLock() {
        return *reinterpret_cast<GPMutex**>(testsupport::programVariable("instanceMutex"));
    }

    // A name that the extension does not know.
    static void forgetControl(const char* path) { std::filesystem::remove(path); }

    std::string configuration() const { return testsupport::readAll(root.configurationFile()); }
    void givenConfiguration(const std::string& content) const {
        testsupport::writeAll(root.configurationFile(), content);
    }
    bool awaitConfiguration(const std::string& content) const {
        return testsupport::eventually([&] { return configuration() == content; });
    }

    // Whether a packet without a URL passes through the listener of that direction.
    bool answers(lab::Direction direction) {
        const std::vector<char> packet = {0x45, 0, 0, 20, 0, 0, 0, 0, 64, 17, 0, 0, 10, 0, 0, 2, 10, 0, 0, 9};
        const auto result = extension->present(direction, packet, testsupport::patienceMilliseconds);
        return result && result->result == resultPass;
    }

    // Presents a request for a page, which starts a query.
    void request(const std::string& host) {
        const std::string packet = testsupport::PacketBuilder::ipv4()
                                       .payload("GET / HTTP/1.1\r\nHost: " + host + "\r\n\r\n")
                                       .bytes();
        const auto result =
            extension->present(lab::Direction::out, std::vector<char>(packet.begin(), packet.end()),
                               testsupport::patienceMilliseconds);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->result, resultHold);
    }

    testsupport::ScratchRoot root;
    testsupport::DirectoryTools tools;
    std::function<void()> surroundings; // what else the daemon's process installs
    std::unique_ptr<testsupport::DaemonProcess> daemon;
    std::unique_ptr<lab::ExtensionStandIn> extension;
    std::unique_ptr<testsupport::AgentStandIn> agent;
};
