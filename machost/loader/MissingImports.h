#pragma once

// Imports that nothing plays. Each is bound to an address of its own that nobody may touch; the first call or read of
// it ends the process, with its name on standard error.

#include <cstdint>
#include <string>

namespace machost {

constexpr int missingImportStatus = 70;

// The address for the symbol of that library; the same for the same symbol. On the main thread, before the program
// runs.
std::uint64_t missingImport(const std::string& symbol, const std::string& library);

} // namespace machost
