#include "config/Configuration.h"
#include "config/FilterServer.h"
#include "dns/DNSPacket.h"
#include "dns/DNSPacketState.h"
#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPData.h"
#include "gp/GPHTTP.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPThread.h"
#include "gp/Owned.h"
#include "platform/Clock.h"

#include <ctime>

namespace {

constexpr const char* apiPath = "/api/mobile/v1/dns_remaps";
constexpr int statusOK = 200;

// Seconds.
constexpr unsigned firstPause = 60;
constexpr unsigned pause = 900;
constexpr std::time_t day = 86400;

GPString* apiURL(const FilterServer& server) {
    const char* name = server.getUrl();
    const char* machine = Configuration::machineGUID();
    if (server.isUseHttps()) return GPString::format("https://%s%s?host_id=%s", name, apiPath, machine);
    return GPString::format("http://%s%s?host_id=%s", name, apiPath, machine);
}

bool hasName(const FilterServer* server) { return server && server->getUrl() && server->getUrl()[0] != 0; }

// The text of the answer's body, owned; null without one. An answer that has headers alone gives them as its
// text, which is no body.
GPString* bodyOf(GPHTTP& request) {
    const auto data = Owned<GPData>::adopt(request.responseData());
    if (!data || data->length() == 0) return nullptr;
    auto text = Owned<GPString>::adopt(request.responseString());
    return text && text->length() > 0 ? text.handOver() : nullptr;
}

void takeTables(const char* document) {
    const auto dom = Owned<GPDOMElement>::adopt(GPDOMElement::parse(document));
    if (!dom || !dom->children) return;
    const auto hosts = Owned<GPArray>::adopt(dom->findElements("host"));
    replaceTables(hosts.get(), RemapSource::api);
}

void* dnsApiCheckinThread(void*) {
    platform::Clock& clock = platform::clock();
    clock.sleepSeconds(firstPause);
    bool worked = DNSPacket::runDnsApiCheckin();
    std::time_t due = clock.seconds() + day;
    if (Configuration::isVerbose()) logs("starting dns checkin thread");
    for (;;) {
        if (worked) {
            if (Configuration::isVerbose()) logs("dns checkin loop");
            clock.sleepSeconds(pause);
            if (clock.seconds() <= due) continue;
            worked = DNSPacket::runDnsApiCheckin();
            due += day;
        } else {
            clock.sleepSeconds(pause);
            worked = DNSPacket::runDnsApiCheckin();
        }
    }
    return nullptr;
}

} // namespace

void DNSPacket::startDnsApiCheckin() { GPThread::taskOnBackground(dnsApiCheckinThread, nullptr); }

bool DNSPacket::runDnsApiCheckin() {
    {
        GPMutexLock lock(dnsState.mutex);
        if (!dnsState.map) initMap();
    }
    const bool verbose = Configuration::isVerbose();
    if (verbose) logs("Started dns checkin processing.");
    FilterServer* server = Configuration::getCurrentServer();
    if (!hasName(server)) {
        logs("dns checkin server for api isnt initialized");
        return false;
    }
    const auto url = Owned<GPString>::adopt(apiURL(*server));
    if (verbose) logf("dns checkin using: %s", url->cstr());
    const auto request = Owned<GPHTTP>::adopt(GPHTTP::requestWithURL(url->cstr(), false));
    request->startSync();
    const auto body = Owned<GPString>::adopt(bodyOf(*request));
    if (verbose) logf("dns checkin response=%s", body ? body->cstr() : "(null)");

    const bool worked = body && request->responseCode() == statusOK;
    if (worked) {
        takeTables(body->cstr());
        Configuration::saveConfig(true);
    }
    if (verbose) logs("dns checkin complete.");
    return worked;
}
