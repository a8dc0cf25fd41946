#pragma once

// What Configuration's source files share and nobody else sees: the settings in memory. One record for the
// process; arrays, locks and the two texts are made before main and never torn down. The defaults below are
// those of every setting that the file lacks.

#include "gp/ThreadSafety.h"

#include <atomic>
#include <cstdint>

class FilterServer;
class GPMutex;
class GPString;
class GPSyncdArray;

struct ConfigurationState {
    // Read and written without a lock by any thread.
    std::atomic<bool> bBlockOnFailure{false};
    std::atomic<bool> bBalanceMode{false};
    std::atomic<bool> bVerboseMode{false};
    std::atomic<bool> bOEMmode{false};
    std::atomic<bool> bFilteringDisabled{false};
    std::atomic<bool> bInternalNetwork{false}; // carried from load to save, otherwise unused
    std::atomic<bool> bOstler{false};
    std::atomic<bool> bUpdateReady{false};
    std::atomic<std::int32_t> logLevel{0};
    std::atomic<std::int32_t> kernelLogLevel{0};
    std::atomic<GPString*> sCachedUserName{nullptr};
    std::atomic<GPString*> sLocalUserName{nullptr};
    std::atomic<FilterServer*> cachedServer{nullptr};
    std::atomic<bool> bConfigLoaded{false};
    std::atomic<bool> bIsDirty{false};
    std::atomic<bool> bServersDirty{false};

    // Written under `mutex`, but for a forced generation.
    std::atomic<GPString*> uuidString{nullptr};
    std::atomic<GPString*> uuidStringPrevious{nullptr};

    // Despite the name it is the next check-in time.
    GPString* sLastCheckinDate GUARDED_BY(valuesMutex) = nullptr;

    // Lock themselves.
    GPSyncdArray* usersArray = nullptr;
    GPSyncdArray* serversArray = nullptr;

    GPMutex* mutex = nullptr; // load, save, generation of the identifier, the step in nextServer
    GPMutex* valuesMutex = nullptr;

    GPString* stringTrue = nullptr;
    GPString* stringFalse = nullptr;
};

extern ConfigurationState configurationState;

// Notes that memory differs from the file, and writes the file.
void markDirtyAndSave();

// Whether there is a text of at least one byte.
bool hasText(GPString* text);
