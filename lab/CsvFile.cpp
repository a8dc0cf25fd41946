#include "lab/CsvFile.h"

#include "lab/Policy.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace lab {

std::string csvField(const std::string& text) {
    std::string quoted = "\"";
    for (const char byte : text) {
        if (byte == '"') quoted += '"';
        quoted += byte;
    }
    return quoted + "\"";
}

void checkOneOutput(bool jsonGoesThere, const std::string& csvPath) {
    if (jsonGoesThere && csvPath == "-")
        throw InputError("--json and --csv exclude each other on standard output");
}

CsvFile::CsvFile(const std::string& path, const std::string& heading)
    : path_(path), file_(nullptr, std::fclose) {
    if (path.empty()) return;
    if (path == "-") {
        file_ = {stdout, std::fflush};
    } else {
        file_.reset(std::fopen(path.c_str(), "we"));
        if (!file_) throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
    }
    row(heading);
}

void CsvFile::row(const std::string& fields) {
    if (!file_) return;
    // NOLINTBEGIN(cert-err33-c): `finish` looks whether all has been written
    std::fwrite(fields.data(), 1, fields.size(), file_.get());
    std::fwrite("\r\n", 1, 2, file_.get());
    // NOLINTEND(cert-err33-c)
}

void CsvFile::finish() {
    if (file_ && (std::fflush(file_.get()) != 0 || std::ferror(file_.get())))
        throw InputError(fmt::format("{}: it cannot be written", path_));
}

} // namespace lab
