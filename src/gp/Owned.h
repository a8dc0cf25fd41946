#pragma once

// Owned<T>: holds one reference of a GPObject for the length of a scope and releases it at the end, so that
// no early return leaks. A local helper: never a field of an object, never shared.

#include <utility>

template <class T>
class Owned {
public:
    Owned() = default;

    // Takes over a reference that the caller already has (a maker's result).
    static Owned adopt(T* object) { return Owned(object); }

    // Takes a reference of its own to a borrowed object; null is allowed.
    static Owned retain(T* object) {
        if (object) object->retain();
        return Owned(object);
    }

    Owned(Owned&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}

    Owned& operator=(Owned&& other) noexcept {
        if (this != &other) {
            if (object_) object_->release();
            object_ = std::exchange(other.object_, nullptr);
        }
        return *this;
    }

    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;

    ~Owned() {
        if (object_) object_->release();
    }

    T* get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    explicit operator bool() const { return object_ != nullptr; }

    // Hands the reference to the caller; the handle is empty afterwards.
    T* handOver() { return std::exchange(object_, nullptr); }

private:
    explicit Owned(T* object) : object_(object) {}

    T* object_ = nullptr;
};
