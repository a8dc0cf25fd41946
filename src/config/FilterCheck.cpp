#include "config/FilterCheck.h"

#include "config/Configuration.h"
#include "config/FilterIPAddresses.h"
#include "filter/FilterQuery.h"

void FilterCheck::setServerToLocalhost() {
    FilterQuery::lockServers();
    Configuration::addServerName("localhost", false, true);
    Configuration::saveConfig(true);
    Configuration::resetCurrentServer();
    FilterQuery::unlockServers();
    FilterIPAddresses::notifyIPchanges();
}

bool FilterCheck::isUpdateBypass(unsigned) { return false; }

bool FilterCheck::runCheckin() { return false; }
