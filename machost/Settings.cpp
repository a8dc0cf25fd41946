#include "machost/Settings.h"

namespace machost {

Settings& settings() {
    static auto& one = *new Settings;
    return one;
}

} // namespace machost
