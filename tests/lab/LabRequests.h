#pragma once

// The requests of a recorded capture, and what may become of them on the way: cut, damaged, in two packets.

#include <functional>
#include <string>
#include <vector>

namespace labtest {

// One IP packet as it was recorded.
struct RecordedRequest {
    std::string packet;
    std::size_t headers = 0; // bytes in front of the payload
    bool tls = false;        // a ClientHello, or else a GET

    std::string payload() const { return packet.substr(headers); }
};

// The packets of a capture whose payload begins a ClientHello, or has "GET " where the daemon looks for it.
std::vector<RecordedRequest> recordedRequests(const std::string& capture);

// All captures of tests/captures, in the order of their names.
std::vector<std::string> recordedCaptures();

// Calls `take` with `bytes` in which one byte is another: each of its two neighbours and 0, 127, 128 and 255, at each
// place from `from` on. The text is whole again at the end.
void eachDamage(std::string& bytes, std::size_t from, const std::function<void()>& take);

// Writes into an IP packet's header the size that it has now.
void setLengthField(std::string& packet);

} // namespace labtest
