#include "platform/NameLookup.h"

#include <netdb.h>

#include <cerrno>
#include <cstddef>
#include <utility>
#include <vector>

namespace platform {
namespace {

void copyEntry(const hostent& found, HostEntry& entry) {
    HostEntry result;
    result.officialName = found.h_name;
    for (char** alias = found.h_aliases; *alias; ++alias)
        result.aliases.emplace_back(*alias);
    for (char** address = found.h_addr_list; *address; ++address)
        result.addresses.emplace_back(*address, static_cast<std::size_t>(found.h_length));
    entry = std::move(result);
}

// The plain forms share one result among all threads, so their reentrant forms are called.
class GlibcLookup final : public NameLookup {
public:
    bool gethostbyname2(const char* name, int family, HostEntry& entry) override {
        std::vector<char> buffer(1024);
        hostent found{};
        hostent* result = nullptr;
        int error = 0;
        while (gethostbyname2_r(name, family, &found, buffer.data(), buffer.size(), &result, &error) ==
               ERANGE)
            buffer.resize(buffer.size() * 2);
        if (!result || result->h_addr_list[0] == nullptr) return false;
        copyEntry(*result, entry);
        return true;
    }

    bool gethostbyname(const char* name, HostEntry& entry) override {
        return gethostbyname2(name, AF_INET, entry);
    }
};

GlibcLookup glibcLookup;

} // namespace

Service<NameLookup> nameLookupService{&glibcLookup};

} // namespace platform
