#pragma once

// The symbols of this program, read from its own symbol table. Names are bare: without namespaces, classes and
// arguments.

#include <cstdint>
#include <map>
#include <string>

namespace testsupport {

// The functions by their addresses.
std::map<std::uintptr_t, std::string> programFunctions();

// The functions of a Mach-O executable by their distance from its header.
std::map<std::uintptr_t, std::string> macProgramFunctions(const std::string& path);

// The address of the one variable of that name; throws unless there is exactly one.
std::uintptr_t programVariable(const std::string& name);

} // namespace testsupport
