/// @class Varkel::Tolva::Rest::QxPlatformApi
/// QxPlatformApi: the one object through which the library talks to the QX Platform over REST.
/// It holds the platform URL, the API key (the client credential), the current access token and
/// the HTTP client, keeps the token fresh, posts notifications, registers services and keeps
/// them alive with a heartbeat every five seconds. Instances are made through MakeShared (or the
/// two configuration factories) and are always owned by shared pointers.
///
/// Threads: every operation runs on the calling thread and blocks it until the platform has
/// answered. One task of the object's own, the heartbeat task, wakes every five seconds, renews
/// the token when due and sends one heartbeat per registered service, holding the object lock
/// for the whole pass; unregistration (and the mailbox calls) wait for a pass under way.
///
/// Mail: the first createMailbox starts the "Mailbox polling thread", which keeps one long poll
/// (GET ".../notifications/<id>?timeout=30") outstanding per mailbox. Each poll's answer is read
/// on a thread of the HTTP library's pool and its mail handed to one of this object's delivery
/// threads, which calls the mailbox's listeners (Mailbox::receiveMail) and then queues the
/// mailbox for its next poll:
/// - Listeners of one mailbox run one at a time, in order; a blocking listener delays only its
///   own mailbox. Delivery threads are made on demand, up to 64 (TOLVA_DELIVERY_THREADS, 1 to
///   4096), and end after 10 s without work; beyond the limit, mail waits for a free thread.
///   A listener may call every operation of this object, request and reply included, and may
///   let go of its last reference (see MailboxListener). The HTTP pool runs only socket work
///   and short continuations, so no listener and no platform outage can take its threads.
/// - Every live mailbox holds one socket to the platform for its poll: a host with thousands of
///   mailboxes needs a descriptor limit (ulimit -n) above that number.
/// - A poll that fails in transport (connection refused or reset, the platform restarting, the
///   client's 30-second time-out racing the platform's 30-second wait, a connection lost while
///   the answer is read) keeps its mailbox in the cycle: it is polled again after a back-off
///   that doubles from 100 ms to 5 s, and the failure is logged at most once a minute. A poll
///   answered with a status other than 200 or 204 drops the mailbox (see retrieveMail), unless
///   resilient recovery is on (see RecoveryMode and setRecoveryMode).
/// - Each mailbox's life (MailboxState) is decided in one place: at most one poll of a mailbox
///   is outstanding, and a stopped or deleted mailbox is never polled or fed again. What the
///   host did not cause itself (a mailbox stopped, backing off, polling again or created
///   again, a service lost or registered again, token renewal failing or recovering) reaches
///   it as an ApiEvent (setEventCallback) and on the logger "TolvaCore.Events".
/// - docs/threads.md maps every thread the library runs, what runs on it and what it may wait
///   for.
#pragma once

#include <TolvaCore/ApiEvent.h>
#include <TolvaCore/ApiStatistics.h>
#include <TolvaCore/Mailbox.h>
#include <TolvaCore/ModelServiceInfo.h>
#include <TolvaCore/RecoveryMode.h>
#include <TolvaCore/Token.h>
#include <TolvaCore/TolvaExport.h>
#include <TolvaCore/WebUtils.h>

#include <ZuCore/BlockingQueue.h>
#include <ZuCore/ConditionVariable.h>
#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/Thread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <cpprest/http_client.h>
#include <pplx/pplxtasks.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

class ConnectionPacer;
class DeliveryThreads;
class EventDispatcher;
class MailboxRegistry;
class RestCall;
struct MailboxLife;
class StatisticsRecorder;
struct BearerText;
class StatisticsReporter;

class TOLVA_EXPORT QxPlatformApi {
  public:
    /// The queue of mailboxes waiting for their next poll, read by the "Mailbox polling thread".
    using MailboxQueue =
        Varkel::Zu::BlockingQueue<std::shared_ptr<Mailbox>, int, Varkel::Zu::Logger>;

    /// Makes the HTTP client, requests a first token (a failure is written to the debug log
    /// and construction goes on with an empty token), then starts the heartbeat task and
    /// creates the mailbox queue. Reached only through MakeShared::create<QxPlatformApi>(url,
    /// key). Blocks the calling thread for the token request (at most the client time-out of
    /// each step). Throws what building the HTTP client throws (a malformed "http_proxy"
    /// value makes URI parsing throw). Any thread.
    QxPlatformApi(Varkel::Zu::MakeShared::PrivateConstructorType, const std::wstring& url,
                  const std::wstring& key);

