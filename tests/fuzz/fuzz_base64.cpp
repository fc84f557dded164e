// Base64::decode and Base64::decode_url on fuzzed text: either a result or
// InvalidArgumentException. What decodes re-encodes to text that decodes to the same bytes.
#include "FuzzSupport.h"

#include <ZuCore/Base64.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/MemoryBuffer.h>

#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TolvaFuzz::quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Varkel::Zu::Base64;
    const std::string text = TolvaFuzz::bytes(data, size);
    try {
        const auto decoded = Base64::decode(text);
        if (!(*Base64::decode(Base64::encode(*decoded)) == *decoded)) {
            std::abort();
        }
    } catch (const Varkel::Zu::InvalidArgumentException&) {
    }
    try {
        const auto decoded = Base64::decode_url(text);
        if (!(*Base64::decode_url(Base64::encode_url(*decoded)) == *decoded)) {
            std::abort();
        }
    } catch (const Varkel::Zu::InvalidArgumentException&) {
    }
    return 0;
}
