#include "support/DirectoryTools.h"

#include "platform/HostPaths.h"

#include <filesystem>

using platform::HostPaths;

namespace testsupport {

DirectoryTools::DirectoryTools() {
    dsconfigadPrints("");
    // Each attribute has a file of its own, which the attribute's name finds.
    programs_.add("dscl", "cat '" + outputs_.path() + "'/\"$4\" 2>/dev/null");
}

void DirectoryTools::dsconfigadPrints(const std::string& output) {
    programs_.addAt(HostPaths::dsconfigad(), "cat '" + outputFile("dsconfigad", output) + "'");
}

void DirectoryTools::dsclPrints(const std::string& attribute, const std::string& output) {
    outputFile(attribute, output);
}

void DirectoryTools::likewisePrints(const std::string& output) {
    programs_.addAt(HostPaths::likewiseStatus(), "cat '" + outputFile("likewise", output) + "'");
}

void DirectoryTools::adinfoPrints(const std::string& output) {
    programs_.addAt(HostPaths::adinfo(), "cat '" + outputFile("adinfo", output) + "'");
}

void DirectoryTools::breakTool(const std::string& path) { writeAll(path, "no program"); }

void DirectoryTools::removeDsconfigad() { std::filesystem::remove(HostPaths::dsconfigad()); }

void DirectoryTools::configureLdap(const std::vector<std::string>& files) {
    std::filesystem::create_directories(HostPaths::ldapConfigurations());
    for (const std::string& file : files)
        writeAll(HostPaths::ldapConfigurations() + ("/" + file), "<plist></plist>");
}

void DirectoryTools::writeOverride(const std::string& content) { writeAll(HostPaths::ldapFile(), content); }

std::string DirectoryTools::outputFile(const std::string& name, const std::string& content) {
    writeAll(outputs_.file(name), content);
    return outputs_.file(name);
}

} // namespace testsupport
