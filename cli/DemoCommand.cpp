// tolva demo: a whole tour of the library against an emulator started in this process.
#include "CommandSupport.h"
#include "Commands.h"
#include "Console.h"
#include "MailCollector.h"
#include "StatisticsPrinter.h"
#include "StopSignal.h"

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
#include <exception>
#include <functional>
#include <iomanip>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

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

struct StepRecord {
    std::string name;
    bool ok = false;
    long long ms = 0;
    std::vector<std::string> details;
};

// Runs the steps in order, printing each as it goes (unless JSON is wanted); the first
// failing step ends the tour.
class Tour {
  public:
    explicit Tour(bool json) : json_(json) {}

    // Runs `step` unless an earlier one failed; it reports what it saw through note().
    void step(const std::string& name, const std::function<void()>& body) {
        if (failed_) {
            return;
        }
        records_.emplace_back();
        records_.back().name = name;
        if (!json_) {
            Console::out("[" + std::to_string(records_.size()) + "] " + name);
        }
        const auto start = Clock::now();
        try {
            body();
            records_.back().ok = true;
        } catch (const std::exception& e) {
            failed_ = true;
            note(std::string("FAILED: ") + e.what());
        }
        records_.back().ms = millisecondsSince(start);
        if (!json_ && records_.back().ok) {
            Console::out("    ok, " + std::to_string(records_.back().ms) + " ms");
        }
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

    // Prints the summary; returns the exit status.
    int finish(long long totalMs) {
        std::size_t passed = 0;
        for (const auto& record : records_) {
            passed += record.ok ? 1 : 0;
        }
        if (json_) {
            auto out = web::json::value::object();
            out["ok"] = web::json::value::boolean(!failed_);
            out["totalMs"] = web::json::value::number(static_cast<std::int64_t>(totalMs));
            auto steps = web::json::value::array();
            for (std::size_t i = 0; i < records_.size(); ++i) {
                auto step = web::json::value::object();
                step["step"] = jsonText(records_[i].name);
                step["ok"] = web::json::value::boolean(records_[i].ok);
                step["ms"] = web::json::value::number(static_cast<std::int64_t>(records_[i].ms));
                auto details = web::json::value::array();
                for (std::size_t j = 0; j < records_[i].details.size(); ++j) {
                    details[j] = jsonText(records_[i].details[j]);
                }
                step["details"] = details;
                steps[i] = step;
            }
            out["steps"] = steps;
            if (statistics_) {
                out["statistics"] =
                    web::json::value::parse(Varkel::Zu::narrow(statistics_->toJson()));
            }
            Console::out(out.serialize());
        } else {
            Console::out("");
            Console::out("Summary");
            for (std::size_t i = 0; i < records_.size(); ++i) {
                std::ostringstream line;
                line << "  " << (records_[i].ok ? "ok    " : "FAILED") << std::setw(7)
                     << records_[i].ms << " ms  " << records_[i].name;
                Console::out(line.str());
            }
            std::ostringstream total;
            total << std::fixed << std::setprecision(1) << double(totalMs) / 1000.0;
            if (statistics_) {
                Console::out("The tour's API object, " + statisticsLine(*statistics_));
            }
            Console::out(failed_ ? "The demo failed after " + total.str() + " s."
                                 : "All " + std::to_string(passed) + " steps passed in " +
                                       total.str() + " s.");
        }
        return failed_ ? kExitFailure : kExitOk;
    }

  private:
    bool json_;
    bool failed_ = false;
    std::optional<Varkel::Tolva::Rest::ApiStatistics> statistics_;
    std::vector<StepRecord> records_;
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

}  // namespace

int runDemo(const Arguments& arguments) {
    const bool json = arguments.has("json");
    Tour tour(json);
    const auto start = Clock::now();
    qxpemu::EmulatorOptions emulatorOptions;
    emulatorOptions.tls = arguments.has("tls");
    qxpemu::Emulator emulator(emulatorOptions);
    if (emulator.tls()) {
        Varkel::Tolva::WebUtils::setTrustedCaFile(Varkel::Zu::widen(emulator.caCertificateFile()));
    }
    std::shared_ptr<QxPlatformApi> api;
    std::shared_ptr<QxPlatformApi> responderApi;
    std::shared_ptr<ModelServiceInfo> service;
    std::shared_ptr<Mailbox> mailbox;
    std::shared_ptr<Mailbox> responderMailbox;
    const auto collector = std::make_shared<MailCollector>();
    const std::wstring url = Varkel::Zu::widen(emulator.baseUrl());

    tour.step("Start the platform emulator in this process", [&] {
        emulator.start();
        tour.note("listening on " + emulator.baseUrl());
        if (emulator.tls()) {
            tour.note("trusting the CA certificate in " + emulator.caCertificateFile());
        }
    });

    tour.step("Obtain an access token (OAuth2 client credentials)", [&] {
        api = Varkel::Zu::MakeShared::create<QxPlatformApi>(Varkel::Zu::widen(emulator.baseUrl()),
                                                            Varkel::Zu::widen(emulator.apiKey()));
        const auto token = api->getCurrentTokenCopy();
        require(!token.accessToken.empty(), "no access token");
        tour.note("account " + Varkel::Zu::narrow(token.account) + ", expires " +
                  tokenExpiry(token) + " (in " + std::to_string(tokenSecondsLeft(token)) + " s)");
    });

    tour.step("Verify the token against the platform's key set", [&] {
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

    tour.step("Register a service", [&] {
        service = Varkel::Zu::MakeShared::create<ModelServiceInfo>();
        service->serviceId =
            std::make_shared<Varkel::Zu::ZuUUID>(Varkel::Zu::ZuUUID::generateRandom());
        service->serviceType = L"demo-render";
        service->serviceInstance = L"demo-render-01";
        service->serviceAddress = L"127.0.0.1";
        service->servicePort = 8443;
        service->reverseProxyPathRule = L"/demo/";
        service->serviceTags = {L"demo"};
        service->serviceHealth = Varkel::Zu::MakeShared::create<ModelServiceHealth>();
        api->registerService(service);
        tour.note("service " + service->serviceId->toString() + " (demo-render/demo-render-01)");
    });

    tour.step("Keep it alive: wait for a heartbeat (one every 5 s)", [&] {
        const std::string id = service->serviceId->toString();
        const bool beat = waitWithProgress(tour, std::chrono::seconds(15), [&] {
            const auto view = serviceView(emulator, id);
            return view.is_object() && view.at("heartbeats").as_number().to_int64() >= 1;
        });
        require(beat, "no heartbeat arrived within 15 s");
        service->serviceHealth->setHealth(HealthState::Warning, L"demo: disk 91% full");
        const auto view = serviceView(emulator, id);
        tour.note("the emulator sees: status " + view.at("status").as_string() + ", " +
                  std::to_string(view.at("heartbeats").as_number().to_int64()) +
                  " heartbeat(s), the last " +
                  std::to_string(view.at("lastHeartbeatAgeMs").as_number().to_int64()) + " ms ago");
    });

    tour.step("Create a mailbox subscribed to \"demo.events\", with a listener", [&] {
        mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
        mailbox->addListener(collector);
        api->createMailbox(mailbox, L"demo.events");
        tour.note("mailbox " +
                  Varkel::Zu::narrow(Varkel::Zu::ZuUUID(mailbox->getId()).toWString()));
    });

    tour.step("Post a notification and receive it", [&] {
        const auto posted = Clock::now();
        api->postNotification(L"demo.events", L"{\"hello\":\"from the demo\"}", 60);
        const bool arrived = StopSignal::waitUntil(posted + std::chrono::seconds(10),
                                                   [&] { return collector->hasMail(); });
        require(arrived, "the notification did not arrive within 10 s");
        for (const auto& mail : collector->take()) {
            tour.note("received " + Varkel::Zu::narrow(mail.topic) + ": " +
                      Varkel::Zu::narrow(mail.content) + " after " +
                      std::to_string(millisecondsSince(posted)) + " ms");
        }
    });

    tour.step("Request and reply, answered by a second API object", [&] {
        responderApi = Varkel::Zu::MakeShared::create<QxPlatformApi>(
            Varkel::Zu::widen(emulator.baseUrl()), Varkel::Zu::widen(emulator.apiKey()));
        responderMailbox = Varkel::Zu::MakeShared::create<Mailbox>();
        responderMailbox->addListener(
            std::make_shared<Responder>(std::weak_ptr<QxPlatformApi>(responderApi)));
        responderApi->createMailbox(responderMailbox, L"demo.requests");
        const auto asked = Clock::now();
        const std::wstring reply = api->postNotificationAndWaitForReply(
            L"demo.requests", L"ping", L"demo.replies", asked + std::chrono::seconds(10));
        require(!reply.empty(), "no reply within 10 s");
        tour.note("asked \"ping\" on demo.requests, got \"" + Varkel::Zu::narrow(reply) +
                  "\" on demo.replies after " + std::to_string(millisecondsSince(asked)) + " ms");
    });

    tour.step("Unregister the service", [&] {
        api->unregisterAllServices();
        require(serviceView(emulator, service->serviceId->toString()).is_null(),
                "the emulator still lists the service");
        tour.note("the emulator no longer lists it");
    });

    tour.step("Delete the mailboxes and shut down", [&] {
        api->deleteMailbox(mailbox);
        responderApi->deleteMailbox(responderMailbox);
        require(api->hasDeletedMailboxes() && responderApi->hasDeletedMailboxes(),
                "a mailbox is still registered");
        tour.statistics(api->statistics());
        const auto stopping = Clock::now();
        api.reset();
        responderApi.reset();
        tour.note("both API objects stopped in " + std::to_string(millisecondsSince(stopping)) +
                  " ms");
    });

    // Whatever failed, the objects stop before the emulator does.
    api.reset();
    responderApi.reset();
    emulator.stop();
    return tour.finish(millisecondsSince(start));
}

}  // namespace tolva
