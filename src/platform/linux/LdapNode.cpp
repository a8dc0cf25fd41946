#include "platform/linux/LdapNode.h"

#include "platform/linux/LdapLibrary.h"
#include "platform/linux/LdapWords.h"

#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

namespace platform {
namespace {

// After so long a read gives up, and the library looks at the time.
constexpr std::chrono::seconds readTime(1);

// What one message of the server, an entry with all its values, may have: 64 MB.
constexpr ber_len_t messageLimit = 1 << 26;

// What the library hands out is given back to it.
struct Unbind {
    void operator()(LDAP* connection) const { ldap->unbind(connection, nullptr, nullptr); }
    const LdapLibrary* ldap;
};
struct FreeMessage {
    void operator()(LDAPMessage* message) const { ldap->freeMessage(message); }
    const LdapLibrary* ldap;
};
struct FreeText {
    void operator()(char* text) const { ldap->freeText(text); }
    const LdapLibrary* ldap;
};
struct FreeValues {
    void operator()(berval** values) const { ldap->freeValues(values); }
    const LdapLibrary* ldap;
};
struct FreeCursor {
    void operator()(BerElement* cursor) const { ldap->freeCursor(cursor, 0); }
    const LdapLibrary* ldap;
};

using Connection = std::unique_ptr<LDAP, Unbind>;
using Text = std::unique_ptr<char, FreeText>;

struct Attribute {
    std::string name;
    std::vector<std::string> values;
};

// The entry's attributes by their names in lower case: LDAP does not tell cases apart.
using Entry = std::map<std::string, Attribute>;

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char character) { return static_cast<char>(std::tolower(character)); });
    return text;
}

using Clock = std::chrono::steady_clock;

timeval timeOf(std::chrono::seconds seconds) {
    timeval time{};
    time.tv_sec = seconds.count();
    return time;
}

// What holds for a connection from when it stands, before TLS. It outlives the connection.
struct Limits {
    explicit Limits(const LdapLibrary* functions, const LdapSettings& settings);

    const LdapLibrary* ldap;
    std::chrono::seconds patience; // with what comes next: TLS, then the answer
    Clock::time_point end{};       // of it
    ber_slen_t bytesLeft;          // of all that the server may say
    ldap_conncb callbacks;

    void begin() { end = Clock::now() + patience; }
};

int setUpReads(Sockbuf_IO_Desc* layer, void* limits) {
    layer->sbiod_pvt = limits;
    return 0;
}

// A TLS library reads on until it has a whole record, however slowly that comes. One read's time more lets the library be
// the one to say that the time is over where it looks at it.
ber_slen_t readWithinLimits(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length) {
    auto* limits = static_cast<Limits*>(layer->sbiod_pvt);
    if (Clock::now() >= limits->end + readTime || limits->bytesLeft <= 0) {
        errno = ETIMEDOUT;
        return -1;
    }
    const ber_slen_t got = LBER_SBIOD_READ_NEXT(layer, bytes, length);
    if (got > 0) limits->bytesLeft -= got;
    return got;
}

ber_slen_t writeOn(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length) {
    return LBER_SBIOD_WRITE_NEXT(layer, bytes, length);
}

int controlNext(Sockbuf_IO_Desc* layer, int option, void* argument) {
    return LBER_SBIOD_CTRL_NEXT(layer, option, argument);
}

Sockbuf_IO limitedReads = {setUpReads, nullptr, controlNext, readWithinLimits, writeOn, nullptr};

