#pragma once

// What a configuration frame from the agent says. The keys are searched for as text and no JSON is parsed: a
// key inside a string value is found, escapes are not undone, and a value ends at the first comma. Pure
// functions; any thread.

class GPString;

// The block-on-failure setting in a frame's body. False when the key "bypass_on_failure" does not occur behind
// the first byte. `value` becomes the value's text, which the caller owns; it is empty when no comma follows.
bool readBypassOnFailure(const char* body, GPString*& value);

// Whether that value means that failures block: exactly for the bare word false.
bool blocksOnFailure(GPString* value);

// The same for the key "update_url"; `value` is the text as it stands, quotes included.
bool readUpdateUrl(const char* body, GPString*& value);

// Trims white space and drops the first and the last character, which are taken to be quotes without looking.
void dropQuotes(GPString* value);
