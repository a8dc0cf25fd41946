#include "config/Configuration.h"
#include "dns/DNSPacket.h"
#include "dns/DNSPacketState.h"
#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPLog.h"
#include "gp/GPMap.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "packet/TCPPacket.h"
#include "platform/NameLookup.h"

#include <arpa/inet.h>

#include <atomic>
#include <cstring>
#include <string>

DNSPacketState dnsState{nullptr, nullptr, {0}, {false}, new GPMutex, new GPMutex};

namespace {

constexpr const char* webSearchRedirect = "forcesafesearch.google.com";
constexpr const char* videoRedirect = "restrict.youtube.com";
constexpr const char* bingRedirect = "strict.bing.com";

struct TableRow {
    const char* key;
    const char* value;
};

constexpr TableRow builtInHosts[] = {
    {"google.com", webSearchRedirect},          {"www.google.com", webSearchRedirect},
    {"www.google.co.uk", webSearchRedirect},    {"www.google.com.au", webSearchRedirect},
    {"www.google.co.zw", webSearchRedirect},    {"images.google.com", webSearchRedirect},
    {"images.google.co.uk", webSearchRedirect}, {"encrypted.google.com", webSearchRedirect},
    {"www.youtube.com", videoRedirect},         {"www.bing.com", bingRedirect},
};

constexpr TableRow builtInAddresses[] = {
    {webSearchRedirect, "216.239.38.120"},
    {videoRedirect, "216.239.38.120"},
    {bingRedirect, "204.79.197.220"},
};

constexpr int bucketsOfHosts = 10;
constexpr int bucketsOfAddresses = 3;

void setText(GPMap* table, const char* key, const char* value) {
    table->setObject(GPString::staticstring(value), key);
}

const char* textForKey(GPMap* table, const char* key) {
    auto* text = static_cast<GPString*>(table->objectForKey(key));
    return text ? text->cstr() : "";
}

void removeAllKeys(GPMap* table) {
    while (table->count() > 0)
        table->removeObjectForKey(table->firstKey());
}

bool haveHosts() {
    GPMutexLock lock(dnsState.mutex);
    return dnsState.map != nullptr;
}

int countOfHosts() {
    GPMutexLock lock(dnsState.mutex);
    return dnsState.map ? dnsState.map->count() : 0;
}

// A row as a server sends it: the host, and behind the first comma its redirect host.
struct RemapRow {
    std::string host;
    std::string redirect;
};

// False for an element without text, and for text without a comma, which names no redirect host.
bool readRow(GPDOMElement* element, RemapRow& row) {
    if (!element->value) return false;
    const std::string text = element->value->cstr();
    const auto comma = text.find(',');
    if (comma == std::string::npos) return false;
    row.host = text.substr(0, comma);
    row.redirect = text.substr(comma + 1);
    return true;
}

// The first IPv4 address of a host as dotted text; empty if it does not resolve.
std::string firstAddress(const std::string& host) {
    platform::HostEntry entry;
    if (!platform::nameLookup().gethostbyname2(host.c_str(), AF_INET, entry)) return {};
    if (entry.addresses.empty() || entry.addresses.front().size() != sizeof(in_addr)) return {};
    char dotted[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, entry.addresses.front().data(), dotted, sizeof dotted);
    return dotted;
}

// The pointers are set with both locks held, so either is enough to look at them.
bool haveBothTables() REQUIRES(dnsState.mutex) NO_THREAD_SAFETY_ANALYSIS {
    return dnsState.map && dnsState.mapIpv4;
}

void dropTablesAndPins() REQUIRES(dnsState.mutex) {
    clearMaps();
    removePinnedHosts();
}

void storeRow(const RemapRow& row, const std::string& address, RemapSource source) REQUIRES(dnsState.mutex) {
    {
        GPMutexLock lock(dnsState.ipv4Mutex);
        setText(dnsState.mapIpv4, row.redirect.c_str(), address.c_str());
    }
    setText(dnsState.map, row.host.c_str(), row.redirect.c_str());
    hostExistsCheck(row.host.c_str(), address.c_str());
    if (source == RemapSource::api && Configuration::isVerbose()) {
        logf("dns host domain: %s redirect host domain: %s", row.host.c_str(), row.redirect.c_str());
        logf("%s address: %s", row.redirect.c_str(), address.c_str());
    }
}

} // namespace

