#include "identity/UserAuth.h"

#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPFilesystem.h"
#include "gp/GPString.h"
#include "gp/GPTask.h"
#include "gp/GPThread.h"
#include "gp/Owned.h"
#include "identity/DirectoryOutput.h"
#include "platform/ConsoleUser.h"
#include "platform/HostPaths.h"

#include <cstdint>

using platform::HostPaths;

namespace {

// Which directory the machine has. Found at the first query and kept, unless there is none.
enum CacheType : std::int32_t {
    noDirectory = 0,
    activeDirectory = 1, // through the system's own plug-in
    likewise = 2,
    adinfoTool = 3,
    ldap = 4,
    ldapWithUser = 5, // the override file names a user
};

// The plain name last seen, and the qualified name and short domain that go with it; owned, null while not
// known. The configuration's name of the same sound is another one.
GPString* cachedUserName = nullptr;
GPString* fullUserName = nullptr;
GPString* adDomain = nullptr;

CacheType cacheType = noDirectory;
void (*callback)(const char*) = nullptr;
GPString* printedConfig = nullptr;

// Stores a copy of the text, or nothing for null.
void store(GPString*& slot, const char* text) {
    if (!text) {
        if (slot) slot->release();
        slot = nullptr;
    } else if (slot) {
        slot->reset(text);
    } else {
        slot = new GPString(text);
    }
}

// What a tool printed, or null. One that cannot be run gives a report of that, which passes for its output.
// Takes the command line over.
Owned<GPString> outputOf(GPString* commandLine) {
    const auto owned = Owned<GPString>::adopt(commandLine);
    return Owned<GPString>::adopt(GPTask::task(owned->cstr(), true, false));
}

// The root element of the LDAP override file; empty without a file that parses.
Owned<GPDOMElement> overrideFile() {
    if (!ifExist(HostPaths::ldapFile())) return {};
    const auto text = Owned<GPString>::adopt(readText(HostPaths::ldapFile(), 0, 0));
    return Owned<GPDOMElement>::adopt(text ? GPDOMElement::parse(text->cstr()) : nullptr);
}

// The text of the element; null if it is missing or empty. Borrowed from the document.
const char* textOf(const Owned<GPDOMElement>& document, const char* name) {
    GPDOMElement* element = document ? document->findElement(name) : nullptr;
    return element && element->value && element->value->length() > 0 ? element->value->cstr() : nullptr;
}

CacheType findCacheType() {
    if (textOf(overrideFile(), "User")) return ldapWithUser;
    if (outputOf(GPString::format("%s -show", HostPaths::dsconfigad()))) return activeDirectory;
    if (ifExist(HostPaths::ldapFile()) || isDirectory(HostPaths::ldapConfigurations())) return ldap;
    if (ifExist(HostPaths::likewiseStatus())) return likewise;
    return ifExist(HostPaths::adinfo()) ? adinfoTool : noDirectory;
}

// Makes the domain the known one and the user's name one of it. Takes `domain` over; null changes nothing.
void storeNameInDomain(GPString* domain, const char* user) {
    const auto owned = Owned<GPString>::adopt(domain);
    if (!owned) return;
    setCachedDomain(owned->cstr());
    const auto name = Owned<GPString>::adopt(GPString::format("%s\\%s", owned->cstr(), user));
    store(fullUserName, name->cstr());
}

void queryActiveDirectory(const char* user) {
    const auto output =
        outputOf(GPString::format("dscl /Search -read \"/Users/%s\" AuthenticationAuthority", user));
    storeNameInDomain(netLogonDomain(output.get()), user);
}

void queryLikewise(const char* user) {
    const auto output = outputOf(new GPString(HostPaths::likewiseStatus()));
    storeNameInDomain(likewiseDomain(output.get()), user);
}

void queryAdinfo(const char* user) {
    const auto output = outputOf(GPString::format("%s -y domain", HostPaths::adinfo()));
    storeNameInDomain(adinfoDomain(output.get()), user);
}

// True if the override file gives the user a name.
bool queryOverrideFile(const char* user) {
    GPString* name = configName(user);
    if (name) store(fullUserName, name->cstr());
    return name != nullptr;
}

void queryLdap(const char* user) {
    if (queryOverrideFile(user)) return;
    const auto output = outputOf(GPString::format("dscl /Search -read /Users/%s distinguishedName", user));
    const auto name = Owned<GPString>::adopt(distinguishedName(output.get()));
    if (name) store(fullUserName, name->cstr());
}

// Stores the qualified name of the user; where the directory gives none, the one there stays.
void queryFullName(const char* user) {
    switch (cacheType) {
        case activeDirectory:
            return queryActiveDirectory(user);
        case likewise:
            return queryLikewise(user);
        case adinfoTool:
            return queryAdinfo(user);
        case ldap:
            return queryLdap(user);
        case ldapWithUser:
            queryOverrideFile(user);
            return;
        case noDirectory:
            return;
    }
}

// Looks for the console user if no user has been seen yet. Whether there is a name.
bool findUser() {
    if (!cachedUserName) {
        const auto name = Owned<GPString>::adopt(UserAuth::consoleName());
        if (name) queryUserName(name->cstr());
    }
    return cachedUserName && cachedUserName->length() > 0;
}

// The frame of a group search over LDAP that is not carried out: what it reads has no effect, on purpose.
void prepareLdapSearch() {
    const auto document = overrideFile();
    textOf(document, "User");
    textOf(document, "Query");
    if (textOf(document, "Server")) return;
    if (!isDirectory(HostPaths::ldapConfigurations())) return;
    const auto files = Owned<GPArray>::adopt(new GPArray);
    getDirectoryFiles(HostPaths::ldapConfigurations(), files.get(), false, GPFileSearchFiles);
    if (files->count() == 0) return;
    auto* first = static_cast<GPFilesystem*>(files->objectAtIndex(0));
    const auto server = Owned<GPString>::adopt(new GPString(first->name()));
    server->subString(0, server->find(".", true));
}

} // namespace