    /// Stops the object, in this order: ends the periodic statistics report (see
    /// reportStatistics; waits for a callback under way), clears the running flag, shuts the
    /// mailbox queue down, interrupts the heartbeat wait and waits for the heartbeat task (which
    /// finishes a pass already under way, including its token request), joins the mail polling
    /// thread if one was started, cancels every mailbox reception task and waits for each, and
    /// writes "TRACE: It took N ms to kill the mailbox reception tasks." to the debug log. Makes no
    /// REST call: platform mailboxes and service registrations are left as they are. Also waits for
    /// listeners running on other delivery threads, and drops mail not yet handed to a listener.
    /// Never throws. Runs on the thread that drops the last owner, which may be any thread: a
    /// listener's (the object ends without waiting for that listener, which goes on safely), a host
    /// thread, the notifier's. The library itself never lets go of a reference on a thread of the
    /// HTTP pool or on its polling or heartbeat thread; a host must not do so on the pool either
    /// (see WebUtils::settleHttpThreadPool).
    virtual ~QxPlatformApi();

    QxPlatformApi(const QxPlatformApi&) = delete;
    QxPlatformApi& operator=(const QxPlatformApi&) = delete;

    /// Makes an API object from the JSON document in the environment variable
    /// "QX_PLATFORM_CONFIG": `{"url": <platform URL>, "logging": {"credentials": <API key>}}`.
    /// Returns an empty pointer when the variable is unset or empty. Parse errors and missing
    /// or mistyped members reach the caller as web::json::json_exception. Any thread.
    static std::shared_ptr<QxPlatformApi> createFromEnvVar();

    /// Makes an API object from a configuration document of the same format as
    /// createFromEnvVar. Every std::exception on the way (bad JSON, missing member, wrong
    /// type) is logged on the root logger and rethrown as Varkel::Zu::InvalidArgumentException
    /// carrying its text. Any thread.
    static std::shared_ptr<QxPlatformApi> createFromQXPlatformConfig(const std::wstring& config);

    /// Releases the HTTP client and makes a new one for the current platform URL (honouring
    /// "http_proxy", see WebUtils::createHttpClient). Requests already sent keep the client
    /// they were sent with. Throws what WebUtils::createHttpClient throws. Any thread.
    void createClient();

    /// A copy of the platform URL. Never throws. Any thread.
    std::wstring getPlatformUrl() const;

    /// A copy of the API key. Never throws. Any thread.
    std::wstring getPlatformApiKey() const;

    /// Stores the URL, remakes the HTTP client and clears the current token, so that the next
    /// authorised call fetches a new one (in resilient mode a new token is also asked for at
    /// once, on the recovery thread, and polls wait for it). Throws what createClient throws.
    /// Any thread.
    void setPlatformUrl(std::wstring url);

    /// Stores the key and clears the current token; the HTTP client is kept (in resilient
    /// mode a new token is also asked for at once, and polls wait for it). Never throws.
    /// Any thread.
    void setPlatformApiKey(std::wstring key);

    /// Empties the current token's text and sets its expiry to the epoch (tick count 0); the
    /// account and key set are left as they are. Never throws. Any thread.
    void clearToken();

    /// The current token itself, not a copy, and without any renewal. The reference stays
    /// valid for the object's lifetime, but its fields are rewritten when the token is renewed
    /// (by the heartbeat task every 5 seconds when due, or by any validating call), so read it
    /// only while no other thread can renew it; getCurrentTokenCopy is the safe way to read it
    /// while the object runs. Never throws.
    const Token& getCurrentToken();

    /// A consistent copy of the whole current token (text, account, key set and expiry), taken
    /// under the object's state lock, so it is safe while the heartbeat task or another caller
    /// renews the token. This is the way to read the key set for verification. No renewal.
    /// Never throws except std::bad_alloc. Any thread.
    Token getCurrentTokenCopy() const;

    /// A copy of the current token's access token text, taken under the object's state lock,
    /// so it is safe while another thread renews the token. No renewal. Never throws.
    /// Any thread.
    std::wstring getCurrentAccessToken() const;