void initMap() {
    auto* table = new GPMap(bucketsOfHosts);
    for (const TableRow& row : builtInHosts)
        setText(table, row.key, row.value);
    dnsState.map = table;
}

void clearMaps() {
    if (!haveBothTables()) return;
    removeAllKeys(dnsState.map);
    GPMutexLock lock(dnsState.ipv4Mutex);
    removeAllKeys(dnsState.mapIpv4);
}

void DNSPacket::resolveRedirectIP() {
    {
        GPMutexLock lock(dnsState.mutex);
        if (!dnsState.map) initMap();
        if (dnsState.gotSSLIP.load(std::memory_order_relaxed)) return;
        GPMutexLock ipv4Lock(dnsState.ipv4Mutex);
        if (!dnsState.mapIpv4) {
            dnsState.mapIpv4 = new GPMap(bucketsOfAddresses);
            for (const TableRow& row : builtInAddresses)
                setText(dnsState.mapIpv4, row.key, row.value);
        }
    }
    // The look-up feeds this one address; the table keeps the literal one.
    dnsState.noSSLIP.store(htonl(TCPPacket::resolve(webSearchRedirect)), std::memory_order_relaxed);
    dnsState.gotSSLIP.store(true, std::memory_order_relaxed);
}

bool DNSPacket::isSslIp(unsigned address) {
    GPMutexLock lock(dnsState.ipv4Mutex);
    GPMap* table = dnsState.mapIpv4;
    if (!table) return false;
    for (const char* key = table->firstKey(); key; key = table->nextKey()) {
        in_addr known{};
        if (inet_aton(textForKey(table, key), &known) && ntohl(known.s_addr) == address) return true;
    }
    return false;
}

unsigned DNSPacket::getNoSslIp() { return dnsState.noSSLIP.load(std::memory_order_relaxed); }

void replaceTables(GPArray* hosts, RemapSource source) {
    if (hosts->count() == 0) {
        GPMutexLock lock(dnsState.mutex);
        if (haveBothTables()) dropTablesAndPins();
        return;
    }
    if (Configuration::isVerbose()) {
        logf(source == RemapSource::api ? "dns checkin setting %d hosts"
                                        : "setDnsRemapFromDom setting %d hosts",
             hosts->count());
    }
    bool cleared = false;
    for (int i = 0; i < hosts->count(); ++i) {
        RemapRow row;
        if (!readRow(static_cast<GPDOMElement*>(hosts->objectAtIndex(i)), row)) continue;
        const std::string address = firstAddress(row.redirect);
        if (address.empty()) continue;
        GPMutexLock lock(dnsState.mutex);
        if (!haveBothTables()) continue;
        // Only now: if nothing resolves, the old tables and pins stay.
        if (!cleared) dropTablesAndPins();
        cleared = true;
        storeRow(row, address, source);
    }
}

void DNSPacket::setDnsRemapFromDom(GPDOMElement* dom) {
    GPDOMElement* remap = dom->findElement("DNSRemap");
    if (!remap) return;
    if (!haveHosts()) resolveRedirectIP();
    const auto hosts = Owned<GPArray>::adopt(remap->findElements("host"));
    replaceTables(hosts.get(), RemapSource::dom);
    if (Configuration::isVerbose()) logf("setDnsRemapFromDom map->count() = %d", countOfHosts());
}

void DNSPacket::addDomDnsRemap(GPDOMElement* parent) {
    const bool verbose = Configuration::isVerbose();
    GPMutexLock lock(dnsState.mutex);
    GPMap* table = dnsState.map;
    if (!table) {
        if (verbose) logs("addDomDnsRemap map is null");
        return;
    }
    if (verbose) logf("addDomDnsRemap map->count() = %d", table->count());
    int count = 0;
    const char* host = table->firstKey();
    if (host) {
        const auto remap = Owned<GPDOMElement>::adopt(GPDOMElement::createElement("DNSRemap"));
        for (; host; host = table->nextKey(), ++count) {
            const auto pair =
                Owned<GPString>::adopt(GPString::format("%s,%s", host, textForKey(table, host)));
            const auto child =
                Owned<GPDOMElement>::adopt(GPDOMElement::createElement("host", nullptr, pair->cstr()));
            remap->addElement(child.get());
        }
        parent->addElement(remap.get());
    }
    if (verbose) logf("addDomDnsRemap counts = %d", count);
}
