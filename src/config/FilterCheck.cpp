#include "config/FilterCheck.h"

#include "config/CheckinReply.h"
#include "config/CheckinRequest.h"
#include "config/Configuration.h"
#include "config/FilterIPAddresses.h"
#include "filter/FilterQuery.h"
#include "gp/GPArray.h"
#include "gp/GPDate.h"
#include "gp/GPHTTP.h"
#include "gp/GPLog.h"
#include "gp/GPNetDevice.h"
#include "gp/GPString.h"
#include "gp/GPThread.h"
#include "gp/Owned.h"
#include "platform/Clock.h"

#include <cstdlib>
#include <set>

namespace {

constexpr unsigned pauseBeforeFirst = 30;          // seconds
constexpr unsigned pauseAfterFailure = 15;         // seconds
constexpr unsigned pauseAfterSuccess = 3600000000; // microseconds: an hour

void logVerbose(const char* text) {
    if (Configuration::isVerbose()) logs(text);
}

// The service's answer to the report of the machine with that hardware address; empty without one.
Owned<GPString> askService(GPString* macAddress) {
    const auto url = Owned<GPString>::adopt(checkinURL(macAddress));
    if (Configuration::isVerbose())
        logf("reporting to: %s", url->cstr());
    else
        logf("checking into %s", checkinHost());
    const auto request = Owned<GPHTTP>::adopt(GPHTTP::requestWithURL(url->cstr(), false));
    request->startSync();
    auto body = Owned<GPString>::adopt(request->responseString());
    if (Configuration::isVerbose()) logf("checkin response=%s", body ? body->cstr() : "(null)");
    return body;
}

enum class Outcome { noAddress, noReply, replied };

// Reports to the service and applies its reply.
Outcome reportAndApply() {
    logVerbose("Getting mac addresses");
    const auto addresses = Owned<GPArray>::adopt(GPNetDevice::macAddresses(GPIPTypeAny));
    if (!addresses || addresses->count() == 0) {
        logs("no mac address found on the device, check-in is not possible at this time.");
        return Outcome::noAddress;
    }
    logVerbose("found macaddresses building query");
    const Owned<GPString> body = askService(static_cast<GPString*>(addresses->objectAtIndex(0)));
    if (!body) return Outcome::noReply;
    // The status is not looked at: an error page is a reply that says nothing.
    if (const auto reply = readCheckinReply(body->cstr())) applyCheckinReply(*reply);
    return Outcome::replied;
}

// Whether the service wants to hear from the machine: its stored time is past, or there is none.
bool isCheckinDue() {
    const auto stored = Owned<GPDate>::adopt(Configuration::checkInTimeStamp());
    const auto now = Owned<GPDate>::adopt(GPDate::now());
    return !stored || stored->compareDate(now.get()) < 0;
}

void probe(FilterServer* server) {
    const char* name = server->getUrl();
    if (Configuration::isVerbose()) logf("serversHttpsCheckThread checking %s", name);
    const auto url = Owned<GPString>::adopt(GPString::format("https://%s/fernhill_ping/", name));
    const auto request = Owned<GPHTTP>::adopt(GPHTTP::requestWithURL(url->cstr(), false));
    request->startSync();
    server->setUseHttps(false);
    if (request->responseCode() == 200) server->setUseHttps(true);
    logVerbose(server->isUseHttps() ? "serversHttpsCheckThread server set to https"
                                    : "serversHttpsCheckThread server set to http");
}

// Whether the rotation can come to a server of that name.
bool isInRotation(const char* name) {
    const auto servers = Owned<GPArray>::adopt(Configuration::serverNames());
    for (int i = 0; i < servers->count(); ++i) {
        auto* server = static_cast<FilterServer*>(servers->objectAtIndex(i));
        if (server->isActive() && server->nameEquals(name)) return true;
    }
    return false;
}

// Goes by the real rotation, so the current server moves meanwhile and comes back when the ring closes. A ring
// that has lost its first server, to a new list for one, would never close: it ends at the first one seen twice.
void probeRing(FilterServer* first) {
    probe(first);
    std::set<FilterServer*> probed;
    FilterServer* server = Configuration::nextServer();
    while (server && !server->nameEquals(first->getUrl())) {
        if (!probed.insert(server).second && !isInRotation(first->getUrl())) return;
        probe(server);
        server = Configuration::nextServer();
    }
}

} // namespace

void FilterCheck::setServerToLocalhost() {
    FilterQuery::lockServers();
    Configuration::addServerName("localhost", false, true);
    Configuration::saveConfig(true);
    Configuration::resetCurrentServer();
    FilterQuery::unlockServers();
    FilterIPAddresses::notifyIPchanges();
}

bool FilterCheck::isUpdateBypass(unsigned) { return false; }

bool FilterCheck::runCheckin() {
    logVerbose("Started checkin processing.");
    const Outcome outcome = reportAndApply();
    GPThread::taskOnBackground(serversHttpsCheckThread, nullptr);
    // A service that does not answer leaves this line out, alone of all outcomes: the check-in is not complete.
    if (outcome != Outcome::noReply) logVerbose("checkin complete.");
    return outcome == Outcome::replied;
}

void FilterCheck::startCheckin() { GPThread::taskOnBackground(checkinThread, nullptr); }

bool FilterCheck::filteringDisabled() { return Configuration::filteringDisabled(); }

void* checkinThread(void*) {
    platform::clock().sleepSeconds(pauseBeforeFirst);
    bool ok = FilterCheck::runCheckin();
    // Nothing here draws from it.
    std::srand(static_cast<unsigned>(platform::clock().seconds()));
    for (;;) {
        if (ok) {
            platform::clock().sleepMicroseconds(pauseAfterSuccess);
            if (isCheckinDue()) ok = FilterCheck::runCheckin();
        } else {
            platform::clock().sleepSeconds(pauseAfterFailure);
            ok = FilterCheck::runCheckin();
        }
    }
    return nullptr;
}

void* serversHttpsCheckThread(void*) {
    logVerbose("serversHttpsCheckThread started");
    if (FilterServer* first = Configuration::getCurrentServer()) probeRing(first);
    logVerbose("serversHttpsCheckThread finished");
    return nullptr;
}
