// CommonUtil::encodeUnsafeURLCharacters on fuzzed text: never throws, and what it returns may
// stand in a URL path (no space, no character the encoder is there to remove).
#include "FuzzSupport.h"

#include <ZuCore/CommonUtil.h>

#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TolvaFuzz::quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::wstring encoded =
        Varkel::Zu::CommonUtil::encodeUnsafeURLCharacters(TolvaFuzz::wide(data, size));
    for (const wchar_t c : encoded) {
        if (c == L' ' || c == L'"' || c == L'<' || c == L'>' || c == L'#' || c == L'\\' ||
            c < 0x21) {
            std::abort();
        }
    }
    return 0;
}
