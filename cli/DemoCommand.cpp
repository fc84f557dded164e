// tolva demo: a whole tour of the library, against an emulator started in this process or
// against a platform given with --url and --credentials (or QX_PLATFORM_CONFIG). On a given
// platform the tour leaves nothing behind: it deletes its mailboxes and unregisters its
// service whatever else failed, and says what it could not do there and what is left.
#include "CommandSupport.h"
#include "Commands.h"
#include "Console.h"
#include "MailCollector.h"
#include "PlatformConnection.h"
#include "StatisticsPrinter.h"
#include "StopSignal.h"
#include "UsageError.h"

#include <TolvaCore/JWTUtils.h>
#include <TolvaCore/Mailbox.h>
#include <TolvaCore/ModelServiceHealth.h>
#include <TolvaCore/ModelServiceInfo.h>
#include <TolvaCore/QxPlatformApi.h>
#include <TolvaCore/WebUtils.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ZuUUID.h>

#include <qxpemu/Emulator.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <initializer_list>
#include <iomanip>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <cpprest/http_client.h>

namespace tolva {

namespace {

using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::MailboxListener;
using Varkel::Tolva::Rest::QxPlatformApi;
using namespace Varkel::Tolva::Rest::Model;
using Clock = std::chrono::steady_clock;

// Answers every request it hears, through its own API object, from inside the listener (on a
// delivery thread, where posting is allowed). It holds that object weakly: a strong reference
// from a listener would keep the object alive until its mailbox is deleted.
class Responder : public MailboxListener {
  public:
    explicit Responder(std::weak_ptr<QxPlatformApi> api) : api_(std::move(api)) {}
    void onMailReceived(const std::wstring&, const std::wstring& content) override {
        if (auto api = api_.lock()) {
            api->postNotification(L"demo.replies", L"pong: " + content, 0);
        }
    }

  private:
    std::weak_ptr<QxPlatformApi> api_;
};

enum class Outcome { Passed, Failed, Skipped };

struct StepRecord {
    std::string name;
    Outcome outcome = Outcome::Skipped;
    long long ms = 0;
    std::vector<std::string> details;
};

// Runs the steps in order, printing each as it goes (unless JSON is wanted). A step runs only
// when the steps it needs have passed; a clean-up step runs also after Ctrl-C.
class Tour {
  public:
    // `platform`: where the tour runs, as the summary names it; empty for the built-in emulator.
    Tour(bool json, std::string platform) : json_(json), platform_(std::move(platform)) {}

    // Runs `body` as the next step, unless a step in `needs` (numbers returned by earlier
    // calls) did not pass or a stop was asked for; `body` reports what it saw through note().
    // Returns the step's number.
    int step(const std::string& name, std::initializer_list<int> needs,
             const std::function<void()>& body, bool cleanUp = false) {
        records_.emplace_back();
        const int number = static_cast<int>(records_.size());
        records_.back().name = name;
        if (!json_) {
            Console::out("[" + std::to_string(number) + "] " + name);
        }
        for (const int needed : needs) {
            if (records_[needed - 1].outcome != Outcome::Passed) {
                note("skipped: it needs step " + std::to_string(needed) + ", which " +
                     (records_[needed - 1].outcome == Outcome::Failed ? "failed" : "was skipped"));
                return number;
            }
        }
        if (!cleanUp && StopSignal::requested()) {
            note("skipped: stopped (Ctrl-C)");
            return number;
        }
        const auto start = Clock::now();
        try {
            body();
            records_.back().outcome = Outcome::Passed;
        } catch (const std::exception& e) {
            records_.back().outcome = Outcome::Failed;
            const std::string reason = *e.what() ? e.what() : "no reason given (-v shows more)";
            note(platform_.empty()
                     ? "FAILED: " + reason
                     : "FAILED: this step cannot be done on " + platform_ + ": " + reason);
        }
        records_.back().ms = millisecondsSince(start);
        if (!json_ && records_.back().outcome == Outcome::Passed) {
            Console::out("    ok, " + std::to_string(records_.back().ms) + " ms");
        }
        return number;
    }

    void note(const std::string& text) {
        records_.back().details.push_back(text);
        if (!json_) {
            Console::out("    " + text);
        }
    }

    // One dot of progress for a long step.
    void progress() {
        if (!json_) {
            Console::outPartial(".");
        }
    }
    void progressDone() {
        if (!json_) {
            Console::out("");
        }
    }

    // The statistics of the tour's API object, printed with the summary.
    void statistics(const Varkel::Tolva::Rest::ApiStatistics& stats) { statistics_ = stats; }