    /// Why the latest token request failed, in the library's words (the transport or status
    /// failure, "Invalid JWT token. Expecting 3 parts" for an opaque token, "Invalid JWT
    /// token. Does not carry an 'acc' claim." for a JWT without the account), so that a host
    /// can tell its user why there is no token; empty before any failure and after a token
    /// was obtained. Never holds the token or the key. Never throws except std::bad_alloc.
    /// Any thread.
    std::wstring lastTokenFailure() const;

    /// Publishes one notification: renews the token when due, then POSTs
    /// {"id", "time", "topic" (lower-cased), "content", "ttl" (only when ttl is not 0),
    /// "source": "Tolva"} to "/notifications/api/v1/notifications" and waits for the answer.
    /// Returns when the platform answered 204. Any other status, and any transport failure,
    /// throws a std::exception whose what() is the HTTP library's text (for a status failure
    /// the response body). pplx::task_canceled passes through unchanged. Sent once, never
    /// retried. Blocks the calling thread; any thread except an HTTP continuation (a listener
    /// may call it).
    void postNotification(const std::wstring& topic, const std::wstring& content, unsigned int ttl);

    /// Registers a service with the platform's discovery service: validates the record
    /// (IllegalStateException "Missing property ..." before anything is sent), POSTs its JSON to
    /// "/discovery/api/v1/service" with the current token as it stands (no renewal) and, on a
    /// 201 reply, fills inout_serviceInfo->serviceSecret from the reply and enters the record
    /// under the returned "serviceId" (an entry with that id is replaced). The record is
    /// shared, not copied: the heartbeat sees later changes of its health object. From the next
    /// heartbeat pass on the service is kept alive. Any other status (200 included) or a
    /// transport failure throws std::exception with the HTTP library's text (for a status
    /// failure the response body); the secret then stays empty and nothing is entered. A null
    /// pointer is reported through boost::assertion_failed ("inout_serviceInfo") and nothing
    /// is sent. Does not wait for a heartbeat pass. Blocks the calling thread; any thread
    /// except an HTTP continuation.
    void registerService(const std::shared_ptr<Model::ModelServiceInfo>& inout_serviceInfo);

    /// Forgets the service registered under serviceId (the id the platform returned) and
    /// sends DELETE "/discovery/api/v1/service/<id>/<secret>". The service is forgotten before
    /// the request leaves, whatever the platform answers; a platform or transport failure is
    /// only written to the debug log ("ERROR: QXP unregister service failed: ..."). Throws
    /// Varkel::Zu::InvalidArgumentException "Service not found" when the id is not registered
    /// (nothing is sent). Waits for a heartbeat pass under way. Blocks the calling thread; any
    /// thread except an HTTP continuation.
    void unregisterService(const std::wstring& serviceId);

    /// unregisterService for every registered service, in id order, each failure written to
    /// the debug log. Never throws for a platform failure. Blocks like unregisterService.
    void unregisterAllServices();

    /// Creates `mailbox` on the platform subscribed to `subscription` (POST
    /// "/notifications/api/v1/mailbox" with "id", "subscription", "mailboxTTL" when the ttl is
    /// not 0, and "durable"), stores the secret the platform returns (Mailbox::setSecret; left
    /// empty when the reply has none), enters the mailbox in this object's table and queues it
    /// for polling; the first call starts the "Mailbox polling thread". Renews the token first.
    /// Throws std::invalid_argument "Invalid mailbox id" (nil id) or "Invalid mailbox
    /// subscription" (empty) before anything is sent; a status other than 200 or a transport
    /// failure throws std::exception with the HTTP library's text (the body for a status), and
    /// the mailbox is neither entered nor queued. Blocks the calling thread (also for a
    /// heartbeat pass under way); any thread.
    void createMailbox(const std::shared_ptr<Mailbox>& mailbox, const std::wstring& subscription);

