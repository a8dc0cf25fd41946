// NSFileManager: removing and moving, with Cocoa's codes for what went wrong.

#include "machost/corefoundation/Values.h"
#include "machost/foundation/Errors.h"
#include "machost/foundation/Library.h"
#include "machost/libsystem/Paths.h"
#include "machost/objc/Exceptions.h"
#include "machost/objc/Messages.h"

#include <cerrno>
#include <filesystem>

namespace machost::foundation {
namespace {

namespace cf = corefoundation;
namespace fs = std::filesystem;
using objc::Selector;

const Class managerClass{&classOfClasses, &rootClass, {}, nullptr, "NSFileManager", nullptr};

// The one manager, which nobody owns.
ObjectRef defaultManager(ObjectRef, Selector) {
    static const Class* manager = &managerClass;
    declareConstantClass(managerClass);
    return &manager;
}

// FoundationErrors.h
std::int64_t cocoaCode(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return 4; // NSFileNoSuchFileError
        case EACCES:
        case EPERM:
            return 513; // NSFileWriteNoPermissionError
        case ENAMETOOLONG:
            return 514; // NSFileWriteInvalidFileNameError
        case EEXIST:
        case ENOTEMPTY:
            return 516; // NSFileWriteFileExistsError
        case ENOSPC:
            return 640; // NSFileWriteOutOfSpaceError
        case EROFS:
            return 642; // NSFileWriteVolumeReadOnlyError
        default:
            return 512; // NSFileWriteUnknownError
    }
}

signed char refuse(int error, const std::string& path, ObjectRef* wanted) {
    tellError(wanted,
              {cocoaDomain, cocoaCode(error), "The operation on " + path + " could not be completed.", {}});
    return 0;
}

std::string pathOf(const void* url) { return cf::plainPath(cf::urlOf(url)); }

bool isThere(const std::string& host) {
    std::error_code ignored;
    return fs::symlink_status(host, ignored).type() != fs::file_type::not_found;
}

signed char removeItem(ObjectRef, Selector, const void* url, ObjectRef* wanted) {
    if (!url) objc::raiseException("-[NSFileManager removeItemAtURL:error:]: nil URL");
    const std::string path = pathOf(url), host = libsystem::hostPath(path.c_str());
    if (!isThere(host)) return refuse(ENOENT, path, wanted);
    std::error_code error;
    fs::remove_all(host, error);
    if (error) return refuse(error.value(), path, wanted);
    return 1;
}

// To another volume a file is copied; what was copied in part goes again.
int moveAcross(const std::string& from, const std::string& to) {
    std::error_code error, ignored;
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
    if (!error) fs::remove_all(from, error);
    if (error) fs::remove_all(to, ignored);
    return error.value();
}

signed char moveItem(ObjectRef, Selector, const void* from, const void* to, ObjectRef* wanted) {
    if (!from || !to) objc::raiseException("-[NSFileManager moveItemAtURL:toURL:error:]: nil URL");
    const std::string source = pathOf(from), target = pathOf(to);
    const std::string hostSource = libsystem::hostPath(source.c_str());
    const std::string hostTarget = libsystem::hostPath(target.c_str());
    if (!isThere(hostSource)) return refuse(ENOENT, source, wanted);
    if (isThere(hostTarget)) return refuse(EEXIST, target, wanted);
    std::error_code error;
    fs::rename(hostSource, hostTarget, error);
    const int number = error.value() == EXDEV ? moveAcross(hostSource, hostTarget) : error.value();
    if (number != 0) return refuse(number, target, wanted);
    return 1;
}

} // namespace

const objc::PlayedClass& playedFileManagerClass() {
    static const auto& played =
        *new objc::PlayedClass{&managerClass,
                               "NSFileManager.h and FoundationErrors.h",
                               {objc::method("defaultManager", defaultManager)},
                               {objc::method("removeItemAtURL:error:", removeItem),
                                objc::method("moveItemAtURL:toURL:error:", moveItem)}};
    return played;
}

const ImportTable& fileManagerImports() {
    static const auto& table = *new ImportTable{
        variable("_OBJC_CLASS_$_NSFileManager", &managerClass, "NSFileManager.h"),
    };
    return table;
}

} // namespace machost::foundation
