#include "support/DnsWorld.h"

#include "config/Configuration.h"
#include "dns/DNSPacket.h"
#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPFilesystem.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "packet/SysctlResult.h"
#include "platform/HostPaths.h"
#include "support/DnsMessageBuilder.h"

#include <arpa/inet.h>

using platform::HostPaths;

namespace testsupport {

DnsWorld::DnsWorld() : names(*new PlayedNames) {
    names.install();
    givenHosts("");
}

std::string DnsWorld::hosts() { return readAll(HostPaths::hostsFile()); }
std::string DnsWorld::record() { return readAll(HostPaths::hostsRecordFile()); }

void DnsWorld::givenHosts(const std::string& content) { writeAll(HostPaths::hostsFile(), content); }
void DnsWorld::givenRecord(const std::string& content) { writeAll(HostPaths::hostsRecordFile(), content); }

void DnsWorld::givenHostsAtRest(const std::string& content) {
    givenHosts(content);
    givenRecord("");
    deleteFile(HostPaths::hostsWorkFile());
    deleteFile(HostPaths::hostsUnfinishedFile());
}

void DnsWorld::givenTables() {
    givenName("forcesafesearch.google.com", "216.239.38.99");
    DNSPacket::resolveRedirectIP();
}

void DnsWorld::givenName(const std::string& redirect, const std::string& address) {
    names.answer(redirect, AF_INET, {address});
}

void DnsWorld::setRemaps(const std::vector<std::string>& rows) {
    const std::string document =
        "<Configuration><DNSRemap>" + hostElements(rows) + "</DNSRemap></Configuration>";
    const auto dom = Owned<GPDOMElement>::adopt(GPDOMElement::parse(document.c_str()));
    DNSPacket::setDnsRemapFromDom(dom.get());
}

std::vector<std::string> DnsWorld::remaps() {
    const auto parent = Owned<GPDOMElement>::adopt(GPDOMElement::createElement("Configuration"));
    DNSPacket::addDomDnsRemap(parent.get());
    const auto found = Owned<GPArray>::adopt(parent->findElements("host"));
    std::vector<std::string> rows;
    for (int i = 0; i < found->count(); ++i)
        rows.emplace_back(static_cast<GPDOMElement*>(found->objectAtIndex(i))->value->cstr());
    return rows;
}

std::string DnsWorld::hostElements(const std::vector<std::string>& rows) {
    std::string elements;
    for (const std::string& row : rows)
        elements += "<host>" + row + "</host>";
    return elements;
}

void DnsWorld::beVerbose() {
    Configuration::setVerboseMode(true);
    loggedBefore_ = log.messages().size();
}

std::vector<std::string> DnsWorld::logged() const {
    const std::vector<std::string> all = log.messages();
    return {all.begin() + static_cast<std::ptrdiff_t>(loggedBefore_), all.end()};
}

std::string DnsWorld::redirectOf(const std::string& host) {
    PacketBuffer packet = DnsMessageBuilder().question(host).answer().ipv4().build();
    sysctl_result result{};
    if (!DNSPacket::remap(packet.packet(), &result)) return "(none)";
    in_addr address{};
    address.s_addr = result.redirectAddress;
    return std::string(result.redirectUrl) + " " + inet_ntoa(address);
}

} // namespace testsupport
