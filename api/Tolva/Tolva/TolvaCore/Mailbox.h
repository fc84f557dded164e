/// @class Varkel::Tolva::Rest::Mailbox
/// Mailbox: the host-side record of one mailbox on the platform's notification service: its id,
/// time to live, durability, the secret the platform returned at creation, and the listeners
/// that every piece of mail fetched for it is handed to. QxPlatformApi creates the platform
/// mailbox from it and delivers mail through receiveNotification. Made through
/// Varkel::Zu::MakeShared::create<Mailbox>(...) and owned by shared pointers.
#pragma once

#include <TolvaCore/MailboxListener.h>
#include <TolvaCore/ReceivedNotification.h>
#include <TolvaCore/TolvaExport.h>

#include <ZuCore/Logger.h>
#include <ZuCore/MakeShared.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/uuid/uuid.hpp>

namespace Varkel {
namespace Tolva {
namespace Rest {

class TOLVA_EXPORT Mailbox {
  public:
    /// A mailbox with the given id (the platform's mailbox id), time to live in seconds (0:
    /// none) and durability; no secret, no listeners.
    Mailbox(Varkel::Zu::PrivateConstructorType, const boost::uuids::uuid& id, unsigned int ttl,
            bool durable);

    /// A mailbox with a fresh random (version 4) id, ttl 0 and durable true.
    explicit Mailbox(Varkel::Zu::PrivateConstructorType);

    /// Releases the listeners. Does not touch the platform: deleting the platform mailbox is
    /// QxPlatformApi::deleteMailbox.
    virtual ~Mailbox();

    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    /// Id, ttl and durability are set before the mailbox is created on the platform and only
    /// read afterwards; they take no lock, so do not change them while the mailbox is in use.
    boost::uuids::uuid getId() const;
    /// Sets the platform mailbox id (before creation only).
    void setId(const boost::uuids::uuid& id);
    /// Time to live in seconds; 0: none.
    unsigned int getTtl() const;
    /// Sets the time to live in seconds (before creation only); 0: none.
    void setTtl(unsigned int ttl);
    /// Whether the platform keeps the mailbox durably.
    bool getDurable() const;
    /// Sets the durability (before creation only).
    void setDurable(bool durable);

    ///@{
    /// The secret the platform returned when the mailbox was created (empty before). Treat it
    /// like a password: deletion addresses the mailbox by it. Any thread.
    std::wstring getSecret() const;
    void setSecret(const std::wstring& secret);
    ///@}

    /// Attaches a listener; a listener already attached (the same object) is not added again.
    /// The mailbox keeps the listener alive. Any thread except from inside a listener of this
    /// mailbox. Throws Varkel::Zu::InvalidArgumentException for a null listener (nothing is
    /// added) and std::system_error when the lock fails.
    void addListener(const std::shared_ptr<MailboxListener>& listener);

    /// Detaches the listener if it is attached, keeping the order of the others. Same thread
    /// rules as addListener.
    void removeListener(const std::shared_ptr<MailboxListener>& listener);

    /// Hands one piece of mail to every listener in the order they were added, on the calling
    /// thread, with the listener lock held throughout. An exception from a listener is caught
    /// and logged ("Unknown exception caught while receiving mail.", error level, at most once
    /// a second) and the next listener still gets the mail; nothing from a listener escapes.
    void receiveMail(const std::wstring& topic, const std::wstring& content);

    /// Hands one notification to every listener in the order they were added, on the calling
    /// thread, with the listener lock held throughout: a NotificationListener gets the whole
    /// notification (onNotificationReceived), any other listener its topic and content
    /// (onMailReceived). An exception from a listener is caught and logged as by receiveMail
    /// (the same line, under the same once-a-second cap) and the next listener still gets the
    /// notification; nothing from a listener escapes. QxPlatformApi delivers fetched mail
    /// through this. Any thread except from inside a listener of this mailbox (the lock is
    /// held there); throws std::system_error when the lock fails.
    void receiveNotification(const ReceivedNotification& notification);

  private:
    /// The delivery of receiveMail (notification null) and receiveNotification: every
    /// listener in order, under the listener lock, each one's exception caught and logged.
    void deliver(const std::wstring& topic, const std::wstring& content,
                 const ReceivedNotification* notification);

    static std::shared_ptr<Varkel::Zu::Logger> _logger;

    boost::uuids::uuid id_;
    unsigned int ttl_;
    bool durable_;
    /// The secret is written by QxPlatformApi on an HTTP continuation thread when the platform
    /// answers; its own small lock keeps a concurrent reader well defined.
    mutable std::mutex secretMutex_;
    std::wstring secret_;
    /// Guards the listener list; held while the listeners run.
    std::mutex mutex_;
    std::vector<std::shared_ptr<MailboxListener>> listeners_;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
