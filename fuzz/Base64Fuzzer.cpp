// Both directions of base64, and the decryption of any text.

#include "fuzz/FuzzInput.h"
#include "gp/GPAlgorithm.h"
#include "gp/GPData.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes = fuzzing::FuzzInput(data, size).rest();
    const int length = static_cast<int>(bytes.size());
    const auto decoded = Owned<GPData>::adopt(GPAlgorithm::decodeBase64(bytes.data(), length));
    const auto encoded = Owned<GPData>::adopt(GPAlgorithm::encodeBase64(bytes.data(), length));
    const auto text = Owned<GPString>::adopt(encoded->convertToString());
    const auto plain = Owned<GPString>::adopt(GPAlgorithm::blowfishDecryptText(bytes.c_str(), "key"));
    return 0;
}
