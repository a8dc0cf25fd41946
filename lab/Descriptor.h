#pragma once

// A file descriptor that is closed with the object.

#include <unistd.h>

#include <utility>

namespace lab {

class Descriptor {
public:
    // A negative number is none.
    explicit Descriptor(int number = -1) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    operator int() const { return number_; }

private:
    int number_;
};

} // namespace lab
