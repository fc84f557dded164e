// A real platform process killed and started again on its port. The new process has lost every
// mailbox and service; it signs with the same key, so the object's token stays good. While it
// is down, polls fail in transport and keep their mailboxes; once it is back, the lost mailbox
// is dropped with its line, heartbeats log their failure, and what is created again works.
#include "EmulatorProcess.h"
#include "MailTestSupport.h"
#include "ModelTestSupport.h"

#include <TolvaCore/QxPlatformApi.h>

#include <openssl/evp.h>
#include <openssl/pem.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>

namespace TolvaRestTest {
namespace {

bool hasRecordStartingWith(const LogRecords& records, const std::wstring& text) {
    for (const auto& record : records.records()) {
        if (record.message.rfind(text, 0) == 0) {
            return true;
        }
    }
    return false;
}

// A fresh RSA signing key in PEM form, written to `path`, for both emulator processes.
void writeSigningKey(const char* path) {
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_RSA_gen(2048), EVP_PKEY_free);
    // A deleter type of its own: decltype(&std::fclose) carries attributes that GCC 14 warns
    // are ignored in a template argument.
    struct CloseFile {
        void operator()(FILE* opened) const { std::fclose(opened); }
    };
    std::unique_ptr<FILE, CloseFile> file(std::fopen(path, "w"));
    if (!key || !file ||
        PEM_write_PrivateKey(file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
        throw std::runtime_error("cannot write the signing key");
    }
}

std::shared_ptr<Mailbox> openMailbox(QxPlatformApi& api, const std::wstring& topic,
                                     const std::shared_ptr<RecordingListener>& listener) {
    auto mailbox = Varkel::Zu::MakeShared::create<Mailbox>();
    mailbox->addListener(listener);
    api.createMailbox(mailbox, topic);
    return mailbox;
}

TEST(PlatformProcessTest, AKilledAndRestartedPlatformIsNoticedAndWhatIsCreatedAgainWorks) {
    const ScopedEnv noProxy("http_proxy", std::nullopt);
    const char* keyFile = "platform-signing-key.pem";
    writeSigningKey(keyFile);
    const std::vector<std::string> settings = {"--key", keyFile, "--max-poll", "1"};
    auto first = std::make_unique<TolvaTest::EmulatorProcess>(settings);
    const std::string port = first->port();

    const DebugLogTail log;
    const LogRecords records;
    std::shared_ptr<QxPlatformApi> api =
        QxPlatformApi::createFromQXPlatformConfig(Varkel::Zu::widen(first->config()));
    auto listener = std::make_shared<RecordingListener>();
    auto mailbox = openMailbox(*api, L"process/restart", listener);
    api->postNotification(L"process/restart", L"before", 0);
    ASSERT_EQ(listener->waitFor(1).size(), 1u);
    auto service = completeServiceInfo();
    api->registerService(service);
    const std::string sent = "TRACE: Heartbeat sent for service " + service->serviceId->toString();
    ASSERT_TRUE(waitUntil([&] { return log.hasLine(sent); }, std::chrono::seconds(15)))
        << log.text();

    // Killed: the parked poll is cut off and the next ones are refused.
    first->end(SIGKILL);
    ASSERT_TRUE(waitUntil([&] {
        return hasRecordStartingWith(records, L"Poll of mailbox " +
                                                  Varkel::Zu::widen(mailboxIdText(*mailbox)) +
                                                  L" failed, polling again in ");
    }));
    EXPECT_FALSE(api->hasDeletedMailboxes());

    TolvaTest::EmulatorProcess second([&] {
        auto again = settings;
        again.insert(again.end(), {"--port", port});
        return again;
    }());
    ASSERT_EQ(second.port(), port);

    // The new process knows neither the mailbox nor the service.
    EXPECT_TRUE(waitUntil([&] { return api->hasDeletedMailboxes(); }));
    EXPECT_TRUE(waitUntil([&] {
        return log.hasLine(
            "ERROR: Received status code 404 when attempting to get mail for mailbox : " +
            mailboxIdText(*mailbox) + ". Will delete mailbox.");
    })) << log.text();
    EXPECT_TRUE(waitUntil([&] { return hasRecordStartingWith(records, L"Heartbeat failed"); },
                          std::chrono::seconds(15)));

    // Created again, both work on the new process with the token of the old one.
    auto againListener = std::make_shared<RecordingListener>();
    auto again = openMailbox(*api, L"process/restart", againListener);
    api->postNotification(L"process/restart", L"after", 0);
    ASSERT_EQ(againListener->waitFor(1).size(), 1u);
    EXPECT_EQ(againListener->waitFor(1)[0].second, L"after");
    EXPECT_EQ(listener->count(), 1u);
    const std::size_t beatsBefore = log.countLinesStartingWith(sent);
    api->registerService(service);
    EXPECT_TRUE(waitUntil([&] { return log.countLinesStartingWith(sent) > beatsBefore; },
                          std::chrono::seconds(15)));

    const std::size_t endings = log.countLinesStartingWith("TRACE: It took ");
    api.reset();
    EXPECT_EQ(log.countLinesStartingWith("TRACE: It took "), endings + 1);
}

}  // namespace
}  // namespace TolvaRestTest
