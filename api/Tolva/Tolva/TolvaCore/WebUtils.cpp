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

std::shared_ptr<web::http::client::http_client> createHttpClient(
    const std::wstring& url, const std::shared_ptr<Rest::QxPlatformApi>& api) {
    using Varkel::Zu::narrow;

    // Making a client already starts the pool: its size must be settled before.
    settleHttpThreadPool();

    web::http::client::http_client_config config;

    const std::wstring proxy = Varkel::Zu::Env::getVar(std::wstring(L"http_proxy"), L"");
    if (proxy == L"auto") {
        config.set_proxy(web::web_proxy(web::web_proxy::use_auto_discovery));
        ZU_LOG_DEBUG(webUtilLogger(), L"HTTP client uses automatic proxy discovery.");
    } else if (!proxy.empty()) {
        // The proxy URI may carry credentials, so it is not logged, and a malformed one is
        // reported without its text: the HTTP library's own message quotes the whole value,
        // and callers log exception texts.
        web::uri proxyUri;
        try {
            proxyUri = web::uri(narrow(proxy));
        } catch (const web::uri_exception&) {
            throw web::uri_exception("The http_proxy value is not a valid URI.");
        }
        config.set_proxy(web::web_proxy(proxyUri));
        ZU_LOG_DEBUG(webUtilLogger(), L"HTTP client uses the proxy given by http_proxy.");
    }

    auto client = TlsTrust::makeClient(web::uri(narrow(url)), config);

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
