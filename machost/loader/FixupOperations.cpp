#include "machost/loader/FixupOperations.h"

#include <algorithm>

namespace machost {
namespace {

constexpr std::uint8_t operationBits = 0xf0, operandBits = 0x0f;
constexpr std::uint64_t pointerSize = 8;

// Where the next pointer is written.
class Place {
public:
    explicit Place(const std::vector<Segment>& segments) : segments_(segments) {}

    void set(unsigned segment, std::uint64_t offset) {
        if (segment >= segments_.size()) throw FormatError("a pointer lies in a segment that is not there");
        address_ = segments_[segment].address + offset;
    }

    // Addresses count round, as the operations go backwards by very large steps.
    void add(std::uint64_t bytes) { address_ += bytes; }

    std::uint64_t address() const { return address_; }

private:
    const std::vector<Segment>& segments_;
    std::uint64_t address_ = 0;
};

class RebaseProgram {
public:
    RebaseProgram(const std::vector<Segment>& segments, std::vector<Rebase>& rebases)
        : segments_(segments), place_(segments), rebases_(rebases) {}

    void run(ByteReader& reader) {
        while (!reader.atEnd()) {
            const std::uint8_t byte = reader.byte();
            if ((byte & operationBits) == format::rebaseDone) return;
            step(byte & operationBits, byte & operandBits, reader);
        }
    }

private:
    void step(std::uint8_t operation, std::uint8_t operand, ByteReader& reader) {
        switch (operation) {
            case format::rebaseSetType:
                if (operand != format::pointerType) throw FormatError("a rebase is of an unknown type");
                break;
            case format::rebaseSetSegmentAndOffset:
                place_.set(operand, reader.unsignedNumber());
                break;
            case format::rebaseAddAddress:
                place_.add(reader.unsignedNumber());
                break;
            case format::rebaseAddAddressScaled:
                place_.add(operand * pointerSize);
                break;
            case format::rebaseTimes:
                rebase(operand, 0);
                break;
            case format::rebaseManyTimes:
                rebase(reader.unsignedNumber(), 0);
                break;
            case format::rebaseAddingAddress:
                rebase(1, reader.unsignedNumber());
                break;
            case format::rebaseManyTimesSkipping: {
                const std::uint64_t count = reader.unsignedNumber();
                rebase(count, reader.unsignedNumber());
                break;
            }
            default:
                throw FormatError("a rebase operation is not known");
        }
    }

    // The checks of each pointer end a run of an absurd length.
    void rebase(std::uint64_t count, std::uint64_t skip) {
        // cppcheck-suppress knownConditionTrueFalse // a skip may wrap around
        if (skip + pointerSize == 0 && count > 1) throw FormatError("a run of rebases stays in its place");
        checkNumber(segments_, rebases_.size());
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint64_t target = pointerAt(segments_, place_.address());
            checkTarget(segments_, target);
            rebases_.push_back({place_.address(), target});
            place_.add(pointerSize + skip);
        }
    }

    const std::vector<Segment>& segments_;
    Place place_;
    std::vector<Rebase>& rebases_;
};

class BindProgram {
public:
    BindProgram(const std::vector<Segment>& segments, std::vector<Bind>& binds)
        : segments_(segments), place_(segments), binds_(binds) {}