    // Something the tour made on the platform and could not remove, for the summary.
    void leftBehind(const std::string& what) { leftBehind_.push_back(what); }

    // Prints the summary; returns the exit status.
    int finish(long long totalMs) {
        std::size_t passed = 0;
        for (const auto& record : records_) {
            passed += record.outcome == Outcome::Passed ? 1 : 0;
        }
        const bool ok = passed == records_.size() && leftBehind_.empty();
        if (json_) {
            printJson(ok, totalMs);
            return ok ? kExitOk : kExitFailure;
        }
        Console::out("");
        Console::out("Summary");
        for (std::size_t i = 0; i < records_.size(); ++i) {
            std::ostringstream line;
            line << "  " << outcomeText(records_[i].outcome) << std::setw(7) << records_[i].ms
                 << " ms  " << records_[i].name;
            Console::out(line.str());
        }
        std::ostringstream total;
        total << std::fixed << std::setprecision(1) << double(totalMs) / 1000.0;
        if (statistics_) {
            Console::out("The tour's API object, " + statisticsLine(*statistics_));
        }
        if (!platform_.empty()) {
            Console::out(leftBehind_.empty()
                             ? "Nothing of the tour is left on " + platform_ + "."
                             : "Left on " + platform_ + ": " + joined(leftBehind_) + ".");
        }
        if (ok) {
            Console::out("All " + std::to_string(passed) + " steps passed in " + total.str() +
                         " s.");
        } else if (platform_.empty()) {
            Console::out("The demo failed after " + total.str() + " s.");
        } else {
            std::size_t failed = 0;
            for (const auto& record : records_) {
                failed += record.outcome == Outcome::Failed ? 1 : 0;
            }
            const std::size_t skipped = records_.size() - passed - failed;
            Console::out(std::to_string(passed) + " of " + std::to_string(records_.size()) +
                         " steps passed on " + platform_ + " in " + total.str() + " s; " +
                         std::to_string(failed) + " could not be done there and " +
                         std::to_string(skipped) + " were skipped (see above).");
        }
        return ok ? kExitOk : kExitFailure;
    }

  private:
    static const char* outcomeText(Outcome outcome) {
        switch (outcome) {
            case Outcome::Passed:
                return "ok     ";
            case Outcome::Failed:
                return "FAILED ";
            case Outcome::Skipped:
                break;
        }
        return "skipped";
    }

    static std::string joined(const std::vector<std::string>& parts) {
        std::string text;
        for (const auto& part : parts) {
            text += (text.empty() ? "" : ", ") + part;
        }
        return text;
    }

    void printJson(bool ok, long long totalMs) const {
        auto out = web::json::value::object();
        out["ok"] = web::json::value::boolean(ok);
        out["platform"] = platform_.empty() ? web::json::value::null() : jsonText(platform_);
        out["totalMs"] = web::json::value::number(static_cast<std::int64_t>(totalMs));
        auto steps = web::json::value::array();
        for (std::size_t i = 0; i < records_.size(); ++i) {
            auto step = web::json::value::object();
            step["step"] = jsonText(records_[i].name);
            step["ok"] = web::json::value::boolean(records_[i].outcome == Outcome::Passed);
            step["skipped"] = web::json::value::boolean(records_[i].outcome == Outcome::Skipped);
            step["ms"] = web::json::value::number(static_cast<std::int64_t>(records_[i].ms));
            auto details = web::json::value::array();
            for (std::size_t j = 0; j < records_[i].details.size(); ++j) {
                details[j] = jsonText(records_[i].details[j]);
            }
            step["details"] = details;
            steps[i] = step;
        }
        out["steps"] = steps;
        auto left = web::json::value::array();
        for (std::size_t i = 0; i < leftBehind_.size(); ++i) {
            left[i] = jsonText(leftBehind_[i]);
        }
        out["leftOnPlatform"] = left;
        if (statistics_) {
            out["statistics"] = web::json::value::parse(Varkel::Zu::narrow(statistics_->toJson()));
        }
        Console::out(out.serialize());
    }

