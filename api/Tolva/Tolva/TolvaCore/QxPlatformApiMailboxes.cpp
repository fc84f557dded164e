// QxPlatformApi: mailbox management on the platform's notification service (create, subscribe,
// unsubscribe, delete) and this object's table of the mailboxes it created.
#include <TolvaCore/QxPlatformApi.h>

#include "private/ApiDefaults.h"
#include "private/MailboxRegistry.h"
#include "private/RestCall.h"
#include "private/StatisticsRecorder.h"
#include "private/TopicText.h"

#include <ZuCore/CommonUtil.h>
#include <ZuCore/Constants.h>
#include <ZuCore/InvalidArgumentException.h>
#include <ZuCore/LogMacros.h>
#include <ZuCore/StringConversion.h>
#include <ZuCore/ThrowException.h>

#include <stdexcept>

#include <boost/uuid/uuid_io.hpp>

namespace Varkel {
namespace Tolva {
namespace Rest {

using Varkel::Zu::CommonUtil;
using Varkel::Zu::narrow;
using Varkel::Zu::widen;
using web::http::http_response;
using web::http::status_codes;
using web::json::value;

namespace {

// The standard hyphenated text form of a mailbox id.
std::wstring idText(const Mailbox& mailbox) {
    return widen(boost::uuids::to_string(mailbox.getId()));
}

// The checks every mailbox call makes before it sends anything.
void checkMailboxArguments(const Mailbox& mailbox, const std::wstring& subscription) {
    if (mailbox.getId().is_nil()) {
        throw std::invalid_argument("Invalid mailbox id");
    }
    if (subscription.empty()) {
        throw std::invalid_argument("Invalid mailbox subscription");
    }
}

}  // namespace

void QxPlatformApi::createMailbox(const std::shared_ptr<Mailbox>& mailbox,
                                  const std::wstring& subscription) {
    if (!mailbox) {
        throw std::invalid_argument("Invalid mailbox id");
    }
    checkMailboxArguments(*mailbox, subscription);
    postMailboxCreation(mailbox, subscription);

    {
        // The object lock makes this wait for a heartbeat pass under way, as every mailbox
        // call of a caller does; the registry has a lock of its own.
        std::lock_guard<std::mutex> lock(objectLock_);
        registry_->enter(mailbox, idText(*mailbox), subscription);
    }
    StatisticsRecorder::bump(statistics_->mailboxesCreated);

    std::lock_guard<std::mutex> lock(objectLock_);
    if (!queryLauncherThread_) {
        // The raw this stays valid: the destructor joins this thread before any member goes.
        queryLauncherThread_ = Varkel::Zu::Thread::create(L"Mailbox polling thread",
                                                          [this] { queryLauncherThreadLoop(); });
    }
}

void QxPlatformApi::postMailboxCreation(const std::shared_ptr<Mailbox>& mailbox,
                                        const std::wstring& subscription) {
    validateToken();

    const std::wstring mailboxId = idText(*mailbox);
    value body = value::object();
    body["id"] = value::string(narrow(mailboxId));
    body["subscription"] = value::string(narrow(subscription));
    if (mailbox->getTtl() != 0) {
        body["mailboxTTL"] = value::number(mailbox->getTtl());
    }
    body["durable"] = value::boolean(mailbox->getDurable());

    RestCall call = platformCall(web::http::methods::POST, ApiDefaults::kMailboxPath);
    call.header("Accept", RestCall::kJsonContentType)
        .header("Content-Type", RestCall::kJsonContentType)
        .header("User-Agent", RestCall::kUserAgent)
        .header("Authorization", requestAuthorization())
        .jsonBody(body)
        .accept({status_codes::OK})
        .failureText(L"Create Mailbox failed ");

    // The continuations capture the caller's mailbox pointer: the calling thread waits.
    RestCall::translatingHttpFailure([&] {
        call.send(currentClient())
            .then([](http_response response) { return response.extract_json(true); })
            .then([&mailbox](const value& reply) {
                if (reply.has_string_field("secret")) {
                    mailbox->setSecret(widen(reply.at("secret").as_string()));
                }
                ZU_LOG_DEBUG(logger_, L"Mailbox creation successful");
            })
            .get();
    });
}

namespace {

// subscribeTopic and unsubscribeTopic differ only in these.
struct SubscriptionChange {
    const char* pathWord;
    const wchar_t* successText;
    const wchar_t* failureText;
};

constexpr SubscriptionChange kSubscribe{"/subscribe/",
                                        L"Successfully subscribed the mailbox to new topic.",
                                        L"Failed to add subscription to the mailbox "};
constexpr SubscriptionChange kUnsubscribe{"/unsubscribe/",
                                          L"Successfully unsubscribed the topic from the mailbox.",
                                          L"Failed to unsubscription from the mailbox "};

}  // namespace

void QxPlatformApi::subscribeTopic(const std::shared_ptr<const Mailbox>& mailbox,
                                   const std::wstring& topic) {
    changeSubscription(mailbox, topic, true);
}

void QxPlatformApi::unsubscribeTopic(const std::shared_ptr<const Mailbox>& mailbox,
                                     const std::wstring& topic) {
    changeSubscription(mailbox, topic, false);
}

void QxPlatformApi::changeSubscription(const std::shared_ptr<const Mailbox>& mailbox,
                                       const std::wstring& topic, bool subscribe) {
    const SubscriptionChange& change = subscribe ? kSubscribe : kUnsubscribe;
    if (!mailbox) {
        throw std::invalid_argument("Invalid mailbox id");
    }
    checkMailboxArguments(*mailbox, topic);
    validateToken();

    const std::string path = std::string(ApiDefaults::kMailboxPath) + "/" +
                             narrow(idText(*mailbox)) + change.pathWord +
                             narrow(CommonUtil::encodeUnsafeURLCharacters(lowerCaseTopic(topic)));
    RestCall call = platformCall(web::http::methods::POST, path);
    call.header("Accept", RestCall::kJsonContentType)
        .header("Content-Type", RestCall::kJsonContentType)
        .header("User-Agent", RestCall::kUserAgent)
        .header("Authorization", requestAuthorization())
        .accept({status_codes::NoContent})
        .failureText(change.failureText, L".");
    call.send(currentClient())
        .then([successText = change.successText](const http_response&) {
            ZU_LOG_DEBUG(logger_, successText);
        })
        .get();
    // Kept for creating the mailbox again should the platform lose it.
    registry_->subscriptionChanged(idText(*mailbox), lowerCaseTopic(topic), subscribe);
}

void QxPlatformApi::deleteMailbox(const std::shared_ptr<const Mailbox>& mailbox) {
    if (!mailbox) {
        ZU_THROW(Varkel::Zu::InvalidArgumentException,
                 L"Mailbox was not created by this instance of the QX Platform API.");
    }
    const std::wstring mailboxId = idText(*mailbox);
    bool found = false;
    {
        std::lock_guard<std::mutex> lock(objectLock_);
        // Out of the table, and polled no more, before the request leaves: its outstanding
        // poll is cancelled, whatever the platform answers the DELETE. In resilient mode a
        // mailbox stopped by a poll's status can still be deleted.
        found = registry_->beginDelete(mailboxId, registry_->mode() == RecoveryMode::Resilient);
    }
    if (found) {
        StatisticsRecorder::bump(statistics_->mailboxesDeleted);
    }
    if (!found) {
        ZU_THROW(Varkel::Zu::InvalidArgumentException,
                 L"Mailbox was not created by this instance of the QX Platform API.");
    }

    sendMailboxDeletion(*mailbox, mailboxId);
}

void QxPlatformApi::sendMailboxDeletion(const Mailbox& mailbox, const std::wstring& mailboxId) {
    validateToken();
    // Deletion addresses the mailbox by its secret, not by its id.
    RestCall call =
        platformCall(web::http::methods::DEL,
                     std::string(ApiDefaults::kMailboxPath) + "/" +
                         narrow(CommonUtil::encodeUnsafeURLCharacters(mailbox.getSecret())));
    call.header("Accept", RestCall::kJsonContentType)
        .header("Content-Type", RestCall::kJsonContentType)
        .header("User-Agent", RestCall::kUserAgent)
        .header("Authorization", requestAuthorization())
        .accept({status_codes::NoContent, status_codes::NotFound})
        .failureText(L"Failed to delete the mailbox ", L".");
    call.send(currentClient())
        .then([mailboxId](const http_response& response) {
            if (response.status_code() == status_codes::NotFound) {
                ZU_LOG_WARN(logger_, L"Mailbox seems to have already been deleted.");
                return;
            }
            ZU_LOG_DEBUG(logger_, L"Deleted mailbox with id \"" + mailboxId + L"\".");
        })
        .get();
}

bool QxPlatformApi::hasDeletedMailboxes() {
    std::lock_guard<std::mutex> lock(objectLock_);
    return registry_->hasDeletedMailboxes();
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
