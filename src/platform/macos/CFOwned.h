#pragma once

// CFOwned<Ref>: holds one reference of a Core Foundation object for the length of a scope. Only results of
// functions with Create or Copy in their names are adopted.

#include <CoreFoundation/CoreFoundation.h>

#include <utility>

namespace platform {

template <class Ref>
class CFOwned {
public:
    CFOwned() = default;

    // Takes over the caller's reference; null is allowed.
    static CFOwned adopt(Ref object) { return CFOwned(object); }

    CFOwned(CFOwned&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    CFOwned& operator=(CFOwned&& other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    CFOwned(const CFOwned&) = delete;
    CFOwned& operator=(const CFOwned&) = delete;

    ~CFOwned() {
        if (object_) CFRelease(object_);
    }

    Ref get() const { return object_; }
    explicit operator bool() const { return object_ != nullptr; }

    // Hands the reference to the caller; the handle is empty afterwards.
    Ref handOver() { return std::exchange(object_, nullptr); }

private:
    explicit CFOwned(Ref object) : object_(object) {}

    Ref object_ = nullptr;
};

} // namespace platform
