#include "machost/foundation/Information.h"

#include <cctype>
#include <string>

namespace machost::foundation {
namespace {

bool plainHttp = false;

// Whether the list has the key with <true/> behind it.
bool isTrue(const std::string& list, const std::string& key) {
    const std::string element = "<key>" + key + "</key>";
    std::size_t at = list.find(element);
    if (at == std::string::npos) return false;
    at += element.size();
    while (at < list.size() && std::isspace(static_cast<unsigned char>(list[at])))
        ++at;
    return list.compare(at, 7, "<true/>") == 0;
}

} // namespace

void readInformation(const Image& image) {
    const Section* section = image.file().section("__TEXT", "__info_plist");
    if (!section) return;
    const std::string list(image.records<const char>(section->address, section->size), section->size);
    plainHttp = list.find("<key>NSAppTransportSecurity</key>") != std::string::npos &&
                isTrue(list, "NSAllowsArbitraryLoads");
}

bool allowsPlainHttp() { return plainHttp; }

} // namespace machost::foundation
