// The reader of capture files, pcap and pcapng, whatever the link.

#include "fuzz/Require.h"
#include "lab/Capture.h"
#include "lab/Policy.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

using fuzzing::require;

// A file in memory with the input's bytes.
class InputFile {
public:
    InputFile(const std::uint8_t* data, std::size_t size) : file_(memfd_create("capture", MFD_CLOEXEC)) {
        require(file_ >= 0 && write(file_, data, size) == static_cast<ssize_t>(size));
    }
    ~InputFile() { close(file_); }

    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(file_); }

private:
    int file_;
};

int byteOf(const lab::CapturedPacket& packet, std::size_t at) {
    return static_cast<unsigned char>(packet.bytes.at(at));
}

// A packet is as long as its own field says, and its ends are those of its header.
void lookAt(const lab::CapturedPacket& packet) {
    const bool ipv6 = byteOf(packet, 0) >> 4 == 6;
    require(ipv6 || byteOf(packet, 0) >> 4 == 4);
    const int field = byteOf(packet, ipv6 ? 4 : 2) << 8 | byteOf(packet, ipv6 ? 5 : 3);
    require(packet.bytes.size() == static_cast<std::size_t>(ipv6 ? field + 40 : field));
    const std::size_t width = ipv6 ? 16 : 4;
    const std::size_t at = ipv6 ? 8 : 12;
    require(packet.source.address == std::string(packet.bytes.data() + at, width));
    require(packet.destination.address == std::string(packet.bytes.data() + at + width, width));
    require(!packet.source.text().empty() && packet.source.port >= 0 && packet.source.port < 65536);
    require(packet.hasPorts || (!packet.source.port && !packet.destination.port && !packet.syn));
    require(packet.time >= 0 && packet.time < 253402300800 * 1000000);
}

struct Reading {
    std::vector<long> numbers;
    std::string error;
};

Reading readAll(const std::string& path) {
    Reading reading;
    try {
        lab::Capture capture(path);
        for (lab::CapturedPacket packet; capture.next(packet);) {
            lookAt(packet);
            require(packet.number == capture.position());
            require(reading.numbers.empty() || reading.numbers.back() < packet.number);
            reading.numbers.push_back(packet.number);
        }
    } catch (const lab::InputError& error) {
        reading.error = error.what();
    }
    return reading;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const InputFile file(data, size);
    const Reading first = readAll(file.path());
    const Reading again = readAll(file.path());
    require(first.numbers == again.numbers && first.error == again.error);
    try {
        const lab::CaptureFacts facts = lab::survey(file.path());
        require(first.error.empty());
        require(facts.records >= static_cast<long>(first.numbers.size()));
        require(first.numbers.empty() == (facts.computers[0].empty() && facts.computers[1].empty()));
    } catch (const lab::InputError& error) {
        require(first.error == error.what());
    }
    return 0;
}
