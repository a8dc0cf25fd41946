#include "platform/NameLookup.h"

#include <netdb.h>

#include <cstddef>
#include <utility>

namespace platform {
namespace {

bool copyEntry(const hostent* found, HostEntry& entry) {
    if (!found || !found->h_addr_list[0]) return false;
    HostEntry result;
    result.officialName = found->h_name;
    for (char** alias = found->h_aliases; *alias; ++alias)
        result.aliases.emplace_back(*alias);
    for (char** address = found->h_addr_list; *address; ++address)
        result.addresses.emplace_back(*address, static_cast<std::size_t>(found->h_length));
    entry = std::move(result);
    return true;
}

// macOS keeps the result of these calls for each thread apart.
class SystemLookup final : public NameLookup {
public:
    bool gethostbyname2(const char* name, int family, HostEntry& entry) override {
        return copyEntry(::gethostbyname2(name, family), entry);
    }

    bool gethostbyname(const char* name, HostEntry& entry) override {
        return copyEntry(::gethostbyname(name), entry);
    }
};

SystemLookup systemLookup;

} // namespace

Service<NameLookup> nameLookupService{&systemLookup};

} // namespace platform
