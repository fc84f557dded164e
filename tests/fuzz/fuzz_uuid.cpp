// ZuUUID parsing on fuzzed text: the constructor accepts exactly what isValid accepts, and an
// accepted text reads back as its lower-case form.
#include "FuzzSupport.h"

#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/ZuUUID.h>

#include <cstdlib>
#include <cwctype>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TolvaFuzz::quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Varkel::Zu::ZuUUID;
    const std::wstring text = TolvaFuzz::wide(data, size);
    const bool valid = ZuUUID::isValid(text);
    try {
        const ZuUUID parsed(text);
        std::wstring lower = text;
        for (auto& c : lower) {
            c = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
        }
        if (!valid || parsed.toWString() != lower) {
            std::abort();
        }
    } catch (const Varkel::Zu::InvalidArgumentException&) {
        if (valid) {
            std::abort();
        }
    }
    return 0;
}
