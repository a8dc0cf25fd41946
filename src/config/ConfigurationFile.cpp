// Load and save: the reader and the writer of the configuration file.

#include "config/Configuration.h"
#include "config/ConfigurationState.h"
#include "config/FilterServer.h"
#include "config/UserRelay.h"
#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPFilesystem.h"
#include "gp/GPLog.h"
#include "gp/GPMap.h"
#include "gp/GPMutex.h"
#include "gp/GPString.h"
#include "gp/GPSyncdArray.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"

#include <atomic>
#include <cstdint>
#include <string>

using platform::HostPaths;

namespace {

ConfigurationState& state = configurationState;

constexpr const char* rootName = "Fernhill";

// ---- writing

void addStringValueToConfig(GPDOMElement* parent, const char* name, const char* value, bool replace) {
    if (replace) parent->removeElement(name);
    if (!value || !*value) return;
    auto element = Owned<GPDOMElement>::adopt(GPDOMElement::createElement(name, nullptr, value));
    parent->addElement(element.get());
}

void addBoolValueToConfig(GPDOMElement* parent, const char* name, bool value, bool replace) {
    addStringValueToConfig(parent, name, (value ? state.stringTrue : state.stringFalse)->cstr(), replace);
}

void addIntValueToConfig(GPDOMElement* parent, const char* name, int value, bool replace) {
    auto number = Owned<GPString>::adopt(GPString::format("%d", value));
    addStringValueToConfig(parent, name, number->cstr(), replace);
}

// Adds a child with one attribute and a text to a list element.
void addRow(GPDOMElement* list, const char* name, const char* attribute, Owned<GPString> attributeValue,
            const char* value) {
    auto attributes = Owned<GPMap>::adopt(new GPMap(1));
    attributes->setObject(attributeValue.handOver(), attribute);
    auto row = Owned<GPDOMElement>::adopt(GPDOMElement::createElement(name, attributes.get(), value));
    list->addElement(row.get());
}

void addUsers(GPDOMElement* root) {
    auto list = Owned<GPDOMElement>::adopt(GPDOMElement::createElement("Users"));
    auto relays = Owned<GPArray>::adopt(state.usersArray->getArray());
    for (int i = 0; i < relays->count(); ++i) {
        auto* relay = static_cast<UserRelay*>(relays->objectAtIndex(i));
        // Not the attribute that the reader looks for: relays live for one run of the process.
        if (relay)
            addRow(list.get(), relay->userName.load()->cstr(), "UserFormatType",
                   Owned<GPString>::adopt(relay->userFormat.load()->copy()), relay->lastRelay.load()->cstr());
    }
    root->addElement(list.get());
}

void addServers(GPDOMElement* root) {
    auto list = Owned<GPDOMElement>::adopt(GPDOMElement::createElement("Servers"));
    auto servers = Owned<GPArray>::adopt(state.serversArray->getArray());
    for (int i = 0; i < servers->count(); ++i) {
        auto* server = static_cast<FilterServer*>(servers->objectAtIndex(i));
        if (server)
            addRow(list.get(), "ServerName", "ServerType",
                   Owned<GPString>::adopt(
                       GPString::of(std::to_string(static_cast<int>(server->getServerType())))),
                   server->getUrl());
    }
    root->addElement(list.get());
}

const char* textOf(const std::atomic<GPString*>& stored) {
    GPString* text = stored.load(std::memory_order_acquire);
    return text ? text->cstr() : nullptr;
}

void addCheckInTime(GPDOMElement* root) {
    GPMutexLock lock(state.valuesMutex);
    const char* time = state.sLastCheckinDate ? state.sLastCheckinDate->cstr() : nullptr;
    addStringValueToConfig(root, "CheckInTimeStamp", time, false);
}

// The whole document, owned by the caller. May choose a current server.
GPDOMElement* createConfigDOM() {
    GPDOMElement* root = GPDOMElement::createElement(rootName);
    addStringValueToConfig(root, "MachineUUID", textOf(state.uuidString), false);
    addStringValueToConfig(root, "ServerName", Configuration::serverName(), false);
    addBoolValueToConfig(root, "BlockOnFailure", state.bBlockOnFailure, false);
    addBoolValueToConfig(root, "BalancedMode", state.bBalanceMode, false);
    addBoolValueToConfig(root, "VerboseLogging", state.bVerboseMode, false);
    addBoolValueToConfig(root, "OEMMode", state.bOEMmode, false);
    addBoolValueToConfig(root, "FilteringDisabled", state.bFilteringDisabled, false);
    addBoolValueToConfig(root, "InternalNetwork", state.bInternalNetwork, false);
    addBoolValueToConfig(root, "Ostler", state.bOstler, false);
    addBoolValueToConfig(root, "UpdateReady", state.bUpdateReady, false);
    addStringValueToConfig(root, "CachedUserName", textOf(state.sCachedUserName), false);
    addStringValueToConfig(root, "LocalUserName", textOf(state.sLocalUserName), false);
    addCheckInTime(root);
    addIntValueToConfig(root, "LogLevel", state.logLevel, false);
    addIntValueToConfig(root, "kll", state.kernelLogLevel, false);
    addUsers(root);
    addServers(root);
    return root;
}

// ---- reading

// The text of the first element of that name, which may be empty; null if there is no element or no text.
GPString* textIn(GPDOMElement* root, const char* name) {
    GPDOMElement* element = root->findElement(name);
    return element ? element->value : nullptr;
}

// The same, and null for an empty text too.
GPString* nonEmptyTextIn(GPDOMElement* root, const char* name) {
    GPString* text = textIn(root, name);
    return hasText(text) ? text : nullptr;
}

void readString(GPDOMElement* root, const char* name, std::atomic<GPString*>& stored) {
    if (GPString* text = nonEmptyTextIn(root, name))
        stored.store(GPString::staticstring(text->cstr()), std::memory_order_release);
}

// An empty text counts too: as no true word it turns the flag off.
void readBoolIfText(GPDOMElement* root, const char* name, std::atomic<bool>& flag) {
    if (GPString* text = textIn(root, name)) flag = text->boolValue();
}

// An element without any text counts as false.
void readBool(GPDOMElement* root, const char* name, std::atomic<bool>& flag) {
    if (GPDOMElement* element = root->findElement(name)) flag = element->value && element->value->boolValue();
}

// An empty text counts too: like any text that is no number it gives -1.
void readInt(GPDOMElement* root, const char* name, std::atomic<std::int32_t>& number) {
    if (GPString* text = textIn(root, name)) number = text->intValue();
}

void readCheckInTime(GPDOMElement* root) {
    GPString* text = nonEmptyTextIn(root, "CheckInTimeStamp");
    if (!text) return;
    GPMutexLock lock(state.valuesMutex);
    if (state.sLastCheckinDate) state.sLastCheckinDate->release();
    state.sLastCheckinDate = GPString::staticstring(text->cstr());
}

// The attribute "ServerType" of a row, or null.
GPString* serverTypeAttribute(GPDOMElement* row) {
    GPObject* value = row->attributes ? row->attributes->objectForKey("ServerType") : nullptr;
    return value && value->isInstanceOf("GPString") ? static_cast<GPString*>(value) : nullptr;
}

// Wants an attribute that the writer does not write, so that relays live for one run of the process.
void readUser(GPDOMElement* row) {
    GPString* format = serverTypeAttribute(row);
    if (!hasText(row->name) || !hasText(row->value) || !format) return;
    auto relay =
        Owned<UserRelay>::adopt(new UserRelay(row->name->cstr(), row->value->cstr(), format->cstr()));
    state.usersArray->addObject(relay.get());
}

void readServer(GPDOMElement* row) {
    if (!row->name->isEqual("ServerName") || !hasText(row->value)) return;
    auto server = Owned<FilterServer>::adopt(new FilterServer(row->value));
    if (GPString* type = serverTypeAttribute(row))
        server->setServerType(static_cast<ServerType>(type->intValue()));
    state.serversArray->addObject(server.get());
}

void readRows(GPDOMElement* root, const char* name, GPSyncdArray* array, void (*readRow)(GPDOMElement*)) {
    GPDOMElement* list = root->findElement(name);
    if (!list) return;
    array->removeAll();
    for (int i = 0; list->children && i < list->children->count(); ++i) {
        auto* row = static_cast<GPDOMElement*>(list->children->objectAtIndex(i));
        if (row) readRow(row);
    }
}

// Makes the server that the file names the current one. The search meets the top-level name first and,
// without it, the first one of the list.
void readCurrentServer(GPDOMElement* root) {
    GPString* name = nonEmptyTextIn(root, "ServerName");
    if (!name) return;
    if (FilterServer* listed = Configuration::getFilterServer(name->cstr())) {
        setCurrentServer(listed);
        if (Configuration::isVerbose()) logf("set current server to %s", listed->getUrl());
        return;
    }
    clearCurrentServer();
    Configuration::getCurrentServer();
    if (Configuration::getCurrentServer()) return;
    logf("Warning: no servers defined. Default server is currently: %s", name->cstr());
    setCurrentServer(new FilterServer(name));
}

void parseConfig(GPDOMElement* document) REQUIRES(state.mutex) {
    GPDOMElement* root = document->findElement(rootName);
    if (!root) return;
    readString(root, "MachineUUID", state.uuidString);
    readBoolIfText(root, "BlockOnFailure", state.bBlockOnFailure);
    readBoolIfText(root, "BalancedMode", state.bBalanceMode);
    readBool(root, "VerboseLogging", state.bVerboseMode);
    readBool(root, "OEMMode", state.bOEMmode);
    readBool(root, "FilteringDisabled", state.bFilteringDisabled);
    readBool(root, "InternalNetwork", state.bInternalNetwork);
    readBool(root, "Ostler", state.bOstler);
    readBool(root, "UpdateReady", state.bUpdateReady);
    readString(root, "CachedUserName", state.sCachedUserName);
    readString(root, "LocalUserName", state.sLocalUserName);
    readCheckInTime(root);
    readInt(root, "LogLevel", state.logLevel);
    readInt(root, "kll", state.kernelLogLevel);
    readRows(root, "Users", state.usersArray, readUser);
    readRows(root, "Servers", state.serversArray, readServer);
    readCurrentServer(root);
}

// The file's document, or an empty one for a file that is missing, unreadable or without an element.
GPDOMElement* readDocument() {
    GPDOMElement* document = nullptr;
    if (ifExist(HostPaths::configurationFile())) {
        auto content = Owned<GPString>::adopt(readText(HostPaths::configurationFile(), 0, 0));
        if (content) document = GPDOMElement::parse(content->cstr());
    }
    if (!document) document = GPDOMElement::createElement(rootName);
    if (!document->children) document->children = new GPArray;
    return document;
}

} // namespace

