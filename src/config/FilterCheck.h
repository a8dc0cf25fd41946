#pragma once

// The check-in with the vendor's service and the daemon's rule for its own filter server. Static operations
// only.

class FilterCheck {
public:
    // Makes "localhost" the one filter server, saves, and has its address looked up. Takes the server lock.
    static void setServerToLocalhost();

    // Whether traffic to this IPv4 address passes as update traffic: false for every address.
    static bool isUpdateBypass(unsigned address);

    // One check-in. False if it could not be made.
    static bool runCheckin();
};
