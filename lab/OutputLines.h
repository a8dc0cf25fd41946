#pragma once

// What becomes of a daemon's output: a file of a bounded size, and lines of a bounded length.

#include "lab/Descriptor.h"

#include <cstddef>
#include <functional>
#include <string>

namespace lab {

class OutputFile {
public:
    // Takes nothing without a file.
    explicit OutputFile(Descriptor file);

    // Tells how much there was, where that is more than the file has taken.
    ~OutputFile();

    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(const char* bytes, std::size_t count);

private:
    const Descriptor file_;
    std::size_t written_ = 0;
};

class OutputLines {
public:
    // `take` gets each line without its end; of one that is longer than a megabyte the beginning.
    explicit OutputLines(std::function<void(const std::string&)> take);

    void add(const char* bytes, std::size_t count);

private:
    const std::function<void(const std::string&)> take_;
    std::string pending_;
};

} // namespace lab
