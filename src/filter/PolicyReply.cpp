#include "filter/PolicyReply.h"

#include "gp/GPString.h"

#include <algorithm>

namespace {

constexpr char redirectKey[] = "\"redirect\":";
constexpr char lookupTimeout[] = "\"error\":\"TW Host lookup timeout\"";

} // namespace

PolicyReply readPolicyReply(GPString* reply) {
    if (!reply) return PolicyReply::noDecision;
    // The prefix test holds both ways, so an empty reply, which is how a reconnect ends a query,
    // allows the URL.
    if (reply->startsWith("{}")) return PolicyReply::allowed;
    if (reply->find(redirectKey, false) >= 1) return PolicyReply::blocked;
    if (reply->find(lookupTimeout, false) >= 1) return PolicyReply::askAgain;
    return PolicyReply::noDecision;
}

void cutToRedirect(GPString* reply) {
    constexpr int keyAndQuote = 12;
    // A reply that ends with the key has no value to step into.
    reply->subString(std::min(reply->find(redirectKey, false) + keyAndQuote, reply->length()));
}

void cutAtQuote(GPString* reply) {
    const int quote = reply->find("\"", false);
    if (quote >= 0) reply->subString(0, quote);
}
