#pragma once

// What the daemon must answer to each packet, by the plain rules: the records are a list that is walked for every
// packet, and the packet's own readers work in a buffer that is filled as the listener's is.

#include "lab/ExtensionStandIn.h"
#include "packet/TCPPacket.h"
#include "support/PlainRecords.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace life {

// The fields of a result record that are looked at.
struct Answer {
    std::int32_t result = 0;
    std::int32_t urlSeen = 0;
    std::string redirect;

    bool operator==(const Answer& other) const {
        return result == other.result && urlSeen == other.urlSeen && redirect == other.redirect;
    }
};

std::string textOf(const Answer& answer);

// A question that a packet has started.
struct Question {
    std::string url;
    int record; // its number, or -1 when it has none
};

class PlainDaemon {
public:
    struct Expectation {
        Answer answer;
        int record = -1; // which one the packet has met
        std::optional<Question> question;
    };

    // Takes the packet in at this time, in microseconds.
    Expectation take(lab::Direction direction, const std::vector<char>& packet, std::int64_t now);

    // The agent's answer to a question has been taken in.
    void resolve(const std::string& url, const char* redirect, int seconds, std::int64_t now);

    // Takes a record out at once; nothing happens for one that has gone.
    void remove(int number) { records_.remove(number); }

    // The oldest open record of the URL, or null.
    const testsupport::PlainRecords::Record* openRecord(const std::string& url) const;

    std::size_t records() const { return records_.records().size(); }

private:
    std::optional<Answer> answerOfRecord(lab::Direction direction, char* packet, int number) const;
    const testsupport::PlainRecords::Record& record(int number) const;
    Expectation takeUrl(char* packet, std::int64_t now);

    testsupport::PlainRecords records_;
    int created_ = 0;
    std::vector<char> buffers_[2] = {std::vector<char>(TCPPacket::packetRoom),
                                     std::vector<char>(TCPPacket::packetRoom)};
};

} // namespace life
