#include "lab/ConfigCheck.h"

#include "config/Configuration.h"
#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "lab/CsvFile.h"
#include "lab/EndingSignals.h"
#include "lab/Policy.h"
#include "lab/RootFolder.h"
#include "lab/Terminal.h"
#include "platform/HostPaths.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string_view>
#include <utility>

namespace lab {
namespace {

constexpr int textWidth = 28;

enum class Form { text, wordOrNothing, word, number, list };

// A setting as the reader takes it, and what holds without it.
struct Setting {
    const char* name;
    Form form;
    const char* byDefault;
};

constexpr std::array<Setting, 17> settings{{
    {"MachineUUID", Form::text, "made from a hardware address at first need"},
    {"ServerName", Form::text, "none; the daemon makes it localhost at its start"},
    {"BlockOnFailure", Form::wordOrNothing, "false"},
    {"BalancedMode", Form::wordOrNothing, "false"},
    {"VerboseLogging", Form::word, "false"},
    {"OEMMode", Form::word, "false"},
    {"FilteringDisabled", Form::word, "false"},
    {"InternalNetwork", Form::word, "false"},
    {"Ostler", Form::word, "false; the daemon makes it true at its start"},
    {"UpdateReady", Form::word, "false"},
    {"CachedUserName", Form::text, "none until a login"},
    {"LocalUserName", Form::text, "none until a login"},
    {"CheckInTimeStamp", Form::text, "none"},
    {"LogLevel", Form::number, "0"},
    {"kll", Form::number, "0"},
    {"Users", Form::list, "empty"},
    {"Servers", Form::list, "empty; the daemon makes it localhost alone at its start"},
}};

const Setting* settingOf(std::string_view name) {
    const auto* found = std::find_if(settings.begin(), settings.end(),
                                     [&](const Setting& setting) { return setting.name == name; });
    return found == settings.end() ? nullptr : found;
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
    std::string text{std::istreambuf_iterator<char>(file), {}};
    if (file.bad()) throw InputError(fmt::format("{}: it cannot be read", path));
    return text;
}

std::string textOf(GPDOMElement* element) { return element->value ? element->value->cstr() : ""; }

// The lines of start tags, which are looked for in the order of the document.
class TagLines {
public:
    explicit TagLines(const std::string& text) : text_(text) {}

    // The line of the next tag of that name, or of the place reached, where the reader saw it differently.
    int next(const std::string& name) {
        const std::size_t place = text_.find("<" + name, place_);
        if (place != std::string::npos) {
            line_ += static_cast<int>(std::count(text_.begin() + static_cast<std::ptrdiff_t>(place_),
                                                 text_.begin() + static_cast<std::ptrdiff_t>(place), '\n'));
            place_ = place + 1;
        }
        return line_;
    }

private:
    const std::string& text_;
    std::size_t place_ = 0;
    int line_ = 1;
};

// Goes through the document as the reader meets it, and says of each element what becomes of it.
class Checker {
public:
    explicit Checker(const std::string& text) : text_(text), lines_(text) {}

    std::vector<ConfigFinding> run() {
        auto document = Owned<GPDOMElement>::adopt(GPDOMElement::parse(text_.c_str()));
        root_ = document ? document->findElement("Fernhill") : nullptr;
        // What the daemon would write now.
        written_ = Owned<GPDOMElement>::adopt(GPDOMElement::parse(Configuration::configString()));
        if (!document)
            note(1, "", "no element in it: the daemon takes it for an empty one, and logs nothing about it");
        else
            walk(document.get());
        if (document && !root_) note(1, "", "no element Fernhill in it: the daemon takes nothing of it");
        noteWhatIsBehind();
        if (text_.find("<!--") != std::string::npos) noteComments();
        addDefaults();
        return std::move(findings_);
    }

private:
    enum class Inside { nothing, root, users, servers };

    // In document order, without recursion, since the depth comes from the file.
    void walk(GPDOMElement* top) {
        std::vector<std::pair<GPDOMElement*, Inside>> ahead{{top, Inside::nothing}};
        while (!ahead.empty()) {
            const auto [element, inside] = ahead.back();
            ahead.pop_back();
            ++visited_;
            const Inside below = visit(element, inside);
            for (int i = element->children ? element->children->count() - 1 : -1; i >= 0; --i)
                ahead.emplace_back(static_cast<GPDOMElement*>(element->children->objectAtIndex(i)), below);
        }
    }

