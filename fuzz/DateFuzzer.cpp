// Reading of a date as the check-in sends it.

#include "fuzz/FuzzInput.h"
#include "gp/GPDate.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzzing::FuzzInput(data, size).rest();
    const auto date = Owned<GPDate>::adopt(GPDate::dateFromString(text.c_str()));
    if (date) const auto again = Owned<GPString>::adopt(date->ISOString(true));
    return 0;
}
