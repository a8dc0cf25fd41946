#pragma once

// A library of the system that is loaded when it is first needed: what few runs use costs the others no memory and
// no time at their start. A loaded library stays for the life of the process.

#include <memory>
#include <mutex>
#include <string>

namespace platform {

class SharedLibrary {
public:
    // Loads the library of that name. Any thread.
    explicit SharedLibrary(const char* name);

    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;

    // What the library or one of its functions is missing for, with the library's name; empty when all is there.
    const std::string& error() const { return error_; }

    // The address of a function; null, with error() set, for one that is not there.
    void* find(const char* name);

private:
    void* handle_; // cppcheck-suppress unsafeClassCanLeak // stays for the life of the process
    std::string error_;
};

// One function of a library, called like the function itself. Only to be called when the library has no error.
template <class Function>
class LibraryFunction {
public:
    LibraryFunction(SharedLibrary& library, const char* name)
        : function_(reinterpret_cast<Function*>(library.find(name))) {}

    template <class... Arguments>
    auto operator()(Arguments... arguments) const {
        return function_(arguments...);
    }

private:
    Function* function_;
};

// The one set of a library's functions, made by the first call that finds it whole. Null, with the error, where the
// library cannot be loaded; the next call tries again. `Functions` has the library as its member `library`.
template <class Functions>
const Functions* loadedFunctions(std::string& error) {
    static std::mutex mutex;
    static const Functions* loaded = nullptr; // guarded by mutex, never destroyed
    const std::lock_guard<std::mutex> lock(mutex);
    if (loaded) return loaded;
    auto functions = std::make_unique<Functions>();
    error = functions->library.error();
    if (error.empty()) loaded = functions.release();
    return loaded;
}

} // namespace platform