    bool json_;
    std::string platform_;
    std::optional<Varkel::Tolva::Rest::ApiStatistics> statistics_;
    std::vector<StepRecord> records_;
    std::vector<std::string> leftBehind_;
};

void require(bool condition, const std::string& what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

// The emulator's view of one registered service (its element of "services" in the state
// document); null when the emulator does not know it.
web::json::value serviceView(const qxpemu::Emulator& emulator, const std::string& serviceId) {
    const auto state = web::json::value::parse(emulator.state());
    for (const auto& service : state.at("services").as_array()) {
        if (service.has_string_field("serviceId") &&
            service.at("serviceId").as_string() == serviceId) {
            return service;
        }
    }
    return web::json::value::null();
}

// The heartbeats the API object sent for one service and how many of them failed.
Varkel::Tolva::Rest::ApiStatistics::ServiceHeartbeats heartbeatsOf(const QxPlatformApi& api,
                                                                   const std::wstring& serviceId) {
    for (const auto& service : api.statistics().services) {
        if (service.serviceId == serviceId) {
            return service;
        }
    }
    return {};
}

// Whether the platform still knows a service the tour unregistered: the status with which it
// answers a heartbeat sent with the service's id and secret (404: it no longer knows it).
int heartbeatStatusAfterUnregistering(const std::shared_ptr<QxPlatformApi>& api,
                                      const ModelServiceInfo& service) {
    const auto client = Varkel::Tolva::WebUtils::createHttpClient(api->getPlatformUrl(), api);
    const std::string path = "/discovery/api/v1/service/" + service.serviceId->toString() + "/" +
                             Varkel::Zu::narrow(service.serviceSecret) + "/health";
    return client->request(web::http::methods::PUT, path, service.serviceHealth->toJson())
        .get()
        .status_code();
}

// Waits for `ready` or `timeout`, one progress dot a second.
bool waitWithProgress(Tour& tour, std::chrono::seconds timeout,
                      const std::function<bool()>& ready) {
    const auto deadline = Clock::now() + timeout;
    bool done = ready();
    while (!done && !StopSignal::requested() && Clock::now() < deadline) {
        StopSignal::waitUntil(std::min(deadline, Clock::now() + std::chrono::seconds(1)), ready);
        done = ready();
        tour.progress();
    }
    tour.progressDone();
    return done;
}

// Where the tour runs: an emulator of its own, or the platform the command line or
// QX_PLATFORM_CONFIG names.
bool platformGiven(const Arguments& arguments) {
    const char* config = std::getenv("QX_PLATFORM_CONFIG");
    return arguments.has("url") || arguments.has("credentials") ||
           arguments.has("credentials-file") || (config != nullptr && *config != '\0');
}

}  // namespace

int runDemo(const Arguments& arguments) {
    const bool json = arguments.has("json");
    std::optional<PlatformConnection> given;
    if (platformGiven(arguments)) {
        if (arguments.has("tls")) {
            throw UsageError(
                "--tls serves the built-in emulator over HTTPS; for a given platform give its "
                "https:// URL (and --ca-file when its CA is not in the system's store)");
        }
        given.emplace(arguments);
    } else if (arguments.has("ca-file")) {
        throw UsageError(
            "--ca-file is for a given platform (--url); the built-in emulator's CA "
            "is trusted by the tour itself");
    }
    std::unique_ptr<qxpemu::Emulator> emulator;
    if (!given) {
        qxpemu::EmulatorOptions emulatorOptions;
        emulatorOptions.tls = arguments.has("tls");
        emulator = std::make_unique<qxpemu::Emulator>(emulatorOptions);
        if (emulator->tls()) {
            Varkel::Tolva::WebUtils::setTrustedCaFile(
                Varkel::Zu::widen(emulator->caCertificateFile()));
        }
    }
    Tour tour(json, given ? given->url() : std::string());
    const auto start = Clock::now();
    std::shared_ptr<QxPlatformApi> api;
    std::shared_ptr<QxPlatformApi> responderApi;
    std::shared_ptr<ModelServiceInfo> service;
    std::shared_ptr<Mailbox> mailbox;
    std::shared_ptr<Mailbox> responderMailbox;
    const auto collector = std::make_shared<MailCollector>();

    // An API object on the tour's platform. On a given platform it recovers from what it can
    // (RecoveryMode::Resilient): then a request and reply whose post fails deletes its
    // temporary mailbox too, so that nothing is left there.
    const auto connect = [&] {
        if (given) {
            return given->connectResilient();
        }
        auto made = Varkel::Zu::MakeShared::create<QxPlatformApi>(
            Varkel::Zu::widen(emulator->baseUrl()), Varkel::Zu::widen(emulator->apiKey()));
        require(!made->getCurrentAccessToken().empty(), "no access token");
        return made;
    };

    const int platformStep = tour.step(
        given ? "Use the platform at " + given->url()
              : "Start the platform emulator in this process",
        {}, [&] {
            if (given) {
                tour.note(std::string("given by ") +
                          (arguments.has("url") ? "--url" : "QX_PLATFORM_CONFIG") +
                          "; the tour deletes its mailboxes and unregisters its service there "
                          "whatever else fails");
                if (!Varkel::Tolva::WebUtils::trustedCaFile().empty()) {
                    tour.note("also trusting the CA certificates in " +
                              Varkel::Zu::narrow(Varkel::Tolva::WebUtils::trustedCaFile()));
                }
                return;
            }
            emulator->start();
            tour.note("listening on " + emulator->baseUrl());
            if (emulator->tls()) {
                tour.note("trusting the CA certificate in " + emulator->caCertificateFile());
            }
        });

    const int tokenStep =
        tour.step("Obtain an access token (OAuth2 client credentials)", {platformStep}, [&] {
            api = connect();
            const auto token = api->getCurrentTokenCopy();
            tour.note("account " + Varkel::Zu::narrow(token.account) + ", expires " +
                      tokenExpiry(token) + " (in " + std::to_string(tokenSecondsLeft(token)) +
                      " s)");
        });

    tour.step("Verify the token against the platform's key set", {tokenStep}, [&] {
        const auto token = api->getCurrentTokenCopy();
        const auto verifier = Varkel::Zu::MakeShared::create<Varkel::Tolva::JWTUtils>();
        web::json::value claims;
        const auto result = verifier->verify(token.keySet, token.accessToken, claims);
        require(result == Varkel::Tolva::Verified,
                "the platform's token gives " + verificationName(result));
        tour.note("the platform's token: " + verificationName(result) + ", claims " +
                  claims.serialize());
        // The same token with one character of its signature changed.
        std::wstring tampered = token.accessToken;
        tampered[tampered.size() - 2] = tampered[tampered.size() - 2] == L'A' ? L'B' : L'A';
        const auto tamperedResult = verifier->verify(token.keySet, tampered, claims);
        require(tamperedResult == Varkel::Tolva::VerificationFailed,
                "a tampered token gives " + verificationName(tamperedResult));
        tour.note("the same token with its signature changed: " + verificationName(tamperedResult));
    });

    const int registerStep = tour.step("Register a service", {tokenStep}, [&] {
        auto info = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
        info->serviceId =
            std::make_shared<Varkel::Zu::ZuUUID>(Varkel::Zu::ZuUUID::generateRandom());
        info->serviceType = L"demo-render";
        info->serviceInstance = L"demo-render-01";
        info->serviceAddress = L"127.0.0.1";
        info->servicePort = 8443;
        info->reverseProxyPathRule = L"/demo/";
        info->serviceTags = {L"demo"};
        info->serviceHealth = Varkel::Zu::MakeShared::create<ModelServiceHealth>();
        api->registerService(info);
        service = info;
        tour.note("service " + service->serviceId->toString() + " (demo-render/demo-render-01)");
    });

    tour.step("Keep it alive: wait for a heartbeat (one every 5 s)", {registerStep}, [&] {
        const std::wstring id = Varkel::Zu::widen(service->serviceId->toString());
        const bool beat = waitWithProgress(tour, std::chrono::seconds(15), [&] {
            const auto heartbeats = heartbeatsOf(*api, id);
            return heartbeats.sent > heartbeats.failed || heartbeats.failed > 0;
        });
        require(!StopSignal::requested(), "stopped (Ctrl-C)");
        require(beat, "no heartbeat was answered within 15 s");
        const auto heartbeats = heartbeatsOf(*api, id);
        require(heartbeats.failed == 0, "the platform did not take its heartbeat (" +
                                            PlatformConnection::lastLibraryError() + ")");
        service->serviceHealth->setHealth(HealthState::Warning, L"demo: disk 91% full");
        if (emulator) {
            const auto view = serviceView(*emulator, service->serviceId->toString());
            tour.note("the emulator sees: status " + view.at("status").as_string() + ", " +
                      std::to_string(view.at("heartbeats").as_number().to_int64()) +
                      " heartbeat(s), the last " +
                      std::to_string(view.at("lastHeartbeatAgeMs").as_number().to_int64()) +
                      " ms ago");
        } else {
            tour.note("the platform took " + std::to_string(heartbeats.sent) +
                      " heartbeat(s); the next one reports the health Warning");
        }
    });

    const int mailboxStep = tour.step(
        "Create a mailbox subscribed to \"demo.events\", with a listener", {tokenStep}, [&] {
            auto made = Varkel::Zu::MakeShared::create<Mailbox>();
            made->addListener(collector);
            api->createMailbox(made, L"demo.events");
            mailbox = made;
            tour.note("mailbox " +
                      Varkel::Zu::narrow(Varkel::Zu::ZuUUID(mailbox->getId()).toWString()));
        });

    tour.step("Post a notification and receive it", {mailboxStep}, [&] {
        const std::wstring content = L"{\"hello\":\"from the demo\"}";
        const auto posted = Clock::now();
        api->postNotification(L"demo.events", content, 60);
        // On a shared platform others may post on the topic too: the tour waits for its own.
        bool arrived = false;
        const auto deadline = posted + std::chrono::seconds(10);
        while (!arrived && StopSignal::waitUntil(deadline, [&] { return collector->hasMail(); })) {
            for (const auto& mail : collector->take()) {
                if (!arrived && mail.content == content) {
                    arrived = true;
                    tour.note("received " + Varkel::Zu::narrow(mail.topic) + ": " +
                              Varkel::Zu::narrow(mail.content) + " after " +
                              std::to_string(millisecondsSince(posted)) + " ms");
                }
            }
        }
        require(!StopSignal::requested(), "stopped (Ctrl-C)");
        require(arrived, "the notification did not arrive within 10 s");
    });

    tour.step("Request and reply, answered by a second API object", {tokenStep}, [&] {
        responderApi = connect();
        auto made = Varkel::Zu::MakeShared::create<Mailbox>();
        made->addListener(std::make_shared<Responder>(std::weak_ptr<QxPlatformApi>(responderApi)));
        responderApi->createMailbox(made, L"demo.requests");
        responderMailbox = made;
        const auto asked = Clock::now();
        const std::wstring reply = api->postNotificationAndWaitForReply(
            L"demo.requests", L"ping", L"demo.replies", asked + std::chrono::seconds(10));
        require(!reply.empty(), "no reply within 10 s");
        tour.note("asked \"ping\" on demo.requests, got \"" + Varkel::Zu::narrow(reply) +
                  "\" on demo.replies after " + std::to_string(millisecondsSince(asked)) + " ms");
    });

    tour.step(
        "Unregister the service", {registerStep},
        [&] {
            api->unregisterAllServices();
            if (emulator) {
                require(serviceView(*emulator, service->serviceId->toString()).is_null(),
                        "the emulator still lists the service");
                tour.note("the emulator no longer lists it");
                return;
            }
            // The library forgets the service whatever the platform answers; the platform's
            // answer to a heartbeat with the service's credentials says whether it let go.
            int status = 0;
            try {
                status = heartbeatStatusAfterUnregistering(api, *service);
            } catch (const std::exception&) {
                tour.leftBehind("perhaps service " + service->serviceId->toString() +
                                " (could not check)");
                throw;
            }
            if (status != web::http::status_codes::NotFound) {
                tour.leftBehind("service " + service->serviceId->toString());
            }
            require(status != web::http::status_codes::NoContent,
                    "the platform still keeps the service (unregistering it failed)");
            require(status == web::http::status_codes::NotFound,
                    "cannot tell whether the platform let the service go: a heartbeat with its "
                    "credentials is answered " +
                        std::to_string(status));
            tour.note(
                "the platform no longer knows it (a heartbeat with its credentials is "
                "answered 404)");
        },
        true);

    tour.step(
        "Delete the mailboxes and shut down", {tokenStep},
        [&] {
            std::string failures;
            for (const auto& [owner, box] :
                 {std::make_pair(api, mailbox), std::make_pair(responderApi, responderMailbox)}) {
                if (!box) {
                    continue;
                }
                const std::string id =
                    Varkel::Zu::narrow(Varkel::Zu::ZuUUID(box->getId()).toWString());
                try {
                    owner->deleteMailbox(box);
                    require(owner->hasDeletedMailboxes(), "mailbox " + id + " is still registered");
                    tour.note("deleted mailbox " + id);
                } catch (const std::exception& e) {
                    tour.leftBehind("mailbox " + id);
                    failures +=
                        (failures.empty() ? "" : "; ") + ("mailbox " + id + ": ") + e.what();
                }
            }
            tour.statistics(api->statistics());
            const std::string stopped = responderApi ? "both API objects" : "the API object";
            const auto stopping = Clock::now();
            api.reset();
            responderApi.reset();
            tour.note(stopped + " stopped in " + std::to_string(millisecondsSince(stopping)) +
                      " ms");
            require(failures.empty(), "could not delete " + failures);
        },
        true);

    // Whatever failed, the objects stop before the emulator does.
    api.reset();
    responderApi.reset();
    if (emulator) {
        emulator->stop();
    }
    return tour.finish(millisecondsSince(start));
}

}  // namespace tolva
