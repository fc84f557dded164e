/// @file
/// WebUtils: how the library makes its HTTP clients, with the proxy taken from the
/// environment and, on request, bearer authorisation added to every request.
#pragma once

#include <TolvaCore/TolvaExport.h>

#include <cstddef>
#include <memory>
#include <string>

#include <cpprest/http_client.h>

namespace Varkel {
namespace Tolva {
namespace Rest {
class QxPlatformApi;
}  // namespace Rest

namespace WebUtils {

/// Makes an HTTP client for url with the HTTP library's default time-out (30 s per step).
/// Proxy, from the environment variable "http_proxy": unset or empty leaves the system default;
/// exactly "auto" (lower case) selects automatic proxy discovery; anything else is parsed as the
/// proxy's URI. When api is not empty, every request sent through the client gets the header
/// "Authorization: Bearer <token>" with the token text api holds at send time; the client keeps
/// only a weak reference to api, and sends without the header once api is gone.
/// Throws web::uri_exception for a malformed url or "http_proxy" value. Any thread.
TOLVA_EXPORT std::shared_ptr<web::http::client::http_client> createHttpClient(
    const std::wstring& url, const std::shared_ptr<Rest::QxPlatformApi>& api);

/// The HTTP library runs every request's socket work and every continuation on one shared pool
/// of threads per process. Its own default is 40 threads, which costs about 27 context switches
/// per request; this library sizes it, before it makes its first client, to:
///   1. the size given to setHttpThreadPoolSize, if the host called it first; else
///   2. the environment variable "TOLVA_HTTP_THREADS" (a number from 1 to 256), read once; else
///   3. kDefaultHttpThreads.
/// A host that initialised the pool itself (crossplat::threadpool::initialize_with_threads)
/// keeps its size; so does a process in which something else used the HTTP library first. In
/// both cases the library logs, once, a warning on "TolvaCore.WebUtil" that its size was not
/// applied.
///
/// The library's own work on the pool never waits: listeners run on the library's delivery
/// threads, not here (see MailboxListener and docs/threads.md), so any size from 1 up works
/// whatever the listeners do. A host that runs its own continuations on this pool must not
/// block in them either, and must not let go of the last reference to a QxPlatformApi there:
/// its destructor waits for requests that need the pool's threads.
/// Two threads: with no host code on the pool, 1, 2 and 4 threads all keep the library moving,
/// and 2 posts and delivers mail about as fast as the best of them on every measure taken
/// (bench/RESULTS.md, "HTTP thread pool size").
constexpr std::size_t kDefaultHttpThreads = 2;

/// Sets the pool size the library applies when it first makes a client (see above). Returns
/// true when the size will be applied, false (with a warning log line) when the library has
/// already settled the pool. Throws Varkel::Zu::InvalidArgumentException for 0. Any thread.
TOLVA_EXPORT bool setHttpThreadPoolSize(std::size_t threads);

/// Applies the pool size now, unless it was settled before: called by the library before every
/// client it makes, and by hosts that use the HTTP library themselves before any of their own
/// clients exist. Never throws. Any thread.
TOLVA_EXPORT void settleHttpThreadPool() noexcept;

}  // namespace WebUtils
}  // namespace Tolva
}  // namespace Varkel
