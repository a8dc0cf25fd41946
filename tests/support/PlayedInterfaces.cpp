#include "support/PlayedInterfaces.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace testsupport {
namespace {

using namespace platform;

std::string networkForm(int family, const std::string& printed, std::size_t size) {
    std::string bytes(size, '\0');
    if (inet_pton(family, printed.c_str(), &bytes[0]) != 1) throw std::invalid_argument(printed);
    return bytes;
}

std::string head(std::size_t length, int family) {
    return {static_cast<char>(length), static_cast<char>(family)};
}

} // namespace

EntryBuilder& EntryBuilder::link(const std::string& name, const std::string& hardwareAddress) {
    const std::size_t used = entry::linkDataAt + name.size() + hardwareAddress.size();
    std::string address = head(std::max<std::size_t>(20, (used + 3) / 4 * 4), entry::familyLink);
    address += std::string("\1\0\6", 3); // index and type
    address += static_cast<char>(name.size());
    address += static_cast<char>(hardwareAddress.size());
    address += '\0';
    address += name + hardwareAddress;
    return raw(name, address);
}

EntryBuilder& EntryBuilder::ipv4(const std::string& name, const std::string& address) {
    return raw(name, head(16, entry::familyIPv4) + std::string(2, '\0') + networkForm(AF_INET, address, 4));
}

EntryBuilder& EntryBuilder::ipv6(const std::string& name, const std::string& address) {
    return raw(name, head(28, entry::familyIPv6) + std::string(6, '\0') + networkForm(AF_INET6, address, 16));
}

EntryBuilder& EntryBuilder::raw(const std::string& name, const std::string& socketAddress) {
    std::string made = name;
    made.resize(entry::nameSize, '\0');
    made += socketAddress;
    const auto length = static_cast<std::size_t>(static_cast<unsigned char>(socketAddress.at(0)));
    made.resize(entry::nameSize + std::max<std::size_t>(entry::smallestAddress, length), '\0');
    entries_.push_back(made);
    return *this;
}

std::string EntryBuilder::bytes() const {
    std::string all;
    for (const std::string& one : entries_)
        all += one;
    return all;
}

bool PlayedInterfaces::list(int, char* buffer, int& length) {
    rooms_.push_back(length);
    if (static_cast<int>(rooms_.size()) == failAt_) return false;
    int used = 0;
    for (const std::string& one : entries_) {
        if (static_cast<int>(one.size()) > length - used) break;
        std::memcpy(buffer + used, one.data(), one.size());
        used += static_cast<int>(one.size());
    }
    length = used + reportedMore_;
    return true;
}

} // namespace testsupport
