// Creates a mailbox subscribed to a topic, prints the first <count> notifications that arrive
// and deletes the mailbox.
//
//   listen <topic> <count>
#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxListener.h>
#include <TolvaCore/QxPlatformApi.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>

using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::MailboxListener;
using Varkel::Tolva::Rest::QxPlatformApi;

// Runs on one of the API object's delivery threads (never a thread of the HTTP library's pool),
// one notification at a time per mailbox, in the order the mail came, with the mailbox's
// listener lock held. It may block and may call the API object: that delays only this
// mailbox's next poll. It must not call addListener or removeListener on its own mailbox.
class Printer : public MailboxListener {
  public:
    void onMailReceived(const std::wstring& topic, const std::wstring& content) override {
        std::printf("%s: %s\n", Varkel::Zu::narrow(topic).c_str(),
                    Varkel::Zu::narrow(content).c_str());
        std::fflush(stdout);
        std::lock_guard<std::mutex> lock(mutex_);
        ++received_;
        changed_.notify_all();
    }

    void waitFor(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return received_ >= count; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int received_ = 0;
};

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <topic> <count>\n", argv[0]);
        return 2;
    }
    try {
        const auto api = QxPlatformApi::createFromEnvVar();
        if (!api) {
            std::fprintf(stderr, "set QX_PLATFORM_CONFIG first\n");
            return 2;
        }
        const auto printer = std::make_shared<Printer>();
        const auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();  // random id
        mailbox->addListener(printer);
        api->createMailbox(mailbox, Varkel::Zu::widen(argv[1]));  // polled from now on
        std::fprintf(stderr, "listening on %s\n", argv[1]);
        printer->waitFor(std::atoi(argv[2]));
        api->deleteMailbox(mailbox);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "listen failed: %s\n", e.what());
        return 1;
    }
    return 0;
}
