#include "agent/Updater.h"

#include "gp/GPArray.h"
#include "gp/GPFilesystem.h"
#include "gp/GPHTTP.h"
#include "gp/GPLog.h"
#include "gp/GPString.h"
#include "gp/GPTask.h"
#include "gp/Owned.h"
#include "platform/HostPaths.h"

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int majorVersion = 1;
constexpr int minorVersion = 5;
constexpr int patchVersion = 2;

GPString* exeFilePath = nullptr;
GPString* updaterVersionString = nullptr;
GPString* updaterEncodedVersionString = nullptr;

constexpr char waitingExecutable[] = "twupdate";

GPString* fieldAt(GPArray& fields, int index) { return static_cast<GPString*>(fields.objectAtIndex(index)); }

int numberAt(GPArray& fields, int index) {
    GPString* field = fieldAt(fields, index);
    return field ? field->intValue() : 0;
}

constexpr mode_t writableByOthers = S_IWGRP | S_IWOTH;

// Whether nobody else can put another folder in the place of one that lies in this.
bool keepsFolders(const struct stat& parent) {
    const bool trusted = parent.st_uid == 0 || parent.st_uid == geteuid();
    return trusted && ((parent.st_mode & writableByOthers) == 0 || (parent.st_mode & S_ISVTX) != 0);
}

// Whether a folder is a real one of the user whose rights a package gets, and nobody else can write to it. What a disk
// that is mounted there says of its owner counts for nothing: on the Mac everybody may mount one of his own making on a
// folder of his, and write to it whatever it says.
bool isOwnAlone(const char* folder) {
    struct stat entry;
    if (lstat(folder, &entry) != 0 || !S_ISDIR(entry.st_mode)) return false;
    if (entry.st_uid != geteuid() || (entry.st_mode & writableByOthers) != 0) return false;
    struct stat parent;
    return stat((std::string(folder) + "/..").c_str(), &parent) == 0 && parent.st_dev == entry.st_dev &&
           keepsFolders(parent);
}

// Takes away the file of a former package, so that the next is not written through a link or to another name.
bool removeFormer(const char* path) {
    struct stat entry;
    if (lstat(path, &entry) != 0) return errno == ENOENT;
    return S_ISDIR(entry.st_mode) || deleteFile(path);
}

// Puts a package into the working directory, unless others could put something there too.
bool fetchPackage(const char* url, const char* workDirectory, const char* path) {
    return isOwnAlone(workDirectory) && removeFormer(path) && GPHTTP::downloadFile(url, path);
}

// Neither the end nor the output of an update's commands is looked at.
void runCommand(GPString* command, bool wait) {
    logf("command %s\n", command->cstr());
    Owned<GPString>::adopt(GPTask::task(command->cstr(), wait, false));
}

// Unpacks the package into a folder named after it and starts the script that lies there.
void installPackage(GPString* path, int dot) {
    const auto directory = Owned<GPString>::adopt(path->copy());
    directory->subString(0, dot);
    const auto unpack =
        Owned<GPString>::adopt(GPString::format("unzip %s -d %s", path->cstr(), directory->cstr()));
    runCommand(unpack.get(), true);
    const auto install = Owned<GPString>::adopt(
        GPString::format("sudo %s/update.cmd %s ", directory->cstr(), directory->cstr()));
    runCommand(install.get(), false);
}

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

char* Updater::encodedVersionString() {
    if (!updaterEncodedVersionString) {
        updaterEncodedVersionString = GPString::staticstring(versionString());
        updaterEncodedVersionString->encode();
    }
    return updaterEncodedVersionString->charAtIndex(0);
}

int Updater::versionCompare(GPString* a, GPString* b) {
    int first[3];
    int second[3];
    getVersion(a, first[0], first[1], first[2]);
    getVersion(b, second[0], second[1], second[2]);
    for (int i = 0; i < 3; ++i) {
        if (first[i] != second[i]) return first[i] > second[i] ? 1 : -1;
    }
    return 0;
}

bool Updater::isValidUpdate(GPString* name) {
    const auto fields = Owned<GPArray>::adopt(name->split("-"));
    if (fields->count() < 2) return false;
    if (!fieldAt(*fields, 1)->isEqual("mac")) return false;
    const auto dotted = Owned<GPArray>::adopt(name->split("."));
    return dotted->count() == 3;
}

bool Updater::processZip(GPString* url) {
    const char* workDirectory = platform::HostPaths::packageDirectory();
    // For nobody else to enter: a package may hold a script that everybody may write to.
    if (!ifExist(workDirectory)) mkdir(workDirectory, 0700);
    const int slash = url->find("/", true);
    if (slash < 1) return true;
    const auto path =
        Owned<GPString>::adopt(GPString::format("%s/%s", workDirectory, url->cstr() + slash + 1));
    logf("downloading the file: %s to: %s\n", url->cstr(), path->cstr());
    if (!fetchPackage(url->cstr(), workDirectory, path->cstr())) {
        logf("unable to download the file: %s to: %s\n", url->cstr(), path->cstr());
        return false;
    }
    const int dot = path->find(".", true);
    if (dot >= 1) installPackage(path.get(), dot);
    return true;
}

bool Updater::finishUpdate(const char* name) {
    const char* directory = exeFilePath ? exeFilePath->cstr() : getCurrentDirectory();
    if (!directory) return false;
    const auto target = Owned<GPString>::adopt(GPString::format("%s/%s", directory, name));
    const auto source = Owned<GPString>::adopt(GPString::format("%s/%s", directory, waitingExecutable));
    // Before the move is known to work: without a waiting executable the old one is gone.
    deleteFile(target->cstr());
    return moveFile(source->cstr(), target->cstr());
}

void getVersion(GPString* text, int& major, int& minor, int& patch) {
    const auto fields = Owned<GPArray>::adopt(text->split("."));
    major = numberAt(*fields, 0);
    minor = numberAt(*fields, 1);
    patch = numberAt(*fields, 2);
}
