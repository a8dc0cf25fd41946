// Reading of the check-in's replies. A text that a reply brings into the settings must come back out of the
// file that it is written to.

#include "config/CheckinReply.h"
#include "fuzz/FuzzInput.h"
#include "gp/GPDOMElement.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <cstdlib>

namespace {

void addSetting(GPDOMElement& file, const char* name, const char* text) {
    const auto setting = Owned<GPDOMElement>::adopt(GPDOMElement::createElement(name, nullptr, text));
    file.addElement(setting.get());
}

void mustComeBack(const std::string& text) {
    if (text.empty()) return;
    const auto file = Owned<GPDOMElement>::adopt(GPDOMElement::createElement("Fernhill"));
    addSetting(*file, "Text", text.c_str());
    addSetting(*file, "Next", "behind it");
    const auto written = Owned<GPString>::adopt(file->convertToString(false, nullptr, false));
    const auto again = Owned<GPDOMElement>::adopt(GPDOMElement::parse(written->cstr()));
    GPDOMElement* read = again ? again->findElement("Text") : nullptr;
    GPDOMElement* next = again ? again->findElement("Next") : nullptr;
    if (!read || !read->value || !read->value->isEqual(text.c_str())) std::abort();
    if (!next || !next->value || !next->value->isEqual("behind it")) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string body = fuzzing::FuzzInput(data, size).rest();
    const auto reply = readCheckinReply(body.c_str());
    if (!reply) return 0;
    mustComeBack(reply->nextCheckIn);
    for (const std::string& name : reply->serverNames)
        mustComeBack(name);
    return 0;
}
