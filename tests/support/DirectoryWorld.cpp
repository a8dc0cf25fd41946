#include "support/DirectoryWorld.h"

#include "config/Configuration.h"
#include "identity/DSQuery.h"

namespace testsupport {

namespace {

template <class Service>
Service& forTheProcess() {
    static auto* const service = new Service;
    return *service;
}

} // namespace

DirectoryWorld::DirectoryWorld()
    : directory(forTheProcess<PlayedDirectory>()), host(forTheProcess<PlayedHostName>()) {
    directory.install();
    host.install();
    Configuration::setCachedUserName("alice");
}

void DirectoryWorld::logEverything() { Configuration::setLogLevel(1); }

void DirectoryWorld::givenUser(const std::string& node, platform::DirectoryDetails details) {
    details.insert({{"RecordName", {"alice"}}, {"AppleMetaNodeLocation", {node}}});
    directory.add(node, platform::kODRecordTypeUsers, details);
}

void DirectoryWorld::givenComputer(const std::string& node, platform::DirectoryDetails details) {
    details.insert({{"RecordName", {"mac01"}}, {"AppleMetaNodeLocation", {node}}});
    directory.add(node, platform::kODRecordTypeComputers, details);
}

std::vector<std::string> DirectoryWorld::search() {
    std::vector<std::string> ends;
    DSQuery::sharedDSQuery()->search(
        [&](DSInfo* info) {
            ends.emplace_back("success");
            copyInfo(*info, found);
        },
        [&](const platform::DirectoryError& error) { ends.push_back("failure: " + error.description); });
    return ends;
}

void copyInfo(const DSInfo& from, DSInfo& to) {
    to.username = from.username;
    to.userDN = from.userDN;
    to.userOU = from.userOU;
    to.groups = from.groups;
    to.computerName = from.computerName;
    to.computerDN = from.computerDN;
    to.computerOU = from.computerOU;
    to.computerUUID = from.computerUUID;
    to.userFormat = from.userFormat;
}

} // namespace testsupport