    // Says what becomes of the element; where its children are.
    Inside visit(GPDOMElement* element, Inside inside) {
        const std::string name = element->name ? element->name->cstr() : "";
        const int line = lines_.next(name);
        if (element == root_) return Inside::root;
        switch (inside) {
            case Inside::nothing:
                add(line, ConfigFinding::Kind::ignored, element, "stands outside of Fernhill", true);
                return inside;
            case Inside::users:
                addUser(line, element);
                return inside;
            case Inside::servers:
                if (name == "ServerName") {
                    addServer(line, element);
                    return inside;
                }
                break;
            case Inside::root:
                break;
        }
        return addSetting(line, element, name, inside);
    }

    // The reader knows one element at the top; the scanner takes no notice of what a tag's name is.
    void noteWhatIsBehind() {
        int tags = 0;
        for (std::size_t open = 0; (open = text_.find('<', open)) != std::string::npos;) {
            const std::size_t close = text_.find('>', open);
            if (close == std::string::npos) break;
            if (!std::strchr("!?/", text_[open + 1])) ++tags;
            open = close + 1;
        }
        if (tags > visited_)
            note(0, "",
                 fmt::format("{} elements behind the end of the first one are not read", tags - visited_));
    }

    Inside addSetting(int line, GPDOMElement* element, const std::string& name, Inside inside) {
        const Setting* setting = settingOf(name);
        if (!setting) {
            add(line, ConfigFinding::Kind::ignored, element, "no setting of the daemon's", true);
            return inside;
        }
        if (!seen_.insert(name).second) {
            add(line, ConfigFinding::Kind::ignored, element, "the first one counts", true);
            return inside;
        }
        if (setting->form == Form::list) {
            add(line, ConfigFinding::Kind::taken, element, "a list", false);
            return name == "Users" ? Inside::users : Inside::servers;
        }
        if (setting->form == Form::text && textOf(element).empty())
            add(line, ConfigFinding::Kind::ignored, element, "an empty text counts as none", true);
        else if (setting->form == Form::wordOrNothing && !element->value)
            add(line, ConfigFinding::Kind::ignored, element, "without a text it changes nothing", false);
        else
            add(line, ConfigFinding::Kind::taken, element, meaning(*setting, element), false);
        return inside;
    }

    std::string meaning(const Setting& setting, GPDOMElement* element) const {
        GPDOMElement* written = written_ ? written_->findElement(setting.name) : nullptr;
        const std::string value = written ? textOf(written) : "";
        if (setting.name == std::string_view("ServerName"))
            return fmt::format("{}; the daemon makes it localhost at its start", value);
        if (setting.form == Form::number && value == "-1" && textOf(element) != "-1")
            return "-1, all levels, since that is no number";
        if (setting.form == Form::word || setting.form == Form::wordOrNothing) {
            const bool plain = textOf(element) == value;
            return plain ? value : fmt::format("{}; only \"true\" and numbers above 0 are true", value);
        }
        return value;
    }

    void addServer(int line, GPDOMElement* element) {
        if (textOf(element).empty())
            return add(line, ConfigFinding::Kind::ignored, element, "a server without a name", true);
        seen_.insert("ServerName"); // without one at the top the first of the list is the current server
        add(line, ConfigFinding::Kind::taken, element,
            "a server; the list becomes localhost alone at the daemon's start", false);
    }

    void addUser(int line, GPDOMElement* element) {
        const bool typed = element->attributes && element->attributes->objectForKey("ServerType");
        if (typed && !textOf(element).empty())
            add(line, ConfigFinding::Kind::taken, element, "a relay, for this run", true);
        else
            add(line, ConfigFinding::Kind::ignored, element, "relays last for one run of the daemon", true);
    }

    void add(int line, ConfigFinding::Kind kind, GPDOMElement* element, const std::string& meaning,
             bool lost) {
        findings_.push_back(
            {line, kind, element->name ? element->name->cstr() : "", textOf(element), meaning, lost});
    }

