// QxPlatformApi: the one object through which the library talks to the QX Platform over REST.
// It holds the platform URL, the API key (the client credential), the current access token and
// the HTTP client, keeps the token fresh, posts notifications, registers services and keeps
// them alive with a heartbeat every five seconds. Instances are made through MakeShared (or the
// two configuration factories) and are always owned by shared pointers.
//
// Threads: every operation runs on the calling thread and blocks it until the platform has
// answered. One task of the object's own, the heartbeat task, wakes every five seconds, renews
// the token when due and sends one heartbeat per registered service, holding the object lock
// for the whole pass; unregistration (and the mailbox calls) wait for a pass under way.
#pragma once

#include <TolvaCore/ModelServiceInfo.h>
#include <TolvaCore/Token.h>
#include <TolvaCore/TolvaExport.h>
#include <TolvaCore/WebUtils.h>

#include <ZuCore/BlockingQueue.h>
#include <ZuCore/ConditionVariable.h>
#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/Thread.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <cpprest/http_client.h>
#include <pplx/pplxtasks.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

class Mailbox;

class TOLVA_EXPORT QxPlatformApi {
  public:
    using MailboxQueue =
        Varkel::Zu::BlockingQueue<std::shared_ptr<Mailbox>, int, Varkel::Zu::Logger>;

    // Makes the HTTP client, requests a first token (a failure is written to the debug log
    // and construction goes on with an empty token), then starts the heartbeat task and
    // creates the mailbox queue. Reached only through MakeShared::create<QxPlatformApi>(url,
    // key). Blocks the calling thread for the token request (at most the client time-out of
    // each step). Throws what building the HTTP client throws (a malformed "http_proxy"
    // value makes URI parsing throw). Any thread.
    QxPlatformApi(Varkel::Zu::MakeShared::PrivateConstructorType, const std::wstring& url,
                  const std::wstring& key);

    // Stops the object, in this order: clears the running flag, shuts the mailbox queue down,
    // interrupts the heartbeat wait and waits for the heartbeat task (which finishes a pass
    // already under way, including its token request), joins the mail polling thread if one
    // was started, cancels every mailbox reception task and waits for each, and writes
    // "TRACE: It took N ms to kill the mailbox reception tasks." to the debug log.
    // Makes no REST call: platform mailboxes and service registrations are left as they are.
    // Never throws. Runs on the thread that drops the last owner, which must not be the
    // heartbeat task or an HTTP continuation.
    virtual ~QxPlatformApi();

    QxPlatformApi(const QxPlatformApi&) = delete;
    QxPlatformApi& operator=(const QxPlatformApi&) = delete;

    // Makes an API object from the JSON document in the environment variable
    // "QX_PLATFORM_CONFIG": {"url": <platform URL>, "logging": {"credentials": <API key>}}.
    // Returns an empty pointer when the variable is unset or empty. Parse errors and missing
    // or mistyped members reach the caller as web::json::json_exception. Any thread.
    static std::shared_ptr<QxPlatformApi> createFromEnvVar();

    // Makes an API object from a configuration document of the same format as
    // createFromEnvVar. Every std::exception on the way (bad JSON, missing member, wrong
    // type) is logged on the root logger and rethrown as Varkel::Zu::InvalidArgumentException
    // carrying its text. Any thread.
    static std::shared_ptr<QxPlatformApi> createFromQXPlatformConfig(const std::wstring& config);

    // Releases the HTTP client and makes a new one for the current platform URL (honouring
    // "http_proxy", see WebUtils::createHttpClient). Requests already sent keep the client
    // they were sent with. Throws what WebUtils::createHttpClient throws. Any thread.
    void createClient();

    // A copy of the platform URL. Never throws. Any thread.
    std::wstring getPlatformUrl() const;

    // A copy of the API key. Never throws. Any thread.
    std::wstring getPlatformApiKey() const;

