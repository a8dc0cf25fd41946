#pragma once

// The last relay of one user, with the format of the name. Configuration's list of relays owns the records
// and keeps each alive for the rest of the run; any thread may use them.

#include "gp/GPObject.h"

#include <atomic>

class UserRelay : public GPObject {
public:
    // Copies the three texts; an empty text for null.
    UserRelay(const char* user, const char* relay, const char* format);
    ~UserRelay() override;

    // Each stores a copy, an empty text for null. The earlier text is not released, since a
    // reader may hold it.
    void setUserName(const char* user);
    void setLastRelay(const char* relay);
    void setUserFormat(const char* format);

    GPString* className() override;

    // Never null. Read and written without a lock by any thread.
    std::atomic<GPString*> userName;
    std::atomic<GPString*> lastRelay;
    std::atomic<GPString*> userFormat;
};
