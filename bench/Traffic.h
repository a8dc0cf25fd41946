#pragma once

// Packet records for the listener: made ones, and those of a recorded capture.

#include <string>
#include <vector>

namespace bench {

using Records = std::vector<std::string>;

// Data without a URL on one connection, of that many bytes; none are an acknowledgement.
Records dataRecords(std::size_t bytes, bool ipv6 = false);

// The packets of the recorded mix that go out, or those that come in.
Records recordedMix(bool inbound);

// Makes a record, answered with "allowed", for each request among those packets.
void allowRequests(const Records& records);

// The connection of that number, from 0 to some millions: its ClientHello, and its data in full-sized packets.
std::string helloOf(long connection);
std::string dataOf(long connection);

// The URL that the hello of that connection names.
std::string urlOf(long connection);

} // namespace bench