// The library sets memory aside for a message by the length in its head, and looks at the time only when a read gives
// up; in a handshake even then only if it is asynchronous.
int limitConnection(LDAP* connection, Sockbuf* socket, LDAPURLDesc*, sockaddr*, ldap_conncb* self) {
    auto* limits = static_cast<Limits*>(self->lc_arg);
    const LdapLibrary* ldap = limits->ldap;
    ber_len_t limit = messageLimit;
    ldap->controlSocket(socket, LBER_SB_OPT_SET_MAX_INCOMING, &limit);
    ber_socket_t descriptor{};
    ldap->controlSocket(socket, LBER_SB_OPT_GET_FD, &descriptor);
    const timeval readTimeout = timeOf(readTime);
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &readTimeout, sizeof readTimeout);
    ldap->setOption(connection, LDAP_OPT_CONNECT_ASYNC, self); // whatever is no null pointer means yes
    limits->begin();
    constexpr int belowTls = (LBER_SBIOD_LEVEL_PROVIDER + LBER_SBIOD_LEVEL_TRANSPORT) / 2;
    return ldap->addLayer(socket, &limitedReads, belowTls, limits);
}

void forgetConnection(LDAP*, Sockbuf*, ldap_conncb*) {}

Limits::Limits(const LdapLibrary* functions, const LdapSettings& settings)
    : ldap(functions), patience(settings.connectSeconds),
      bytesLeft(settings.answerBytes), callbacks{limitConnection, forgetConnection, this} {}

Connection connectTo(const std::string& uri, const LdapSettings& settings, Limits& limits, int& status) {
    const LdapLibrary* ldap = limits.ldap;
    LDAP* made = nullptr;
    status = ldap->initialize(&made, uri.c_str());
    Connection connection(made, {ldap});
    if (status != LDAP_SUCCESS) return connection;
    const int version = LDAP_VERSION3;
    const timeval connectTimeout = timeOf(std::chrono::seconds(settings.connectSeconds));
    ldap->setOption(made, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap->setOption(made, LDAP_OPT_NETWORK_TIMEOUT, &connectTimeout);
    ldap->setOption(made, LDAP_OPT_TIMEOUT, &connectTimeout); // for the answer to StartTLS
    ldap->setOption(made, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    ldap->setOption(made, LDAP_OPT_CONNECT_CB, &limits.callbacks);
    status = ldap->connect(made);
    if (status != LDAP_SUCCESS) connection.reset();
    return connection;
}

// To the first server that lets it. Each has a connection of its own: the library goes on to the next one of a list with
// the TLS session in which the one before has stopped.
Connection connectToAny(const LdapSettings& settings, Limits& limits, int& status) {
    Connection connection(nullptr, {limits.ldap});
    std::size_t start = 0;
    while (!connection && (start = settings.uri.find_first_not_of(", \t", start)) != std::string::npos) {
        const std::size_t end = settings.uri.find_first_of(", \t", start);
        connection = connectTo(settings.uri.substr(start, end - start), settings, limits, status);
        start = end;
    }
    return connection;
}

std::vector<std::string> valuesOf(const LdapLibrary* ldap, LDAP* connection, LDAPMessage* message,
                                  const char* attribute) {
    const std::unique_ptr<berval*, FreeValues> values(ldap->values(connection, message, attribute), {ldap});
    std::vector<std::string> texts;
    for (berval** value = values.get(); value && *value; ++value)
        texts.emplace_back((*value)->bv_val, (*value)->bv_len);
    return texts;
}

Entry readEntry(const LdapLibrary* ldap, LDAP* connection, LDAPMessage* message) {
    Entry entry;
    BerElement* position = nullptr;
    Text attribute(ldap->firstAttribute(connection, message, &position), {ldap});
    const std::unique_ptr<BerElement, FreeCursor> cursor(position, {ldap});
    while (attribute) {
        entry[lowercase(attribute.get())] = {attribute.get(),
                                             valuesOf(ldap, connection, message, attribute.get())};
        attribute.reset(ldap->nextAttribute(connection, message, position));
    }
    return entry;
}

// The entry in the directory's words: those that correspond to an LDAP attribute, and each attribute as a native
// one.
DirectoryDetails translated(const Entry& entry, const std::string& recordType) {
    DirectoryDetails details;
    for (const auto& [key, attribute] : entry)
        if (!attribute.values.empty()) details["dsAttrTypeNative:" + attribute.name] = attribute.values;
    for (const std::string& attribute : knownAttributes()) {
        for (const std::string& name : ldapAttributes(recordType, attribute)) {
            const auto found = entry.find(lowercase(name));
            if (found == entry.end() || found->second.values.empty()) continue;
            details[attribute] = found->second.values;
            break;
        }
    }
    return details;
}

// The whole text of a file; empty when it does not open.
std::string textOf(const std::string& path) {
    std::string text;
    std::FILE* file = std::fopen(path.c_str(), "re");
    if (!file) return text;
    char piece[4096];
    std::size_t got = sizeof piece;
    while (got == sizeof piece) {
        got = std::fread(piece, 1, sizeof piece, file);
        text.append(piece, got);
    }
    std::fclose(file);
    return text;
}

int sizeLimit(const DirectoryQueryTerms& terms) {
    return terms.maximumResults > 0 ? terms.maximumResults : LDAP_NO_LIMIT;
}

} // namespace

std::optional<LdapSettings> readLdapSettings(const std::string& path) {
    std::istringstream file(textOf(path));
    LdapSettings settings;
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string keyword;
        std::string value;
        words >> keyword >> std::ws;
        std::getline(words, value);
        value.erase(value.find_last_not_of(" \t\r") + 1);
        if (strcasecmp(keyword.c_str(), "URI") == 0) settings.uri = value;
        if (strcasecmp(keyword.c_str(), "BASE") == 0) settings.base = value;
    }
    if (settings.uri.empty() || settings.base.empty()) return std::nullopt;
    return settings;
}

