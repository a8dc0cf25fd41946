// Reading of the policy agent's replies.

#include "filter/PolicyReply.h"
#include "fuzz/FuzzInput.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzzing::FuzzInput(data, size).rest();
    const auto reply = Owned<GPString>::adopt(GPString::staticstring(text.c_str()));
    if (readPolicyReply(reply.get()) != PolicyReply::blocked) return 0;
    const int before = reply->length();
    cutToRedirect(reply.get());
    cutAtQuote(reply.get());
    if (reply->length() >= before) std::abort();
    return 0;
}
