// Many mailboxes created and deleted from several threads while mail flows to them and
// listeners are added and removed: every mailbox that stays gets its mail, nothing crashes, and
// (under ThreadSanitizer) nothing races.
#include "MailTestSupport.h"

#include <atomic>
#include <thread>
#include <vector>

namespace TolvaRestTest {
namespace {

class MailConcurrencyTest : public MailTest {};

TEST_F(MailConcurrencyTest, MailboxesComeAndGoWhileMailFlows) {
    const auto api = makeApi();
    // Resident mailboxes stay for the whole run and must see every notification.
    std::vector<std::shared_ptr<Mailbox>> residents;
    std::vector<std::shared_ptr<RecordingListener>> residentListeners;
    for (int i = 0; i < 4; ++i) {
        residents.push_back(newMailbox());
        residentListeners.push_back(std::make_shared<RecordingListener>());
        residents.back()->addListener(residentListeners.back());
        api->createMailbox(residents.back(), L"stress/all");
        ASSERT_EQ(waitForPolls(*residents.back(), 1).size(), 1u);
    }

    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                const auto mailbox = newMailbox();
                mailbox->addListener(std::make_shared<RecordingListener>());
                try {
                    api->createMailbox(mailbox, L"stress/all");
                    api->subscribeTopic(mailbox, L"stress/other");
                    api->deleteMailbox(mailbox);
                } catch (const std::exception&) {
                    ++failures;
                }
            }
        });
    }
    threads.emplace_back([&] {
        while (!stop) {
            for (const auto& mailbox : residents) {
                const auto passing = std::make_shared<RecordingListener>();
                mailbox->addListener(passing);
                mailbox->removeListener(passing);
            }
        }
    });

    constexpr std::size_t kPosts = 30;
    for (std::size_t i = 0; i < kPosts; ++i) {
        api->postNotification(L"stress/all", L"n" + std::to_wstring(i), 0);
    }
    for (const auto& listener : residentListeners) {
        EXPECT_EQ(listener->waitFor(kPosts).size(), kPosts);
    }
    stop = true;
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
    for (const auto& listener : residentListeners) {
        const auto mail = listener->waitFor(kPosts);
        for (std::size_t i = 0; i < mail.size(); ++i) {
            EXPECT_EQ(mail[i].second, L"n" + std::to_wstring(i));
        }
    }
}

}  // namespace
}  // namespace TolvaRestTest