    // Stores the URL, remakes the HTTP client and clears the current token, so that the next
    // authorised call fetches a new one. Throws what createClient throws. Any thread.
    void setPlatformUrl(std::wstring url);

    // Stores the key and clears the current token; the HTTP client is kept. Never throws.
    // Any thread.
    void setPlatformApiKey(std::wstring key);

    // Empties the current token's text and sets its expiry to the epoch (tick count 0); the
    // account and key set are left as they are. Never throws. Any thread.
    void clearToken();

    // The current token itself, not a copy, and without any renewal. The reference stays
    // valid for the object's lifetime, but its fields are rewritten when the token is renewed
    // (by the heartbeat task every 5 seconds when due, or by any validating call), so read it
    // only while no other thread can renew it; getCurrentTokenCopy is the safe way to read it
    // while the object runs. Never throws.
    const Token& getCurrentToken();

    // A consistent copy of the whole current token (text, account, key set and expiry), taken
    // under the object's state lock, so it is safe while the heartbeat task or another caller
    // renews the token. This is the way to read the key set for verification. No renewal.
    // Never throws except std::bad_alloc. Any thread.
    Token getCurrentTokenCopy() const;

    // A copy of the current token's access token text, taken under the object's state lock,
    // so it is safe while another thread renews the token. No renewal. Never throws.
    // Any thread.
    std::wstring getCurrentAccessToken() const;

    // Publishes one notification: renews the token when due, then POSTs
    // {"id", "time", "topic" (lower-cased), "content", "ttl" (only when ttl is not 0),
    // "source": "Tolva"} to "/notifications/api/v1/notifications" and waits for the answer.
    // Returns when the platform answered 204. Any other status, and any transport failure,
    // throws a std::exception whose what() is the HTTP library's text (for a status failure
    // the response body). pplx::task_canceled passes through unchanged. Sent once, never
    // retried. Blocks the calling thread; any thread except an HTTP continuation.
    void postNotification(const std::wstring& topic, const std::wstring& content, unsigned int ttl);

    // Registers a service with the platform's discovery service: validates the record
    // (IllegalStateException "Missing property ..." before anything is sent), POSTs its JSON to
    // "/discovery/api/v1/service" with the current token as it stands (no renewal) and, on a
    // 201 reply, fills inout_serviceInfo->serviceSecret from the reply and enters the record
    // under the returned "serviceId" (an entry with that id is replaced). The record is
    // shared, not copied: the heartbeat sees later changes of its health object. From the next
    // heartbeat pass on the service is kept alive. Any other status (200 included) or a
    // transport failure throws std::exception with the HTTP library's text (for a status
    // failure the response body); the secret then stays empty and nothing is entered. A null
    // pointer is reported through boost::assertion_failed ("inout_serviceInfo") and nothing
    // is sent. Does not wait for a heartbeat pass. Blocks the calling thread; any thread
    // except an HTTP continuation.
    void registerService(const std::shared_ptr<Model::ModelServiceInfo>& inout_serviceInfo);

    // Forgets the service registered under serviceId (the id the platform returned) and
    // sends DELETE "/discovery/api/v1/service/<id>/<secret>". The service is forgotten before
    // the request leaves, whatever the platform answers; a platform or transport failure is
    // only written to the debug log ("ERROR: QXP unregister service failed: ..."). Throws
    // Varkel::Zu::InvalidArgumentException "Service not found" when the id is not registered
    // (nothing is sent). Waits for a heartbeat pass under way. Blocks the calling thread; any
    // thread except an HTTP continuation.
    void unregisterService(const std::wstring& serviceId);

    // unregisterService for every registered service, in id order, each failure written to
    // the debug log. Never throws for a platform failure. Blocks like unregisterService.
    void unregisterAllServices();

