#include "MailboxListenerWithWait.h"

namespace Varkel {
namespace Tolva {
namespace Rest {

void MailboxListenerWithWait::onMailReceived(const std::wstring&, const std::wstring& content) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        reply = content;
    }
    condition.notifyAll();
}

std::wstring MailboxListenerWithWait::waitForReply(
    const std::chrono::steady_clock::time_point& deadline) {
    std::unique_lock<std::mutex> lock(mutex);
    while (reply.empty() && std::chrono::steady_clock::now() < deadline) {
        condition.waitUntil(lock, deadline);
    }
    return reply;
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
