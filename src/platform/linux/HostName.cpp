#include "platform/HostName.h"

#include "platform/linux/AccountLookup.h"

#include <pwd.h>
#include <unistd.h>

#include <climits>
#include <optional>
#include <string>
#include <vector>

namespace platform {
namespace {

class SystemHostName final : public HostName {
public:
    std::optional<std::string> currentHostName() override {
        char name[HOST_NAME_MAX + 1] = "";
        if (gethostname(name, sizeof name) != 0 || !name[0]) return std::nullopt;
        return name;
    }

    std::string homeDirectory() override {
        passwd account{};
        std::vector<char> space;
        const bool isKnown =
            lookUpAccount(account, space, [](auto... out) { return getpwuid_r(geteuid(), out...); });
        return isKnown ? account.pw_dir : "/";
    }
};

SystemHostName systemHostName;

} // namespace

Service<HostName> hostNameService{&systemHostName};

} // namespace platform
