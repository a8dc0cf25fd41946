// What an LDAP server answers to a search. By the first byte the rest goes over as it stands, or is made into entries,
// each of which must come out as it was made; then also the settings file and the filter are read again.

#include "fuzz/FuzzInput.h"
#include "fuzz/PrivateLoopback.h"
#include "fuzz/RecordValues.h"
#include "fuzz/Require.h"
#include "platform/linux/LdapNode.h"
#include "platform/linux/LdapWords.h"

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using fuzzing::FuzzInput;
using fuzzing::require;
using fuzzing::valuesOf;
using namespace platform;

constexpr int port = 3890;
constexpr int searchEntry = 0x64;
constexpr int searchDone = 0x65;

// A field with its length in front.
std::string field(int tag, const std::string& content) {
    const std::size_t size = content.size();
    const std::string length{static_cast<char>(0x83), static_cast<char>(size >> 16),
                             static_cast<char>(size >> 8), static_cast<char>(size)};
    return static_cast<char>(tag) + length + content;
}

std::string message(int tag, const std::string& content) {
    return field(0x30, field(2, "\1") + field(tag, content));
}

struct Attribute {
    std::string name;
    std::vector<std::string> values;
};

struct Entry {
    std::string dn;
    std::vector<Attribute> attributes;
};

std::string encoded(const Entry& entry) {
    std::string attributes;
    for (const Attribute& attribute : entry.attributes) {
        std::string values;
        for (const std::string& value : attribute.values)
            values += field(4, value);
        attributes += field(0x30, field(4, attribute.name) + field(0x31, values));
    }
    return message(searchEntry, field(4, entry.dn) + field(0x30, attributes));
}

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char sign) { return static_cast<char>(std::tolower(sign)); });
    return text;
}

std::string shortText(FuzzInput& input) {
    const std::size_t length = input.byte();
    std::string text;
    while (text.size() < length && !input.empty())
        text += static_cast<char>(input.byte());
    return text;
}

Entry takeEntry(FuzzInput& input) {
    static const char* const known[] = {"uid", "CN", "uidNumber", "memberUid", "mail", "entryDN"};
    Entry entry;
    entry.dn = shortText(input).c_str();
    std::set<std::string> names;
    for (int left = input.byte() % 8; left > 0; --left) {
        const std::uint8_t which = input.byte();
        Attribute attribute{which < std::size(known) ? known[which] : shortText(input).c_str(), {}};
        for (int values = input.byte() % 4; values > 0; --values)
            attribute.values.push_back(shortText(input));
        // The library tells attributes of one name apart by nothing.
        const bool isNew = names.insert(lowercase(attribute.name)).second;
        if (isNew && !attribute.name.empty()) entry.attributes.push_back(attribute);
    }
    return entry;
}

// Sends what it is given to each connection that has asked.
class Server {
public:
    Server() : listener_(fuzzing::listenOnLoopback(port)) {
        std::thread([this] { serve(); }).detach();
    }

    void prepare(const std::string& answer) {
        const std::lock_guard<std::mutex> lock(mutex_);
        answer_ = answer;
    }

private:
    void serve() {
        for (;;) {
            const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection < 0) continue;
            char question[65536];
            const bool asked = recv(connection, question, sizeof question, 0) > 0;
            std::string answer;
            {
                const std::lock_guard<std::mutex> lock(mutex_);
                answer = answer_;
            }
            // A reset by the other side, which had enough, is none of this one's.
            for (std::size_t sent = 0; asked && sent < answer.size();) {
                const ssize_t step =
                    send(connection, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
                if (step <= 0) break;
                sent += static_cast<std::size_t>(step);
            }
            shutdown(connection, SHUT_WR);
            // Until the other side has read all and goes.
            while (recv(connection, question, sizeof question, 0) > 0) {
            }
            close(connection);
        }
    }

    const int listener_;
    std::mutex mutex_;
    std::string answer_;
};

DirectoryRecords search(Server& server, const std::string& answer, bool& whole) {
    server.prepare(answer);
    const LdapNode node({"ldap://127.0.0.1:" + std::to_string(port), "dc=birch"});
    DirectoryQueryTerms terms;
    terms.recordType = kODRecordTypeUsers;
    terms.attribute = kODAttributeTypeRecordName;
    terms.queryValue = "alice";
    terms.returnAttributes = kODAttributeTypeAllAttributes;
    DirectoryRecords records;
    DirectoryError error;
    whole = node.find(terms, records, error);
    require(whole || !error.description.empty());
    return records;
}

void compare(const DirectoryRecord& record, const Entry& entry) {
    require(record.description() == entry.dn);
    require(record.recordType() == kODRecordTypeUsers);
    std::vector<std::string> names;
    for (const Attribute& attribute : entry.attributes) {
        require(valuesOf(record, "dsAttrTypeNative:" + attribute.name) == attribute.values ||
                attribute.name == "distinguishedName");
        if (lowercase(attribute.name) == "uid") names = attribute.values;
    }
    require(valuesOf(record, kODAttributeTypeRecordName) == names);
}

void searchEntries(Server& server, FuzzInput& input) {
    std::vector<Entry> entries;
    std::string answer;
    for (int left = input.byte() % 5; left > 0; --left) {
        entries.push_back(takeEntry(input));
        answer += encoded(entries.back());
    }
    bool whole = false;
    const DirectoryRecords records = search(
        server, answer + message(searchDone, field(10, std::string(1, '\0')) + field(4, "") + field(4, "")),
        whole);
    require(whole && records.size() == entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i)
        compare(*records[i], entries[i]);
}

// A filter with what it escapes put back.
std::string unescaped(const std::string& filter) {
    std::string text;
    for (std::size_t i = 0; i < filter.size(); ++i) {
        require(filter[i] != '(' && filter[i] != ')' && filter[i] != '*' && filter[i] != '\0');
        const bool code = filter[i] == '\\';
        text += code ? static_cast<char>(std::stoi(filter.substr(i + 1, 2), nullptr, 16)) : filter[i];
        if (code) i += 2;
    }
    return text;
}

void readWords(FuzzInput& input) {
    const std::string value = input.run();
    require(unescaped(escapedForFilter(value)) == value);
    const std::string text = input.rest();
    const int file = memfd_create("settings", MFD_CLOEXEC);
    require(file >= 0 && write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    const auto settings = readLdapSettings("/proc/self/fd/" + std::to_string(file));
    close(file);
    if (!settings) return;
    require(text.find(settings->uri) != std::string::npos && text.find(settings->base) != std::string::npos);
    const std::string name = LdapNode(*settings).name();
    require(name.rfind("/LDAPv3/", 0) == 0 && name.find_first_of("/, \t", 8) == std::string::npos);
}

} // namespace

// The library loses its own request on an answer of a kind that it does not know; it has no frame pointers by which its
// functions could be told apart. Whatever is not the library's is still looked at.
extern "C" const char* __lsan_default_suppressions() { return "leak:liblber\n"; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool alone = [] {
        std::signal(SIGPIPE, SIG_IGN);
        return fuzzing::enterPrivateLoopback();
    }();
    require(alone);
    static Server& server = *new Server;
    FuzzInput input(data, size);
    switch (input.byte() % 3) {
        case 0: {
            bool whole = false;
            search(server, input.rest(), whole);
            return 0;
        }
        case 1:
            searchEntries(server, input);
            return 0;
        default:
            readWords(input);
            return 0;
    }
}