    /// Adds (subscribeTopic) or removes (unsubscribeTopic) a topic subscription of a mailbox:
    /// POST ".../mailbox/<id>/subscribe/<topic>" (".../unsubscribe/...") with the topic
    /// lower-cased and percent-encoded. The mailbox need not have been created by this object.
    /// Renews the token first. Throws std::invalid_argument as createMailbox does (an empty
    /// topic is "Invalid mailbox subscription"), and web::http::http_exception for a status other
    /// than 204 (its text is the response body) or a transport failure. Blocks; any thread.
    void subscribeTopic(const std::shared_ptr<const Mailbox>& mailbox, const std::wstring& topic);
    /// Removes a topic subscription of a mailbox; see subscribeTopic.
    void unsubscribeTopic(const std::shared_ptr<const Mailbox>& mailbox, const std::wstring& topic);

    /// Forgets the mailbox and deletes it on the platform (DELETE ".../mailbox/<secret>"). The
    /// mailbox is out of this object's table before the request leaves, and is never polled or
    /// handed mail again whatever the platform answers: its outstanding poll is cancelled (mail
    /// that poll brought and that no listener has started on is dropped; counted in
    /// ApiStatistics::pollsEndedByDeletion). A failed DELETE is not retried, and a second call
    /// throws. A 404 answer is only a warning. In resilient mode (see RecoveryMode) a mailbox
    /// stopped by a poll's status can be deleted too. Throws
    /// Varkel::Zu::InvalidArgumentException "Mailbox was not created by this instance of the QX
    /// Platform API." for a mailbox this object did not create (nothing is sent), and
    /// web::http::http_exception for a status other than 204 or 404 or a transport failure.
    /// Blocks; any thread.
    void deleteMailbox(const std::shared_ptr<const Mailbox>& mailbox);

    /// True once a mailbox was created and every mailbox created has since been deleted (or
    /// dropped after an unexpected poll answer). Any thread. ApiStatistics::mailboxes shows
    /// each mailbox's state.
    bool hasDeletedMailboxes();

    /// Request and reply: creates a temporary mailbox subscribed to replyTopic, posts `content`
    /// on `topic` (no time to live), waits until a notification with non-empty content arrives
    /// on the temporary mailbox or `deadline` passes, deletes the mailbox and returns the
    /// content of the last notification received ("" on time-out; a time-out is not an error).
    /// Throws what createMailbox and postNotification throw; when the post fails, the temporary
    /// mailbox stays created, registered and polled (it is not cleaned up), except in resilient
    /// mode, where it is deleted before the failure is thrown. Blocks the calling
    /// thread until the reply or the deadline; any thread.
    std::wstring postNotificationAndWaitForReply(
        const std::wstring& topic, const std::wstring& content, const std::wstring& replyTopic,
        const std::chrono::steady_clock::time_point& deadline);

    /// What this object has sent, received, retried and lost since it was made, with its
    /// gauges and recent latencies (see ApiStatistics, which also gives it as JSON). Reading it
    /// never waits for a request or a listener and does not slow the object's work: counters
    /// are atomics, and only the latency windows and the per-service table are copied under
    /// short locks of their own. Never throws except std::bad_alloc. Any thread, listeners
    /// included.
    ApiStatistics statistics() const;

    /// A periodic report of statistics(), off until called: every `interval`, the snapshot's
    /// JSON document (ApiStatistics::toJson) is handed to `callback`, or, when `callback` is
    /// empty, written at info level on the logger "TolvaCore.Statistics". A later call
    /// replaces the report; an interval of zero ends it. The callback runs on a thread of the
    /// report's own, "QXP statistics", one call at a time; a slow callback delays only later
    /// reports (missed ones are skipped), and an exception it throws is logged and the reports
    /// go on. The callback may call this object (ending or replacing the report included) and
    /// should hold it weakly: a strong reference kept in the callback keeps the object alive
    /// for as long as the report runs. Replacing or ending the report waits for a callback
    /// under way (unless called from that callback). Throws
    /// Varkel::Zu::InvalidArgumentException for a negative interval. Any thread.
    void reportStatistics(std::chrono::milliseconds interval,
                          std::function<void(const std::wstring& json)> callback = nullptr);

    /// How this object reacts to ordinary outages (see RecoveryMode): Strict, the default,
    /// unless the environment variable TOLVA_RECOVERY said "resilient" when the object was
    /// made. May be changed at any time; it applies from the next outcome on. Never throws.
    /// Any thread.
    void setRecoveryMode(RecoveryMode mode);
    /// The mode in force. Any thread.
    RecoveryMode recoveryMode() const;

