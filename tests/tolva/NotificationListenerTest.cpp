// NotificationListener: the whole notification (id, time, source, topic, content) through
// Mailbox::receiveNotification, plain listeners beside it, mail from receiveMail, a throwing
// listener contained, the poll body's members as read, and a post received end to end.
#include "MailTestSupport.h"

#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxListener.h>
#include <TolvaCore/NotificationListener.h>
#include <TolvaCore/ReceivedNotification.h>
#include <TolvaCore/private/PollDelivery.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <cpprest/json.h>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::Rest::NotificationListener;
using Varkel::Tolva::Rest::PollMail;
using Varkel::Tolva::Rest::readPollBody;
using Varkel::Tolva::Rest::ReceivedNotification;
using Varkel::Zu::narrow;
using Varkel::Zu::widen;

// Keeps every notification it gets; tests wait for a number of them.
class KeepingListener : public NotificationListener {
  public:
    void onNotificationReceived(const ReceivedNotification& notification) override {
        std::lock_guard<std::mutex> lock(mutex_);
        kept_.push_back(notification);
        changed_.notify_all();
    }

    // Waits until at least `count` notifications have come; returns them all.
    std::vector<ReceivedNotification> waitFor(
        std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, timeout, [&] { return kept_.size() >= count; });
        return kept_;
    }

    std::vector<ReceivedNotification> kept() {
        std::lock_guard<std::mutex> lock(mutex_);
        return kept_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<ReceivedNotification> kept_;
};

class ThrowingNotificationListener : public NotificationListener {
  public:
    void onNotificationReceived(const ReceivedNotification&) override {
        throw std::runtime_error("listener failed");
    }
};

std::shared_ptr<Mailbox> makeMailbox() {
    return Varkel::Zu::MakeShared::create<Mailbox>();
}

ReceivedNotification sampleNotification() {
    ReceivedNotification notification;
    notification.id = L"5d2c1f0e-8a4b-4c3d-9e7f-0a1b2c3d4e5f";
    notification.time = L"2024-05-01T12:00:00Z";
    notification.source = L"Tolva";
    notification.topic = L"plant/line1";
    notification.content = L"{\"state\":\"started\"}";
    return notification;
}

// The members of a notification in one comparable line.
std::string describe(const ReceivedNotification& notification) {
    return narrow(notification.id + L"|" + notification.time + L"|" + notification.source + L"|" +
                  notification.topic + L"|" + notification.content);
}

PollMail readBody(const std::string& body) {
    return readPollBody(web::json::value::parse(body));
}

TEST(NotificationListenerTest, ANotificationListenerGetsEveryMemberFromReceiveNotification) {
    const auto mailbox = makeMailbox();
    const auto listener = std::make_shared<KeepingListener>();
    mailbox->addListener(listener);
    mailbox->receiveNotification(sampleNotification());
    const auto kept = listener->kept();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].id, L"5d2c1f0e-8a4b-4c3d-9e7f-0a1b2c3d4e5f");
    EXPECT_EQ(kept[0].time, L"2024-05-01T12:00:00Z");
    EXPECT_EQ(kept[0].source, L"Tolva");
    EXPECT_EQ(kept[0].topic, L"plant/line1");
    EXPECT_EQ(kept[0].content, L"{\"state\":\"started\"}");
}

TEST(NotificationListenerTest, APlainListenerBesideItStillGetsTopicAndContent) {
    const auto mailbox = makeMailbox();
    const auto plain = std::make_shared<RecordingListener>();
    const auto whole = std::make_shared<KeepingListener>();
    mailbox->addListener(plain);
    mailbox->addListener(whole);
    mailbox->receiveNotification(sampleNotification());
    EXPECT_EQ(plain->waitFor(1, std::chrono::milliseconds(0)),
              (std::vector<std::pair<std::wstring, std::wstring>>{
                  {L"plant/line1", L"{\"state\":\"started\"}"}}));
    ASSERT_EQ(whole->kept().size(), 1u);
    EXPECT_EQ(describe(whole->kept()[0]), describe(sampleNotification()));
}

TEST(NotificationListenerTest, ReceiveMailReachesANotificationListenerWithEmptyIdTimeAndSource) {
    const auto mailbox = makeMailbox();
    const auto listener = std::make_shared<KeepingListener>();
    mailbox->addListener(listener);
    mailbox->receiveMail(L"news/alpha", L"hello");
    const auto kept = listener->kept();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(describe(kept[0]), "|||news/alpha|hello");
}

