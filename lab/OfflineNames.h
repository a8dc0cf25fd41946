#pragma once

// The name look-up of a replayed daemon: no network belongs to a replay, so "localhost" and numeric addresses
// resolve and everything else fails at once.

#include "platform/NameLookup.h"

namespace lab {

platform::NameLookup& offlineNames();

} // namespace lab
