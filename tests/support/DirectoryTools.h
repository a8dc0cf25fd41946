#pragma once

// The directory tools of a machine that the test makes up: stand-in programs under the scratch root and on
// PATH that print what the test tells them. At first they are those of a Mac in no directory: dsconfigad and
// dscl are there and print nothing.

#include "support/StandInPrograms.h"
#include "support/TemporaryFolder.h"

#include <string>
#include <vector>

namespace testsupport {

class DirectoryTools {
public:
    DirectoryTools();

    // What the tools print from now on; a tool that was not there is put in its place.
    void dsconfigadPrints(const std::string& output);
    void dsclPrints(const std::string& attribute, const std::string& output);
    void likewisePrints(const std::string& output);
    void adinfoPrints(const std::string& output);

    // Puts something in a tool's place that cannot be run.
    static void breakTool(const std::string& path);

    // Takes dsconfigad away.
    static void removeDsconfigad();

    // Makes the folder of the system's own LDAP configurations, with these files.
    static void configureLdap(const std::vector<std::string>& files = {"server.plist"});

    // Writes the LDAP override file.
    static void writeOverride(const std::string& content);

    // The stand-ins on PATH, to which a test may add.
    StandInPrograms& programs() { return programs_; }

    // The command lines run so far, without the folders of the programs.
    std::vector<std::string> calls() const { return programs_.calls(); }

private:
    std::string outputFile(const std::string& name, const std::string& content);

    StandInPrograms programs_;
    TemporaryFolder outputs_;
};

} // namespace testsupport
