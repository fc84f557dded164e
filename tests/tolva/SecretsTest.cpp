// No secret in any output: the whole flow (token, post, services with a heartbeat pass,
// mailboxes with mail, request and reply, verification, the asynchronous notifier, teardown)
// and its failure paths run with every logger at trace level, and neither a logger record,
// nor the debug log, nor standard output may hold the API key, an access token, a mailbox
// secret or a service secret. The secrets are read back from what the platform received, so
// every one the library used is checked, the temporary mailbox's of request and reply too.
#include "MailTestSupport.h"
#include "ModelTestSupport.h"

#include <TolvaCore/JWTUtils.h>
#include <TolvaCore/QxPlatformNotifier.h>

#include <ZuCore/Base64.h>
#include <ZuCore/Logger.h>

#include <TestSupport.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <set>

namespace TolvaRestTest {
namespace {

using Varkel::Zu::narrow;

// Answers every request on "secrets/requests" through its own API object (held weakly).
class Responder : public MailboxListener {
  public:
    explicit Responder(std::weak_ptr<QxPlatformApi> api) : api_(std::move(api)) {}
    void onMailReceived(const std::wstring&, const std::wstring& content) override {
        if (auto api = api_.lock()) {
            api->postNotification(L"secrets/replies", L"re: " + content, 0);
        }
    }

