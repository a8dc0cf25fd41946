#include "lab/JsonReport.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>

namespace lab {
std::string latin1(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        if (value < 0x80) {
            text += byte;
        } else {
            text += static_cast<char>(0xc0 | value >> 6);
            text += static_cast<char>(0x80 | (value & 0x3f));
        }
    }
    return text;
}

std::string redirectUrlOf(const sysctl_result& result) {
    const auto* text = reinterpret_cast<const char*>(result.redirectUrl);
    return {text, strnlen(text, sizeof result.redirectUrl)};
}

std::string jsonRow(const PlayedPacket& played, const std::optional<sysctl_result>& result) {
    nlohmann::ordered_json row;
    row["n"] = played.packet.number;
    row["dir"] = played.outbound ? "out" : "in";
    row["src"] = played.packet.source.text();
    row["dst"] = played.packet.destination.text();
    if (result)
        row["result"] = result->result;
    else
        row["result"] = nullptr;
    row["presented"] = played.presented;
    row["urlSeen"] = result ? result->urlSeen : 0;
    row["redirectIsHttps"] = result ? result->redirectIsHttps : 0;
    row["redirectUrl"] = result ? latin1(redirectUrlOf(*result)) : "";
    return row.dump(-1, ' ', true);
}

JsonReport::JsonReport(const std::string& path) : path_(path) {
    if (path.empty()) return;
    owned_ = path != "-";
    file_ = owned_ ? std::fopen(path.c_str(), "w") : stdout;
    if (!file_) throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
}

JsonReport::~JsonReport() {
    if (file_ && owned_) std::fclose(file_);
}

void JsonReport::finish() {
    if (file_ && (std::fflush(file_) != 0 || std::ferror(file_)))
        throw InputError(fmt::format("{}: it cannot be written", path_));
}

std::size_t JsonReport::reserve() {
    if (!file_) return 0;
    rows_.emplace_back();
    return firstRow_ + rows_.size() - 1;
}

void JsonReport::fill(const PlayedPacket& played, const std::optional<sysctl_result>& result) {
    if (!file_) return;
    rows_[played.row - firstRow_] = jsonRow(played, result);
    while (!rows_.empty()) {
        const std::optional<std::string>& row = rows_.front();
        if (!row) return;
        std::fputs(row->c_str(), file_);
        std::fputc('\n', file_);
        rows_.pop_front();
        ++firstRow_;
    }
}

} // namespace lab
