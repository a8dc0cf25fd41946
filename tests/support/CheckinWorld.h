#pragma once

// Base of the tests around check-ins: the settings, the vendor's service, and a machine with one network
// interface.

#include "config/FilterCheck.h"
#include "support/CheckinService.h"
#include "support/ManualClock.h"
#include "support/Patience.h"
#include "support/PlayedInterfaces.h"
#include "support/PlayedNames.h"
#include "support/SettingsWorld.h"

#include <csignal>
#include <string>

namespace testsupport {

class CheckinWorld : public SettingsWorld {
protected:
    CheckinWorld() {
        signal(SIGPIPE, SIG_IGN);
        ManualClock::installed().setEventWait(patienceMicroseconds, false);
        names.install();
        interfaces.install();
        interfaces.show(EntryBuilder().link("en0", hardwareAddress).ipv4("en0", "10.0.0.2"));
    }

    // The machine loses its interfaces.
    void loseInterfaces() { interfaces.show(EntryBuilder()); }

    // One check-in that gets this reply; whether it was made.
    bool checkInWith(const std::string& body) {
        service.reply(body);
        return FilterCheck::runCheckin();
    }

    static constexpr const char* hardwareAddress = "\x02\x1b\x0a\x4d\x5e\xff";
    static constexpr const char* escapedAddress = "02%3A1b%3A0a%3A4d%3A5e%3Aff";

    // These outlive the test: a background thread may still use them.
    PlayedNames& names = *new PlayedNames;
    PlayedInterfaces& interfaces = *new PlayedInterfaces;
    CheckinService service{names};
};

} // namespace testsupport
