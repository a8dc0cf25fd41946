#include "config/CheckinReply.h"

#include "agent/Updater.h"
#include "config/Configuration.h"
#include "config/FilterIPAddresses.h"
#include "filter/FilterQuery.h"
#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

namespace {

// Empty for an element that is missing or has no text.
std::string textOf(GPDOMElement* element) { return element && element->value ? element->value->cstr() : ""; }

// Lists the names that have a text; how many were listed. The first one empties the old list, so names that
// are all empty leave it in place.
int addServers(const std::vector<std::string>& names) {
    int added = 0;
    for (const std::string& name : names)
        if (!name.empty() && Configuration::addServerName(name.c_str(), false, added == 0)) ++added;
    return added;
}

void replaceServers(const std::vector<std::string>& names) {
    const bool verbose = Configuration::isVerbose();
    FilterQuery::lockServers();
    if (verbose) logf("checkin setting %d servers", static_cast<int>(names.size()));
    const int added = addServers(names);
    if (added > 0) {
        Configuration::saveConfig(true);
        Configuration::resetCurrentServer();
    }
    if (verbose) logf("checkin added %d servers", added);
    FilterQuery::unlockServers();
    FilterIPAddresses::notifyIPchanges();
}

void setDormant(bool dormant) {
    if (Configuration::isVerbose()) logf("filtering mode from api server is: %s", dormant ? "true" : "false");
    Configuration::setFilteringDisabled(dormant);
}

void storeNextCheckIn(const std::string& time) {
    logf("next checkin time is: %s", time.c_str());
    Configuration::setCheckInTimeStamp(Owned<GPString>::adopt(new GPString(time.c_str())).get());
}

} // namespace

std::optional<CheckinReply> readCheckinReply(const char* body) {
    const auto document = Owned<GPDOMElement>::adopt(GPDOMElement::parse(body));
    if (!document || !document->children) return std::nullopt;
    CheckinReply reply;
    if (GPDOMElement* dormant = document->findElement("Dormant"))
        reply.dormant = dormant->value && dormant->value->boolValue();
    reply.nextCheckIn = textOf(document->findElement("NextCheckIn"));
    const auto servers = Owned<GPArray>::adopt(document->findElements("ServerName"));
    for (int i = 0; i < servers->count(); ++i)
        reply.serverNames.push_back(textOf(static_cast<GPDOMElement*>(servers->objectAtIndex(i))));
    reply.zip = textOf(document->findElement("Zip"));
    return reply;
}

void applyCheckinReply(const CheckinReply& reply) {
    if (reply.dormant) setDormant(*reply.dormant);
    if (!reply.nextCheckIn.empty()) storeNextCheckIn(reply.nextCheckIn);
    if (!reply.serverNames.empty()) replaceServers(reply.serverNames);
    if (reply.zip.empty()) return;
    const auto zip = Owned<GPString>::adopt(new GPString(reply.zip.c_str()));
    if (!Updater::processZip(zip.get())) logs("unable to complete the zip process, will try again later");
}
