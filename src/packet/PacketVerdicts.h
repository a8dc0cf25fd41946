#pragma once

// The verdict on each packet. The two callbacks are called by the listeners, one call for each packet, and
// answer at once: a URL that is under query shows as a held packet, never as a waiting thread. What cannot
// be decided passes.

class GPString;
struct sysctl_result;

// What the callbacks answer. The listener maps these to kernel results.
enum Verdict : int {
    verdictUndecided = -1, // between the evaluators only; never leaves a callback
    verdictDrop = 0,
    verdictPass = 1,
    verdictRedirect = 6, // the result record holds the redirect
    verdictHold = 7,     // a query for the connection is running
};

// Which way a packet goes.
enum Direction : int {
    directionInbound = 1,
    directionOutbound = 2,
};

// Judges an inbound packet. `packet` has TCPPacket::packetRoom; `result` is a zeroed sysctl_result with its
// packet id, or null. Inbound listener thread.
int tcpInBoundCallback(char* packet, void* result);

// Judges an outbound packet. `result` is not null. Outbound listener thread.
int tcpOutBoundCallback(char* packet, void* result);

// The cheap tests: loopback, filter servers, suspended filtering, blocked addresses. `packetId` is the id
// itself, for log lines; `reserved` is not read. verdictUndecided when none applies.
int quickEvaluate(char* packet, void* reserved, void* packetId, int direction);

// The policy logic: consults the connection's pending record, or recognises a URL and starts its query.
int policyEvaluate(char* packet, void* result, void* packetId, int direction);

// Whether the URL's host is one of the captive-portal and connectivity-probe hosts, or below one of them.
bool inBypassedHostNames(GPString* url);

// Fills the redirect URL and the address of its host, which it looks up and so may block. Does nothing when
// either is null.
void setRedirectData(sysctl_result* result, const char* url, bool ipv6);
