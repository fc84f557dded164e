// MailCollector: a mailbox listener that queues every notification it is handed, so that the
// tool's main thread prints them in its own order and format (listeners run on the API object's
// delivery threads, and a slow terminal would hold back that mailbox's next poll). Each arrival
// wakes StopSignal::waitUntil.
#pragma once

#include <TolvaCore/MailboxListener.h>

#include <chrono>
#include <deque>
#include <mutex>
#include <string>

namespace tolva {

struct ReceivedMail {
    std::wstring topic;
    std::wstring content;
    std::chrono::system_clock::time_point receivedAt;
};

// onMailReceived runs on a delivery thread of the API object; take() and hasMail() on any.
class MailCollector : public Varkel::Tolva::Rest::MailboxListener {
  public:
    void onMailReceived(const std::wstring& topic, const std::wstring& content) override;

    // Whether mail is waiting. Any thread.
    bool hasMail() const;
    // Everything received since the last call, oldest first. Any thread.
    std::deque<ReceivedMail> take();

  private:
    mutable std::mutex mutex_;
    std::deque<ReceivedMail> mail_;
};

}  // namespace tolva