    /// Sets (or, with an empty function, removes) the callback that hears of every ApiEvent:
    /// what happened to this object's mailboxes, services and token that the host did not
    /// cause itself. The callback runs on a thread of this object's own, "QXP events", one
    /// event at a time and in the order they happened; never on the HTTP pool. It may call
    /// this object (a blocking call delays only later events) and should hold it weakly; an
    /// exception it throws is logged and dropped. Events are logged on "TolvaCore.Events"
    /// whether a callback is set or not. Events not yet handed to the callback when the object
    /// ends are dropped. Never throws except std::bad_alloc. Any thread.
    void setEventCallback(std::function<void(const ApiEvent& event)> callback);

    /// The longest a request may take as a whole, from sending it until its answer's body has
    /// been read, whatever the HTTP library's time-out per step (30 s) allows: a body that
    /// trickles in keeps restarting that time-out. A request past it is abandoned and fails as
    /// RequestFailure::Kind::TimedOut ("No complete answer within <n> ms; the request was
    /// abandoned."). A long poll may take the platform's 30 s wait on top. The default is
    /// RestCall's 60 s unless the environment variable TOLVA_REQUEST_TIME_LIMIT_MS (100 to
    /// 3600000) said otherwise when the object was made. Applies to requests sent from now on.
    /// Throws Varkel::Zu::InvalidArgumentException outside 100 ms to 1 h. Any thread.
    void setRequestTimeLimit(std::chrono::milliseconds limit);
    /// The limit in force. Any thread.
    std::chrono::milliseconds requestTimeLimit() const;

  protected:
    /// Requests a new access token ("/identity/connect/token", client-credentials grant) and
    /// then the identity service's key set, and reads the platform account from the token's
    /// "acc" claim. Returns the complete new token; the current token is not changed, except
    /// that it is cleared when either request fails. Throws std::exception: with the HTTP
    /// library's text for transport and status failures (after clearing the current token),
    /// "Invalid JWT token. Expecting 3 parts" or "Invalid JWT token. Does not carry an 'acc'
    /// claim." for a token it cannot read; JSON and Base64 errors pass through as thrown.
    /// Blocks the calling thread for both requests one after the other.
    Token getToken();

    /// Renews the current token when it is empty or fewer than 300 seconds of it remain.
    /// A failed renewal is logged and leaves the token cleared; nothing is thrown. Blocks
    /// while renewing.
    void validateToken();

    /// Whether a token needs renewing at the instant now: its text is empty, or it expires
    /// fewer than 300 seconds after now (already expired included).
    static bool isTokenDue(const Token& token, Token::TimePoint now);

    /// Starts the heartbeat task on a thread of its own, "QXP heartbeat thread", and returns at
    /// once. Called once by the constructor.
    void launchHeartbeatTask();

    /// The body of the "Mailbox polling thread": takes mailboxes from the mailbox queue and
    /// starts one poll for each, until the running flag is cleared. Also queues the mailboxes
    /// whose retry after a transport failure is due.
    void queryLauncherThreadLoop();

    /// Starts one long poll for the mailbox and records its reception task; does not wait. The
    /// answer is read on a pool thread: 200 hands every notification of the reply to
    /// mailbox->receiveMail in array order, on a delivery thread, and then queues the mailbox
    /// again; 204 queues it again;
    /// any other status writes "ERROR: Received status code <status> when attempting to get
    /// mail for mailbox : <id>. Will delete mailbox." and drops it from the table (only
    /// locally) when it is still there; a transport failure queues it again after the back-off.
    /// A failure to start the request writes "ERROR: Mailbox with id : <id> cannot receive mail
    /// anymore. ..." and leaves the mailbox out of the cycle.
    void retrieveMail(const std::shared_ptr<Mailbox>& mailbox);

    /// One heartbeat: PUT "/discovery/api/v1/service/<id>/<secret>/health" with the JSON body
    /// null, waited for. 204 writes "TRACE: Heartbeat sent for service <id>"; another status
    /// or a transport failure is logged (capped) and not thrown. Returns the status, 0 for a
    /// transport failure.
    int sendHeartbeat(const std::wstring& serviceId, const std::wstring& serviceSecret);

  private:
    friend std::shared_ptr<web::http::client::http_client> WebUtils::createHttpClient(
        const std::wstring& url, const std::shared_ptr<QxPlatformApi>& api);

