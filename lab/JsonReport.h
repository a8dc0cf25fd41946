#pragma once

// The report of a replay for programs: one JSON object a line for each IP packet, in the order of the capture.

#include "lab/Connection.h"
#include "packet/SysctlResult.h"

#include <cstdio>
#include <deque>
#include <optional>
#include <string>

namespace lab {

class JsonReport {
public:
    // Writes to a file, to standard output for "-", nowhere for an empty path. Throws InputError.
    explicit JsonReport(const std::string& path);
    ~JsonReport();

    JsonReport(const JsonReport&) = delete;
    JsonReport& operator=(const JsonReport&) = delete;

    // Keeps a place for the next packet; its row is filled in later.
    std::size_t reserve();

    // Fills a packet's row with its final result, or with none for a packet that was not presented or not
    // answered. Rows leave in their order.
    void fill(const PlayedPacket& played, const std::optional<sysctl_result>& result);

    // Throws InputError when not everything could be written.
    void finish();

private:
    std::string path_;
    std::FILE* file_ = nullptr;
    bool owned_ = false;
    std::deque<std::optional<std::string>> rows_;
    std::size_t firstRow_ = 0;
};

// One row, without the line break.
std::string jsonRow(const PlayedPacket& played, const std::optional<sysctl_result>& result);

// Text of unknown encoding as JSON text: each byte becomes the character of that number.
std::string latin1(const std::string& bytes);

// The redirect URL of a result: up to 1024 bytes.
std::string redirectUrlOf(const sysctl_result& result);

} // namespace lab
