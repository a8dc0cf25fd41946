#include "agent/ConfigurationFrame.h"

#include "gp/GPString.h"

#include <cstring>

namespace {

// The text between `key` and the first comma behind it. Without a comma the value counts as empty.
bool readValue(const char* body, const char* key, GPString*& value) {
    auto* text = new GPString(body);
    const int position = text->find(key, false);
    if (position <= 0) {
        text->release();
        return false;
    }
    text->subString(position + static_cast<int>(std::strlen(key)));
    const int comma = text->find(",", false);
    if (comma > 0)
        text->subString(0, comma);
    else
        text->reset("");
    value = text;
    return true;
}

} // namespace

bool readBypassOnFailure(const char* body, GPString*& value) {
    return readValue(body, "\"bypass_on_failure\":", value);
}

bool blocksOnFailure(GPString* value) { return value->isEqual("false"); }

bool readUpdateUrl(const char* body, GPString*& value) { return readValue(body, "\"update_url\":", value); }

void dropQuotes(GPString* value) {
    value->trim();
    const int length = value->length();
    if (length > 2)
        value->subString(1, length - 1);
    else
        value->reset("");
}
