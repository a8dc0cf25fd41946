#pragma once

// What a check-in sends: the address of the vendor's service and what it is told of the machine. One check-in
// at a time.

class GPString;

// The host of the vendor's check-in service, which the build sets (OSTLER_CHECKIN_HOST).
const char* checkinHost();

// The version of the system that goes with a kernel's release, such as "14.7" for "18.7.0", owned by the
// caller; null for a release without a dot.
GPString* systemVersion(const char* kernelRelease);

// The whole URL of a check-in of the machine with this hardware address, which it escapes in place; owned by
// the caller. Makes and stores the machine's identifier if there is none.
GPString* checkinURL(GPString* macAddress);
