#pragma once

// Fetching and sending by URL.

#include <cstdint>
#include <functional>
#include <string>

namespace machost::world {

struct Transfer {
    std::string method; // "GET" fetches into a file; what another brings is not kept
    std::string url;
    std::string data;
};

struct Transferred {
    long status = 0;        // 0 when there was no answer
    std::string file;       // of this machine; empty when nothing was fetched whole
    std::int64_t error = 0; // as NSURLErrorDomain numbers them
    std::string problem;    // the error's text; empty when there is none
};

// Runs the transfer to its end and calls `take` once, after which the file goes. Any thread.
void transfer(const Transfer& asked, const std::function<void(const Transferred&)>& take);

} // namespace machost::world
