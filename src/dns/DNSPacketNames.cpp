#include "dns/DNSPacket.h"
#include "gp/CycleWatch.h"
#include "gp/GPLog.h"
#include "platform/ByteOrder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr int topBits = 0xc0;
constexpr int pointerBits = 0xc0;
constexpr int pointerOffset = 0x3fff;
constexpr int pointerSize = 2;

constexpr int largestMessage = 65535;

// In front of what parseDomain is given; the offsets of pointers count it.
constexpr int dnsHeaderSize = 12;

int byteAt(const char* at) { return static_cast<unsigned char>(*at); }

// A name as it grows in its buffer.
class NameBuffer {
public:
    explicit NameBuffer(char* name) : name_(name), length_(std::strlen(name)) {}

    // False, with nothing appended, when the buffer takes no more.
    bool append(const char* text, std::size_t length) {
        if (length_ + length >= dnsNameBufferSize) return false;
        std::memcpy(name_ + length_, text, length);
        length_ += length;
        name_[length_] = 0;
        return true;
    }

private:
    char* name_;
    std::size_t length_;
};

// Reads labels from the length byte `at` on, which is 1 to 63. Answers the place behind the name's zero byte,
// or null for a name that leaves [begin, end), its buffer, or never ends.
char* readLabels(char* at, char* name, const char* begin, const char* end) {
    NameBuffer buffer(name);
    std::ptrdiff_t length = byteAt(at++);
    CycleWatch<const char*> watch(nullptr);
    while (!watch.isRepeated(at)) {
        // A length is signed here: a negative one takes the text up to its zero byte and leads
        // backwards. In the question section, which is not compressed, there is none.
        const std::ptrdiff_t room = end - at;
        const std::ptrdiff_t wanted = length < 0 ? room + 1 : length;
        const auto text =
            static_cast<std::ptrdiff_t>(strnlen(at, static_cast<std::size_t>(std::min(wanted, room))));
        if (text == room && wanted > room) return nullptr;
        if (!buffer.append(at, static_cast<std::size_t>(text))) return nullptr;

        if (length >= room || length < begin - at) return nullptr;
        at += length;
        length = static_cast<signed char>(*at++); // NOLINT(bugprone-signed-char-misuse): signed, as above
        if (length == 0) return at;
        if (length > 0 && !buffer.append(".", 1)) return nullptr;
    }
    return nullptr;
}

// The text of a domain as it grows by realloc.
class DomainText {
public:
    DomainText() = default;
    ~DomainText() { std::free(text_); }

    DomainText(const DomainText&) = delete;
    DomainText& operator=(const DomainText&) = delete;

    // Appends a label and its "."; false when memory has run out.
    bool append(const unsigned char* label, int length) {
        const auto size = static_cast<std::size_t>(length);
        auto* grown = static_cast<char*>(std::realloc(text_, length_ + size + 2));
        if (!grown) return false;
        text_ = grown;
        std::memcpy(text_ + length_, label, size);
        length_ += size;
        text_[length_++] = '.';
        text_[length_] = 0;
        return true;
    }

    // The text without its last ".", for the caller to free; null while there is none.
    char* finish() {
        if (text_) text_[length_ - 1] = 0;
        return std::exchange(text_, nullptr);
    }

private:
    char* text_ = nullptr;
    std::size_t length_ = 0;
};

struct Label {
    int length;
    int start;
};

// The label that the pointer at `pos` leads to. The byte there counts as a length whatever its top bits are,
// so that a pointer to a pointer reads as a long label. `behind`, unless null, gets the place
// behind the pointer. False, after a log line, for a pointer that leads out of the data.
bool followPointer(const unsigned char* data, int pos, int limit, int* behind, Label& label) {
    logs("Domain is compressed\n");
    const int target =
        pos + 1 < limit ? (platform::readBig16(data + pos) & pointerOffset) - dnsHeaderSize : -1;
    if (target < 0 || target > limit) {
        logs("Domain compression is faulty\n");
        return false;
    }
    if (behind) *behind = pos + pointerSize;
    label.start = target + 1;
    // At the limit itself there is no byte to read, and the answer does not depend on one.
    label.length = target < limit ? data[target] : 0;
    if (label.start + label.length > limit) {
        logs("Pointer is faulty\n");
        return false;
    }
    return true;
}

} // namespace

bool readName(char*& position, char* name, char* message, unsigned short& nameOffset, const char* begin,
              const char* end) {
    char* start = position;
    CycleWatch<const char*> watch(nullptr);
    while (start >= begin && start < end && (byteAt(start) & topBits) == pointerBits) {
        if (end - start < pointerSize || watch.isRepeated(start)) return false;
        const int offset = platform::readBig16(start) & pointerOffset;
        if (offset >= end - message) return false;
        start = message + offset;
    }
    if (start < begin || start >= end) return false;
    if (byteAt(start) == 0 || (byteAt(start) & topBits) != 0) return true;

    nameOffset = static_cast<unsigned short>(static_cast<unsigned>(start - message) << 8 | 0xc0);
    char* behind = readLabels(start, name, begin, end);
    if (!behind) return false;
    // Behind a pointer the position stays on it.
    if (start == position) position = behind;
    return true;
}

bool readName(char*& position, char* name, char* message, unsigned short& nameOffset) {
    return readName(position, name, message, nameOffset, message, message + largestMessage);
}

char* parseDomain(unsigned char* data, int* position, int limit) {
    int pos = *position;
    if (pos < 0 || pos >= limit) return nullptr;
    DomainText domain;
    bool jumped = false;
    CycleWatch<int> watch(-1);
    while (!watch.isRepeated(pos)) {
        Label label{data[pos], pos + 1};
        if (label.length & topBits) {
            if (!followPointer(data, pos, limit, jumped ? nullptr : position, label)) return nullptr;
            jumped = true;
        }
        if (label.length == 0) {
            char* text = domain.finish();
            if (text && !jumped) *position = label.start;
            return text;
        }
        if (label.length + label.start >= limit) {
            logs("Question header faulty\n");
            return nullptr;
        }
        if (!domain.append(data + label.start, label.length)) return nullptr;
        pos = label.start + label.length;
    }
    logs("Domain compression is faulty\n");
    return nullptr;
}
