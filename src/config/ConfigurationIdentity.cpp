#include "config/Configuration.h"
#include "config/ConfigurationState.h"
#include "gp/GPAlgorithm.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"

#include <atomic>

namespace {

GPString* storedUUID() { return configurationState.uuidString.load(std::memory_order_acquire); }

} // namespace

GPString* Configuration::getUUID() {
    if (!hasText(storedUUID())) loadUUID();
    GPString* stored = storedUUID();
    return hasText(stored) ? stored : getDefaultUUID();
}

GPString* Configuration::getDefaultUUID() {
    return GPString::format("%08X-%04X-%04X-%04X-%012llX", 0u, 0u, 0u, 0u, 0ull);
}

const char* Configuration::machineGUID() { return getUUID()->cstr(); }

void Configuration::loadUUID() {
    if (hasText(storedUUID())) return;
    if (!configurationState.mutex) {
        logs("[Error]: no Configuration mutex.");
        return;
    }
    {
        GPMutexLock lock(configurationState.mutex);
        if (!hasText(storedUUID())) {
            generateUUID(false);
            if (hasText(storedUUID())) configurationState.bIsDirty = true;
        }
    }
    saveConfig(true);
}

void Configuration::generateUUID(bool force) {
    GPString* old = storedUUID();
    if (hasText(old) && !force) return;
    GPString* generated = GPAlgorithm::getUUID();
    if (!generated || (old && !hasText(generated))) {
        logs("[Warning]: failed to create UUID.");
        if (generated) generated->release();
        return;
    }
    generated->makestatic();
    GPString* previous = configurationState.uuidStringPrevious.exchange(old, std::memory_order_acq_rel);
    configurationState.uuidString.store(generated, std::memory_order_release);
    if (previous) previous->release();
    logf("Generated UUID '%s'", generated->cstr());
}

void Configuration::refreshUUID() { loadUUID(); }
