#pragma once

// The records of connections as the rule describes them: a list, walked from its first record for every packet.
// What the daemon's table answers is compared with this.

#include "packet/ConnectionEnds.h"

#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace testsupport {

class PlainRecords {
public:
    struct Record {
        int number; // in order of creation, from 0
        std::string url;
        bool https;
        ConnectionEnds ends;
        std::int64_t start;
        int timeout;
        bool resolved;
        bool redirected;
        std::string redirect;
    };

    void create(const ConnectionEnds& ends, const std::string& url, bool https, std::int64_t now);

    // The number of the record, or -1.
    int find(const ConnectionEnds& ends, std::int64_t now);

    bool resolve(const std::string& url, const char* redirect, int timeoutSeconds, std::int64_t now);
    void remove(int number);

    const std::list<Record>& records() const { return records_; }

    // The numbers that have left the list since this was last asked.
    std::vector<int> takeRemoved();

    // What is logged of it at all levels, in order; a record's address is written as "*".
    const std::vector<std::string>& log() const { return log_; }

    void keepLog(bool keep) { keepsLog_ = keep; }

private:
    static bool matches(const Record& record, const ConnectionEnds& ends);
    void note(const std::string& line);

    std::list<Record> records_;
    std::vector<int> removed_;
    std::vector<std::string> log_;
    bool keepsLog_ = false;
    int created_ = 0;
};

} // namespace testsupport