  protected:
    // Requests a new access token ("/identity/connect/token", client-credentials grant) and
    // then the identity service's key set, and reads the platform account from the token's
    // "acc" claim. Returns the complete new token; the current token is not changed, except
    // that it is cleared when either request fails. Throws std::exception: with the HTTP
    // library's text for transport and status failures (after clearing the current token),
    // "Invalid JWT token. Expecting 3 parts" or "Invalid JWT token. Does not carry an 'acc'
    // claim." for a token it cannot read; JSON and Base64 errors pass through as thrown.
    // Blocks the calling thread for both requests one after the other.
    Token getToken();

    // Renews the current token when it is empty or fewer than 300 seconds of it remain.
    // A failed renewal is logged and leaves the token cleared; nothing is thrown. Blocks
    // while renewing.
    void validateToken();

    // Whether a token needs renewing at the instant now: its text is empty, or it expires
    // fewer than 300 seconds after now (already expired included).
    static bool isTokenDue(const Token& token, Token::TimePoint now);

    // Starts the heartbeat task on the HTTP library's task pool and returns at once. Called
    // once by the constructor.
    void launchHeartbeatTask();

    // One heartbeat: PUT "/discovery/api/v1/service/<id>/<secret>/health" with the JSON body
    // null, waited for. 204 writes "TRACE: Heartbeat sent for service <id>"; another status
    // or a transport failure is logged (capped) and not thrown.
    void sendHeartbeat(const std::wstring& serviceId, const std::wstring& serviceSecret);

  private:
    friend std::shared_ptr<web::http::client::http_client> WebUtils::createHttpClient(
        const std::wstring& url, const std::shared_ptr<QxPlatformApi>& api);

    // One reception task per mailbox this object created.
    struct MailboxEntry {
        std::shared_ptr<Mailbox> mailbox;
        pplx::task<void> receptionTask;
    };

    // A registered service as the heartbeat pass sends it: id and secret.
    struct ServiceCredentials {
        std::wstring serviceId;
        std::wstring serviceSecret;
    };

    void heartbeatLoop();
    void heartbeatPass();
    std::vector<ServiceCredentials> copyServiceTable() const;
    std::shared_ptr<web::http::client::http_client> currentClient() const;
    std::wstring currentAccessToken() const;
    // "Bearer " + the current access token as it stands, as header text.
    std::string bearerAuthorization() const;
    void storeToken(const Token& token);

    static std::shared_ptr<Varkel::Zu::Logger> logger_;

    // Guards the URL, the key, the current token and the client pointer. These are read by
    // every request (the heartbeat task and caller threads alike) and rewritten by the
    // setters and by token renewal; unguarded, that sharing would be a data race. It is held
    // only to copy or assign those members, never across a request, so concurrent renewals
    // still both fetch a token and the later assignment wins.
    mutable std::mutex stateMutex_;

    std::wstring platformUrl_;
    std::wstring apiKey_;
    Token currentToken_;
    // Guards the mailbox table and the unregistration side of the service table, and is held
    // by the heartbeat task for each whole pass.
    std::mutex objectLock_;
    // Registered services by the id the platform returned.
    std::map<std::wstring, std::shared_ptr<Model::ModelServiceInfo>> serviceTable_;
    // Registration enters a service from an HTTP continuation without the object lock, so
    // that it never waits for a heartbeat pass. Unlocked, that insertion would race with the
    // pass's copy of the table; this leaf lock, held only for a copy, insertion or removal
    // (and for every read or write of a registered record's secret), makes it well defined
    // without changing who waits for whom.
    mutable std::mutex serviceTableMutex_;
    std::atomic<bool> running_{false};
    pplx::task<void> heartbeatTask_;
    Varkel::Zu::ConditionVariable heartbeatWakeUp_;
    std::shared_ptr<web::http::client::http_client> httpClient_;
    std::map<std::wstring, MailboxEntry> mailboxTable_;
    pplx::cancellation_token_source receptionCancellation_;
    std::shared_ptr<MailboxQueue> mailboxQueue_;
    std::shared_ptr<Varkel::Zu::Thread> queryLauncherThread_;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
