#pragma once

#include <string>

namespace lab {

// The whole path of a program that is to run under machost; empty for an empty one. Throws InputError unless the file
// can be read and is a Mach-O for x86-64.
std::string checkedProgram(const std::string& path);

} // namespace lab
