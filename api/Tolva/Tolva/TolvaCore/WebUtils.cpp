#include <TolvaCore/QxPlatformApi.h>
#include <TolvaCore/WebUtils.h>

#include <ZuCore/Env.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/Logger.h>
#include <ZuCore/StringConversion.h>

namespace Varkel {
namespace Tolva {
namespace WebUtils {

namespace {

const std::shared_ptr<Varkel::Zu::Logger>& webUtilLogger() {
    static const std::shared_ptr<Varkel::Zu::Logger> logger =
        Varkel::Zu::Logger::getLogger("TolvaCore.WebUtil");
    return logger;
}

}  // namespace

std::shared_ptr<web::http::client::http_client> createHttpClient(
    const std::wstring& url, const std::shared_ptr<Rest::QxPlatformApi>& api) {
    using Varkel::Zu::narrow;

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

    auto client = std::make_shared<web::http::client::http_client>(web::uri(narrow(url)), config);

    if (api) {
        // A weak reference: the API object owns its clients, so a strong one would keep the
        // object alive through its own client.
        std::weak_ptr<Rest::QxPlatformApi> weakApi = api;
        client->add_handler([weakApi](web::http::http_request request,
                                      std::shared_ptr<web::http::http_pipeline_stage> next) {
            std::wstring token;
            if (const auto currentApi = weakApi.lock()) {
                token = currentApi->currentAccessToken();
            }
            request.headers().add(web::http::header_names::authorization,
                                  narrow(L"Bearer " + token));
            return next->propagate(request);
        });
    }
    return client;
}

}  // namespace WebUtils
}  // namespace Tolva
}  // namespace Varkel
