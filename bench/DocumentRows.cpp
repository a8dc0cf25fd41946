#include "bench/DaemonState.h"
#include "bench/Groups.h"

#include "config/Configuration.h"
#include "config/ConfigurationState.h"
#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"

#include <pugixml.hpp>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace bench {
namespace {

constexpr int servers = 1000;

using ServerRows = std::vector<std::pair<int, std::string>>;

// What a program keeps of the settings' servers.
ServerRows loadedByLibrary(const char* path) {
    pugi::xml_document document;
    if (!document.load_file(path)) throw std::runtime_error("the settings are not read");
    ServerRows rows;
    for (const pugi::xml_node row : document.child("Fernhill").child("Servers").children("ServerName"))
        rows.emplace_back(row.attribute("ServerType").as_int(), row.text().get());
    return rows;
}

void saveByLibrary(const char* path, const ServerRows& rows) {
    pugi::xml_document document;
    pugi::xml_node root = document.append_child("Fernhill");
    for (const char* flag : {"BlockOnFailure", "BalancedMode", "VerboseLogging", "OEMMode",
                             "FilteringDisabled", "InternalNetwork", "Ostler", "UpdateReady"})
        root.append_child(flag).text().set("false");
    pugi::xml_node list = root.append_child("Servers");
    for (const auto& [type, name] : rows) {
        pugi::xml_node row = list.append_child("ServerName");
        row.append_attribute("ServerType").set_value(type);
        row.text().set(name.c_str());
    }
    if (!document.save_file(path, "", pugi::format_raw))
        throw std::runtime_error("the settings are not written");
}

// A document of about 1 MB: nested elements with attributes and texts.
std::string document() {
    std::string text = "<root>";
    for (int i = 0; text.size() < 1 << 20; ++i) {
        const std::string number = std::to_string(i);
        text += "<entry id=\"" + number + "\" kind=\"server\"><name>host" + number +
                ".example.org</name><address>10.0.0.1</address><note>a text of some length, as notes have "
                "it</note></entry>";
    }
    return text + "</root>";
}

template <class Operation>
Side repeated(long count, Operation operation) {
    return [count, operation] {
        return costOf(count, [count, operation] {
            for (long i = 0; i < count; ++i)
                operation();
        });
    };
}

} // namespace

void documentRows(const Effort& effort) {
    becomeDaemon();
    const char* const path = platform::HostPaths::configurationFile();
    const std::string other = std::string(path) + ".other";
    Configuration::removeAllServers(false);
    for (int i = 0; i < servers; ++i)
        Configuration::addServerName(("filter" + std::to_string(i) + ".example.org").c_str(), false);
    if (!Configuration::saveConfig(true)) throw std::runtime_error("the settings are not written");
    const ServerRows rows = loadedByLibrary(path);
    if (rows.size() != servers) throw std::runtime_error("not all servers are in the file");

    const long loads = effort.count(20);
    const Comparison load =
        inTurns(repeated(loads,
                         [] {
                             configurationState.bConfigLoaded = false;
                             if (!Configuration::loadConfig())
                                 throw std::runtime_error("the settings are not read");
                         }),
                repeated(loads, [path] { keep(loadedByLibrary(path).size()); }), effort.rounds());
    const auto listed = Owned<GPArray>::adopt(Configuration::serverNames());
    if (listed->count() != servers) throw std::runtime_error("not all servers are read");
    row({"configuration load with 1,000 servers", "pugixml"}, load, atMost(3));

    const Comparison save =
        inTurns(repeated(loads, [] { Configuration::saveConfig(true); }),
                repeated(loads, [&other, &rows] { saveByLibrary(other.c_str(), rows); }), effort.rounds());
    row({"configuration save with 1,000 servers", "pugixml"}, save, atMost(3));

    const std::string text = document();
    const long parses = effort.count(5);
    const Comparison parse =
        inTurns(repeated(parses, [&text] { GPDOMElement::parse(text.c_str())->release(); }),
                repeated(parses,
                         [&text] {
                             pugi::xml_document parsed;
                             if (!parsed.load_string(text.c_str()))
                                 throw std::runtime_error("the document is not read");
                         }),
                effort.rounds());
    row({"GPDOMElement::parse of 1 MB", "pugixml"}, parse, atMost(3));
}

} // namespace bench
