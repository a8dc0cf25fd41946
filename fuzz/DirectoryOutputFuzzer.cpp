// What the directory tools print: a reader gives a piece of the output or nothing, and group names come out whole. The
// first run of bytes is the short domain, the rest the output.

#include "fuzz/FuzzInput.h"
#include "fuzz/Require.h"
#include "gp/GPArray.h"
#include "gp/GPAutoReleasePool.h"
#include "gp/GPString.h"
#include "gp/Owned.h"
#include "identity/DSQuery.h"
#include "identity/DirectoryOutput.h"
#include "identity/UserAuth.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

using fuzzing::require;

using Reader = GPString* (*)(const GPString*);

// What the reader finds; it stands in the output and has none of those characters.
std::string pieceOf(Reader read, const GPString& output, const char* without) {
    const auto found = Owned<GPString>::adopt(read(&output));
    if (!found) return "";
    const std::string piece = found->cstr();
    require(std::string(output.cstr()).find(piece) != std::string::npos);
    require(piece.find_first_of(without) == std::string::npos);
    return piece;
}

bool isTrimmed(const std::string& text) {
    constexpr char blanks[] = " \t\n\v\f\r";
    return text.empty() || (text.find_first_of(blanks) != 0 && text.find_last_of(blanks) != text.size() - 1);
}

std::vector<std::string> textsOf(GPArray& array) {
    std::vector<std::string> texts;
    for (int i = 0; i < array.count(); ++i)
        texts.emplace_back(static_cast<GPString*>(array.objectAtIndex(i))->cstr());
    return texts;
}

// Each has the domain in front, and between that and the group's own name a backslash.
void checkShortNames(const std::vector<std::string>& groups, GPArray& list, const std::string& domain) {
    const std::string head = domain + "\\";
    std::vector<std::string> expected;
    for (const std::string& group : groups) {
        const std::string first = group.substr(0, group.find(','));
        const std::size_t equals = first.find('=');
        if (first == group || first.empty() || equals == std::string::npos || equals == 0) continue;
        expected.push_back(head + first.substr(equals + 1));
    }
    setCachedDomain(domain.c_str());
    GPArray* const names = UserAuth::netbiosNames(&list);
    require(names && textsOf(*names) == expected);
}

void checkSimpleNames(const std::vector<std::string>& groups, const std::string& domain) {
    const auto names = DSQuery::convertSimpleGroupName(groups, domain);
    require(names.size() % 2 == 0 && names.size() <= 2 * groups.size());
    for (std::size_t i = 0; i < names.size(); i += 2) {
        const std::string& group = names[i + 1];
        require(group.rfind("cn=", 0) == 0);
        require(names[i] == domain + "\\" + group.substr(3, group.find(',') - 3));
    }
}

void readGroups(const GPString& output, const char* mark, const std::string& domain) {
    const auto list = Owned<GPArray>::adopt(groupsBehind(&output, mark));
    const std::string text = output.cstr();
    const std::size_t found = text.find(mark);
    require(static_cast<bool>(list) == (found != std::string::npos && found > 0));
    if (!list) return;
    const auto groups = textsOf(*list);
    for (const std::string& group : groups) {
        require(isTrimmed(group) && group.find('\n') == std::string::npos);
        require(text.find(group, found) != std::string::npos);
    }
    checkShortNames(groups, *list, domain);
    checkSimpleNames(groups, domain);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // One of the readers says on standard output where it found its mark.
    static std::FILE* const silence = std::freopen("/dev/null", "w", stdout);
    require(silence != nullptr);
    GPAutoReleasePool pool;
    fuzzing::FuzzInput input(data, size);
    const std::string domain = input.run().c_str();
    const GPString output(input.rest().c_str());

    pieceOf(netLogonDomain, output, ";\n");
    pieceOf(likewiseDomain, output, "]");
    pieceOf(adinfoDomain, output, "\n");
    pieceOf(distinguishedName, output, "");
    readGroups(output, "memberOf:", domain);
    readGroups(output, "groupMembership:", domain);
    return 0;
}
