#pragma once

// GPData: a byte buffer. Made with a size it fills up without reallocation; after that each append
// reallocates. Owned like any GPObject; belongs to one thread at a time, or to a lock of its owner's.

#include "gp/GPObject.h"

#include <cstdint>

class GPString;

class GPData : public GPObject {
public:
    // A buffer of one zero byte, with length 0.
    GPData();

    // A zeroed buffer of `size` bytes with length 0 and all of it spare.
    explicit GPData(int size);

    // Copies the bytes or, with `absorb`, takes the pointer over, which must come from new[].
    GPData(const char* bytes, int len, bool absorb);
    ~GPData() override;

    GPString* className() override;
    const char* cclassName() override;

    // Makers; the caller owns the result. `absorbeData` takes the pointer over.
    static GPData* dataWithData(const char* bytes, int len);
    static GPData* absorbeData(const char* bytes, int len);
    static GPData* dataWithSize(int size);

    // The buffer, borrowed; valid until the next append or clear.
    char* bytes() const { return bytes_; }

    // Bytes of content. A buffer made with a size that was told nothing yet reports its size.
    int length() const;

    // Records what a caller wrote into bytes() directly; changes nothing else.
    void setLength(int length) { length_ = length; }

    void append(const char* bytes, int n);
    void append(const GPData* other);

    // Back to one byte with length 0. Spare room is left as it was: do not append to a cleared buffer that
    // had some.
    void clear();

    // The content up to its first NUL as a string that the caller owns; null when length() is below 1.
    GPString* convertToString() const;

private:
    char* bytes_;
    std::int32_t length_;
    std::int32_t spare_;
    // True size of the buffer: no count above may lead outside of it.
    std::int32_t size_;
};
