// A host that uses the platform library alone (no symbol of the core library of its own),
// built with pkg-config. It starts only when the installed libTolvaCore finds libZuCore
// beside it.
#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/MakeShared.h>

#include <cstdio>

int main() {
    // Nothing listens on port 9: the first token request fails and the object goes on.
    auto api = Varkel::Zu::MakeShared::create<Varkel::Tolva::Rest::QxPlatformApi>(
        L"http://127.0.0.1:9", L"a2V5OnNlY3JldA==");
    if (!api->getCurrentAccessToken().empty()) {
        return 1;
    }
    std::printf("platform consumer ok\n");
    return 0;
}
