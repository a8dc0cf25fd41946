// The sibling product's property list: the servers that it names and that answer become the list of servers, in order,
// and the file goes; a file that names none stays, and the list with it. The input's first byte says which answer.

#include "config/Configuration.h"
#include "config/ConfigurationState.h"
#include "config/FilterServer.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/Require.h"
#include "gp/GPArray.h"
#include "gp/GPLog.h"
#include "gp/GPSyncdArray.h"
#include "gp/Owned.h"
#include "lab/RootFolder.h"
#include "platform/HostPaths.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using fuzzing::require;
using platform::HostPaths;

// The pages that were asked for, and who of them answers.
struct Pages {
    std::vector<std::string> asked;
    std::uint8_t answers = 0;

    bool answer(const std::string& url) const { return answers >> (url.size() % 8) & 1; }
};

Pages& pages() {
    static auto* const all = new Pages;
    return *all;
}

std::vector<std::string> listed() {
    const auto servers = Owned<GPArray>::adopt(configurationState.serversArray->getArray());
    std::vector<std::string> names;
    for (int i = 0; i < servers->count(); ++i)
        names.emplace_back(static_cast<FilterServer*>(servers->objectAtIndex(i))->getUrl());
    return names;
}

void enterRoot() {
    static const lab::RootFolder& root = *[] {
        // A folder that cannot be: nothing is logged.
        setLogDirectory("/dev/null");
        auto* const made = new lab::RootFolder("");
        HostPaths::setRoot(made->path().c_str());
        std::filesystem::create_directories(
            std::filesystem::path(HostPaths::siblingPreferences()).parent_path());
        Configuration::loadConfig();
        return made;
    }();
    (void)root;
}

constexpr char head[] = "http://";
constexpr char page[] = "/fernhill_ping.html";

} // namespace

// In place of GPHTTP::checkIfExist.
extern "C" bool __wrap__ZN6GPHTTP12checkIfExistEPKc(const char* url) {
    pages().asked.emplace_back(url);
    return pages().answer(url);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    enterRoot();
    fuzzing::FuzzInput input(data, size);
    pages() = {{}, input.byte()};
    const std::string text = input.rest();
    std::ofstream(HostPaths::siblingPreferences(), std::ios::binary) << text;
    configurationState.serversArray->removeAll();
    configurationState.cachedServer = nullptr;
    Configuration::addServerName("before.example", false);

    Configuration::loadRemoteServers();

    std::vector<std::string> expected;
    for (const std::string& url : pages().asked) {
        require(url.size() > sizeof head + sizeof page - 2);
        // A server's name is a text between two tags.
        const std::string name = url.substr(sizeof head - 1, url.size() - (sizeof head + sizeof page - 2));
        require(text.find(">" + name + "<") != std::string::npos);
        if (pages().answer(url)) expected.push_back(name);
    }
    const bool taken = !std::filesystem::exists(HostPaths::siblingPreferences());
    require(taken || pages().asked.empty());
    require(listed() == (taken ? expected : std::vector<std::string>{"before.example"}));
    return 0;
}
