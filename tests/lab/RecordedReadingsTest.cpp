// Every hello and every GET of the captures, whole, cut, damaged and in two packets, read by the daemon and byte by
// byte. The larger a capture, the more tests share its requests.

#include "packet/TCPPacket.h"

#include "lab/LabRequests.h"
#include "support/PlainPacket.h"
#include "support/Taken.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

namespace {

using labtest::RecordedRequest;
using testsupport::PlainPacket;
using testsupport::taken;

constexpr std::uintmax_t bytesOfOneTest = 50000;

// Every `step`-th request of a capture, from the one with the number `first` on. The file itself is read by its test.
struct Portion {
    std::string capture;
    std::size_t first;
    std::size_t step;
};

std::vector<Portion> portions() {
    std::vector<Portion> all;
    for (const std::string& capture : labtest::recordedCaptures()) {
        const auto tests = static_cast<std::size_t>(1 + std::filesystem::file_size(capture) / bytesOfOneTest);
        for (std::size_t first = 0; first < tests; ++first)
            all.push_back({capture, first, tests});
    }
    return all;
}

std::string nameOf(const Portion& portion) {
    std::string name = std::filesystem::path(portion.capture).stem();
    name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
    return name + "From" + std::to_string(portion.first);
}

std::ostream& operator<<(std::ostream& out, const Portion& portion) { return out << nameOf(portion); }

// The listener's buffer twice over, once for each reader.
class TwoReaders {
public:
    TwoReaders() : mine_(TCPPacket::packetRoom), theirs_(TCPPacket::packetRoom) {}

    // Puts a packet over what the buffer holds, as the listener receives one.
    void receive(const std::string& packet) {
        std::memcpy(mine_.data(), packet.data(), packet.size());
        std::memcpy(theirs_.data(), packet.data(), packet.size());
        used_ = std::max(used_, packet.size());
    }

    void put(std::size_t at, char byte) { mine_[at] = theirs_[at] = byte; }

    // Both readings are the same, and leave the same bytes.
    void compare() {
        char* const packet = mine_.data();
        PlainPacket plain(theirs_.data());
        ++readings;
        const bool usable = TCPPacket::isUsablePacket(packet);
        ASSERT_EQ(usable, plain.isUsable());
        if (!usable) return;
        const std::string tls = taken(TCPPacket::httpsURL(packet));
        ASSERT_EQ(tls, plain.httpsUrl());
        const std::string http = taken(TCPPacket::httpURL(packet));
        ASSERT_EQ(http, plain.httpUrl());
        ASSERT_EQ(std::memcmp(mine_.data(), theirs_.data(), used_), 0);
        urls += tls != "(null)" || http != "(null)";
    }

    long readings = 0;
    long urls = 0;

private:
    std::vector<char> mine_;
    std::vector<char> theirs_;
    std::size_t used_ = 0;
};

class RecordedReadings : public testing::TestWithParam<Portion> {
protected:
    RecordedReadings() {
        const auto all = labtest::recordedRequests(GetParam().capture);
        for (std::size_t i = GetParam().first; i < all.size(); i += GetParam().step)
            requests_.push_back(all[i]);
    }

    ~RecordedReadings() override {
        std::printf("%ld readings, %ld with a URL\n", readers_.readings, readers_.urls);
    }

    std::vector<RecordedRequest> requests_;
    TwoReaders readers_;
};

TEST_P(RecordedReadings, AreThoseByteByByteWhereverTheRequestIsCut) {
    for (const RecordedRequest& request : requests_) {
        readers_.receive(request.packet);
        std::string whole = request.packet;
        for (const bool emptyBehind : {false, true}) {
            for (std::size_t size = request.packet.size(); size > 0; --size) {
                std::string cut = request.packet.substr(0, size);
                if (cut.size() >= 40) labtest::setLengthField(cut);
                readers_.receive(cut);
                readers_.compare();
                if (HasFatalFailure()) FAIL() << "cut to " << size;
                // What payload() wrote, or nothing.
                readers_.put(size, size == request.packet.size() || emptyBehind ? '\0' : whole[size]);
                if (emptyBehind) readers_.put(size - 1, '\0');
            }
        }
    }
    EXPECT_GT(readers_.urls, 0);
}

TEST_P(RecordedReadings, AreThoseByteByByteWhateverByteIsAnother) {
    for (const RecordedRequest& request : requests_) {
        std::string packet = request.packet;
        labtest::eachDamage(packet, 0, [&] {
            if (HasFatalFailure()) return;
            readers_.receive(packet);
            readers_.compare();
        });
        if (HasFatalFailure()) FAIL() << testing::PrintToString(packet);
    }
    EXPECT_GT(readers_.urls, 0);
}

TEST_P(RecordedReadings, AreThoseByteByByteInTwoPacketsOneUponTheOther) {
    for (const RecordedRequest& request : requests_) {
        const std::string headers = request.packet.substr(0, request.headers);
        const std::string payload = request.payload();
        for (std::size_t place = 0; place <= payload.size(); ++place) {
            for (std::string packet : {headers + payload.substr(0, place), headers + payload.substr(place)}) {
                labtest::setLengthField(packet);
                readers_.receive(packet);
                readers_.compare();
                if (HasFatalFailure()) FAIL() << "parted at " << place;
            }
        }
    }
    EXPECT_GT(readers_.urls, 0);
}

INSTANTIATE_TEST_SUITE_P(Captures, RecordedReadings, testing::ValuesIn(portions()),
                         [](const auto& portion) { return nameOf(portion.param); });

} // namespace