GPString* UserAuth::consoleName() {
    char name[255];
    if (!platform::consoleUser().copyName(name, sizeof name)) return nullptr;
    // A domain in front stays: the agent is told the whole name.
    return new GPString(name);
}

const char* UserAuth::userName() {
    if (!findUser()) return nullptr;
    return (fullUserName ? fullUserName : cachedUserName)->cstr();
}

void UserAuth::setFullName(const char* name) { store(fullUserName, name); }

GPArray* UserAuth::userGroups() {
    if (!findUser()) return nullptr;
    if (cacheType == activeDirectory || cacheType == ldap) {
        const char* user = cachedUserName->cstr();
        const auto members = outputOf(GPString::format("dscl /Search -read /Users/%s memberOf", user));
        if (GPArray* groups = groupsBehind(members.get(), "memberOf:")) return groups;
        const auto memberships =
            outputOf(GPString::format("dscl /Search -read /Users/%s groupMembership", user));
        if (GPArray* groups = groupsBehind(memberships.get(), "groupMembership:")) return groups;
    }
    prepareLdapSearch();
    return nullptr;
}

GPArray* UserAuth::netbiosNames(GPArray* groups) {
    if (!adDomain) return nullptr;
    GPArray* names = GPArray::array();
    for (int i = 0; groups && i < groups->count(); ++i) {
        const auto group = Owned<GPString>::adopt(static_cast<GPString*>(groups->objectAtIndex(i))->copy());
        const int comma = group->find(",", false);
        if (comma <= 0) continue;
        group->subString(0, comma);
        const int equals = group->find("=", false);
        if (equals <= 0) continue;
        group->subString(equals + 1);
        names->addObject(
            Owned<GPString>::adopt(GPString::format("%s\\%s", adDomain->cstr(), group->cstr())).get());
    }
    return names;
}

bool UserAuth::registerLoginChanges(void (*handler)(const char*), bool background) {
    callback = handler;
    if (background)
        GPThread::taskOnBackground(loginChangeThread, nullptr);
    else
        loginChangeThread(nullptr);
    return true;
}

bool UserAuth::createLdapConfFile(const char* baseDN) {
    if (!ifExist(HostPaths::settingsDirectory())) createDir(HostPaths::settingsDirectory());
    const auto root = Owned<GPDOMElement>::adopt(GPDOMElement::createElement("Ldap"));
    const auto base = Owned<GPDOMElement>::adopt(GPDOMElement::createElement("Base", nullptr, baseDN));
    root->addElement(base.get());
    const auto text = Owned<GPString>::adopt(root->convertToString(false, nullptr, false));
    return writeText(HostPaths::ldapFile(), text.get(), true);
}

char* UserAuth::printLDAPConfig() {
    const auto text = Owned<GPString>::adopt(readText(HostPaths::ldapFile(), 0, 0));
    store(printedConfig, text ? text->cstr() : "");
    // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): a text was stored, so that it is there
    return printedConfig->charAtIndex(0);
}

void queryUserName(const char* user) {
    if (cacheType == noDirectory) cacheType = findCacheType();
    queryFullName(user);
    // With or without a directory's answer, and after it.
    store(cachedUserName, user);
}

GPString* configName(const char* user) {
    const auto document = overrideFile();
    const char* base = textOf(document, "Base");
    if (!base) return nullptr;
    GPString* name = GPString::format("uid=%s,%s", user, base);
    name->autorelease();
    return name;
}

void setCachedDomain(const char* domain) { store(adDomain, domain); }

void* loginChangeThread(void*) {
    platform::ConsoleUser& service = platform::consoleUser();
    const auto name =
        Owned<GPString>::adopt(GPString::format("com.tarnwicksystems.%s%d", getProcessName(), getPID()));
    platform::ConsoleUser::Watch* watch = service.create(name->cstr(), scNotificationCallback);
    // A user who is already there is picked up now.
    scNotificationCallback(watch, nullptr, nullptr);
    if (!watch) return nullptr;
    service.run(watch);
    service.release(watch);
    return nullptr;
}

void scNotificationCallback(const void*, const void*, void*) {
    const auto name = Owned<GPString>::adopt(UserAuth::consoleName());
    if (!name) return;
    if (cachedUserName && cachedUserName->isEqual(name.get())) return;
    store(fullUserName, nullptr);
    queryUserName(name->cstr());
    if (callback) callback(name->cstr());
}
