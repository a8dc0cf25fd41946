#include "machost/objc/HandlerTable.h"

#include <cstddef>
#include <cstring>

namespace machost::objc {
namespace {

// DW_EH_PE_…
constexpr std::uint8_t formatMask = 0x0f, relativeMask = 0x70, indirect = 0x80, omitted = 0xff;
constexpr std::uint8_t absolute = 0, unsignedLeb = 1, unsigned4 = 3, unsigned8 = 4, signedLeb = 9,
                       signed4 = 11, signed8 = 12, relativeToPlace = 0x10;

template <class Number>
Number take(const std::uint8_t*& at) {
    Number number{};
    std::memcpy(&number, at, sizeof number);
    at += sizeof number;
    return number;
}

std::uint64_t takeUnsigned(const std::uint8_t*& at) {
    std::uint64_t number = 0;
    for (unsigned shift = 0;; shift += 7) {
        const std::uint8_t byte = *at++;
        number |= std::uint64_t{byte & 0x7fu} << shift;
        if (byte < 0x80) return number;
    }
}

std::int64_t takeSigned(const std::uint8_t*& at) {
    std::uint64_t number = 0;
    unsigned shift = 0;
    std::uint8_t byte = 0;
    do {
        byte = *at++;
        number |= std::uint64_t{byte & 0x7fu} << shift;
        shift += 7;
    } while (byte >= 0x80);
    if (byte & 0x40 && shift < 64) number |= ~std::uint64_t{0} << shift;
    return static_cast<std::int64_t>(number);
}

std::uint64_t takeNumber(const std::uint8_t*& at, std::uint8_t encoding) {
    switch (encoding & formatMask) {
        case unsignedLeb:
            return takeUnsigned(at);
        case signedLeb:
            return static_cast<std::uint64_t>(takeSigned(at));
        case unsigned4:
            return take<std::uint32_t>(at);
        case signed4:
            return static_cast<std::uint64_t>(std::int64_t{take<std::int32_t>(at)});
        case absolute:
        case unsigned8:
        case signed8:
            return take<std::uint64_t>(at);
        default:
            __builtin_trap(); // no compiler for the Mac writes it
    }
}

std::uint64_t takePointer(const std::uint8_t*& at, std::uint8_t encoding) {
    const auto place = reinterpret_cast<std::uint64_t>(at);
    std::uint64_t pointer = takeNumber(at, encoding);
    if (pointer == 0) return 0;
    if ((encoding & relativeMask) == relativeToPlace) pointer += place;
    if (encoding & indirect) std::memcpy(&pointer, reinterpret_cast<const void*>(pointer), sizeof pointer);
    return pointer;
}

std::size_t sizeOf(std::uint8_t encoding) {
    const std::uint8_t format = encoding & formatMask;
    return format == unsigned4 || format == signed4 ? 4 : 8;
}

// The types that a function's handlers name, which lie in front of `end`, the first one last.
struct Types {
    std::uint8_t encoding = omitted;
    const std::uint8_t* end = nullptr;

    const void* at(std::int64_t index) const {
        const std::uint8_t* place = end - static_cast<std::size_t>(index) * sizeOf(encoding);
        return reinterpret_cast<const void*>(takePointer(place, encoding));
    }
};

// The first action of the chain that takes the exception. Lists of what may be thrown, which have numbers below zero,
// take nothing here.
Handler follow(const std::uint8_t* action, std::uint64_t landingPad, const Types& types,
               const std::function<bool(const void*)>& matches) {
    bool cleans = false;
    for (;;) {
        const std::int64_t selector = takeSigned(action);
        if (selector == 0) cleans = true;
        if (selector > 0 && matches(types.at(selector))) return {landingPad, selector};
        const std::uint8_t* const place = action;
        const std::int64_t next = takeSigned(action);
        if (next == 0) return cleans ? Handler{landingPad, 0} : Handler();
        action = place + next;
    }
}

} // namespace

Handler findHandler(const std::uint8_t* table, std::uint64_t start, std::uint64_t address,
                    const std::function<bool(const void* type)>& matches) {
    const std::uint8_t* at = table;
    const std::uint8_t startEncoding = *at++;
    const std::uint64_t base = startEncoding == omitted ? start : takePointer(at, startEncoding);
    Types types;
    types.encoding = *at++;
    if (types.encoding != omitted) {
        const std::uint64_t distance = takeUnsigned(at);
        types.end = at + distance;
    }
    const std::uint8_t callEncoding = *at++;
    const std::uint64_t callLength = takeUnsigned(at);
    const std::uint8_t* const actions = at + callLength;
    while (at < actions) {
        const std::uint64_t from = start + takeNumber(at, callEncoding);
        const std::uint64_t length = takeNumber(at, callEncoding);
        const std::uint64_t landingPad = takeNumber(at, callEncoding);
        const std::uint64_t action = takeUnsigned(at);
        if (address < from || address >= from + length) continue;
        if (landingPad == 0) return {};
        if (action == 0) return {base + landingPad, 0};
        return follow(actions + action - 1, base + landingPad, types, matches);
    }
    return {};
}

} // namespace machost::objc
