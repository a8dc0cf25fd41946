#include "config/Configuration.h"

#include "config/ConfigurationState.h"
#include "gp/GPDOMElement.h"
#include "gp/GPDate.h"
#include "gp/GPFilesystem.h"
#include "gp/GPLog.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GuardedAppend.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"

#include <atomic>
#include <cstddef>

using platform::HostPaths;

namespace {

ConfigurationState& state = configurationState;

constexpr int logEverythingVerbose = 1;

bool isSet(const std::atomic<bool>& flag) { return flag.load(std::memory_order_relaxed); }

// Stores a value that differs from the one before; true if it does.
template <class Value>
bool storeIfNew(std::atomic<Value>& stored, Value value) {
    if (stored.load(std::memory_order_relaxed) == value) return false;
    stored.store(value, std::memory_order_relaxed);
    return true;
}

const char* text(bool value) { return value ? "true" : "false"; }

// The text of the first element of that name in a document's text, which may be empty; an empty handle if
// there is no such element or it has no text.
Owned<GPString> elementText(GPString* content, const char* name) {
    auto document = Owned<GPDOMElement>::adopt(GPDOMElement::parse(content->cstr()));
    if (!document) return {};
    GPDOMElement* element = document->findElement(name);
    return Owned<GPString>::retain(element ? element->value : nullptr);
}

// Stores a copy of the name even if it is the one before: every login change writes the file.
void storeUserName(std::atomic<GPString*>& stored, const char* name) {
    // The earlier text is not released: a reader may hold it.
    stored.store(name ? GPString::staticstring(name) : nullptr, std::memory_order_release);
}

} // namespace

bool Configuration::isBOFEnabled() { return isSet(state.bBlockOnFailure); }

void Configuration::setBOF(bool enabled) {
    if (!storeIfNew(state.bBlockOnFailure, enabled)) return;
    if (isVerbose()) logf("Block on Failure set to: %s", text(enabled));
    markDirtyAndSave();
}

bool Configuration::isBalanced() { return isSet(state.bBalanceMode); }

void Configuration::setBalancedMode(bool balanced) {
    if (!storeIfNew(state.bBalanceMode, balanced)) return;
    if (isVerbose()) logf("Balanced Mode set to: %s", text(balanced));
    markDirtyAndSave();
}

bool Configuration::isVerbose() { return isLogLevel(logEverythingVerbose) || isSet(state.bVerboseMode); }

void Configuration::setVerboseMode(bool verbose) {
    if (!storeIfNew(state.bVerboseMode, verbose)) return;
    logf("Verbose set to: %s", text(verbose));
    markDirtyAndSave();
}

bool Configuration::filteringDisabled() { return isSet(state.bFilteringDisabled); }

void Configuration::setFilteringDisabled(bool disabled) {
    logf("Disable-Filter set to: %s", text(disabled));
    if (storeIfNew(state.bFilteringDisabled, disabled)) markDirtyAndSave();
}

bool Configuration::isOstlerEnabled() { return isSet(state.bOstler); }

void Configuration::setOstlerEnabled(bool enabled) {
    logf("Enable Ostler set to: %s", text(enabled));
    if (storeIfNew(state.bOstler, enabled)) markDirtyAndSave();
}

bool Configuration::isUpdateReady() { return isSet(state.bUpdateReady); }

void Configuration::setUpdateReady(bool ready) {
    logf("UpdateReady set to: %s", text(ready));
    if (storeIfNew(state.bUpdateReady, ready)) markDirtyAndSave();
}

bool Configuration::oemMode() { return isSet(state.bOEMmode); }

bool Configuration::isOEM() { return isSet(state.bOEMmode); }

void Configuration::setOEMMode(bool oem) {
    logf("OEM-Mode set to: %s", text(oem));
    if (storeIfNew(state.bOEMmode, oem)) markDirtyAndSave();
}

int Configuration::getLogLevel() { return state.logLevel.load(std::memory_order_relaxed); }

void Configuration::setLogLevel(int level) {
    if (storeIfNew(state.logLevel, level)) markDirtyAndSave();
}

bool Configuration::isLogLevel(int mask) { return (getLogLevel() & mask) != 0; }

int Configuration::getKernelLogLevel() { return state.kernelLogLevel.load(std::memory_order_relaxed); }

void Configuration::setKernelLogLevel(int level) {
    if (storeIfNew(state.kernelLogLevel, level)) markDirtyAndSave();
}

const char* Configuration::cachedUserName() {
    GPString* name = state.sCachedUserName.load(std::memory_order_acquire);
    return name ? name->cstr() : nullptr;
}

void Configuration::setCachedUserName(const char* name) {
    if (!name && !cachedUserName()) return;
    if (isVerbose()) logf("setting cacheduser: %s", name ? name : "null");
    storeUserName(state.sCachedUserName, name);
    markDirtyAndSave();
}

const char* Configuration::localUserName() {
    GPString* name = state.sLocalUserName.load(std::memory_order_acquire);
    return name ? name->cstr() : nullptr;
}

void Configuration::setLocalUserName(const char* name) {
    if (!name && !localUserName()) return;
    if (isVerbose()) logf("setting localuser: %s", name ? name : "null");
    storeUserName(state.sLocalUserName, name);
    markDirtyAndSave();
}

GPDate* Configuration::checkInTimeStamp() {
    GPMutexLock lock(state.valuesMutex);
    return state.sLastCheckinDate ? GPDate::dateFromString(state.sLastCheckinDate->cstr()) : nullptr;
}

void Configuration::setCheckInTimeStamp(GPString* timeStamp) {
    {
        GPMutexLock lock(state.valuesMutex);
        if (!timeStamp && !state.sLastCheckinDate) return;
        if (state.sLastCheckinDate) state.sLastCheckinDate->release();
        state.sLastCheckinDate = GPString::staticstring(timeStamp ? timeStamp->cstr() : nullptr);
    }
    markDirtyAndSave();
}

void Configuration::checkDebugConfig() {
    if (!ifExist(HostPaths::debugFile())) return;
    auto content = Owned<GPString>::adopt(readText(HostPaths::debugFile(), 0, 0));
    if (!content) return;
    logs("Debug file detected.");
    Owned<GPString> wanted = elementText(content.get(), "VerboseLogging");
    if (!wanted) return;
    const bool verbose = wanted->boolValue();
    setVerboseMode(verbose);
    logf("verbose mode is updated to: %s", text(verbose));
}

void Configuration::checkOEMConfig() {
    if (!ifExist(HostPaths::oemMarkerFile())) return;
    logs("OEM config file detected.");
    setOEMMode(true);
    auto content = Owned<GPString>::adopt(readText(HostPaths::oemMarkerFile(), 0, 0));
    if (!content) return;
    Owned<GPString> vendor = elementText(content.get(), "Vendor");
    if (vendor) logf("oem vendor is: %s", vendor->cstr());
}

void Configuration::createOEMConfig(GPString* vendor) {
    auto document = Owned<GPDOMElement>::adopt(GPDOMElement::createElement("Fernhill"));
    if (vendor) {
        auto child =
            Owned<GPDOMElement>::adopt(GPDOMElement::createElement("Vendor", nullptr, vendor->cstr()));
        document->addElement(child.get());
    }
    auto content = Owned<GPString>::adopt(document->convertToString(false, nullptr, false));
    // The name is relative, by rule, and the working directory may be open to others.
    appendGuarded("fernhill_oem.xml", content->cstr(), static_cast<std::size_t>(content->length()));
}