    void run(ByteReader& reader) {
        while (!reader.atEnd()) {
            const std::uint8_t byte = reader.byte();
            if ((byte & operationBits) == format::bindDone) return;
            step(byte & operationBits, byte & operandBits, reader);
        }
    }

private:
    void step(std::uint8_t operation, std::uint8_t operand, ByteReader& reader) {
        switch (operation) {
            case format::bindSetOrdinal:
                bind_.ordinal = operand;
                break;
            case format::bindSetOrdinalNumber:
                bind_.ordinal = static_cast<int>(std::min<std::uint64_t>(reader.unsignedNumber(), 0xffff));
                break;
            case format::bindSetSpecialOrdinal:
                bind_.ordinal = operand ? static_cast<std::int8_t>(operationBits | operand) : 0;
                break;
            case format::bindSetSymbol:
                bind_.symbol = reader.text();
                bind_.weakImport = operand & format::weakImportFlag;
                break;
            case format::bindSetType:
                if (operand != format::pointerType) throw FormatError("a bind is of an unknown type");
                break;
            case format::bindSetAddend:
                bind_.addend = reader.signedNumber();
                break;
            case format::bindSetSegmentAndOffset:
                place_.set(operand, reader.unsignedNumber());
                break;
            case format::bindAddAddress:
                place_.add(reader.unsignedNumber());
                break;
            case format::bindOnce:
                bind(1, 0);
                break;
            case format::bindAddingAddress:
                bind(1, reader.unsignedNumber());
                break;
            case format::bindAddingAddressScaled:
                bind(1, operand * pointerSize);
                break;
            case format::bindManyTimesSkipping: {
                const std::uint64_t count = reader.unsignedNumber();
                bind(count, reader.unsignedNumber());
                break;
            }
            default:
                throw FormatError("a bind operation is not known");
        }
    }

    void bind(std::uint64_t count, std::uint64_t skip) {
        if (bind_.symbol.empty()) throw FormatError("a bind has no symbol");
        // cppcheck-suppress knownConditionTrueFalse // a skip may wrap around
        if (skip + pointerSize == 0 && count > 1) throw FormatError("a run of binds stays in its place");
        checkNumber(segments_, binds_.size());
        for (std::uint64_t i = 0; i < count; ++i) {
            bind_.address = place_.address();
            pointerAt(segments_, bind_.address);
            binds_.push_back(bind_);
            place_.add(pointerSize + skip);
        }
    }

    const std::vector<Segment>& segments_;
    Place place_;
    Bind bind_;
    std::vector<Bind>& binds_;
};

} // namespace

void readRebaseOperations(ByteView operations, const std::vector<Segment>& segments,
                          std::vector<Rebase>& rebases) {
    ByteReader reader(operations);
    RebaseProgram(segments, rebases).run(reader);
}

void readBindOperations(ByteView operations, const std::vector<Segment>& segments, std::vector<Bind>& binds) {
    ByteReader reader(operations);
    BindProgram(segments, binds).run(reader);
}

void readLazyBindOperations(ByteView operations, const std::vector<Segment>& segments,
                            std::vector<Bind>& binds) {
    ByteReader reader(operations);
    while (!reader.atEnd())
        BindProgram(segments, binds).run(reader);
}

std::uint64_t pointerAt(const std::vector<Segment>& segments, std::uint64_t address) {
    for (const Segment& segment : segments) {
        if (address < segment.address || address - segment.address >= segment.memorySize) continue;
        const std::uint64_t offset = address - segment.address;
        if (segment.memorySize - offset < pointerSize || !(segment.protection & format::protectionWrite))
            break;
        if (offset > segment.content.size() || segment.content.size() - offset < pointerSize)
            throw FormatError("a pointer lies where the file has no bytes");
        return segment.content.record<std::uint64_t>(offset);
    }
    throw FormatError("a pointer lies where nothing can be written");
}

void checkNumber(const std::vector<Segment>& segments, std::size_t fixups) {
    std::uint64_t room = 0;
    for (const Segment& segment : segments)
        if (segment.protection & format::protectionWrite) room += segment.content.size();
    if (fixups > room) throw FormatError("it has more fixups than room for them");
}

void checkTarget(const std::vector<Segment>& segments, std::uint64_t target) {
    const bool inside = std::any_of(segments.begin(), segments.end(), [&](const Segment& segment) {
        return target >= segment.address && target - segment.address <= segment.memorySize;
    });
    if (!inside) throw FormatError("a pointer points outside the program");
}

} // namespace machost
