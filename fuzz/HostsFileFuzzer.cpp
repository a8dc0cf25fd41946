// The hosts file under pins, removals and the making up for one that was cut off, held against the rules' own words on
// the text. The first runs of bytes are the hosts file, the record and the work file; then come steps.

#include "dns/DNSPacket.h"
#include "dns/DNSPacketState.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/Require.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "lab/RootFolder.h"
#include "platform/HostPaths.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace {

using fuzzing::FuzzInput;
using fuzzing::require;
using platform::HostPaths;

// What a path holds; nothing where there is no file.
using Content = std::optional<std::string>;

Content contentOf(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) return {};
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

void put(const char* path, const Content& content) {
    if (content)
        std::ofstream(path, std::ios::binary) << *content;
    else
        std::filesystem::remove(path);
}

// The lines as they are read: pieces of at most 254 bytes, each up to a zero byte in it.
std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t lineFeed = text.find('\n', at);
        const std::size_t end =
            std::min({lineFeed == std::string::npos ? text.size() : lineFeed + 1, at + 254});
        lines.emplace_back(text.substr(at, end - at).c_str());
        at = end;
    }
    return lines;
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line;
    return text;
}

// Whether what stands behind the first blanks of a line is the host and one character more.
bool names(const std::string& line, const std::string& host) {
    const std::size_t blank = line.find(' ');
    if (blank == std::string::npos) return false;
    const std::size_t start = line.find_first_not_of(' ', blank);
    const std::string rest = start == std::string::npos ? "" : line.substr(start);
    return rest.size() == host.size() + 1 && rest.compare(0, host.size(), host) == 0;
}

std::string without(const std::string& text, const std::string& host) {
    std::vector<std::string> kept;
    for (const std::string& line : linesOf(text))
        if (!names(line, host)) kept.push_back(line);
    return joined(kept);
}

bool holds(const std::string& text, const std::string& host) {
    const auto lines = linesOf(text);
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return names(line, host); });
}

// The files as the rules leave them.
struct PlainFiles {
    std::string hosts;
    Content record;
    Content work;
    bool marked = false;

    // A mark says that the hosts file may be less than the work file.
    void makeUp() {
        if (!marked) return;
        if (work) {
            const auto wanted = linesOf(*work);
            const auto found = linesOf(hosts);
            const bool hasAll =
                wanted.size() <= found.size() && std::equal(wanted.begin(), wanted.end(), found.begin());
            if (!hasAll) hosts = joined(wanted);
        }
        marked = false;
    }

    void pin(const std::string& host, const std::string& address) {
        const std::string line = address + " " + host + "\n";
        const bool canGo = line.size() < 255 && line.find('\n') == line.size() - 1 && names(line, host);
        if (!canGo) return;
        makeUp();
        if (holds(hosts, host)) return;
        hosts += line;
        record = record.value_or("") + host + "\n";
    }

    void remove(const std::string& host) {
        makeUp();
        hosts = without(hosts, host);
        work = hosts;
        // The work file is copied back line by line.
        hosts = joined(linesOf(hosts));
    }

    void clear() {
        for (const std::string& line : linesOf(record.value_or("")))
            if (!line.empty()) remove(line.substr(0, line.size() - 1));
        record = "";
    }
};

// A text without zero bytes, as an argument is one.
std::string argument(FuzzInput& input) {
    const std::size_t length = input.byte();
    std::string text;
    while (text.size() < length && !input.empty())
        if (const std::uint8_t byte = input.byte()) text += static_cast<char>(byte);
    return text;
}

void step(FuzzInput& input, PlainFiles& plain) {
    const std::uint8_t kind = input.byte() % 4;
    if (kind == 3) {
        DNSPacket::clearHostsDnsRemaps();
        return plain.clear();
    }
    const std::string host = argument(input);
    if (kind == 2) {
        GPMutexLock lock(dnsState.mutex);
        removeHostEntry(host.c_str());
        return plain.remove(host);
    }
    const std::string address = kind == 0 ? "10.0.0.1" : argument(input);
    {
        GPMutexLock lock(dnsState.mutex);
        hostExistsCheck(host.c_str(), address.c_str());
    }
    plain.pin(host, address);
}

void compare(const PlainFiles& plain) {
    require(contentOf(HostPaths::hostsFile()) == plain.hosts);
    require(contentOf(HostPaths::hostsRecordFile()).value_or("") == plain.record.value_or(""));
    require(contentOf(HostPaths::hostsWorkFile()) == plain.work);
    require(contentOf(HostPaths::hostsUnfinishedFile()).has_value() == plain.marked);
}

void enterRoot() {
    static lab::RootFolder& root = *[] {
        // A folder that cannot be: nothing is logged.
        setLogDirectory("/dev/null");
        auto* const made = new lab::RootFolder("");
        HostPaths::setRoot(made->path().c_str());
        std::filesystem::create_directories(std::filesystem::path(HostPaths::hostsFile()).parent_path());
        return made;
    }();
    (void)root;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    enterRoot();
    FuzzInput input(data, size);
    PlainFiles plain;
    plain.hosts = input.run();
    const std::uint8_t there = input.byte();
    if (there & 1) plain.record = input.run().substr(0, 1000);
    if (there & 2) plain.work = input.run();
    plain.marked = (there & 4) != 0;
    put(HostPaths::hostsFile(), plain.hosts);
    put(HostPaths::hostsRecordFile(), plain.record);
    put(HostPaths::hostsWorkFile(), plain.work);
    put(HostPaths::hostsUnfinishedFile(), plain.marked ? Content("") : Content());
    for (int steps = 0; steps < 8 && !input.empty(); ++steps) {
        step(input, plain);
        compare(plain);
    }
    return 0;
}
