#pragma once

// The daemon's side of the channel to the kernel extension: it loads the extension, connects one control
// socket for each direction, and answers every packet record with a result record.
//
//   packet record, kernel to daemon       result record, daemon to kernel: sysctl_result
//   offset 0   packet id, 8 bytes
//   offset 8   16 bytes, opaque
//   offset 24  the IP packet

#include "gp/GPObject.h"

// Carries the inbound socket to reportAppStatsThread, which releases it.
class CONTROLSOCKETTHREADPARAMETERS : public GPObject {
public:
    int socket = -1;
};

class PacketFilter {
public:
    // Loads the extension, watches for address changes and runs both listeners; the calling thread becomes
    // the inbound one. Without the extension it sleeps for ever; true when the inbound set-up failed.
    static bool start();

    // Loads the kernel extension. True when `kextload` printed nothing.
    static bool addRules();

    // Does nothing and answers true: the counterpart of addRules.
    static bool removeRules();
};

// What a listener calls for each packet: the address of the IP packet and of the zeroed result record, of
// which `packetId` alone is set. Answers with a verdict code.
using PacketCallback = int (*)(char* packet, void* result);

// The listener of one direction: connects its control socket, then receives, decides and answers for ever.
// Returns only when the set-up fails. The loop allocates nothing.
void osxKextInterface(bool inbound, PacketCallback callback);

// Hands the extension its log level and asks for its version. 0 when the version is the required one, -1
// when it is another, else the error number.
int osxSetKextOptions(int socket);

// The kernel result of a verdict code; a code outside 0 to 7 stays as it is.
int kernelResult(int verdict);

// Reaction to a change of this machine's addresses, on the thread of the watch.
void ipChangesCallback();

// Thread body: the outbound listener.
void* outboundListenThread(void* ignored);

// Thread body: polls the extension's statistics every 300 seconds. Takes over its argument, a
// CONTROLSOCKETTHREADPARAMETERS.
void* reportAppStatsThread(void* parameters);
