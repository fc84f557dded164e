/// @class Varkel::Tolva::QxPlatformNotifier
/// QxPlatformNotifier: posts notifications without making the caller wait for the platform.
/// Each postNotification queues a message on the notifier's own worker thread ("<name> QXP
/// notif thread"), which performs QxPlatformApi::postNotification later, one post after the
/// other in the order they were queued. Fire and forget: the caller learns nothing of the
/// outcome, and a failed post is not retried (the API object logs its own failures).
///
///   auto notifier = Varkel::Zu::MakeShared::create<Varkel::Tolva::QxPlatformNotifier>(
///       L"Alerts", api, Varkel::Zu::ThreadEnum::Priority::Normal);
///   notifier->postNotification(L"plant/alerts", L"{\"level\":2}", 0);
#pragma once

#include <TolvaCore/QxPlatformApi.h>
#include <TolvaCore/TolvaExport.h>

#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>
#include <ZuCore/Message.h>
#include <ZuCore/MessageThread.h>
#include <ZuCore/Named.h>
#include <ZuCore/ThreadEnum.h>

#include <memory>
#include <string>

namespace Varkel {
namespace Tolva {

class TOLVA_EXPORT QxPlatformNotifier : public Varkel::Zu::Named {
  public:
    /// One queued post. Keeps its own reference to the API object, so a queued post keeps the
    /// API object alive.
    class TOLVA_EXPORT QxPlatformNotifMessage : public Varkel::Zu::Message {
      public:
        /// A post of `content` on `topic` with time to live `value` (seconds) through `api`.
        QxPlatformNotifMessage(std::shared_ptr<Rest::QxPlatformApi> api, std::wstring topic,
                               std::wstring content, unsigned int value);
        ~QxPlatformNotifMessage() override;

        /// On the worker: posts, unless the API pointer is null or topic or content is empty.
        /// A failing post is dropped without a line here.
        void process() override;

      private:
        std::shared_ptr<Rest::QxPlatformApi> api_;
        std::wstring topic_;
        std::wstring content_;
        unsigned int value_;
    };

    /// Starts the worker "<name> QXP notif thread" with the given priority and an unbounded
    /// queue. Throws Varkel::Zu::InvalidArgumentException "Invalid QX Platform API." for a null
    /// api (no thread is started). Made through
    /// Varkel::Zu::MakeShared::create<QxPlatformNotifier>(name, api, priority).
    QxPlatformNotifier(Varkel::Zu::PrivateConstructorType, const std::wstring& name,
                       const std::shared_ptr<Rest::QxPlatformApi>& api,
                       Varkel::Zu::ThreadEnum::Priority priority);

    /// Stops the worker at once: queued posts that have not started are dropped (completed
    /// unprocessed); a post under way is waited for, so destruction may take as long as one
    /// request (at most the HTTP client's time-out). Must not run on the worker itself.
    ~QxPlatformNotifier() override;

    QxPlatformNotifier(const QxPlatformNotifier&) = delete;
    QxPlatformNotifier& operator=(const QxPlatformNotifier&) = delete;

    /// Queues one notification and returns at once; `value` is postNotification's third
    /// argument (the time to live, 0 for none). An empty topic or content is accepted and
    /// dropped later by the worker. When the worker refuses the message (a ZuCore exception),
    /// logs "Failed to post QXP notif message: <exception>" at error level (at most once per
    /// 5 seconds) and returns normally. Any thread.
    void postNotification(const std::wstring& topic, const std::wstring& content,
                          unsigned int value);

  protected:
    /// For subclasses (and tests) that need the worker itself.
    const std::shared_ptr<Varkel::Zu::MessageThread>& getWorker() const { return thread_; }

  private:
    static std::shared_ptr<Varkel::Zu::Logger> _logger;

    std::shared_ptr<Rest::QxPlatformApi> api_;
    std::shared_ptr<Varkel::Zu::MessageThread> thread_;
};

}  // namespace Tolva
}  // namespace Varkel
