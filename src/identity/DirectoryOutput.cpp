#include "identity/DirectoryOutput.h"

#include "gp/GPArray.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

int lengthOf(const char* text) { return static_cast<int>(std::strlen(text)); }

// The bytes from `start` up to but not including `end`, which both lie in the text. No copy that is cut, since that
// would keep the room of a whole output for as long as an answer of few letters is known.
GPString* piece(const GPString* text, int start, int end) {
    return GPString::of({text->cstr() + start, static_cast<std::size_t>(end - start)});
}

// The trimmed piece; null if it would end before it starts, which a mark that was not found does.
GPString* trimmedPiece(const GPString* text, int start, int end) {
    return end < start ? nullptr : piece(text, start, end)->trim();
}

} // namespace

GPString* netLogonDomain(const GPString* output) {
    constexpr const char* mark = ";NetLogon;";
    if (!output || !output->startsWith("AuthenticationAuthority:")) return nullptr;
    const int start = output->find(mark, false);
    if (start < 0) return nullptr;
    const int lineEnd = output->find("\n", start, false);
    const auto line = Owned<GPString>::adopt(piece(output, start, lineEnd > 0 ? lineEnd : output->length()));
    GPString* domain = piece(line.get(), line->find(";", true) + 1, line->length());
    trimws(domain->charAtIndex(0));
    return domain;
}

GPString* likewiseDomain(const GPString* output) {
    constexpr const char* mark = "[Domain:";
    if (!output) return nullptr;
    const int found = output->find(mark, false);
    if (found <= 0) return nullptr;
    const int start = found + lengthOf(mark);
    return trimmedPiece(output, start, output->find("]", start, false));
}

GPString* adinfoDomain(const GPString* output) {
    constexpr const char* equals = "= ";
    if (!output) return nullptr;
    const int found = output->find("NTLM NAME", false);
    if (found <= 0) return nullptr;
    const int sign = output->find(equals, found, false);
    if (sign < 0) return nullptr;
    const int start = output->skipws(sign + lengthOf(equals));
    return trimmedPiece(output, start, output->find("\n", start, false));
}

GPString* distinguishedName(const GPString* output) {
    if (!output) return nullptr;
    // The search from the end looks at the last colon alone, on purpose: a name that holds one is not found.
    const int colon = output->find("distinguishedName:", true);
    std::printf("find is: %d\n", colon);
    if (colon < 1) return nullptr;
    return trimmedPiece(output, colon + 2, output->find("\n", true));
}

GPArray* groupsBehind(const GPString* output, const char* mark) {
    if (!output) return nullptr;
    const int found = output->find(mark, false);
    if (found <= 0) return nullptr;
    const auto list =
        Owned<GPString>::adopt(piece(output, output->skipws(found + lengthOf(mark)), output->length()));
    GPArray* groups = list->split("\n");
    for (int i = 0; i < groups->count(); ++i)
        static_cast<GPString*>(groups->objectAtIndex(i))->trim();
    return groups;
}
