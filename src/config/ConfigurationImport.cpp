// What the server list needs of the network and of the sibling product.

#include "config/Configuration.h"
#include "config/ConfigurationState.h"
#include "config/FilterServer.h"
#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPFilesystem.h"
#include "gp/GPHTTP.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/GPSyncdArray.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"

using platform::HostPaths;

namespace {

constexpr const char* pingPage = "fernhill_ping.html";

Owned<GPString> pingUrl(const char* server) {
    return Owned<GPString>::adopt(GPString::format("http://%s/%s", server, pingPage));
}

// Asks a server what it is: ServerTypeUnknown if its answer does not tell. The caller holds its lock.
ServerType probeServerType(const char* name) {
    Owned<GPString> url = pingUrl(name);
    auto request = Owned<GPHTTP>::adopt(GPHTTP::requestWithURL(url->cstr(), false));
    request->startSync();
    GPString* header = request->responseHeader("Server");
    if (!header) return ServerTypeUnknown;
    return header->startsWith("Microsoft-IIS") ? ServerTypeIIS : ServerTypeOrdinary;
}

void importServer(const char* name) {
    Owned<GPString> url = pingUrl(name);
    if (!GPHTTP::checkIfExist(url->cstr())) {
        logf("server: %s did not respond. Not adding server to the config.", name);
        return;
    }
    if (Configuration::isVerbose()) logf("adding server %s to the config.", name);
    auto server = Owned<FilterServer>::adopt(new FilterServer(name));
    configurationState.serversArray->addObject(server.get());
    configurationState.bIsDirty = true;
}

} // namespace

ServerType Configuration::findServerType(FilterServer* server) {
    if (!server) return ServerTypeUnknown;
    if (server->getServerType() != ServerTypeUnknown) return server->getServerType();

    server->lock();
    ServerType type = server->getServerType();
    if (type == ServerTypeUnknown && !hasText(server->getName()))
        logs("Warning: no server name found when getting the server type.");
    else if (type == ServerTypeUnknown)
        type = probeServerType(server->getUrl());
    const bool found = type != server->getServerType();
    if (found) {
        server->setServerType(type);
        configurationState.bIsDirty = true;
    }
    server->unlock();

    if (found) {
        if (isVerbose()) logs("ServerType changed; saving changes.");
        saveConfig(true);
    }
    return type;
}

void Configuration::loadRemoteServers() {
    const char* path = HostPaths::siblingPreferences();
    if (!ifExist(path)) return;
    auto content = Owned<GPString>::adopt(readText(path, 0, 0));
    if (!content) return;
    logf("processing config file: %s", path);
    auto document = Owned<GPDOMElement>::adopt(GPDOMElement::parse(content->cstr()));
    if (!document) {
        logf("[Error]: %s is not a valid plist format", path);
        return;
    }
    auto names = Owned<GPArray>::adopt(document->findElements("string"));
    if (names->count() == 0) {
        logf("[Error]: no servers found in: %s", path);
        return;
    }
    configurationState.serversArray->removeAll();
    for (int i = 0; i < names->count(); ++i) {
        auto* element = static_cast<GPDOMElement*>(names->objectAtIndex(i));
        if (hasText(element->value)) importServer(element->value->cstr());
    }
    saveConfig(true);
    if (isVerbose()) logf("servers added, deleting: %s", path);
    deleteFile(path);
}
