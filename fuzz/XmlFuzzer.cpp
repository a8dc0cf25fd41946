// The scanner, the searches and the writer over any text.

#include "fuzz/FuzzInput.h"
#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzzing::FuzzInput(data, size).rest();
    const auto root = Owned<GPDOMElement>::adopt(GPDOMElement::parse(text.c_str()));
    if (!root) return 0;
    root->findElement("ServerName");
    const auto found = Owned<GPArray>::adopt(root->findElements("string"));
    const auto plain = Owned<GPString>::adopt(root->convertToString(false, nullptr, false));
    const auto pretty = Owned<GPString>::adopt(root->convertToString(true, "x", true));
    const auto again = Owned<GPDOMElement>::adopt(GPDOMElement::parse(plain->cstr()));
    return 0;
}
