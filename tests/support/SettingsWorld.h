#pragma once

// Base of all tests that touch the settings: a machine root, a log and a configuration file of the test's
// own.

#include "support/CapturedLog.h"
#include "support/ScratchRoot.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

class GPArray;

namespace testsupport {

class SettingsWorld : public testing::Test {
protected:
    // The configuration file as it stands; empty while there is none.
    std::string file() const { return readAll(root.configurationFile()); }

    // Writes the configuration file for a load.
    void givenFile(const std::string& content) const { writeAll(root.configurationFile(), content); }

    // The text of the first element of that name in the file; "(none)" if the file lacks it.
    std::string inFile(const std::string& element) const;

    // Whether `act` wrote the configuration file.
    template <class Act>
    bool writesFile(Act act) const {
        removeFile();
        act();
        return !file().empty();
    }

    // Makes the configuration file one that nobody can write.
    void makeFileUnwritable() const;
    void removeFile() const;

    // The names of the listed servers in order.
    static std::vector<std::string> listedServers();

    // Lists these servers, without saving.
    static void givenServers(const std::vector<std::string>& names);

    ScratchRoot root;
    CapturedLog log;
};

} // namespace testsupport
