// Reading of an HTTP answer: status, headers, chunked bodies.

#include "fuzz/FuzzInput.h"
#include "gp/GPHTTP.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string answer = fuzzing::FuzzInput(data, size).rest();
    int code = 0;
    const auto headers = Owned<GPMap>::adopt(new GPMap);
    GPHTTP::parseAnswer(answer, code, *headers);
    const auto body = Owned<GPString>::adopt(GPHTTP::handleChunk(answer.c_str()));
    return 0;
}
