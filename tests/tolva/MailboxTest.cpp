// Mailbox and its listeners: construction, the listener list without duplicates, delivery in
// order with a throwing listener contained, and the waiting listener used for request/reply.
#include "RestTestSupport.h"

#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxListener.h>
#include <TolvaCore/private/MailboxListenerWithWait.h>

#include <ZuCore/MakeShared.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include <boost/uuid/uuid_io.hpp>

namespace TolvaRestTest {
namespace {

using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::MailboxListener;
using Varkel::Tolva::Rest::MailboxListenerWithWait;
using Clock = std::chrono::steady_clock;

// Records every mail as "<name>:<topic>:<content>" in a shared journal.
class JournalListener : public MailboxListener {
  public:
    JournalListener(std::string name, std::vector<std::string>& journal)
        : name_(std::move(name)), journal_(journal) {}
    void onMailReceived(const std::wstring& topic, const std::wstring& content) override {
        journal_.push_back(name_ + ":" + Varkel::Zu::narrow(topic) + ":" +
                           Varkel::Zu::narrow(content));
    }

  private:
    std::string name_;
    std::vector<std::string>& journal_;
};

class ThrowingListener : public MailboxListener {
  public:
    void onMailReceived(const std::wstring&, const std::wstring&) override {
        throw std::runtime_error("listener failed");
    }
};

class IntThrowingListener : public MailboxListener {
  public:
    void onMailReceived(const std::wstring&, const std::wstring&) override { throw 42; }
};

std::shared_ptr<Mailbox> makeMailbox() {
    return Varkel::Zu::MakeShared::create<Mailbox>();
}

TEST(MailboxTest, TheFullConstructorKeepsItsArguments) {
    const boost::uuids::uuid id =
        Varkel::Zu::ZuUUID(L"0f8fad5b-d9cb-469f-a165-70867728950e").getUUID();
    const auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>(id, 60u, false);
    EXPECT_EQ(mailbox->getId(), id);
    EXPECT_EQ(mailbox->getTtl(), 60u);
    EXPECT_FALSE(mailbox->getDurable());
    EXPECT_TRUE(mailbox->getSecret().empty());
}

TEST(MailboxTest, ATagOnlyMailboxHasAVersion4IdTtl0DurableAndNoSecret) {
    const auto mailbox = makeMailbox();
    const boost::uuids::uuid id = mailbox->getId();
    EXPECT_EQ(id.version(), boost::uuids::uuid::version_random_number_based);
    EXPECT_EQ(id.variant(), boost::uuids::uuid::variant_rfc_4122);
    EXPECT_EQ(mailbox->getTtl(), 0u);
    EXPECT_TRUE(mailbox->getDurable());
    EXPECT_TRUE(mailbox->getSecret().empty());
    EXPECT_NE(makeMailbox()->getId(), id);
}

TEST(MailboxTest, AccessorsReplaceTheirValues) {
    const auto mailbox = makeMailbox();
    const auto otherId = makeMailbox()->getId();
    mailbox->setId(otherId);
    mailbox->setTtl(5);
    mailbox->setDurable(false);
    mailbox->setSecret(L"s3");
    mailbox->setSecret(mailbox->getSecret());
    EXPECT_EQ(mailbox->getId(), otherId);
    EXPECT_EQ(mailbox->getTtl(), 5u);
    EXPECT_FALSE(mailbox->getDurable());
    EXPECT_EQ(mailbox->getSecret(), L"s3");
}

TEST(MailboxTest, AMailboxWithoutListenersAcceptsMail) {
    const LogRecords records;
    EXPECT_NO_THROW(makeMailbox()->receiveMail(L"t", L"c"));
    EXPECT_TRUE(records.messages("TolvaCore.Mailbox").empty());
}

TEST(MailboxTest, AThrowingListenerDoesNotStopTheNextOne) {
    const LogRecords records;
    std::vector<std::string> journal;
    const auto mailbox = makeMailbox();
    mailbox->addListener(std::make_shared<ThrowingListener>());
    mailbox->addListener(std::make_shared<JournalListener>("second", journal));
    mailbox->receiveMail(L"news/alpha", L"hello");
    EXPECT_EQ(journal, (std::vector<std::string>{"second:news/alpha:hello"}));
    expectOneListenerErrorLine(records);
}

TEST(MailboxTest, ANonStandardExceptionIsContainedToo) {
    std::vector<std::string> journal;
    const auto mailbox = makeMailbox();
    mailbox->addListener(std::make_shared<IntThrowingListener>());
    mailbox->addListener(std::make_shared<JournalListener>("after", journal));
    EXPECT_NO_THROW(mailbox->receiveMail(L"t", L"c"));
    EXPECT_EQ(journal.size(), 1u);
}

TEST(MailboxTest, AListenerAddedTwiceIsCalledOnce) {
    std::vector<std::string> journal;
    const auto mailbox = makeMailbox();
    const auto listener = std::make_shared<JournalListener>("only", journal);
    mailbox->addListener(listener);
    mailbox->addListener(listener);
    mailbox->receiveMail(L"t", L"c");
    EXPECT_EQ(journal, (std::vector<std::string>{"only:t:c"}));
}

TEST(MailboxTest, RemovingAListenerInTheMiddleKeepsTheOrder) {
    std::vector<std::string> journal;
    const auto mailbox = makeMailbox();
    const auto a = std::make_shared<JournalListener>("a", journal);
    const auto b = std::make_shared<JournalListener>("b", journal);
    const auto c = std::make_shared<JournalListener>("c", journal);
    mailbox->addListener(a);
    mailbox->addListener(b);
    mailbox->addListener(c);
    mailbox->removeListener(b);
    mailbox->removeListener(std::make_shared<JournalListener>("never-added", journal));
    mailbox->receiveMail(L"t", L"1");
    EXPECT_EQ(journal, (std::vector<std::string>{"a:t:1", "c:t:1"}));
}

TEST(MailboxTest, TheMailboxKeepsItsListenersAlive) {
    std::vector<std::string> journal;
    const auto mailbox = makeMailbox();
    mailbox->addListener(std::make_shared<JournalListener>("kept", journal));
    mailbox->receiveMail(L"t", L"c");
    EXPECT_EQ(journal.size(), 1u);
}

TEST(MailboxTest, TheWaitingListenerKeepsTheLastContent) {
    MailboxListenerWithWait listener;
    listener.onMailReceived(L"t", L"first");
    listener.onMailReceived(L"t", L"second");
    EXPECT_EQ(listener.waitForReply(Clock::now()), L"second");
}

TEST(MailboxTest, MailWithEmptyContentDoesNotEndTheWait) {
    MailboxListenerWithWait listener;
    std::atomic<bool> emptySent{false};
    std::thread sender([&] {
        listener.onMailReceived(L"t", L"");
        emptySent = true;
        listener.onMailReceived(L"t", L"answer");
    });
    const std::wstring reply = listener.waitForReply(Clock::now() + std::chrono::seconds(30));
    sender.join();
    EXPECT_EQ(reply, L"answer");
    EXPECT_TRUE(emptySent);
}

TEST(MailboxTest, TheWaitingListenerReturnsEmptyAtTheDeadline) {
    MailboxListenerWithWait listener;
    const auto deadline = Clock::now() + std::chrono::milliseconds(200);
    EXPECT_EQ(listener.waitForReply(deadline), L"");
    EXPECT_GE(Clock::now(), deadline);
}

// Listeners added and removed while mail is delivered from other threads: every delivery sees
// a whole list, and (under ThreadSanitizer) nothing races.
TEST(MailboxTest, ListenersChangeWhileMailIsDelivered) {
    class CountingListener : public MailboxListener {
      public:
        std::atomic<int> calls{0};
        void onMailReceived(const std::wstring&, const std::wstring&) override { ++calls; }
    };
    const auto mailbox = makeMailbox();
    const auto resident = std::make_shared<CountingListener>();
    mailbox->addListener(resident);
    std::atomic<bool> stop{false};
    std::thread changer([&] {
        while (!stop) {
            const auto passing = std::make_shared<CountingListener>();
            mailbox->addListener(passing);
            mailbox->removeListener(passing);
        }
    });
    std::vector<std::thread> deliverers;
    for (int t = 0; t < 2; ++t) {
        deliverers.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                mailbox->receiveMail(L"t", L"c");
            }
        });
    }
    for (auto& thread : deliverers) {
        thread.join();
    }
    stop = true;
    changer.join();
    EXPECT_EQ(resident->calls.load(), 4000);
}

}  // namespace
}  // namespace TolvaRestTest
