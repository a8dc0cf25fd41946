#pragma once

// What a reply of the policy agent says. The reply is searched for fixed texts and not parsed, and nothing in
// it is unescaped. Pure; any thread.

class GPString;

enum class PolicyReply {
    allowed,
    blocked,    // the reply holds the address to redirect to
    askAgain,   // the agent's host look-up ran into its time limit
    noDecision, // no reply, a closed link, anything else: the failure policy decides
};

// Reads a reply; null is allowed.
PolicyReply readPolicyReply(GPString* reply);

// Cuts a blocked reply to what follows the redirect key and the opening quote of its value.
void cutToRedirect(GPString* reply);

// Cuts that at the first double quote; without one the text stays whole.
void cutAtQuote(GPString* reply);