bool Configuration::loadConfig() {
    if (state.bConfigLoaded) return false;
    GPMutexLock lock(state.mutex);
    // cppcheck-suppress identicalConditionAfterEarlyExit // another thread may have loaded it meanwhile
    if (state.bConfigLoaded) return false;
    if (!ifExist(HostPaths::settingsDirectory())) createDir(HostPaths::settingsDirectory());
    auto document = Owned<GPDOMElement>::adopt(readDocument());
    parseConfig(document.get());
    state.bConfigLoaded = true;
    return true;
}

bool Configuration::saveConfig(bool force) {
    if (!state.bIsDirty && !force) return true;
    bool written = false;
    {
        GPMutexLock lock(state.mutex);
        if (!state.bIsDirty && !force) return true;
        state.bIsDirty = false;
        if (state.bServersDirty.exchange(false)) checkCurrentServer();
        auto document = Owned<GPDOMElement>::adopt(createConfigDOM());
        auto content = Owned<GPString>::adopt(document->convertToString(false, nullptr, false));
        written = writeText(HostPaths::configurationFile(), content.get(), true);
        if (!written) state.bIsDirty = true;
    }
    if (!written) logf("[ERROR]: unable to write to configuration file %s.", HostPaths::configurationFile());
    return written;
}

const char* Configuration::configString() {
    loadConfig();
    thread_local Owned<GPString> shown;
    auto document = Owned<GPDOMElement>::adopt(createConfigDOM());
    shown = Owned<GPString>::adopt(document->convertToString(false, nullptr, false));
    return shown->cstr();
}
