#pragma once

// Rows of comma-separated values for other programs, as RFC 4180 has them.

#include <cstdio>
#include <memory>
#include <string>

namespace lab {

// A text as one field: quoted, since a URL may hold commas, quotes and line ends.
std::string csvField(const std::string& text);

// Throws InputError where JSON and comma-separated values would both go to standard output.
void checkOneOutput(bool jsonGoesThere, const std::string& csvPath);

class CsvFile {
public:
    // Begins with the heading: the columns' names, with commas between them. Writes to a file, to standard output for
    // "-", nowhere for an empty path. Throws InputError.
    CsvFile(const std::string& path, const std::string& heading);

    // Adds a row: its fields, with commas between them. One thread at a time.
    void row(const std::string& fields);

    // Throws InputError when not everything could be written.
    void finish();

private:
    std::string path_;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
};

} // namespace lab
