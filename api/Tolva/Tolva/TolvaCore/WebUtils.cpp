#include <TolvaCore/QxPlatformApi.h>
#include <TolvaCore/WebUtils.h>

#include "private/BearerText.h"

#include <ZuCore/Env.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/Logger.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>

#include <mutex>

#include <pplx/threadpool.h>

#include "private/CountText.h"
#include "private/HttpClientMaker.h"
#include "private/ProxySettings.h"
#include "private/TlsTrust.h"

namespace Varkel {
namespace Tolva {
namespace WebUtils {

namespace {

const std::shared_ptr<Varkel::Zu::Logger>& webUtilLogger() {
    static const std::shared_ptr<Varkel::Zu::Logger> logger =
        Varkel::Zu::Logger::getLogger("TolvaCore.WebUtil");
    return logger;
}

// The pool is settled once per process; requestedThreads is the host's choice until then.
std::mutex poolMutex;
bool poolSettled = false;
std::size_t requestedThreads = 0;

constexpr std::size_t kMostHttpThreads = 256;

// The size from "TOLVA_HTTP_THREADS", 0 when unset; a bad value is logged and ignored.
std::size_t threadsFromEnvironment() {
    const std::wstring text = Varkel::Zu::Env::getVar(std::wstring(L"TOLVA_HTTP_THREADS"), L"");
    if (text.empty()) {
        return 0;
    }
    const std::optional<std::size_t> value = countFromText(text, kMostHttpThreads);
    if (!value) {
        ZU_LOG_WARN(webUtilLogger(),
                    L"TOLVA_HTTP_THREADS is not a number from 1 to 256; the "
                    L"HTTP thread pool gets its default size.");
        return 0;
    }
    return *value;
}

}  // namespace

bool setHttpThreadPoolSize(std::size_t threads) {
    if (threads == 0 || threads > kMostHttpThreads) {
        ZU_THROW(Varkel::Zu::InvalidArgumentException,
                 L"The HTTP thread pool needs from 1 to 256 threads.");
    }
    std::lock_guard<std::mutex> lock(poolMutex);
    if (poolSettled) {
        ZU_LOG_WARN(webUtilLogger(), L"The HTTP thread pool is already running; " +
                                         std::to_wstring(threads) +
                                         L" threads cannot be applied any more.");
        return false;
    }
    requestedThreads = threads;
    return true;
}

void settleHttpThreadPool() noexcept {
    try {
        std::lock_guard<std::mutex> lock(poolMutex);
        if (poolSettled) {
            return;
        }
        poolSettled = true;
        std::size_t threads = requestedThreads;
        if (threads == 0) {
            threads = threadsFromEnvironment();
        }
        if (threads == 0) {
            threads = kDefaultHttpThreads;
        }
        try {
            crossplat::threadpool::initialize_with_threads(threads);
            ZU_LOG_DEBUG(webUtilLogger(),
                         L"HTTP thread pool: " + std::to_wstring(threads) + L" threads.");
        } catch (const std::exception&) {
            // The host, or an earlier user of the HTTP library, made the pool first.
            ZU_LOG_WARN(webUtilLogger(),
                        L"The HTTP thread pool was already running; its size "
                        L"is kept and " +
                            std::to_wstring(threads) + L" threads are not applied.");
        }
    } catch (...) {
        // Logging or locking failed: the pool keeps whatever size it gets.
    }
}

namespace {

// What a client for one URL is made with: the configuration, and the Proxy-Authorization
// value its plain requests carry (empty: none).
struct ClientSettings {
    web::http::client::http_client_config config;
    std::string proxyAuthorization;
};

// The client for url with the proxy the environment names for it (see ProxySettings).
ClientSettings settingsFor(const web::uri& target) {
    ClientSettings settings;
    ProxySettings::Choice proxy = ProxySettings::forTarget(target);
    // Proxy credentials given to the HTTP library are copied, and the copy never freed, every
    // time it builds a Proxy-Authorization header (once per request through the proxy). For
    // plain requests the library adds that header itself, so the HTTP library never sees the
    // credentials; only an https tunnel's CONNECT (once per connection) needs them there.
    if (proxy.credentials && target.scheme() != "https") {
        settings.proxyAuthorization = ProxySettings::basicAuthorization(*proxy.credentials);
        proxy.credentials.reset();
    }
    settings.config.set_proxy(ProxySettings::toWebProxy(proxy));
    // The proxy's address may carry credentials: only the variable's name is logged.
    switch (proxy.mode) {
        case ProxySettings::Choice::Mode::AutoDiscovery:
            ZU_LOG_DEBUG(webUtilLogger(), L"HTTP client uses automatic proxy discovery.");
            break;
        case ProxySettings::Choice::Mode::Given:
            ZU_LOG_DEBUG(webUtilLogger(),
                         L"HTTP client uses the proxy given by " +
                             Varkel::Zu::widen(proxy.variable) +
                             (proxy.credentials || !settings.proxyAuthorization.empty()
                                  ? L", with credentials."
                                  : L"."));
            break;
        case ProxySettings::Choice::Mode::Direct:
            ZU_LOG_DEBUG(webUtilLogger(),
                         L"HTTP client goes direct: its host is listed in no_proxy.");
            break;
        case ProxySettings::Choice::Mode::SystemDefault:
            break;
    }
    return settings;
}

// Adds the proxy's credentials to every request of client (plain requests through a proxy).
// The stage passes the request on unchanged otherwise and adds no continuation.
void addProxyAuthorization(web::http::client::http_client& client, const std::string& value) {
    if (value.empty()) {
        return;
    }
    client.add_handler([value](web::http::http_request request,
                               std::shared_ptr<web::http::http_pipeline_stage> next) {
        request.headers().add("Proxy-Authorization", value);
        return next->propagate(request);
    });
}

}  // namespace

std::shared_ptr<web::http::client::http_client> makeHttpClient(const std::wstring& url,
                                                               std::chrono::seconds stepTimeout) {
    settleHttpThreadPool();
    const web::uri target(Varkel::Zu::narrow(url));
    ClientSettings settings = settingsFor(target);
    settings.config.set_timeout(stepTimeout);
    // No platform operation accepts a redirect: one is answered like any other status it does
    // not accept. Without a redirect limit the HTTP library would add a continuation of its own
    // to every request, a hand-over between threads that nothing uses.
    settings.config.set_max_redirects(0);
    auto client = TlsTrust::makeClient(target, settings.config);
    addProxyAuthorization(*client, settings.proxyAuthorization);
    return client;
}

std::shared_ptr<web::http::client::http_client> createHttpClient(
    const std::wstring& url, const std::shared_ptr<Rest::QxPlatformApi>& api) {
    using Varkel::Zu::narrow;

    // Making a client already starts the pool: its size must be settled before.
    settleHttpThreadPool();

    const web::uri target(narrow(url));
    const ClientSettings settings = settingsFor(target);

    auto client = TlsTrust::makeClient(target, settings.config);
    addProxyAuthorization(*client, settings.proxyAuthorization);

    if (api) {
        // Only the token's header text is held, and weakly: the stage must never hold the API
        // object itself, since the sending thread (a pool thread, for a host that sends from a
        // continuation) would then be the one to let go of it, and the object's end would run
        // there while the pool's threads are what it waits for.
        std::weak_ptr<Rest::BearerText> weakBearer = api->bearer_;
        client->add_handler([weakBearer](web::http::http_request request,
                                         std::shared_ptr<web::http::http_pipeline_stage> next) {
            std::string header = Rest::BearerText::kPrefix;
            if (const auto bearer = weakBearer.lock()) {
                header = bearer->get();
            }
            request.headers().add(web::http::header_names::authorization, header);
            return next->propagate(request);
        });
    }
    return client;
}

void setTrustedCaFile(const std::wstring& path) {
    TlsTrust::setCaFile(Varkel::Zu::narrow(path));
}

std::wstring trustedCaFile() {
    return Varkel::Zu::widen(TlsTrust::caFile());
}

}  // namespace WebUtils
}  // namespace Tolva
}  // namespace Varkel
