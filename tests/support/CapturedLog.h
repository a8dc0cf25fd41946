#pragma once

// Sends the process's log into a folder of the test's own and reads it back. One for each process, made
// before anything is logged.

#include "support/TemporaryFolder.h"

#include <string>
#include <vector>

namespace testsupport {

class CapturedLog {
public:
    CapturedLog();

    // Later lines are lost.
    ~CapturedLog();

    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    // All messages so far, without thread number and time. A message that ends in a line break shows it.
    std::vector<std::string> messages() const;

    // Whether some message is exactly `message`.
    bool holds(const std::string& message) const;

    // How many messages contain `text`.
    int countContaining(const std::string& text) const;

    // The folder that the log files are in.
    const std::string& folder() const { return folder_.path(); }

private:
    TemporaryFolder folder_;
};

} // namespace testsupport
