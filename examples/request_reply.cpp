// Request and reply: one API object answers every request on "example.requests" with a reply on
// "example.replies"; a second one asks and prints the answer.
//
//   request_reply <question>
#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxListener.h>
#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>

using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::MailboxListener;
using Varkel::Tolva::Rest::QxPlatformApi;

// Answers through its API object from inside the listener (on a delivery thread, where
// posting is allowed). It holds that object weakly: a strong reference from a listener would
// keep the object alive until its mailbox is deleted and its last poll has ended.
class Responder : public MailboxListener {
  public:
    explicit Responder(std::weak_ptr<QxPlatformApi> api) : api_(std::move(api)) {}
    void onMailReceived(const std::wstring&, const std::wstring& question) override {
        if (const auto api = api_.lock()) {
            api->postNotification(L"example.replies", L"you asked: " + question, 0);
        }
    }

  private:
    std::weak_ptr<QxPlatformApi> api_;
};

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <question>\n", argv[0]);
        return 2;
    }
    try {
        const auto responderApi = QxPlatformApi::createFromEnvVar();
        const auto askingApi = QxPlatformApi::createFromEnvVar();
        if (!responderApi || !askingApi) {
            std::fprintf(stderr, "set QX_PLATFORM_CONFIG first\n");
            return 2;
        }
        const auto requests = Varkel::Zu::MakeShared::create<Mailbox>();
        requests->addListener(std::make_shared<Responder>(responderApi));
        responderApi->createMailbox(requests, L"example.requests");

        // Subscribes a temporary mailbox to the reply topic, posts, waits until a reply with
        // content arrives or the deadline passes ("" then), deletes the temporary mailbox.
        const std::wstring reply = askingApi->postNotificationAndWaitForReply(
            L"example.requests", Varkel::Zu::widen(argv[1]), L"example.replies",
            std::chrono::steady_clock::now() + std::chrono::seconds(10));
        responderApi->deleteMailbox(requests);
        if (reply.empty()) {
            std::fprintf(stderr, "no reply within 10 s\n");
            return 1;
        }
        std::printf("%s\n", Varkel::Zu::narrow(reply).c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "request failed: %s\n", e.what());
        return 1;
    }
    return 0;
}
