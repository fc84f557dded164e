// A small host of the installed package, built once with CMake and once with pkg-config. It
// prints how the headers were configured for it; both builds must print the same.
#include <TolvaCore/Mailbox.h>
#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/MakeShared.h>

#include <cstdio>

int main() {
    const auto mailbox = Varkel::Zu::MakeShared::create<Varkel::Tolva::Rest::Mailbox>();
    if (mailbox->getId().is_nil()) {
        return 1;
    }
#ifdef BOOST_ENABLE_ASSERT_HANDLER
    std::printf("Boost assertions: the library's handler\n");
#else
    std::printf("Boost assertions: assert()\n");
#endif
#ifdef CPPREST_FORCE_HTTP_CLIENT_ASIO
    std::printf("HTTP client: Asio\n");
#else
    std::printf("HTTP client: platform default\n");
#endif
    std::printf("flags host ok\n");
    return 0;
}
