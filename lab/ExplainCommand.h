#pragma once

// `fernhill-lab explain`: plays a capture as far as some of its packets and says of each, test by test, how it got its
// verdict.

#include "lab/Explanation.h"

#include <string>
#include <vector>

namespace lab {

struct ExplainOptions {
    std::string capture;
    std::string policy;
    std::vector<std::string> packets; // "4", "4-9" or "all"
    std::string root;
    bool json = false;
    bool blockOnFailure = false;
};

// Prints the explanations: 0, or 1 where one is not what the daemon did or the daemon failed. Throws InputError.
int explain(const ExplainOptions& options);

// One explanation for people.
std::string explanationText(const PacketStory& story, const std::string& capture, std::size_t width,
                            bool colours);

} // namespace lab
