// The steps in front of the daemon's own calls, in the lab's program alone. The linker puts each `__wrap_` function in
// the place of the one that it is named after, wherever another file calls that; CMakeLists.txt has the list. A function
// that is gone or has another signature is a link error.

#include "agent/OstComm.h"
#include "config/Configuration.h"
#include "config/FilterServer.h"
#include "filter/FilterQuery.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "lab/observe/Observation.h"
#include "packet/HijackPacket.h"
#include "packet/PacketVerdicts.h"
#include "packet/SysctlResult.h"
#include "packet/TCPPacket.h"
#include "platform/Clock.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

using lab::Call;

namespace {

[[maybe_unused]] const bool isDeclared = (lab::declareObserved(), true);

void note(Call call, std::int64_t answer, const std::string& text = {}, const std::string& more = {}) {
    lab::observeStep({call, answer, text, more, 0});
}

bool noted(Call call, bool answer) {
    if (lab::observing()) note(call, answer);
    return answer;
}

GPString* notedUrl(Call call, GPString* url) {
    if (lab::observing()) note(call, url != nullptr, url ? url->cstr() : "");
    return url;
}

template <class Address>
void noteAddress(Address address, int port, GPString* (*format)(Address)) {
    if (!lab::observing()) return;
    note(Call::remoteAddress, port, Owned<GPString>::adopt(format(address))->cstr());
}

lab::RecordState stateOf(const HijackPacket* record) {
    if (!record) return lab::noRecord;
    if (!record->isResolved()) return lab::openRecord;
    if (!record->redirectURL()) return lab::allowedRecord;
    return record->isHttps() ? lab::tlsRedirect : lab::plainRedirect;
}

int observed(bool outbound, char* packet, void* result, int (*callback)(char*, void*)) {
    lab::observeBegin(outbound, packet);
    const int verdict = callback(packet, result);
    lab::observeEnd(verdict);
    return verdict;
}

} // namespace

extern "C" {

int __real__Z18tcpInBoundCallbackPcPv(char* packet, void* result);
int __wrap__Z18tcpInBoundCallbackPcPv(char* packet, void* result) {
    return observed(false, packet, result, __real__Z18tcpInBoundCallbackPcPv);
}

int __real__Z19tcpOutBoundCallbackPcPv(char* packet, void* result);
int __wrap__Z19tcpOutBoundCallbackPcPv(char* packet, void* result) {
    return observed(true, packet, result, __real__Z19tcpOutBoundCallbackPcPv);
}

bool __real__ZN13Configuration17filteringDisabledEv();
bool __wrap__ZN13Configuration17filteringDisabledEv() {
    return noted(Call::filteringDisabled, __real__ZN13Configuration17filteringDisabledEv());
}

FilterServer* __real__ZN13Configuration16getCurrentServerEv();
FilterServer* __wrap__ZN13Configuration16getCurrentServerEv() {
    FilterServer* server = __real__ZN13Configuration16getCurrentServerEv();
    if (lab::observing()) {
        GPString* name = server ? server->getName() : nullptr;
        note(Call::currentServer, server ? server->getServerType() : 0, name ? name->cstr() : "");
    }
    return server;
}

bool __real__ZN9TCPPacket14isUsablePacketEPc(char* packet);
bool __wrap__ZN9TCPPacket14isUsablePacketEPc(char* packet) {
    return noted(Call::usable, __real__ZN9TCPPacket14isUsablePacketEPc(packet));
}

unsigned __real__ZN9TCPPacket12srcIPAddressEPcRi(char* packet, int& port);
unsigned __wrap__ZN9TCPPacket12srcIPAddressEPcRi(char* packet, int& port) {
    const unsigned address = __real__ZN9TCPPacket12srcIPAddressEPcRi(packet, port);
    noteAddress(address, port, TCPPacket::formatIpAddress);
    return address;
}

unsigned __real__ZN9TCPPacket12dstIPAddressEPcRi(char* packet, int& port);
unsigned __wrap__ZN9TCPPacket12dstIPAddressEPcRi(char* packet, int& port) {
    const unsigned address = __real__ZN9TCPPacket12dstIPAddressEPcRi(packet, port);
    noteAddress(address, port, TCPPacket::formatIpAddress);
    return address;
}

in6_addr __real__ZN9TCPPacket16srcIPAddressIpv6EPcRi(char* packet, int& port);
in6_addr __wrap__ZN9TCPPacket16srcIPAddressIpv6EPcRi(char* packet, int& port) {
    const in6_addr address = __real__ZN9TCPPacket16srcIPAddressIpv6EPcRi(packet, port);
    noteAddress(address, port, TCPPacket::formatIpAddressIpv6);
    return address;
}

in6_addr __real__ZN9TCPPacket16dstIPAddressIpv6EPcRi(char* packet, int& port);
in6_addr __wrap__ZN9TCPPacket16dstIPAddressIpv6EPcRi(char* packet, int& port) {
    const in6_addr address = __real__ZN9TCPPacket16dstIPAddressIpv6EPcRi(packet, port);
    noteAddress(address, port, TCPPacket::formatIpAddressIpv6);
    return address;
}

bool __real__ZN11FilterQuery13isFilteringIPEP17FilterIPAddressesj(FilterIPAddresses* addresses,
                                                                  unsigned address);
bool __wrap__ZN11FilterQuery13isFilteringIPEP17FilterIPAddressesj(FilterIPAddresses* addresses,
                                                                  unsigned address) {
    return noted(Call::filterServer,
                 __real__ZN11FilterQuery13isFilteringIPEP17FilterIPAddressesj(addresses, address));
}

bool __real__ZN11FilterCheck14isUpdateBypassEj(unsigned address);
bool __wrap__ZN11FilterCheck14isUpdateBypassEj(unsigned address) {
    return noted(Call::updateSource, __real__ZN11FilterCheck14isUpdateBypassEj(address));
}

bool __real__ZN11FilterQuery19isFilteringDisabledEv();
bool __wrap__ZN11FilterQuery19isFilteringDisabledEv() {
    return noted(Call::filteringSuspended, __real__ZN11FilterQuery19isFilteringDisabledEv());
}

bool __real__ZN11FilterQuery12isBlockedSSLEPc(char* packet);
bool __wrap__ZN11FilterQuery12isBlockedSSLEPc(char* packet) {
    return noted(Call::blockedAddress, __real__ZN11FilterQuery12isBlockedSSLEPc(packet));
}

bool __real__ZN11FilterQuery16isBlockedSSLIpv6EPc(char* packet);
bool __wrap__ZN11FilterQuery16isBlockedSSLIpv6EPc(char* packet) {
    return noted(Call::blockedAddress, __real__ZN11FilterQuery16isBlockedSSLIpv6EPc(packet));
}

void __real__ZN12HijackPacket5FoundC1EPc(HijackPacket::Found* found, char* packet);
void __wrap__ZN12HijackPacket5FoundC1EPc(HijackPacket::Found* found, char* packet) {
    __real__ZN12HijackPacket5FoundC1EPc(found, packet);
    if (!lab::observing()) return;
    const HijackPacket* record = found->get();
    const char* redirect = record ? record->redirectURL() : nullptr;
    lab::observeStep({Call::record, stateOf(record), record ? record->URL() : "", redirect ? redirect : "",
                      static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(record))});
}