    /// A registered service as the heartbeat pass sends it: id and secret.
    struct ServiceCredentials {
        std::wstring serviceId;
        std::wstring serviceSecret;
    };

    void heartbeatLoop();
    void changeSubscription(const std::shared_ptr<const Mailbox>& mailbox,
                            const std::wstring& topic, bool subscribe);
    /// The parts of one poll: its start, the answer's handling and the end of the poll's task.
    /// Every outcome goes to the mailbox registry, which decides what follows.
    struct PollContext;
    void startPoll(std::shared_ptr<MailboxLife> life, std::shared_ptr<void> openingSlot = nullptr);
    void abandonPoll(bool counted, const std::shared_ptr<PollContext>& poll,
                     std::shared_ptr<MailboxLife> life, const std::wstring& reason);
    void handlePollResponse(const std::shared_ptr<PollContext>& poll,
                            pplx::task<web::http::http_response> responseTask);
    void handlePollBody(const std::shared_ptr<PollContext>& poll,
                        const web::http::http_response& response);
    /// Carries out what the registry asked for after a poll (on a thread that may block).
    void followUp(int action, const std::shared_ptr<MailboxLife>& life,
                  const std::string& bearerSent);
    bool isStopping() const;
    void pollEnded();
    void waitForPollsToEnd();
    /// Renews the token when due and sends the DELETE of a mailbox; throws as deleteMailbox.
    void sendMailboxDeletion(const Mailbox& mailbox, const std::wstring& mailboxId);
    /// POSTs the mailbox creation and stores the secret; throws as createMailbox does.
    void postMailboxCreation(const std::shared_ptr<Mailbox>& mailbox,
                             const std::wstring& subscription);
    /// Recovery work, on the "QXP recovery" thread: a token for waiting polls (forced when the
    /// platform refused `rejectedBearer`), a lost mailbox created again, a lost service
    /// registered again. Each ends when the object stops.
    void requestTokenRenewal(const std::string& rejectedBearer);
    void renewTokenForPolls(const std::string& rejectedBearer);
    void recreateMailbox(const std::shared_ptr<MailboxLife>& life);
    void registerServiceAgain(const std::wstring& serviceId);
    /// Waits up to `delay` unless the object stops first; false when it stops.
    bool recoveryPause(std::chrono::milliseconds delay);
    /// One token request with its bookkeeping (statistics, logs, events); false when it failed.
    bool renewToken();
    /// The host is told of the first failure of a run, and of the recovery after it.
    void tokenRequestFailed(const std::exception& failure);
    void tokenRequestSucceeded();
    void serviceLost(const std::wstring& serviceId, int status);
    void heartbeatPass();
    std::vector<ServiceCredentials> copyServiceTable() const;
    std::shared_ptr<web::http::client::http_client> currentClient() const;
    /// The client of the long polls: the same platform, with a longer time-out per step (the
    /// platform holds a poll up to 30 s before it answers).
    std::shared_ptr<web::http::client::http_client> currentPollClient() const;
    /// A request to the platform with what every request of this object gets: its time limit
    /// and the count of requests sent again on a new connection.
    RestCall platformCall(const web::http::method& method, const std::string& path) const;
    std::wstring currentAccessToken() const;
    /// "Bearer " + the current access token as it stands, as header text.
    std::string bearerAuthorization() const;
    /// The same for a request other than a poll. In resilient mode a request is not sent
    /// without a token: this throws std::runtime_error instead.
    std::string requestAuthorization() const;
    void storeToken(const Token& token);

    static std::shared_ptr<Varkel::Zu::Logger> logger_;

    /// Guards the URL, the key, the current token and the client pointer. These are read by
    /// every request (the heartbeat task and caller threads alike) and rewritten by the
    /// setters and by token renewal; unguarded, that sharing would be a data race. It is held
    /// only to copy or assign those members, never across a request, so concurrent renewals
    /// still both fetch a token and the later assignment wins.
    mutable std::mutex stateMutex_;

