#include "MailCollector.h"

#include "StopSignal.h"

namespace tolva {

void MailCollector::onMailReceived(const std::wstring& topic, const std::wstring& content) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        mail_.push_back({topic, content, std::chrono::system_clock::now()});
    }
    StopSignal::notify();
}

bool MailCollector::hasMail() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return !mail_.empty();
}

std::deque<ReceivedMail> MailCollector::take() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::deque<ReceivedMail> taken;
    taken.swap(mail_);
    return taken;
}

}  // namespace tolva
