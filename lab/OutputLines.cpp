#include "lab/OutputLines.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace lab {
namespace {

constexpr std::size_t largestFile = 32 << 20;
constexpr std::size_t longestLine = 1 << 20;

} // namespace

// No file of this process is one of a program that it starts.
OutputFile::OutputFile(const std::string& path) : file_(std::fopen(path.c_str(), "wbe"), std::fclose) {
    if (file_) setvbuf(file_.get(), nullptr, _IONBF, 0);
}

OutputFile::~OutputFile() {
    if (file_ && written_ > largestFile)
        fmt::print(file_.get(), "\n(the daemon wrote {} bytes in all)\n", written_);
}

void OutputFile::write(const char* bytes, std::size_t count) {
    if (file_ && written_ < largestFile) std::fwrite(bytes, 1, count, file_.get());
    written_ += count;
}

OutputLines::OutputLines(std::function<void(const std::string&)> take) : take_(std::move(take)) {}

void OutputLines::add(const char* bytes, std::size_t count) {
    const char* const end = bytes + count;
    while (bytes != end) {
        const char* const lineEnd = std::find(bytes, end, '\n');
        const auto length = static_cast<std::size_t>(lineEnd - bytes);
        pending_.append(bytes, std::min(length, longestLine - pending_.size()));
        if (lineEnd == end) return;
        take_(pending_);
        pending_.clear();
        bytes = lineEnd + 1;
    }
}

} // namespace lab
