#pragma once

// Texts of directory records: a text may be absent, which is not the same as empty. Pure functions, and the log
// lines that show such texts. Any thread.

#include "platform/Directory.h"

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

using DirectoryText = std::optional<std::string>;

// The first value of the attribute, borrowed from the details; null if there is none.
const std::string* firstValue(const platform::DirectoryDetails& details, const char* attribute);

// The same as a text of its own.
DirectoryText firstText(const platform::DirectoryDetails& details, const char* attribute);

// The name up to its last dot, like the path of a file: a dot at the beginning starts no extension, and only
// one extension goes. Nothing stays nothing.
DirectoryText withoutExtension(const DirectoryText& name);

// The format with one text in place of each "%@"; "(null)" for an absent one.
std::string formatted(const char* format, std::initializer_list<DirectoryText> texts);

// Lists in one line, for the log.
std::string described(const std::vector<std::string>& texts);
std::string described(const platform::DirectoryRecords& records);
DirectoryText described(const std::optional<std::vector<std::string>>& texts);

// Write the format as one line to the log; the second form at log level 1 alone.
void logText(const char* format, std::initializer_list<DirectoryText> texts = {});
void logTextVerbosely(const char* format, std::initializer_list<DirectoryText> texts = {});

// The same with the records' descriptions, for which the directory is only asked at that level.
void logRecordsVerbosely(const char* format, const platform::DirectoryRecords& records);

// Whether log level 1 is on, for callers whose texts are costly.
bool logsDirectory();
