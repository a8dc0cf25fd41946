#include "agent/Updater.h"

#include "gp/GPString.h"

namespace {

constexpr int majorVersion = 1;
constexpr int minorVersion = 5;
constexpr int patchVersion = 2;

GPString* exeFilePath = nullptr;
GPString* updaterVersionString = nullptr;

} // namespace

void Updater::setPath(const char* argv0) {
    if (exeFilePath) exeFilePath->release();
    exeFilePath = nullptr;
    GPString* path = GPString::staticstring(argv0);
    const int slash = path->find("/", 0, true);
    if (slash < 1) {
        path->release();
        return;
    }
    exeFilePath = path->subString(0, slash);
}

const char* Updater::exePath() { return exeFilePath ? exeFilePath->cstr() : nullptr; }

const char* Updater::versionString() {
    if (!updaterVersionString) {
        updaterVersionString = GPString::format("%d.%d.%d", majorVersion, minorVersion, patchVersion);
        updaterVersionString->makestatic();
    }
    return updaterVersionString->cstr();
}

bool Updater::finishUpdate(const char*) { return false; }
