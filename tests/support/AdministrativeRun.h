#pragma once

// Base of the tests that run the whole program with a switch: a machine whose settings are stored, programs
// that stand in for the system's own, and what a run leaves behind.

#include "platform/HostPaths.h"
#include "support/ProgramRun.h"
#include "support/SettingsWorld.h"
#include "support/StandInPrograms.h"
#include "support/StoredSettings.h"

#include <filesystem>
#include <string>
#include <vector>

namespace testsupport {

class AdministrativeRun : public SettingsWorld {
protected:
    AdministrativeRun() {
        std::filesystem::create_directories(
            std::filesystem::path(platform::HostPaths::logDirectory()).parent_path());
        givenFile(fullSettings);
        makePrograms("");
        world.path = programs.folder();
    }

    // Has every program that a switch can start run these shell commands.
    void makePrograms(const std::string& commands) {
        for (const char* name : {"launchctl", "mkdir", "chown", "chmod", "sudo", "unzip"})
            programs.add(name, commands);
        using platform::HostPaths;
        for (const char* path : {HostPaths::rootmint(), HostPaths::mintroot()})
            programs.addAt(path, commands, path);
    }

    // Runs the program. What it printed is kept in the form of the shipped program, without the root in its
    // paths and without threads and times in the lines of the log.
    ProgramRun run(const std::vector<std::string>& arguments) const {
        ProgramRun result = runProgram(arguments, world);
        result.output = withoutStamps(withoutRoot(result.output));
        return result;
    }

    // The commands that were run, in order, without the root in their words.
    std::vector<std::string> commands() const {
        std::vector<std::string> all;
        for (const std::string& call : programs.calls()) {
            const std::string words = withoutRoot(call);
            // A call without words ends in the blank that stands in front of them.
            all.push_back(words.substr(0, words.find_last_not_of(' ') + 1));
        }
        return all;
    }

    // A file below the root.
    std::string fileAt(const std::string& path) const { return readAll(root.path() + path); }

    bool programLogged(const std::string& message) const {
        return fileAt("/Library/Logs/TarnwickSystems/fernhill0-1.log").find("]: " + message + "\n") !=
               std::string::npos;
    }

    StandInPrograms programs;
    ProgramWorld world;

private:
    // Threads and times stand as "[<digits> <time>]".
    static std::string withoutStamps(std::string text) {
        for (std::size_t at = 0; (at = text.find('[', at)) != std::string::npos; ++at) {
            const std::size_t digits = text.find_first_not_of("0123456789", at + 1);
            if (digits == std::string::npos || digits == at + 1 || text[digits] != ' ') continue;
            text.erase(at + 1, text.find(']', digits) - at - 1);
        }
        return text;
    }

    std::string withoutRoot(std::string text) const {
        for (std::size_t at = 0; (at = text.find(root.path(), at)) != std::string::npos;)
            text.erase(at, root.path().size());
        return text;
    }
};

} // namespace testsupport
