#include "config/CheckinRequest.h"

#include "agent/Updater.h"
#include "config/Configuration.h"
#include "gp/GPArray.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "platform/KernelRelease.h"

namespace {

constexpr const char* checkinPath = "/1/checkin";
constexpr const char* processor = "x64";
constexpr int releasesAhead = 4; // of the kernel's first number over the system's

// Made at the first check-in and kept.
GPString* platformGPString = nullptr;
GPString* cachedVersionString = nullptr;

// Takes over a text without the static mark and escapes it for the URL.
void storePlatform(GPString* text) {
    if (platformGPString) platformGPString->release();
    platformGPString = text->encode()->makestatic();
}

// The name without the version comes last and replaces the other, so the service never sees the
// system's version.
void buildPlatform() {
    if (!cachedVersionString) {
        cachedVersionString = systemVersion(platform::kernelRelease().c_str());
        if (cachedVersionString) cachedVersionString->makestatic();
    }
    if (cachedVersionString)
        storePlatform(GPString::format("Mac_%s_%s", processor, cachedVersionString->cstr()));
    storePlatform(GPString::format("Mac_%s", processor));
}

} // namespace

const char* checkinHost() { return OSTLER_CHECKIN_HOST; }

GPString* systemVersion(const char* kernelRelease) {
    const auto release = Owned<GPString>::adopt(new GPString(kernelRelease));
    const auto parts = Owned<GPArray>::adopt(release->split("."));
    if (parts->count() < 2) return nullptr;
    const auto number = [&](int index) {
        return static_cast<GPString*>(parts->objectAtIndex(index))->intValue();
    };
    return GPString::format("%d.%d", number(0) - releasesAhead, number(1));
}

GPString* checkinURL(GPString* macAddress) {
    macAddress->encode();
    if (!platformGPString) buildPlatform();
    return GPString::format("https://%s%s?mac=%s&platform=%s&version=%s&uuid=%s&oem=%d", checkinHost(),
                            checkinPath, macAddress->cstr(), platformGPString->cstr(),
                            Updater::encodedVersionString(), Configuration::machineGUID(),
                            Configuration::isOEM() ? 1 : 0);
}
