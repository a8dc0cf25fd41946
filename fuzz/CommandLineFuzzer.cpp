// Splitting of a command line into words.

#include "fuzz/FuzzInput.h"
#include "gp/GPArray.h"
#include "gp/GPTask.h"
#include "gp/Owned.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = fuzzing::FuzzInput(data, size).rest();
    const auto words = Owned<GPArray>::adopt(GPTask::splitCommandLine(text.c_str()));
    return 0;
}
