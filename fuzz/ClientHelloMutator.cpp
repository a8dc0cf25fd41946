#include "fuzz/ClientHelloMutator.h"

#include "fuzz/Mutation.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

namespace fuzzing {
namespace {

constexpr std::size_t recordHead = 5;
constexpr std::size_t sessionAt = recordHead + 4 + 2 + 32;

struct Extension {
    std::size_t type;
    std::string data;
};

struct Hello {
    std::string record = "\x16\x03\x01"; // type and version
    char handshakeType = 1;
    std::string start = "\x03\x03" + std::string(32, 'r'); // version and random bytes
    std::string session;
    std::string ciphers = "\x13\x01";
    std::string compressions = std::string(1, '\0');
    std::vector<Extension> extensions;
};

// The parts of a hello as far as they are there.
Hello readHello(const std::string& bytes) {
    Hello hello;
    if (bytes.size() <= sessionAt) return hello;
    hello.record = bytes.substr(0, 3);
    hello.handshakeType = bytes[recordHead];
    hello.start = bytes.substr(recordHead + 4, 34);
    std::size_t at = sessionAt;
    const auto take = [&](std::size_t lengthBytes) {
        const std::size_t length = bigEndianAt(bytes, at, lengthBytes);
        at = std::min(at + lengthBytes, bytes.size());
        const std::string taken = bytes.substr(at, length);
        at += taken.size();
        return taken;
    };
    hello.session = take(1);
    hello.ciphers = take(2);
    hello.compressions = take(1);
    at += 2;
    while (at + 4 <= bytes.size()) {
        const std::size_t type = bigEndianAt(bytes, at, 2);
        at += 2;
        hello.extensions.push_back({type, take(2)});
    }
    return hello;
}

class Writer {
public:
    // About one length in so many is wrong; none for 0.
    Writer(Draw& draw, std::size_t wrongOneIn) : draw_(draw), wrongOneIn_(wrongOneIn) {}

    std::string write(const Hello& hello) {
        std::string extensions;
        for (const Extension& extension : hello.extensions)
            extensions += bigEndian(extension.type, 2) + counted(extension.data, 2);
        std::string body = hello.start + counted(hello.session, 1) + counted(hello.ciphers, 2) +
                           counted(hello.compressions, 1) + counted(extensions, 2);
        return hello.record + counted(hello.handshakeType + counted(body, 3), 2);
    }

    // A name as the extension holds it.
    std::string serverName(const std::string& name) {
        return counted(std::string(1, '\0') + counted(name, 2), 2);
    }

private:
    std::string counted(const std::string& text, int bytes) {
        return bigEndian(wrongOneIn_ != 0 && draw_.oneIn(wrongOneIn_) ? wrong(text.size()) : text.size(),
                         bytes) +
               text;
    }

    std::size_t wrong(std::size_t size) {
        const std::size_t wrongs[] = {size + 1,          size - 1, 0, 0xffffff, size + draw_.below(256),
                                      draw_.below(65536)};
        return wrongs[draw_.below(std::size(wrongs))];
    }

    Draw& draw_;
    const std::size_t wrongOneIn_;
};

void changeExtensions(std::vector<Extension>& all, Draw& draw, Writer& writer) {
    const auto any = [&] { return all.begin() + static_cast<std::ptrdiff_t>(draw.below(all.size())); };
    switch (all.empty() ? 4 + draw.below(2) : draw.below(7)) {
        case 0:
            std::iter_swap(any(), any());
            return;
        case 1:
            all.push_back(*any());
            return;
        case 2:
            all.erase(any());
            return;
        case 3: {
            std::string& data = any()->data;
            data.resize(draw.below(data.size() + 1));
            return;
        }
        case 4:
            all.insert(all.begin() + static_cast<std::ptrdiff_t>(draw.below(all.size() + 1)),
                       {draw.oneIn(3) ? 0 : draw.below(65536), std::string(draw.below(600), draw.byte())});
            return;
        case 5:
            all.push_back({0, writer.serverName(std::string(draw.below(300), 'n') + ".example")});
            return;
        default: {
            Extension& changed = *any();
            changed.data = mutatedBlindly(changed.data);
        }
    }
}

void changeHead(Hello& hello, Draw& draw) {
    switch (draw.below(6)) {
        case 0:
            hello.record[draw.below(3)] = draw.byte();
            return;
        case 1:
            hello.handshakeType = draw.byte();
            return;
        case 2:
            hello.session = std::string(draw.below(256), 's');
            return;
        case 3:
            hello.ciphers = std::string(draw.below(2000), 'c');
            return;
        case 4:
            hello.compressions = std::string(draw.below(256), '\0');
            return;
        default:
            hello.record[2] = static_cast<char>(draw.below(5));
    }
}

} // namespace

std::size_t mutateClientHello(std::uint8_t* data, std::size_t size, std::size_t room, unsigned seed) {
    Draw draw(seed);
    if (draw.oneIn(4)) return LLVMFuzzerMutate(data, size, room);
    Hello hello = readHello(std::string(reinterpret_cast<const char*>(data), size));
    Writer writer(draw, draw.oneIn(2) ? 0 : 4);
    for (std::size_t changes = 1 + draw.below(3); changes > 0; --changes)
        draw.oneIn(5) ? changeHead(hello, draw) : changeExtensions(hello.extensions, draw, writer);
    std::string made = writer.write(hello);
    if (draw.oneIn(8)) made.resize(draw.below(made.size() + 1));
    return handBack(made, data, room);
}

} // namespace fuzzing
