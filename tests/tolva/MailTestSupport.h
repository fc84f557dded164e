// Shared pieces of the mailbox tests: a listener that records its mail and can be awaited,
// an emulator fixture whose long polls end after one second, and request helpers.
#pragma once

#include "RestTestSupport.h"

#include <TolvaCore/ApiEvent.h>
#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxListener.h>

#include <ZuCore/MakeShared.h>
#include <ZuCore/StringConversion.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <pplx/pplxtasks.h>

#include <pthread.h>

#include <boost/uuid/uuid_io.hpp>

namespace TolvaRestTest {

using Varkel::Tolva::Rest::Mailbox;
using Varkel::Tolva::Rest::MailboxListener;

// Records every mail as (topic, content); tests wait for a number of them.
class RecordingListener : public MailboxListener {
  public:
    void onMailReceived(const std::wstring& topic, const std::wstring& content) override {
        std::lock_guard<std::mutex> lock(mutex_);
        mail_.emplace_back(topic, content);
        changed_.notify_all();
    }

    // Waits until at least `count` mails have come; returns them all.
    std::vector<std::pair<std::wstring, std::wstring>> waitFor(
        std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, timeout, [&] { return mail_.size() >= count; });
        return mail_;
    }

    std::size_t count() {
        std::lock_guard<std::mutex> lock(mutex_);
        return mail_.size();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::pair<std::wstring, std::wstring>> mail_;
};

// Holds every delivery until opened: while a listener waits here its mailbox gets no next poll,
// and its delivery thread is taken.
class GateListener : public MailboxListener {
  public:
    void onMailReceived(const std::wstring&, const std::wstring&) override {
        std::unique_lock<std::mutex> lock(mutex_);
        entered_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
    }

    // Whether a delivery has reached the gate within `timeout`.
    bool waitEntered(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [this] { return entered_; });
    }

    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool entered_ = false;
    bool open_ = false;
};

inline std::string mailboxIdText(const Mailbox& mailbox) {
    return boost::uuids::to_string(mailbox.getId());
}

constexpr const char* kMailboxPath = "/notifications/api/v1/mailbox";

inline std::string pollTarget(const Mailbox& mailbox) {
    return std::string(kNotificationsPath) + "/" + mailboxIdText(mailbox) + "?timeout=30";
}

inline std::string pollPath(const Mailbox& mailbox) {
    return std::string(kNotificationsPath) + "/" + mailboxIdText(mailbox);
}

// The emulator answers an idle long poll after one second instead of thirty.
// Records the events an API object reports, with the name of the thread each came on.
class EventLog {
  public:
    // The callback to hand to QxPlatformApi::setEventCallback.
    static std::function<void(const Varkel::Tolva::Rest::ApiEvent&)> callbackFor(
        const std::shared_ptr<EventLog>& log) {
        return [log](const Varkel::Tolva::Rest::ApiEvent& event) { log->add(event); };
    }

    void add(const Varkel::Tolva::Rest::ApiEvent& event) {
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(event);
        threadNames_.emplace_back(name);
        changed_.notify_all();
    }

    // Waits until an event of `kind` (about `subject`, when not empty) has come.
    bool waitFor(Varkel::Tolva::Rest::ApiEvent::Kind kind, const std::wstring& subject = L"",
                 std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return countLocked(kind, subject) > 0; });
    }

    std::size_t count(Varkel::Tolva::Rest::ApiEvent::Kind kind, const std::wstring& subject = L"") {
        std::lock_guard<std::mutex> lock(mutex_);
        return countLocked(kind, subject);
    }

    std::vector<Varkel::Tolva::Rest::ApiEvent> events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

    std::vector<std::string> threadNames() {
        std::lock_guard<std::mutex> lock(mutex_);
        return threadNames_;
    }

  private:
    std::size_t countLocked(Varkel::Tolva::Rest::ApiEvent::Kind kind,
                            const std::wstring& subject) const {
        return static_cast<std::size_t>(
            std::count_if(events_.begin(), events_.end(), [&](const auto& event) {
                return event.kind == kind && (subject.empty() || event.subject == subject);
            }));
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Varkel::Tolva::Rest::ApiEvent> events_;
    std::vector<std::string> threadNames_;
};

