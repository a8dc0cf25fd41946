#pragma once

// What the vendor's service answers to a check-in, and what is done about it.

#include <optional>
#include <string>
#include <vector>

// A reply as it was read. Elements are found at any depth, whatever the root is called.
struct CheckinReply {
    // Whether filtering sleeps; nothing if the reply does not say. An element without text says no.
    std::optional<bool> dormant;

    // The next check-in time as it came; empty if there is none.
    std::string nextCheckIn;

    // The text of each server element, empty ones too.
    std::vector<std::string> serverNames;

    // What the update package is called; empty if there is none. Further packages are not looked at.
    std::string zip;
};

// Reads a reply's body; nothing if no document can be made out. Any text.
std::optional<CheckinReply> readCheckinReply(const char* body);

// Does what the reply says: stores the settings, replaces the server list, starts the update. Blocks while a
// package is fetched. Takes the server lock.
void applyCheckinReply(const CheckinReply& reply);
