// MailboxListenerWithWait: a listener that turns one asynchronous reply into a blocking wait,
// for request and reply over a temporary mailbox. It keeps the content of the latest mail;
// waitForReply blocks until a mail with non-empty content has come or the deadline passes.
#pragma once

#include <TolvaCore/MailboxListener.h>

#include <ZuCore/ConditionVariable.h>

#include <chrono>
#include <mutex>
#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

class MailboxListenerWithWait : public MailboxListener {
  public:
    // Stores the content (the topic is ignored), then wakes the waiter.
    void onMailReceived(const std::wstring& topic, const std::wstring& content) override;

    // The content of the latest mail, once one with non-empty content has come; "" when the
    // deadline passes first. A mail with empty content does not end the wait.
    std::wstring waitForReply(const std::chrono::steady_clock::time_point& deadline);

  private:
    std::wstring reply;
    std::mutex mutex;
    Varkel::Zu::ConditionVariable condition;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