  private:
    std::weak_ptr<QxPlatformApi> api_;
};

// The secrets a recorded request carries: bearer tokens, the API key of a Basic header, and
// the secrets in the paths of mailbox deletion, heartbeats and unregistration.
void collectSecrets(const qxpemu::RecordedRequest& request, std::set<std::string>& secrets) {
    const std::string authorization = request.header("Authorization");
    for (const std::string scheme : {"Bearer ", "Basic "}) {
        if (authorization.rfind(scheme, 0) == 0 && authorization.size() > scheme.size()) {
            secrets.insert(authorization.substr(scheme.size()));
        }
    }
    // The API key is base64 of "<client id>:<client secret>": the client secret on its own.
    if (authorization.rfind("Basic ", 0) == 0) {
        const std::string decoded = Varkel::Zu::Base64::decode(authorization.substr(6))->toString();
        const auto colon = decoded.find(':');
        if (colon != std::string::npos) {
            secrets.insert(decoded.substr(colon + 1));
        }
    }
    const std::string mailbox = std::string(kMailboxPath) + "/";
    const std::string service = "/discovery/api/v1/service/";
    const std::string path = request.target.substr(0, request.target.find('?'));
    if (request.method == "DELETE" && path.rfind(mailbox, 0) == 0) {
        secrets.insert(path.substr(mailbox.size()));
    }
    if (path.rfind(service, 0) == 0) {
        // <id>/<secret> or <id>/<secret>/health
        const std::string rest = path.substr(service.size());
        const auto slash = rest.find('/');
        if (slash != std::string::npos) {
            secrets.insert(rest.substr(slash + 1, rest.find('/', slash + 1) - slash - 1));
        }
    }
}

// Percent-encoding of every byte outside the unreserved characters, as a URL would carry it.
std::string percentEncoded(const std::string& text) {
    static const char* const hex = "0123456789ABCDEF";
    std::string encoded;
    for (const unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
            encoded += static_cast<char>(c);
        } else {
            encoded += '%';
            encoded += hex[c >> 4];
            encoded += hex[c & 15];
        }
    }
    return encoded;
}

// What of a secret must not appear either: the secret, its percent-encoded form and each
// segment of a JWT.
std::set<std::string> secretForms(const std::string& secret) {
    std::set<std::string> forms = {secret, percentEncoded(secret)};
    if (std::count(secret.begin(), secret.end(), '.') == 2) {
        const auto first = secret.find('.');
        const auto second = secret.find('.', first + 1);
        forms.insert(secret.substr(0, first));
        forms.insert(secret.substr(first + 1, second - first - 1));
        forms.insert(secret.substr(second + 1));
    }
    return forms;
}

class SecretsTest : public MailTest {};

TEST_F(SecretsTest, NoSecretReachesALogRecordTheDebugLogOrStandardOutput) {
    Varkel::Zu::Logger::configureLevels("root=trace,TolvaCore=trace,ZuCore=trace");
    const LogRecords records;
    const DebugLogTail log;
    TolvaTest::StdoutCapture out;
    // Test failures are reported on standard output too, which is captured here: after a
    // failure the capture goes to standard error, so that the report is not lost.
    struct ShowOnFailure {
        TolvaTest::StdoutCapture& out;
        ~ShowOnFailure() {
            if (::testing::Test::HasFailure()) {
                std::cerr << out.text();
            }
        }
    } showOnFailure{out};
    // Secrets the library objects hold; the check below also reads them all back from what
    // the platform received.
    std::set<std::string> known;
    std::string neverSent;
    {
        auto api = makeApi();
        api->postNotification(L"secrets/topic", L"hello", 60);

        // A service kept alive by heartbeat passes: the first beat's connection is dropped (a
        // transport failure on a path that carries the service secret), the next is refused.
        emulator_.addFault(dropRule("PUT", "/discovery/api/v1/service/.*/health"));
        auto service = completeServiceInfo();
        api->registerService(service);
        known.insert(narrow(service->serviceSecret));
        const auto isBeat = [](const qxpemu::RecordedRequest& r) {
            return r.method == "PUT" && r.target.find("/health") != std::string::npos;
        };
        ASSERT_GE(waitForMatching(isBeat, 1, std::chrono::seconds(15)).size(), 1u);
        ASSERT_TRUE(waitUntil([&] {
            const auto failed = records.messages("TolvaCore.QxPlatformApi");
            return std::any_of(failed.begin(), failed.end(), [](const std::wstring& m) {
                return m.rfind(L"Heartbeat failed", 0) == 0;
            });
        }));
        const std::size_t beatsSoFar = waitForMatching(isBeat, 1, std::chrono::seconds(0)).size();
        emulator_.clearFaults();
        emulator_.addFault(
            statusRule("PUT", "/discovery/api/v1/service/.*/health", 403, "heartbeat refused"));
        ASSERT_GE(waitForMatching(isBeat, beatsSoFar + 1, std::chrono::seconds(15)).size(),
                  beatsSoFar + 1);

        // A mailbox with mail, subscriptions changed.
        auto listener = std::make_shared<RecordingListener>();
        auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
        mailbox->addListener(listener);
        api->createMailbox(mailbox, L"secrets/topic");
        known.insert(narrow(mailbox->getSecret()));
        api->subscribeTopic(mailbox, L"secrets/other");
        api->postNotification(L"secrets/other", L"mail", 0);
        ASSERT_EQ(listener->waitFor(1).size(), 1u);
        api->unsubscribeTopic(mailbox, L"secrets/other");

        // Request and reply, answered by a second object.
        auto responderApi = makeApi();
        auto requests = Varkel::Zu::MakeShared::create<Mailbox>();
        requests->addListener(std::make_shared<Responder>(responderApi));
        responderApi->createMailbox(requests, L"secrets/requests");
        known.insert(narrow(requests->getSecret()));
        EXPECT_EQ(api->postNotificationAndWaitForReply(
                      L"secrets/requests", L"ping", L"secrets/replies",
                      std::chrono::steady_clock::now() + std::chrono::seconds(10)),
                  L"re: ping");

        // Verification, of the real token and of a tampered one.
        const auto token = api->getCurrentTokenCopy();
        auto verifier = Varkel::Zu::MakeShared::create<Varkel::Tolva::JWTUtils>();
        web::json::value claims;
        EXPECT_EQ(verifier->verify(token.keySet, token.accessToken, claims),
                  Varkel::Tolva::Verified);
        // The last character may carry unused bits only, so the one before it is changed.
        std::wstring tampered = token.accessToken;
        wchar_t& changed = tampered[tampered.size() - 2];
        changed = changed == L'A' ? L'B' : L'A';
        EXPECT_NE(verifier->verify(token.keySet, tampered, claims), Varkel::Tolva::Verified);

        // The asynchronous notifier, one post that works and one the platform refuses.
        {
            auto notifier = Varkel::Zu::MakeShared::create<Varkel::Tolva::QxPlatformNotifier>(
                L"secrets", api, Varkel::Zu::ThreadEnum::Priority::Normal);
            notifier->postNotification(L"secrets/async", L"first", 0);
            ASSERT_EQ(waitForMatching(
                          [](const qxpemu::RecordedRequest& r) {
                              return r.body.find("secrets/async") != std::string::npos;
                          },
                          1)
                          .size(),
                      1u);
            emulator_.addFault(statusRule("POST", kNotificationsPath, 500, "post refused"));
            notifier->postNotification(L"secrets/async", L"second", 0);
            ASSERT_EQ(waitForMatching(
                          [](const qxpemu::RecordedRequest& r) {
                              return r.body.find("secrets/async") != std::string::npos;
                          },
                          2)
                          .size(),
                      2u);
        }

        // Failure paths: refused creation, subscription, post and deletion; a poll answered
        // 404 that drops its mailbox; a failing token renewal; a refused unregistration.
        emulator_.addFault(statusRule("POST", kMailboxPath, 500, "mailbox refused"));
        EXPECT_EQ(thrownText<std::runtime_error>(
                      [&] { api->createMailbox(Varkel::Zu::MakeShared::create<Mailbox>(), L"x"); }),
                  "mailbox refused");
        emulator_.addFault(statusRule("POST", std::string(kMailboxPath) + "/.*/subscribe/.*", 500,
                                      "subscription refused"));
        EXPECT_EQ(thrownText<web::http::http_exception>(
                      [&] { api->subscribeTopic(mailbox, L"secrets/third"); }),
                  "subscription refused");
        emulator_.addFault(statusRule("POST", kNotificationsPath, 503, "busy"));
        EXPECT_EQ(thrownText<std::runtime_error>(
                      [&] { api->postNotification(L"secrets/topic", L"late", 0); }),
                  "busy");

        auto dropped = Varkel::Zu::MakeShared::create<Mailbox>();
        emulator_.addFault(statusRule("GET", pollPath(*dropped), 404, "no such mailbox"));
        api->createMailbox(dropped, L"secrets/dropped");
        neverSent = narrow(dropped->getSecret());
        known.insert(neverSent);
        ASSERT_EQ(waitForMatching(
                      [&](const qxpemu::RecordedRequest& r) {
                          return r.method == "GET" && r.target == pollTarget(*dropped);
                      },
                      1)
                      .size(),
                  1u);

        emulator_.addFault(
            statusRule("DELETE", std::string(kMailboxPath) + "/.*", 500, "deletion refused"));
        EXPECT_EQ(thrownText<web::http::http_exception>([&] { api->deleteMailbox(mailbox); }),
                  "deletion refused");
        responderApi->deleteMailbox(requests);
        // A deletion whose connection is dropped: a transport failure whose text could carry
        // the path, and with it the mailbox secret.
        auto severed = Varkel::Zu::MakeShared::create<Mailbox>();
        api->createMailbox(severed, L"secrets/severed");
        known.insert(narrow(severed->getSecret()));
        emulator_.addFault(dropRule("DELETE", std::string(kMailboxPath) + "/.*"));
        EXPECT_THROW(api->deleteMailbox(severed), web::http::http_exception);
        emulator_.clearFaults();

        emulator_.addFault(statusRule("POST", kTokenPath, 401, "unauthorized client"));
        api->clearToken();
        api->validateToken();

        emulator_.addFault(
            statusRule("DELETE", "/discovery/api/v1/service/.*", 500, "unregistration refused"));
        api->unregisterAllServices();
    }
    Varkel::Zu::Logger::reloadConfiguration();

    std::set<std::string> fromTraffic;
    for (const auto& request : emulator_.requests()) {
        collectSecrets(request, fromTraffic);
    }
    // The API key, at least three tokens (one per object, one renewal), the three mailbox
    // secrets of deletions and the service secret, each read back from the platform's side.
    ASSERT_GE(fromTraffic.size(), 8u);
    // Every secret the library sent was captured (the dropped mailbox's was never sent).
    for (const auto& secret : known) {
        if (secret != neverSent) {
            EXPECT_EQ(fromTraffic.count(secret), 1u)
                << "not read back from the traffic: " << secret;
        }
    }
    std::set<std::string> secrets;
    for (const auto& secret : fromTraffic) {
        const auto forms = secretForms(secret);
        secrets.insert(forms.begin(), forms.end());
    }
    for (const auto& secret : known) {
        secrets.insert(secret);
        secrets.insert(percentEncoded(secret));
    }
    const std::string stdoutText = out.text();
    const std::string debugLog = log.text();
    const auto allRecords = records.records();
    // The records were there to be looked at, debug ones included.
    EXPECT_GE(records.messages("TolvaCore.QxPlatformApi").size(), 5u);
    for (const auto& secret : secrets) {
        ASSERT_GE(secret.size(), 8u) << secret;
        EXPECT_EQ(stdoutText.find(secret), std::string::npos) << "standard output: " << secret;
        EXPECT_EQ(debugLog.find(secret), std::string::npos) << "debug log: " << secret;
        for (const auto& record : allRecords) {
            EXPECT_EQ(narrow(record.message).find(secret), std::string::npos)
                << record.logger << ": " << narrow(record.message);
        }
    }
}

}  // namespace
}  // namespace TolvaRestTest
