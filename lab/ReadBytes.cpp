#include "lab/ReadBytes.h"

#include "gp/GPString.h"
#include "gp/Owned.h"
#include "packet/ConnectionEnds.h"
#include "packet/TCPPacket.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <set>

namespace lab {
namespace {

constexpr std::size_t perRow = 16;

constexpr std::size_t closelyRead = 512;

// How far behind the packet a URL is looked for that the daemon found.
constexpr std::size_t farthestBehind = 2048;

constexpr char usableLetter = 'h';
constexpr char endsLetter = 'e';
constexpr char urlLetter = 'U';

// What a byte is changed to: near the packet's beginning every other value, then each bit turned, all of them, and the
// ends of its range.
std::vector<unsigned char> othersOf(unsigned char byte, std::size_t at) {
    std::set<unsigned char> others{0x00, 0xff, static_cast<unsigned char>(~byte)};
    for (int bit = 0; bit < 8; ++bit)
        others.insert(static_cast<unsigned char>(byte ^ 1 << bit));
    for (int value = 0; at < closelyRead && value < 256; ++value)
        others.insert(static_cast<unsigned char>(value));
    others.erase(byte);
    return {others.begin(), others.end()};
}

std::string endsOf(char* packet) {
    const ConnectionEnds ends(packet);
    std::string text(reinterpret_cast<const char*>(&ends.srcIpv6), sizeof ends.srcIpv6);
    text.append(reinterpret_cast<const char*>(&ends.dstIpv6), sizeof ends.dstIpv6);
    return fmt::format("{} {} {} {} {}", ends.src, ends.dst, ends.srcPort, ends.dstPort, text);
}

std::string urlOf(char* packet) {
    auto url = Owned<GPString>::adopt(TCPPacket::httpsURL(packet));
    if (!url) url = Owned<GPString>::adopt(TCPPacket::httpURL(packet));
    return url ? url->cstr() : "";
}

// A reader's answer, with the one byte put back that the reading of a payload marks its end with.
std::string answerOf(const PacketReader& reader, char* packet) {
    const int end = TCPPacket::packetSize(packet);
    const char behind = packet[end];
    std::string answer = reader(packet);
    packet[end] = behind;
    return answer;
}

std::string shownAnswer(char letter, const std::string& answer, char* packet) {
    if (letter != endsLetter) return answer;
    int port;
    const bool ipv6 = TCPPacket::isVersionIPV6(packet);
    const auto src = Owned<GPString>::adopt(
        ipv6 ? TCPPacket::formatIpAddressIpv6(TCPPacket::srcIPAddressIpv6(packet, port))
             : TCPPacket::formatIpAddress(TCPPacket::srcIPAddress(packet, port)));
    const int srcPort = port;
    const auto dst = Owned<GPString>::adopt(
        ipv6 ? TCPPacket::formatIpAddressIpv6(TCPPacket::dstIPAddressIpv6(packet, port))
             : TCPPacket::formatIpAddress(TCPPacket::dstIPAddress(packet, port)));
    return fmt::format("{}:{} -> {}:{}", src->cstr(), srcPort, dst->cstr(), port);
}

ReadBytes bytesOf(const NamedReader& reader, std::vector<char>& memory, std::size_t size) {
    char* const packet = memory.data();
    const std::string answer = answerOf(reader.read, packet);
    ReadBytes read{reader.letter, reader.what, shownAnswer(reader.letter, answer, packet), {}};
    for (std::size_t at = 0; at < size; ++at) {
        const char kept = packet[at];
        for (const unsigned char other : othersOf(static_cast<unsigned char>(kept), at)) {
            packet[at] = static_cast<char>(other);
            // The other readers are only asked about packets that can be worked on.
            if (reader.letter != usableLetter && !TCPPacket::isUsablePacket(packet)) continue;
            if (answerOf(reader.read, packet) == answer) continue;
            read.offsets.push_back(at);
            break;
        }
        packet[at] = kept;
    }
    return read;
}

std::string textOf(const char* bytes, std::size_t count) {
    std::string text(bytes, count);
    for (char& byte : text)
        if (static_cast<unsigned char>(byte) < 0x20 || static_cast<unsigned char>(byte) > 0x7e) byte = '.';
    return text;
}

} // namespace

const std::vector<NamedReader>& packetReaders() {
    static const std::vector<NamedReader> readers{
        {usableLetter, "can be worked on",
         [](char* packet) { return TCPPacket::isUsablePacket(packet) ? "yes" : "no"; }},
        {endsLetter, "ends of the connection", endsOf},
        {'s', "size of the payload",
         [](char* packet) { return std::to_string(TCPPacket::payloadSize(packet)); }},
        {urlLetter, "URL", urlOf},
    };
    return readers;
}

std::vector<ReadBytes> bytesReadIn(std::vector<char> memory, std::size_t size) {
    const std::size_t last = std::min(size + farthestBehind, memory.size() - 1);
    std::vector<ReadBytes> read;
    char* const packet = memory.data();
    const bool usable = TCPPacket::isUsablePacket(packet);
    for (const NamedReader& reader : packetReaders()) {
        if (!usable && reader.letter != usableLetter) continue;
        const auto claimed = static_cast<std::size_t>(TCPPacket::packetSize(packet));
        const bool behind =
            reader.letter == urlLetter && claimed > size && !answerOf(reader.read, packet).empty();
        read.push_back(bytesOf(reader, memory, behind ? std::min(claimed, last) : size));
    }
    return read;
}

std::string hexView(const std::vector<char>& memory, std::size_t size, const std::vector<ReadBytes>& read) {
    std::string letters(memory.size(), ' ');
    std::size_t end = 0;
    for (const ReadBytes& reader : read) {
        for (const std::size_t at : reader.offsets)
            letters[at] = reader.letter;
        if (!reader.offsets.empty()) end = std::max(end, reader.offsets.back() + 1);
    }
    std::string view;
    bool gap = false;
    for (std::size_t row = 0; row < end; row += perRow) {
        const std::size_t count = std::min(perRow, std::max(size, end) - row);
        if (letters.find_first_not_of(' ', row) >= row + count) {
            gap = true;
            continue;
        }
        if (gap) view += "      ...\n";
        gap = false;
        std::string hex, marks;
        for (std::size_t at = row; at < row + count; ++at) {
            hex += fmt::format("{:02x} ", static_cast<unsigned char>(memory[at]));
            marks += fmt::format("{}{} ", letters[at], letters[at]);
        }
        view += fmt::format("{:04x}  {:<48} {}{}\n", row, hex, textOf(&memory[row], count),
                            letters.find_first_not_of(' ', std::max(row, size)) < row + count
                                ? "   (behind the packet)"
                                : "");
        marks.erase(marks.find_last_not_of(' ') + 1);
        view += fmt::format("      {}\n", marks);
    }
    return view;
}

std::string rangesOf(const std::vector<std::size_t>& offsets) {
    std::string text;
    for (std::size_t i = 0; i < offsets.size();) {
        std::size_t last = i;
        while (last + 1 < offsets.size() && offsets[last + 1] == offsets[last] + 1)
            ++last;
        if (!text.empty()) text += ", ";
        text += last == i ? std::to_string(offsets[i]) : fmt::format("{}-{}", offsets[i], offsets[last]);
        i = last + 1;
    }
    return text;
}

} // namespace lab