    std::wstring platformUrl_;
    std::wstring apiKey_;
    Token currentToken_;
    /// The Authorization header text for the current token ("Bearer " and the token in
    /// UTF-8), made when the token changes rather than on every request. Held apart from this
    /// object so that an HTTP client's bearer stage can read it without holding this object,
    /// whose last reference it must never become on a pool thread.
    std::shared_ptr<BearerText> bearer_;
    /// Guards the mailbox table and the unregistration side of the service table, and is held
    /// by the heartbeat task for each whole pass.
    std::mutex objectLock_;
    /// Registered services by the id the platform returned.
    std::map<std::wstring, std::shared_ptr<Model::ModelServiceInfo>> serviceTable_;
    /// Registration enters a service from an HTTP continuation without the object lock, so
    /// that it never waits for a heartbeat pass. Unlocked, that insertion would race with the
    /// pass's copy of the table; this leaf lock, held only for a copy, insertion or removal
    /// (and for every read or write of a registered record's secret), makes it well defined
    /// without changing who waits for whom.
    mutable std::mutex serviceTableMutex_;
    std::atomic<bool> running_{false};
    /// The heartbeat loop lives for the object's whole life and waits five seconds at a time,
    /// so it runs on a thread of its own: as a task of the HTTP library's pool it would hold
    /// one of that pool's few threads for good, and a small pool would starve.
    std::shared_ptr<Varkel::Zu::Thread> heartbeatThread_;
    Varkel::Zu::ConditionVariable heartbeatWakeUp_;
    std::shared_ptr<web::http::client::http_client> httpClient_;
    std::shared_ptr<web::http::client::http_client> pollClient_;
    std::atomic<std::int64_t> requestTimeLimitMs_;
    /// Paces the polls that open new connections (see ConnectionPacer).
    std::shared_ptr<ConnectionPacer> pacer_;
    pplx::cancellation_token_source receptionCancellation_;
    std::shared_ptr<MailboxQueue> mailboxQueue_;
    std::shared_ptr<Varkel::Zu::Thread> queryLauncherThread_;
    /// Every mailbox's life: its table, states, back-off and events (see MailboxRegistry).
    /// Callers' mailbox operations take it inside the object lock, so they still wait for a
    /// heartbeat pass; the polling thread and the polls' continuations take only its own leaf
    /// lock, never held across a request.
    std::shared_ptr<MailboxRegistry> registry_;

    /// Every poll whose task has not ended yet, deleted mailboxes' included: their
    /// continuations use this object, so the destructor waits for this count to reach zero.
    std::mutex pollsMutex_;
    std::condition_variable pollsEnded_;
    std::size_t pollsInFlight_ = 0;

    /// The host's events (see setEventCallback).
    std::shared_ptr<EventDispatcher> events_;
    /// One thread for recovery work that waits for the platform (a token for waiting polls,
    /// creating a lost mailbox again, registering a lost service again): never the HTTP pool,
    /// never the polling thread. Its jobs use this object, so the destructor stops it (and
    /// waits for a job under way) before anything else goes.
    std::shared_ptr<DeliveryThreads> recovery_;
    std::mutex recoveryPauseMutex_;
    std::condition_variable recoveryPauseEnded_;
    std::atomic<bool> tokenRenewalQueued_{false};
    /// Whether the last token request failed (for the failing and recovered events).
    std::atomic<bool> tokenFailing_{false};
    /// In resilient mode, a still-valid token is not renewed again before this after a
    /// failure. Guarded by stateMutex_.
    std::chrono::steady_clock::time_point tokenRetryNotBefore_{};
    unsigned int tokenRetryFailures_ = 0;
    /// The what() text of the latest failed token request; cleared by a success. Guarded by
    /// stateMutex_.
    std::wstring lastTokenFailure_;
    /// Services whose heartbeat was answered 404 and the host told so, and those being
    /// registered again. Guarded by serviceTableMutex_.
    std::set<std::wstring> lostServices_;
    std::set<std::wstring> reregistering_;

    /// The threads that run the listeners and let go of the polls' mailboxes; see
    /// DeliveryThreads. Shared so that a delivery thread on which this object is destroyed
    /// can finish its own job after the object has gone.
    std::shared_ptr<DeliveryThreads> deliveryThreads_;

    /// Counters, gauges and latencies behind statistics(). Shared with the delivery jobs and
    /// the periodic report, which may outlive this object.
    std::shared_ptr<StatisticsRecorder> statistics_;
    /// The periodic report, if one was asked for; its lock is held only to swap it.
    std::mutex reporterMutex_;
    std::unique_ptr<StatisticsReporter> reporter_;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
