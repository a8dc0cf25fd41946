#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace lab {

// How long a search for libraries may take: links and tables that are made for it keep it busy for hours.
constexpr std::chrono::milliseconds searchPatience = std::chrono::seconds(10);

// The files that the ELF program's interpreter loads with it: the interpreter itself, and for glibc's the libraries, as
// it would look for them. Nothing is run for that. Throws InputError, which names the program, for a library that is
// not found or cannot be loaded, and when they have not all been found in that time.
std::vector<std::string> librariesOf(const std::string& program,
                                     std::chrono::milliseconds patience = searchPatience);

} // namespace lab
