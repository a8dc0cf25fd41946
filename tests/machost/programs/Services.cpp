#include "Services.h"

#include "config/Configuration.h"
#include "dns/DNSPacket.h"
#include "identity/DSQuery.h"
#include "platform/Directory.h"
#include "platform/FileManager.h"
#include "platform/HostName.h"
#include "platform/UrlSession.h"
#include "platform/UserDialog.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

// A text in which every byte shows.
std::string shown(const std::string& text) {
    std::string out;
    for (const char byte : text) {
        char code[5];
        std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(byte));
        out += byte >= ' ' && byte < 0x7f ? std::string(1, byte) : code;
    }
    return out;
}

void print(const char* name, const DirectoryText& text) {
    std::printf("%s: %s\n", name, text.has_value() ? shown(*text).c_str() : "(none)");
}

int fail(const platform::DirectoryError& error) {
    std::printf("error: %s\n", error.description.c_str());
    return 1;
}

int printNodes() {
    Words names;
    platform::DirectoryError error;
    if (!platform::directory().nodeNames(names, error)) return fail(error);
    for (const std::string& name : names)
        std::printf("node: %s\n", name.c_str());
    return 0;
}

void printInfo(const DSInfo& info) {
    print("user", info.username);
    print("user DN", info.userDN);
    print("user OU", info.userOU);
    if (info.groups)
        for (const std::string& group : *info.groups)
            std::printf("group: %s\n", group.c_str());
    print("computer", info.computerName);
    print("computer DN", info.computerDN);
    print("format", info.userFormat);
}

int search(const Words& words) {
    if (words[1] == "nodes") return printNodes();
    Configuration::setCachedUserName(words[1].c_str());
    DSQuery::sharedDSQuery()->search([](DSInfo* info) { printInfo(*info); },
                                     [](const platform::DirectoryError& error) { fail(error); });
    return 0;
}

int find(const Words& words) {
    platform::DirectoryError error;
    const auto node = words[1] == "/"
                          ? platform::directory().nodeWithType(platform::kODNodeTypeAuthentication, error)
                          : platform::directory().nodeWithName(words[1], error);
    if (!node) return fail(error);
    platform::DirectoryQueryTerms terms;
    terms.recordType = words[2];
    terms.attribute = words[3];
    terms.queryValue = words[4];
    const auto query = platform::directory().queryWithNode(node, terms, error);
    platform::DirectoryRecords records;
    if (!query || !query->resultsAllowingPartial(false, records, error)) return fail(error);
    query->setDelegate({nullptr, nullptr});
    for (const auto& record : records) {
        std::printf("%s (%s)\n", shown(record->description()).c_str(), record->recordType().c_str());
        platform::DirectoryDetails details;
        if (!record->recordDetailsForAttributes({words[3], "dsAttrTypeNative:none",
                                                 "dsAttrTypeNative:objectGUID",
                                                 "dsAttrTypeStandard:GroupMembership"},
                                                details, error))
            return fail(error);
        for (const auto& [attribute, values] : details)
            for (const std::string& value : values)
                std::printf("  %s = %s\n", attribute.c_str(), shown(value).c_str());
    }
    return 0;
}

int pinHosts(const Words&) {
    DNSPacket::resolveRedirectIP();
    DNSPacket::checkHostsFile();
    std::printf("no-ssl address: %08x\n", DNSPacket::getNoSslIp());
    return 0;
}

std::string contentOf(const std::string& path) {
    std::string content;
    const int file = open(path.c_str(), O_RDONLY);
    if (file < 0) return "(no file)";
    char piece[4096];
    for (ssize_t got = read(file, piece, sizeof piece); got > 0; got = read(file, piece, sizeof piece))
        content.append(piece, static_cast<std::size_t>(got));
    close(file);
    return content;
}

bool isThere(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY);
    if (file >= 0) close(file);
    return file >= 0;
}

int ends[2];
std::string location;

void printResult(const platform::UrlTaskResult& result) {
    location = result.location;
    std::printf("status %ld, %s: %s\n", result.statusCode,
                result.localizedDescription.empty() ? "no error" : "an error",
                location.empty() ? "(nothing)" : shown(contentOf(location)).c_str());
    const char byte = 0;
    if (write(ends[1], &byte, 1) != 1) std::puts("no pipe");
}

int transfer(const Words& words) {
    if (pipe(ends) != 0) return 1;
    if (words[0] == "fetch")
        platform::urlSession().downloadTask(words[1].c_str(), printResult);
    else
        platform::urlSession().uploadTask(words[1].c_str(), words[2].c_str(), words[3], printResult);
    char byte = 0;
    if (read(ends[0], &byte, 1) != 1) return 1;
    // The file goes behind the completion, in real time whatever clock is played.
    for (int tries = 0; isThere(location) && tries < 500; ++tries)
        poll(nullptr, 0, 10);
    std::printf("afterwards %s\n", isThere(location) ? "it is still there" : "it has gone");
    return 0;
}

int operate(const Words& words) {
    const platform::FileResult result =
        words[0] == "remove" ? platform::fileManager().removeItem(words[1].c_str())
                             : platform::fileManager().moveItem(words[1].c_str(), words[2].c_str());
    std::printf("%s %ld%s\n", result.done ? "done" : "failed", result.code, result.raised.c_str());
    return 0;
}

int printComponent(const Words& words) {
    std::printf("[%s]\n", shown(platform::lastPathComponent(words[1].c_str())).c_str());
    return 0;
}

int printHost(const Words&) {
    const auto name = platform::hostName().currentHostName();
    std::printf("host %s, home %s\n", name ? (*name).c_str() : "(none)",
                platform::hostName().homeDirectory().c_str());
    return 0;
}

int runLoop(const Words& words) {
    platform::urlSession().runMainLoop(std::stoi(words[1]));
    std::puts("came back");
    return 0;
}

// The dialog that is up, for a signal to take away.
platform::UserNotification* shownDialog = nullptr;

int ask(const Words& words) {
    using platform::NotificationKey;
    platform::NotificationDictionary texts = {{NotificationKey::alertHeader, words[2]},
                                              {NotificationKey::alertMessage, "Message \xc3\xa9"},
                                              {NotificationKey::defaultButtonTitle, "Yes"}};
    if (!words[3].empty()) texts.emplace_back(NotificationKey::alternateButtonTitle, words[3]);
    shownDialog =
        platform::userDialog().create(std::stod(words[1]), platform::notificationNoteAlertLevel, texts);
    std::signal(SIGUSR1, [](int) { platform::userDialog().cancel(shownDialog); });
    std::puts(shownDialog ? "shown" : "not shown");
    std::fflush(stdout);
    unsigned long flags = 99;
    const bool received = platform::userDialog().receiveResponse(shownDialog, flags);
    platform::userDialog().release(shownDialog);
    std::printf("%s %lu\n", received ? "answered" : "no answer", flags);
    return 0;
}

struct Call {
    const char* name;
    std::size_t words;
    int (*run)(const Words& words);
};
const Call calls[] = {{"search", 2, search},  {"find", 5, find},      {"hosts", 1, pinHosts},
                      {"fetch", 2, transfer}, {"send", 4, transfer},  {"remove", 2, operate},
                      {"move", 3, operate},   {"host", 1, printHost}, {"component", 2, printComponent},
                      {"loop", 2, runLoop},   {"ask", 4, ask}};

} // namespace

int runServices(int count, char** words) {
    const Words given(words + 1, words + count);
    for (const Call& call : calls)
        if (!given.empty() && given[0] == call.name && given.size() == call.words) return call.run(given);
    return 2;
}