class MailTest : public RestTest {
  protected:
    MailTest() : RestTest(options()) {}
    // Other settings (a TLS emulator, say); pass maxPollSeconds = 1 to keep polls short.
    explicit MailTest(qxpemu::EmulatorOptions emulatorOptions)
        : RestTest(std::move(emulatorOptions)) {}

    static qxpemu::EmulatorOptions options() {
        qxpemu::EmulatorOptions emulatorOptions = testEmulatorOptions();
        emulatorOptions.maxPollSeconds = 1;
        return emulatorOptions;
    }

    std::vector<qxpemu::RecordedRequest> waitForPolls(
        const Mailbox& mailbox, std::size_t count,
        std::chrono::milliseconds timeout = std::chrono::seconds(20)) const {
        const std::string target = pollTarget(mailbox);
        return waitForMatching(
            [&](const qxpemu::RecordedRequest& r) {
                return r.method == "GET" && r.target == target;
            },
            count, timeout);
    }

    // Creates `count` mailboxes on `api`, topics "t0", "t1" and so on, and waits until the
    // platform has each one's first poll; empty (with a failure) if one never came.
    std::vector<std::shared_ptr<Mailbox>> pollingMailboxes(QxPlatformApi& api, int count) const {
        std::vector<std::shared_ptr<Mailbox>> mailboxes;
        for (int i = 0; i < count; ++i) {
            mailboxes.push_back(newMailbox());
            api.createMailbox(mailboxes.back(), L"t" + std::to_wstring(i));
        }
        for (const auto& mailbox : mailboxes) {
            if (waitForPolls(*mailbox, 1).empty()) {
                ADD_FAILURE() << "mailbox " << mailboxIdText(*mailbox) << " was never polled";
                return {};
            }
        }
        return mailboxes;
    }

    // Deletes `inbox`, whose listener holds `api`, and lets go of both. The deleted mailbox's
    // poll runs to its end on its own and holds the listener until then, so `api` is destroyed
    // on a delivery thread once the platform answers that poll. This waits until that
    // destructor has written its last line, so that the process never exits with that teardown
    // half done (an expired weak_ptr only says that it has begun).
    static void stopServing(std::shared_ptr<QxPlatformApi> api, std::shared_ptr<Mailbox> inbox) {
        const DebugLogTail log;
        api->deleteMailbox(inbox);
        const std::weak_ptr<QxPlatformApi> left = api;
        inbox.reset();
        api.reset();
        EXPECT_TRUE(waitUntil([&] { return left.expired(); }, std::chrono::seconds(20)))
            << "the deleted mailbox's poll still holds the API object";
        EXPECT_TRUE(waitUntil([&] { return log.countLinesStartingWith("TRACE: It took ") >= 1; },
                              std::chrono::seconds(20)))
            << "the API object's destructor did not finish";
    }

    // A mailbox with a recording listener, created on `topic`.
    static std::pair<std::shared_ptr<Mailbox>, std::shared_ptr<RecordingListener>> listening(
        Varkel::Tolva::Rest::QxPlatformApi& api, const std::wstring& topic) {
        auto mailbox = newMailbox();
        auto listener = std::make_shared<RecordingListener>();
        mailbox->addListener(listener);
        api.createMailbox(mailbox, topic);
        return {mailbox, listener};
    }

    static std::shared_ptr<Mailbox> newMailbox(unsigned int ttl = 0) {
        return Varkel::Zu::MakeShared::create<Mailbox>(
            Varkel::Zu::MakeShared::create<Mailbox>()->getId(), ttl, true);
    }
};

}  // namespace TolvaRestTest
