#include "support/PlainPacket.h"

#include "packet/TCPPacket.h"

#include <cstdio>
#include <set>
#include <stdexcept>

namespace testsupport {
namespace {

constexpr auto npos = std::string::npos;
constexpr char none[] = "(null)";
constexpr int nameCapacity = 255;

bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

} // namespace

int PlainPacket::byte(int at) const {
    if (at < 0 || at >= TCPPacket::packetRoom) throw std::out_of_range("byte " + std::to_string(at));
    return static_cast<unsigned char>(packet_[at]);
}

int PlainPacket::port(int position) const { return two(ipHeaderSize() + position); }

bool PlainPacket::isUsable() const {
    if ((!isVersion(4) && !isVersion(6)) || protocol() != 6) return false;
    return tcpHeaderSize() + (ipHeaderSize() & 0xffff) <= (size() & 0xffff);
}

char* PlainPacket::payload() {
    char* const start = packet_ + headers(); // the zero may fall into the headers
    packet_[size()] = 0;
    return start;
}

std::pair<int, int> PlainPacket::walk() const {
    constexpr std::pair<int, int> broken(40, 59);
    std::set<std::pair<int, int>> seen;
    int offset = 40, next = byte(6);
    for (bool advanced = true; advanced;) {
        advanced = false;
        for (const int kind : {8, 4, 0}) { // the unit of the length byte
            const bool here = kind == 8   ? next == 0 || next == 43 || next == 60
                              : kind == 4 ? next == 51
                                          : next == 44;
            if (!here) continue;
            if (!advanced && !seen.insert({offset, next}).second) return broken;
            if (offset < 0 || offset + 1 >= TCPPacket::packetRoom) return broken;
            next = byte(offset);
            offset += 8 + kind * static_cast<signed char>(packet_[offset + 1]);
            advanced = true;
        }
    }
    if (offset < 0 || offset + 20 > TCPPacket::packetRoom) return broken;
    return {offset, next};
}

std::string PlainPacket::httpUrl() {
    std::string text;
    for (const char* at = payload(); *at != 0; ++at) {
        if (at + 1 == packet_ + TCPPacket::packetRoom) return none;
        text += *at;
    }
    const auto get = text.substr(0, 30).find("GET ");
    if (get == npos) return none;
    const auto path = text.find('/', get);
    const auto pathEnd = path == npos ? npos : text.find(" HTTP", path);
    auto host = pathEnd == npos ? npos : text.find("Host", pathEnd);
    if (host == npos) return none;
    while (host < text.size() && !isBlank(text[host]))
        ++host;
    while (host < text.size() && isBlank(text[host]))
        ++host;
    auto hostEnd = text.find("\r\n", host);
    if (hostEnd == npos) hostEnd = text.find('\n', host);
    if (hostEnd == npos || hostEnd == host) return none;
    return "http://" + text.substr(host, hostEnd - host) + text.substr(path, pathEnd - path);
}

std::string PlainPacket::httpsUrl() {
    const int size = payloadSize();
    const auto name = serverName(static_cast<int>(payload() - packet_), size);
    if (!name) return none;
    const std::string text = name->substr(0, name->find('\0'));
    return text.empty() ? destination() : "https://" + text;
}

std::optional<std::string> PlainPacket::serverName(int start, int size) const {
    if (size < 5) return std::nullopt;
    if (byte(start) >= 128) { // the length of a record of the oldest form
        if (byte(start + 2) == 1 && byte(start + 3) == 3) return "";
        return std::nullopt;
    }
    if (byte(start) != 22) return std::nullopt;
    if (two(start + 1) == 0x300) return "";
    if (size < 44) return std::nullopt;
    if (byte(start + 1) != 3 || byte(start + 2) > 3 || byte(start + 5) != 1) return std::nullopt;
    const int handshake = byte(start + 6) * 65536 + two(start + 7);
    if (two(start + 3) != handshake + 4) return std::nullopt;
    const int session = byte(start + 43);
    if (session + 46 > size) return std::nullopt;
    const int ciphers = two(start + session + 44);
    if (session + 46 + ciphers + 2 > size) return std::nullopt;
    const int methods = session + 46 + ciphers;
    const int methodCount = byte(start + methods);
    if (methods + methodCount + 7 > size) return std::nullopt;
    return nameInExtensions(start, methods + methodCount + 3, size);
}

std::optional<std::string> PlainPacket::nameInExtensions(int start, int at, int size) const {
    for (;;) {
        const int type = two(start + at), length = two(start + at + 2);
        int step = 4;
        if (type == 0 && length != 0) {
            if (at + 9 > size) return std::nullopt;
            const int nameLength = byte(start + at + 8);
            if (at + 9 + nameLength > size) return std::nullopt;
            if (nameLength < nameCapacity) {
                std::string name;
                for (int i = 0; i < nameLength; ++i)
                    name += static_cast<char>(byte(start + at + 9 + i));
                return name;
            }
            step = 9;
        }
        at += step + length;
        if (at + 4 > size) return std::nullopt;
    }
}

std::string PlainPacket::destination() const {
    std::string text;
    char piece[8];
    if (isVersion(6)) {
        for (int at = 24; at < 40; at += 2) {
            std::snprintf(piece, sizeof piece, ":%04x", two(at));
            text += piece;
        }
        return "[" + text.substr(1) + "]";
    }
    for (int at = 16; at < 20; ++at)
        text += "." + std::to_string(byte(at));
    return text.substr(1);
}

} // namespace testsupport
