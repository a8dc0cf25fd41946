#include "support/SettingsWorld.h"

#include "config/Configuration.h"
#include "gp/GPArray.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <filesystem>

namespace testsupport {

std::string SettingsWorld::inFile(const std::string& element) const {
    const std::string text = file();
    const std::string open = "<" + element + ">";
    const std::size_t start = text.find(open);
    if (start == std::string::npos) return "(none)";
    const std::size_t end = text.find("</" + element + ">", start);
    return text.substr(start + open.size(), end - start - open.size());
}

void SettingsWorld::makeFileUnwritable() const {
    removeFile();
    std::filesystem::create_directories(root.configurationFile());
}

void SettingsWorld::removeFile() const { std::filesystem::remove_all(root.configurationFile()); }

std::vector<std::string> SettingsWorld::listedServers() {
    std::vector<std::string> names;
    auto servers = Owned<GPArray>::adopt(Configuration::serverNames());
    for (int i = 0; i < servers->count(); ++i)
        names.emplace_back(static_cast<FilterServer*>(servers->objectAtIndex(i))->getUrl());
    return names;
}

void SettingsWorld::givenServers(const std::vector<std::string>& names) {
    for (const std::string& name : names)
        Configuration::addServerName(name.c_str(), false);
}

} // namespace testsupport
