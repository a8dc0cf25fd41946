#include "lab/OutputLines.h"

#include <fmt/format.h>

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace lab {
namespace {

constexpr std::size_t largestFile = 32 << 20;
constexpr std::size_t longestLine = 1 << 20;

void writeWhole(int file, const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t written = write(file, bytes, count);
        if (written <= 0) return;
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
}

} // namespace

OutputFile::OutputFile(Descriptor file) : file_(std::move(file)) {}

OutputFile::~OutputFile() {
    if (written_ <= largestFile) return;
    const std::string last = fmt::format("\n(the daemon wrote {} bytes in all)\n", written_);
    writeWhole(file_, last.data(), last.size());
}

void OutputFile::write(const char* bytes, std::size_t count) {
    if (written_ < largestFile) writeWhole(file_, bytes, count);
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
