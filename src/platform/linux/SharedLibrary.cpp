#include "platform/linux/SharedLibrary.h"

#include <dlfcn.h>

namespace platform {
namespace {

// dlerror's text begins with the name of what is missing.
std::string lastError(const char* name) {
    const char* error = dlerror();
    return error ? error : std::string(name) + ": cannot be loaded";
}

} // namespace

// cppcheck-suppress noDestructor // a loaded library stays
SharedLibrary::SharedLibrary(const char* name) : handle_(dlopen(name, RTLD_NOW | RTLD_LOCAL)) {
    if (!handle_) error_ = lastError(name);
}

void* SharedLibrary::find(const char* name) {
    if (!handle_) return nullptr;
    void* function = dlsym(handle_, name);
    if (!function && error_.empty()) error_ = lastError(name);
    return function;
}

} // namespace platform