TEST(NotificationListenerTest, AThrowingNotificationListenerDoesNotStopTheNextOne) {
    const LogRecords records;
    const auto mailbox = makeMailbox();
    const auto next = std::make_shared<KeepingListener>();
    mailbox->addListener(std::make_shared<ThrowingNotificationListener>());
    mailbox->addListener(next);
    EXPECT_NO_THROW(mailbox->receiveNotification(sampleNotification()));
    ASSERT_EQ(next->kept().size(), 1u);
    EXPECT_EQ(describe(next->kept()[0]), describe(sampleNotification()));
    expectOneListenerErrorLine(records);
}

// Both ways in share one delivery, so a failure in either counts against the same cap: a
// second failure within the second writes nothing.
TEST(NotificationListenerTest, ReceiveMailAndReceiveNotificationShareOneCappedLine) {
    const LogRecords records;
    const auto mailbox = makeMailbox();
    mailbox->addListener(std::make_shared<ThrowingNotificationListener>());
    mailbox->receiveMail(L"t", L"c");
    mailbox->receiveNotification(sampleNotification());
    EXPECT_EQ(records.messages("TolvaCore.Mailbox"),
              (std::vector<std::wstring>{L"Unknown exception caught while receiving mail."}));
}

TEST(NotificationListenerTest, APollBodyGivesIdTimeAndSource) {
    const PollMail mail =
        readBody(R"([{"id":"5d2c1f0e-8a4b-4c3d-9e7f-0a1b2c3d4e5f","time":"2024-05-01T12:00:00Z",)"
                 R"("topic":"plant/line1","content":"started","ttl":5,"source":"Tolva"},)"
                 R"({"id":"b","time":"t2","topic":"x","content":"y","source":"other"}])");
    EXPECT_FALSE(mail.failed) << mail.failure;
    ASSERT_EQ(mail.mail.size(), 2u);
    EXPECT_EQ(
        describe(mail.mail[0]),
        "5d2c1f0e-8a4b-4c3d-9e7f-0a1b2c3d4e5f|2024-05-01T12:00:00Z|Tolva|plant/line1|started");
    EXPECT_EQ(describe(mail.mail[1]), "b|t2|other|x|y");
}

TEST(NotificationListenerTest, MissingOrNonStringIdTimeAndSourceAreReadEmpty) {
    const PollMail mail =
        readBody(R"([{"topic":"a","content":"1"},)"
                 R"({"id":42,"time":null,"source":{"name":"Tolva"},"topic":"b","content":"2"},)"
                 R"({"id":["x"],"time":1714564800,"source":true,"topic":"c","content":"3"}])");
    EXPECT_FALSE(mail.failed) << mail.failure;
    ASSERT_EQ(mail.mail.size(), 3u);
    EXPECT_EQ(describe(mail.mail[0]), "|||a|1");
    EXPECT_EQ(describe(mail.mail[1]), "|||b|2");
    EXPECT_EQ(describe(mail.mail[2]), "|||c|3");
}

// Topic and content keep their stricter rule: present but not a string ends the reading, and
// the mail before it is kept with its members.
TEST(NotificationListenerTest, ANonStringTopicStillEndsTheReading) {
    const PollMail mail = readBody(R"([{"id":"first","topic":"a","content":"1"},)"
                                   R"({"id":"second","topic":7,"content":"2"},)"
                                   R"({"id":"third","topic":"c","content":"3"}])");
    EXPECT_TRUE(mail.failed);
    EXPECT_FALSE(mail.failure.empty());
    ASSERT_EQ(mail.mail.size(), 1u);
    EXPECT_EQ(describe(mail.mail[0]), "first|||a|1");
}

class NotificationListenerMailTest : public MailTest {};

TEST_F(NotificationListenerMailTest, APostedNotificationArrivesWithTheIdTimeAndSourceItWasPosted) {
    const auto api = makeApi();
    auto mailbox = newMailbox();
    const auto listener = std::make_shared<KeepingListener>();
    mailbox->addListener(listener);
    api->createMailbox(mailbox, L"plant/line1");
    ASSERT_EQ(waitForPolls(*mailbox, 1).size(), 1u);

    api->postNotification(L"Plant/Line1", L"{\"state\":\"started\"}", 0);
    const auto kept = listener->waitFor(1);
    ASSERT_EQ(kept.size(), 1u);

    const auto posts = requestsTo("POST", kNotificationsPath);
    ASSERT_EQ(posts.size(), 1u);
    const web::json::value posted = web::json::value::parse(posts[0].body);
    ASSERT_TRUE(posted.is_object());
    EXPECT_FALSE(posted.at("id").as_string().empty());
    EXPECT_EQ(kept[0].id, widen(posted.at("id").as_string()));
    EXPECT_EQ(kept[0].time, widen(posted.at("time").as_string()));
    EXPECT_EQ(kept[0].source, L"Tolva");
    EXPECT_EQ(kept[0].topic, L"plant/line1");
    EXPECT_EQ(kept[0].content, L"{\"state\":\"started\"}");
}

}  // namespace
}  // namespace TolvaRestTest
