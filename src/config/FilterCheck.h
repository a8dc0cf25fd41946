#pragma once

// The check-in with the vendor's service, the probe for servers that speak HTTPS, and the daemon's rule for
// its own filter server. Static operations only; any thread may call them. A check-in and a probe wait on the
// network, so in the daemon they belong on background threads.

class FilterCheck {
public:
    // Makes "localhost" the one filter server, saves, and has its address looked up. Takes the server lock.
    static void setServerToLocalhost();

    // Whether traffic to this IPv4 address passes as update traffic: false for every address.
    static bool isUpdateBypass(unsigned address);

    // One check-in: reports the machine, does what the reply says and starts the HTTPS probe in the
    // background. Blocks for as long as the service takes. False without a hardware address or a reply; a
    // reply that cannot be read counts as one. Takes the server lock. One check-in at a time.
    static bool runCheckin();

    // Starts the thread of periodic check-ins, which never ends. Nothing in the system calls it.
    static void startCheckin();

    // Whether the service has put filtering to sleep, as the settings say.
    static bool filteringDisabled();
};

// Background tasks; the argument is ignored. The first checks in for ever, the second asks each server in turn
// whether it answers over HTTPS and moves the current server once around.
void* checkinThread(void* ignored);
void* serversHttpsCheckThread(void* ignored);
