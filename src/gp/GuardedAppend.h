#pragma once

// Appending to a file in a folder that others may write to, where they can put anything in the file's place, at any
// moment.

#include <sys/types.h>

#include <atomic>
#include <cstddef>

// A file that was seen to have one name, the one that it was opened by. Kept by a caller that appends to the same
// file again and again, which then costs one question less. Any thread.
class KnownFile {
public:
    bool is(dev_t device, ino_t number) const { return device_ == device && number_ == number; }

    void set(dev_t device, ino_t number) {
        device_ = device;
        number_ = number;
    }

private:
    std::atomic<dev_t> device_{0};
    std::atomic<ino_t> number_{0};
};

// Appends to the file at `path`, which is made if nothing is there. Writes to a regular file without another name
// alone, never through a link as the last component, and never waits for what it opens. A file that is moved away
// meanwhile costs another try, of which there are a few. False, with nothing written, when something else is there. False, too, when not everything could be written. Any thread.
bool appendGuarded(const char* path, const char* text, std::size_t length, KnownFile* known = nullptr);
