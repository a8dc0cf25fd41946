#include "identity/UserInfo.h"

#include "identity/DSInfo.h"
#include "identity/DSQuery.h"
#include "platform/HardwareRegistry.h"

#include <optional>
#include <string>

DSInfo* const usrInfo = new DSInfo;

namespace {

const char* textOf(const DirectoryText& text) { return text ? text->c_str() : nullptr; }

void searchSucceeded(DSInfo* info) {
    logTextVerbosely("Finished DSQuery.");
    usrInfo->username = info->username;
    usrInfo->userDN = info->userDN;
    usrInfo->userOU = info->userOU;
    usrInfo->groups = info->groups;
    usrInfo->computerName = info->computerName;
    usrInfo->computerDN = info->computerDN;
    usrInfo->computerOU = info->computerOU;
    usrInfo->userFormat = info->userFormat;
    if (logsDirectory()) logInfo(usrInfo);
}

void searchFailed(const platform::DirectoryError& error) {
    logTextVerbosely("UserInfo: %@", {error.description});
    logTextVerbosely("UserInfo lookup failed.");
}

} // namespace

void UserInfo::loadUserInfo() {
    usrInfo->userFormat = "directory";
    DSQuery::sharedDSQuery()->search(searchSucceeded, searchFailed);
    const std::string uuid = platform::hardwareRegistry().platformUUID();
    usrInfo->computerUUID = uuid.empty() ? std::nullopt : DirectoryText(uuid);
}

const char* UserInfo::getUserName() { return textOf(usrInfo->username); }
const char* UserInfo::getUserDN() { return textOf(usrInfo->userDN); }
const char* UserInfo::getUserOU() { return textOf(usrInfo->userOU); }
const char* UserInfo::getComputerName() { return textOf(usrInfo->computerName); }
const char* UserInfo::getComputerDN() { return textOf(usrInfo->computerDN); }
const char* UserInfo::getComputerOU() { return textOf(usrInfo->computerOU); }
const char* UserInfo::getUserFormatType() { return textOf(usrInfo->userFormat); }
const char* UserInfo::getComputerUUID() { return textOf(usrInfo->computerUUID); }

void logInfo(DSInfo* info) {
    logText("UserInfo AD/OD Information:");
    logText("Username: %@", {info->username});
    logText("User DN: %@", {info->userDN});
    logText("User Distinguished Name: %@", {info->userOU});
    logText("User Groups: %@", {described(info->groups)});
    logText("Computer Name: %@", {info->computerName});
    logText("Computer DN: %@", {info->computerDN});
}
