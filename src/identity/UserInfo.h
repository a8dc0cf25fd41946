#pragma once

// UserInfo: the process-wide copy of what the directory said last, with plain text accessors. Nothing locks it, and
// nothing in the daemon loads it.

class DSInfo;

// Made at program load, empty until a load, never released.
extern DSInfo* const usrInfo;

class UserInfo {
public:
    // Asks the directory and fills `usrInfo`. Blocks on the directory; one thread at a time. A failure leaves
    // what was known before, except for the format, which is "directory" then.
    static void loadUserInfo();

    // The texts of `usrInfo`: borrowed, valid until the next load, null for what is not known.
    static const char* getUserName();
    static const char* getUserDN();
    static const char* getUserOU();
    static const char* getComputerName();
    static const char* getComputerDN();
    static const char* getComputerOU();
    static const char* getUserFormatType();
    static const char* getComputerUUID();
};

// Logs what a record says of user and computer.
void logInfo(DSInfo* info);
