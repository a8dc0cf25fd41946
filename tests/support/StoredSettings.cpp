#include "support/StoredSettings.h"

#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <algorithm>
#include <map>

namespace testsupport {
namespace {

std::string rowsOf(GPDOMElement* list) {
    std::string rows;
    for (int i = 0; i < list->children->count(); ++i) {
        auto* row = static_cast<GPDOMElement*>(list->children->objectAtIndex(i));
        rows += Owned<GPString>::adopt(row->convertToString(false, nullptr, false))->cstr();
    }
    return rows;
}

} // namespace

const char* const fullSettings = "<Fernhill>\n"
                                 "<MachineUUID>01234567-89AB-CDEF-4123-456789ABCDEF</MachineUUID>\n"
                                 "<ServerName>b.example</ServerName>\n"
                                 "<BlockOnFailure>true</BlockOnFailure>\n"
                                 "<BalancedMode>true</BalancedMode>\n"
                                 "<VerboseLogging>true</VerboseLogging>\n"
                                 "<OEMMode>true</OEMMode>\n"
                                 "<FilteringDisabled>true</FilteringDisabled>\n"
                                 "<InternalNetwork>true</InternalNetwork>\n"
                                 "<Ostler>true</Ostler>\n"
                                 "<UpdateReady>true</UpdateReady>\n"
                                 "<CachedUserName>EXAMPLE\\bob</CachedUserName>\n"
                                 "<LocalUserName>bob</LocalUserName>\n"
                                 "<CheckInTimeStamp>2026-11-15T08:00:00Z</CheckInTimeStamp>\n"
                                 "<LogLevel>80</LogLevel>\n"
                                 "<kll>3</kll>\n"
                                 "<Users>\n"
                                 "</Users>\n"
                                 "<Servers>\n"
                                 "<ServerName ServerType=\"1\">a.example</ServerName>\n"
                                 "<ServerName ServerType=\"2\">b.example</ServerName>\n"
                                 "</Servers>\n"
                                 "</Fernhill>\n";

const char* const defaultSettings = "<Fernhill>\n"
                                    "<BlockOnFailure>false</BlockOnFailure>\n"
                                    "<BalancedMode>false</BalancedMode>\n"
                                    "<VerboseLogging>false</VerboseLogging>\n"
                                    "<OEMMode>false</OEMMode>\n"
                                    "<FilteringDisabled>false</FilteringDisabled>\n"
                                    "<InternalNetwork>false</InternalNetwork>\n"
                                    "<Ostler>false</Ostler>\n"
                                    "<UpdateReady>false</UpdateReady>\n"
                                    "<LogLevel>0</LogLevel>\n"
                                    "<kll>0</kll>\n"
                                    "<Users>\n"
                                    "</Users>\n"
                                    "<Servers>\n"
                                    "</Servers>\n"
                                    "</Fernhill>\n";

std::string defaultsWith(const std::string& from, const std::string& to) {
    std::string text = defaultSettings;
    return text.replace(text.find(from), from.size(), to);
}

std::string defaultsWithServers(const std::vector<std::string>& names) {
    std::string text =
        defaultsWith("<BlockOnFailure>", "<ServerName>" + names.front() + "</ServerName>\n<BlockOnFailure>");
    std::string rows;
    for (const std::string& name : names)
        rows += "<ServerName ServerType=\"1\">" + name + "</ServerName>\n";
    return text.insert(text.find("</Servers>"), rows);
}

Settings settingsIn(const std::string& file) {
    Settings settings;
    const auto root = Owned<GPDOMElement>::adopt(GPDOMElement::parse(file.c_str()));
    if (!root || !root->name->isEqual("Fernhill")) return settings;
    for (int i = 0; i < root->children->count(); ++i) {
        auto* element = static_cast<GPDOMElement*>(root->children->objectAtIndex(i));
        const bool isList = element->name->isEqual("Users") || element->name->isEqual("Servers");
        settings.emplace_back(element->name->cstr(), isList           ? rowsOf(element)
                                                     : element->value ? element->value->cstr()
                                                                      : "(no text)");
    }
    return settings;
}

std::vector<std::string> changes(const Settings& before, const Settings& after) {
    std::map<std::string, std::vector<std::string>> first, second;
    std::vector<std::string> names;
    for (const auto& [name, value] : before)
        first[name].push_back(value);
    for (const auto& [name, value] : after)
        second[name].push_back(value);
    for (const auto& [name, values] : first)
        if (second[name] != values) names.push_back(name);
    for (const auto& [name, values] : second)
        if (first.count(name) == 0) names.push_back(name);
    return names;
}

std::string valueOf(const Settings& settings, const std::string& name) {
    const auto found = std::find_if(settings.begin(), settings.end(),
                                    [&](const auto& setting) { return setting.first == name; });
    return found == settings.end() ? std::string() : found->second;
}

} // namespace testsupport
