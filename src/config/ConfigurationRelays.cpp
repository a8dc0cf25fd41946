#include "config/Configuration.h"
#include "config/ConfigurationState.h"
#include "config/UserRelay.h"
#include "gp/GPArray.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/GPSyncdArray.h"
#include "gp/Owned.h"

namespace {

// The name without a domain in front: what stands behind the first backslash, if that is not at the start.
Owned<GPString> withoutDomain(const char* user) {
    auto name = Owned<GPString>::adopt(new GPString(user));
    const int backslash = name->find("\\", 0, false);
    if (backslash > 0) name->subString(backslash + 1);
    return name;
}

// The record of exactly that user, borrowed, or null. Records stay alive for the rest of the run.
UserRelay* findRelay(const char* user) {
    auto relays = Owned<GPArray>::adopt(configurationState.usersArray->getArray());
    for (int i = 0; i < relays->count(); ++i) {
        auto* relay = static_cast<UserRelay*>(relays->objectAtIndex(i));
        if (relay && relay->userName.load()->isEqual(user)) return relay;
    }
    return nullptr;
}

// What the two text readers answer for an unknown user; shared, so it must not be changed.
GPString* emptyText() {
    static GPString* empty = GPString::staticstring("");
    return empty;
}

bool logsEverything() { return Configuration::isLogLevel(1); }

} // namespace

UserRelay* Configuration::getLastRelay(const char* user) {
    Owned<GPString> name = withoutDomain(user);
    if (logsEverything()) logf("Configuration::getLastRelay looking for %s", name->cstr());
    return findRelay(name->cstr());
}

GPString* Configuration::getLastRelayUser(const char* user) {
    Owned<GPString> name = withoutDomain(user);
    if (logsEverything()) logf("Configuration::getLastRelayUser looking for %s", name->cstr());
    UserRelay* relay = findRelay(name->cstr());
    return relay ? relay->lastRelay.load() : emptyText();
}

GPString* Configuration::getLastRelayUserFormat(const char* user) {
    Owned<GPString> name = withoutDomain(user);
    if (logsEverything()) logf("Configuration::getLastRelayUserFormat looking for %s", name->cstr());
    UserRelay* relay = findRelay(name->cstr());
    return relay ? relay->userFormat.load() : emptyText();
}

void Configuration::setLastRelay(const char* user, const char* relay, const char* format) {
    if (!user || !*user) return;
    logf("Configuration::setLastRelay looking for %s %s %s", user, relay ? relay : "(null)",
         format ? format : "(null)");
    // Unlike the readers this one takes the name with its domain: callers pass the bare name.
    if (UserRelay* known = findRelay(user)) {
        known->setLastRelay(relay);
        known->setUserFormat(format);
    } else {
        auto added = Owned<UserRelay>::adopt(new UserRelay(user, relay, format));
        configurationState.usersArray->addObject(added.get());
    }
    markDirtyAndSave();
}
