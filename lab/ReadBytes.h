#pragma once

// Which bytes of a packet an answer of the daemon's readers hangs on: those of which another value gives another answer.
// Found by asking the readers themselves, with one byte changed at a time, so that it holds whatever they read.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace lab {

// What one reader makes of a packet, as a text.
using PacketReader = std::function<std::string(char* packet)>;

// The readers that the verdict stands on, each with the letter that marks its bytes in a picture.
struct NamedReader {
    char letter;
    std::string what;
    PacketReader read;
};
const std::vector<NamedReader>& packetReaders();

// One reader and the bytes that its answer hangs on, in order.
struct ReadBytes {
    char letter;
    std::string what;
    std::string answer;
    std::vector<std::size_t> offsets;
};

// `memory` is what the daemon had before it: a packet of `size` bytes and what lies behind it, TCPPacket::packetRoom bytes
// in all. Behind the packet only a URL is looked for, where its length leads there. Of a packet that cannot be worked on
// nothing else is asked.
std::vector<ReadBytes> bytesReadIn(std::vector<char> memory, std::size_t size);

// The bytes in rows of 16 with the letters of their readers below. Rows without a letter are left out, `size` bytes being
// the packet's own: what lies behind them is told apart.
std::string hexView(const std::vector<char>& memory, std::size_t size, const std::vector<ReadBytes>& read);

// "12-15, 40".
std::string rangesOf(const std::vector<std::size_t>& offsets);

} // namespace lab