std::string LdapNode::name() const {
    const std::size_t scheme = settings_.uri.find("://");
    const std::size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    return "/LDAPv3/" + settings_.uri.substr(start, settings_.uri.find_first_of("/, \t", start) - start);
}

bool LdapNode::find(const DirectoryQueryTerms& terms, DirectoryRecords& records,
                    DirectoryError& error) const {
    const std::string filter = ldapFilter(terms.recordType, terms.attribute, terms.queryValue);
    if (filter.empty()) return true;

    char userAttributes[] = LDAP_ALL_USER_ATTRIBUTES;
    char ownAttributes[] = LDAP_ALL_OPERATIONAL_ATTRIBUTES;
    char* attributes[] = {userAttributes, ownAttributes, nullptr};
    if (terms.returnAttributes == kODAttributeTypeStandardOnly) attributes[1] = nullptr;

    const LdapLibrary* ldap = loadedFunctions<LdapLibrary>(error.description);
    if (!ldap) return false;

    int status = LDAP_PARAM_ERROR; // without a server
    Limits limits(ldap, settings_);
    const Connection connection = connectToAny(settings_, limits, status);
    LDAPMessage* answer = nullptr;
    limits.patience = std::chrono::seconds(settings_.answerSeconds);
    limits.begin();
    timeval timeout = timeOf(limits.patience);
    if (connection)
        status = ldap->search(connection.get(), settings_.base.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(),
                              attributes, 0, nullptr, nullptr, &timeout, sizeLimit(terms), &answer);
    const std::unique_ptr<LDAPMessage, FreeMessage> owned(answer, {ldap});

    LDAPMessage* message = answer ? ldap->firstEntry(connection.get(), answer) : nullptr;
    for (; message; message = ldap->nextEntry(connection.get(), message)) {
        const Text dn(ldap->dn(connection.get(), message), {ldap});
        DirectoryDetails details = translated(readEntry(ldap, connection.get(), message), terms.recordType);
        details[attributeMetaRecordName] = {dn ? dn.get() : ""};
        details[attributeMetaNodeLocation] = {name()};
        records.push_back(std::make_shared<HeldRecord>(terms.recordType, dn ? dn.get() : "", details));
    }

    // With a limit of ours the directory says that there is more.
    const bool reachedOurLimit = status == LDAP_SIZELIMIT_EXCEEDED && terms.maximumResults > 0;
    if (status == LDAP_SUCCESS || reachedOurLimit) return true;
    error.description = ldap->errorText(status);
    return false;
}

} // namespace platform
