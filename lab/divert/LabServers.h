#pragma once

// The servers of a live run, in their network: nginx over HTTP and HTTPS, and a name server for which every name is
// theirs.

#include <string>
#include <vector>

namespace lab {

// Starts them; they end with the process namespace. Their certificate, to which the environment of whatever is started
// afterwards points, is good for `hosts`, their subdomains, lab.example and the servers' addresses. The client's
// resolver asks the name server. Throws UnavailableError.
void startServers(const std::vector<std::string>& hosts);

} // namespace lab