    void note(int line, const std::string& element, const std::string& meaning) {
        findings_.push_back({line, ConfigFinding::Kind::note, element, "", meaning, true});
    }

    void noteComments() {
        const auto end = text_.begin() + static_cast<std::ptrdiff_t>(text_.find("<!--"));
        note(1 + static_cast<int>(std::count(text_.begin(), end, '\n')), "<!--", "comments are not kept");
    }

    void addDefaults() {
        for (const Setting& setting : settings) {
            if (!seen_.count(setting.name))
                findings_.push_back(
                    {0, ConfigFinding::Kind::defaulted, setting.name, "", setting.byDefault, false});
        }
    }

    const std::string& text_;
    TagLines lines_;
    GPDOMElement* root_ = nullptr;
    int visited_ = 0;
    Owned<GPDOMElement> written_;
    std::set<std::string> seen_;
    std::vector<ConfigFinding> findings_;
};

const char* wordOf(ConfigFinding::Kind kind) {
    switch (kind) {
        case ConfigFinding::Kind::taken:
            return "taken";
        case ConfigFinding::Kind::ignored:
            return "ignored";
        case ConfigFinding::Kind::defaulted:
            return "default";
        case ConfigFinding::Kind::note:
            return "note";
    }
    return "";
}

Colour colourOf(const ConfigFinding& finding) {
    if (finding.lost) return Colour::bad;
    return finding.kind == ConfigFinding::Kind::ignored ? Colour::notice : Colour::none;
}

void printTable(const std::vector<ConfigFinding>& findings) {
    TextTable table({"line", "", "element", "text", "what the daemon has"});
    for (const ConfigFinding& finding : findings)
        table.add({{finding.line ? std::to_string(finding.line) : "-"},
                   {wordOf(finding.kind), colourOf(finding)},
                   {finding.element},
                   {shortened(finding.text, textWidth)},
                   {finding.meaning + (finding.lost ? "; LOST at the next save" : ""), colourOf(finding)}});
    table.print(stdout);
}

void printJson(const std::vector<ConfigFinding>& findings) {
    nlohmann::json rows = nlohmann::json::array();
    for (const ConfigFinding& finding : findings)
        rows.push_back({{"line", finding.line},
                        {"kind", wordOf(finding.kind)},
                        {"element", finding.element},
                        {"text", finding.text},
                        {"meaning", finding.meaning},
                        {"lost", finding.lost}});
    fmt::print("{}\n", rows.dump(1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void writeCsv(const std::string& path, const std::vector<ConfigFinding>& findings) {
    CsvFile file(path, "line,kind,element,text,meaning,lost");
    for (const ConfigFinding& finding : findings)
        file.row(fmt::format("{},{},{},{},{},{}", finding.line, wordOf(finding.kind),
                             csvField(finding.element), csvField(finding.text), csvField(finding.meaning),
                             finding.lost));
    file.finish();
}

} // namespace

std::vector<ConfigFinding> checkConfiguration(const std::string& path) {
    const std::string text = contentOf(path);
    const EndingSignals signals;
    const RootFolder root("");
    const EndingWatch watch([&root] { root.remove(); });
    platform::HostPaths::setRoot(root.path().c_str());
    std::ofstream copy(platform::HostPaths::configurationFile(), std::ios::binary);
    copy << text;
    if (!copy.flush()) throw InputError(fmt::format("{}: it cannot be copied", path));
    Configuration::loadConfig();
    // The text ends at its first zero byte, as for the daemon.
    const std::string read = text.c_str(); // cppcheck-suppress stlcstrAssignment
    return Checker(read).run();
}

int check(const CheckOptions& options) {
    checkOneOutput(options.json, options.csv);
    const std::vector<ConfigFinding> findings = checkConfiguration(options.file);
    if (!options.csv.empty()) writeCsv(options.csv, findings);
    if (options.json)
        printJson(findings);
    else if (options.csv != "-")
        printTable(findings);
    const auto wants = [](const ConfigFinding& finding) {
        return finding.lost || finding.kind == ConfigFinding::Kind::ignored;
    };
    return std::any_of(findings.begin(), findings.end(), wants) ? 1 : 0;
}

} // namespace lab
