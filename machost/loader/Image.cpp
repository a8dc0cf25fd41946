#include "machost/loader/Image.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

namespace machost {
namespace {

constexpr std::uint64_t pageSize = 4096;

std::uint64_t pageEnd(std::uint64_t address) { return (address + pageSize - 1) & ~(pageSize - 1); }

// The gap below a program, at which null pointers fault, is a segment that nobody may touch.
bool isMapped(const Segment& segment) { return segment.protection != 0; }

int hostProtection(const Segment& segment) {
    const auto bit = [&](std::int32_t mac, int host) { return (segment.protection & mac) ? host : 0; };
    const int write = segment.readOnlyAfterFixups ? 0 : bit(format::protectionWrite, PROT_WRITE);
    return bit(format::protectionRead, PROT_READ) | write | bit(format::protectionExecute, PROT_EXEC);
}

} // namespace

Image::Image(const MachOFile& file, const Resolver& resolve) : file_(file) {
    map();
    fill();
    fixUp(resolve);
    protect();
}

const char* Image::text(const char* pointer) const {
    for (const Segment& segment : file_.segments()) {
        const auto address = reinterpret_cast<std::uint64_t>(pointer) - slide_;
        if (address < segment.address || address - segment.address >= segment.memorySize) continue;
        pointed(pointer);
        const std::uint64_t left = segment.memorySize - (address - segment.address);
        if (!std::memchr(pointer, 0, left)) throw FormatError("a text has no end");
        return pointer;
    }
    throw FormatError("something of it lies in memory that is not for it");
}

ByteView Image::readable() const {
    const std::uint64_t start = file_.headerAddress();
    std::uint64_t end = start;
    for (bool more = true; more;) {
        more = false;
        for (const Segment& segment : file_.segments()) {
            if (segment.address != end || !(segment.protection & format::protectionRead)) continue;
            end = pageEnd(segment.address + segment.memorySize);
            more = end != segment.address;
            if (more) break;
        }
    }
    return {at<const std::uint8_t>(start), end - start};
}

void Image::require(std::uint64_t address, std::uint64_t size, std::uint64_t count,
                    std::int32_t protection) const {
    if (count > ~std::uint64_t{0} / size || !file_.allows(address, size * count, protection))
        throw FormatError("something of it lies in memory that is not for it");
}

void Image::map() {
    std::uint64_t first = ~std::uint64_t{0}, end = 0;
    for (const Segment& segment : file_.segments()) {
        if (!isMapped(segment)) continue;
        first = std::min(first, segment.address);
        end = std::max(end, pageEnd(segment.address + segment.memorySize));
    }
    if (first >= end) throw FormatError("it has no segments");
    void* wanted = reinterpret_cast<void*>(first);
    void* got = mmap(wanted, end - first, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (got == MAP_FAILED) throw FormatError("there is no memory for it");
    if (got != wanted && !file_.positionIndependent())
        throw FormatError("its own place in memory is not free");
    slide_ = reinterpret_cast<std::uint64_t>(got) - first;
}

void Image::fill() const {
    for (const Segment& segment : file_.segments()) {
        if (!isMapped(segment)) continue;
        if (mprotect(at<void>(segment.address), pageEnd(segment.memorySize), PROT_READ | PROT_WRITE) != 0)
            throw FormatError("there is no memory for segment " + segment.name);
        if (segment.content.size())
            std::memcpy(at<void>(segment.address), segment.content.data(), segment.content.size());
    }
}

void Image::fixUp(const Resolver& resolve) const {
    for (const Rebase& rebase : file_.rebases())
        *at<std::uint64_t>(rebase.address) = rebase.target + slide_;
    for (const Bind& bind : file_.binds()) {
        const auto& libraries = file_.libraries();
        const std::string library =
            bind.ordinal > 0 ? libraries[static_cast<std::size_t>(bind.ordinal - 1)] : std::string();
        const std::uint64_t value = resolve(bind, library);
        *at<std::uint64_t>(bind.address) = value ? value + static_cast<std::uint64_t>(bind.addend) : 0;
    }
}

void Image::protect() const {
    for (const Segment& segment : file_.segments()) {
        if (isMapped(segment))
            mprotect(at<void>(segment.address), pageEnd(segment.memorySize), hostProtection(segment));
    }
}

} // namespace machost