bool __real__ZN9TCPPacket14redirectPacketEPcPKc(char* packet, const char* url);
bool __wrap__ZN9TCPPacket14redirectPacketEPcPKc(char* packet, const char* url) {
    const bool fits = __real__ZN9TCPPacket14redirectPacketEPcPKc(packet, url);
    if (lab::observing()) note(Call::redirectFits, fits, url);
    return fits;
}

void __real__Z15setRedirectDataP13sysctl_resultPKcb(sysctl_result* result, const char* url, bool ipv6);
void __wrap__Z15setRedirectDataP13sysctl_resultPKcb(sysctl_result* result, const char* url, bool ipv6) {
    __real__Z15setRedirectDataP13sysctl_resultPKcb(result, url, ipv6);
    if (lab::observing()) note(Call::redirectData, 0, url ? url : "");
}

GPString* __real__ZN9TCPPacket8httpsURLEPc(char* packet);
GPString* __wrap__ZN9TCPPacket8httpsURLEPc(char* packet) {
    return notedUrl(Call::httpsUrl, __real__ZN9TCPPacket8httpsURLEPc(packet));
}

GPString* __real__ZN9TCPPacket7httpURLEPc(char* packet);
GPString* __wrap__ZN9TCPPacket7httpURLEPc(char* packet) {
    return notedUrl(Call::httpUrl, __real__ZN9TCPPacket7httpURLEPc(packet));
}

bool __real__ZN12HijackPacket6createEPcPKcb(char* packet, const char* url, bool https);
bool __wrap__ZN12HijackPacket6createEPcPKcb(char* packet, const char* url, bool https) {
    const bool made = __real__ZN12HijackPacket6createEPcPKcb(packet, url, https);
    if (lab::observing()) note(Call::newRecord, made, url);
    return made;
}

void __real__ZN11FilterQuery4sendEPKcbPv(const char* url, bool https, void* result);
void __wrap__ZN11FilterQuery4sendEPKcbPv(const char* url, bool https, void* result) {
    if (lab::observing()) note(Call::query, https, url);
    __real__ZN11FilterQuery4sendEPKcbPv(url, https, result);
}

GPString* __real__ZN7OstComm16getPolicyCommandEPci(OstComm* link, char* url, int queryNumber);
GPString* __wrap__ZN7OstComm16getPolicyCommandEPci(OstComm* link, char* url, int queryNumber) {
    if (!lab::observing()) return __real__ZN7OstComm16getPolicyCommandEPci(link, url, queryNumber);
    const std::int64_t asked = platform::clock().microseconds();
    GPString* reply = __real__ZN7OstComm16getPolicyCommandEPci(link, url, queryNumber);
    lab::observeQuestion(
        {asked, platform::clock().microseconds(), url, reply ? reply->cstr() : "", reply != nullptr});
    return reply;
}

// As logf itself: formats the line and hands it to logs.
void __wrap__Z4logfPKcz(const char* format, ...) __attribute__((format(printf, 1, 2)));
void __wrap__Z4logfPKcz(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    if (length >= 0) {
        std::string line(static_cast<std::size_t>(length), '\0');
        // NOLINTNEXTLINE(cert-err33-c): writes what the first pass measured
        std::vsnprintf(line.data(), line.size() + 1, format, again);
        if (lab::observing()) note(Call::logLine, 0, line);
        logs(line.c_str());
    }
    va_end(again);
}

} // extern "C"
