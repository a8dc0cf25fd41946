#pragma once

// Configuration files: one in which every setting has a value of its own, one of defaults, and what a file
// holds, setting by setting.

#include <string>
#include <utility>
#include <vector>

namespace testsupport {

extern const char* const fullSettings;
extern const char* const defaultSettings;

// The defaults with one text in them replaced by another.
std::string defaultsWith(const std::string& from, const std::string& to);

// The defaults with these servers, of which the first is current.
std::string defaultsWithServers(const std::vector<std::string>& names);

// The settings of a file in its order: names of the elements with their texts, and for the two lists the text
// of their rows. Empty for a text whose root is not the file's.
using Settings = std::vector<std::pair<std::string, std::string>>;
Settings settingsIn(const std::string& file);

// The names of the settings that differ in value, or are missing on one side.
std::vector<std::string> changes(const Settings& before, const Settings& after);

// The value of one setting; empty if it is not there.
std::string valueOf(const Settings& settings, const std::string& name);

} // namespace testsupport
