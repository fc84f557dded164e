// A minimal host of the platform facade: makes the facade, gives it the platform URL (which
// makes the API object when the API key is long enough) and posts one notification.
//
//   facade_host <platform URL> <API key> [topic] [content]
//
// e.g. against a local emulator: facade_host http://127.0.0.1:8080 "$(cat key.txt)"
#include <TolvaCore/CTolvaPlatform.h>
#include <TolvaCore/TolvaPlatformEntry.h>

#include <ZuCore/StringConversion.h>

#include <cstdio>
#include <exception>
#include <string>

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <platform URL> <API key> [topic] [content]\n", argv[0]);
        return 2;
    }
    const std::string platformUrl = argv[1];
    const std::string apiKey = argv[2];
    const std::wstring topic = Varkel::Zu::widen(argc > 3 ? argv[3] : "facade.example");
    const std::wstring content = Varkel::Zu::widen(argc > 4 ? argv[4] : "hello from a host");

    try {
        // The platform URL given here is not used; it takes effect through setPlatformUrl.
        CTolvaPlatformIF* platform =
            InitializeQXPlatform(platformUrl, "", apiKey, "", "", "", "facade_host");

        // Makes the API object (and then pauses for 7 s) when the URL starts with "http://"
        // or "https://" and the key has more than 100 characters.
        platform->setPlatformUrl(platformUrl);
        if (!CTolvaPlatform::getInstance()->getQxAPI()) {
            std::fprintf(stderr, "no API object: check the URL scheme and the key length\n");
            return 1;
        }

        platform->postNotification(topic, content, 60);
        std::printf("\nposted to %s\n", platform->getStringPlatformUrl().c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "failed: %s\n", e.what());
        return 1;
    }
    // The facade lives until the process ends.
    return 0;
}
