/// @class Varkel::Tolva::Rest::NotificationListener
/// NotificationListener: a MailboxListener that receives the whole notification, its id, time
/// and source besides topic and content (see ReceivedNotification). The host implements
/// onNotificationReceived and attaches the listener with Mailbox::addListener like any other;
/// plain MailboxListeners of the same mailbox go on getting topic and content only.
///
/// Mail fetched by a QxPlatformApi reaches it with every member it carried. Mail handed in
/// through Mailbox::receiveMail, which has only topic and content, reaches it too, with id,
/// time and source empty.
#pragma once

#include <TolvaCore/MailboxListener.h>
#include <TolvaCore/ReceivedNotification.h>
#include <TolvaCore/TolvaExport.h>

#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

class TOLVA_EXPORT NotificationListener : public MailboxListener {
  public:
    /// Called once for every notification delivered to a mailbox the listener is attached to,
    /// with its members exactly as fetched ("" for a member it did not carry; see
    /// ReceivedNotification). The notification lives until this returns: copy what is needed
    /// later.
    ///
    /// Thread: for mail fetched by a QxPlatformApi, one of that object's delivery threads (never
    /// a thread of the HTTP library's pool), with the mailbox's listener lock held. Listeners of
    /// one mailbox, of either kind, run one at a time and in the order the mail came, and that
    /// mailbox's next poll starts only once they have all returned. A listener that blocks
    /// delays only its own mailbox: other mailboxes' mail, posts, polls and heartbeats go on,
    /// while up to 64 listeners (TOLVA_DELIVERY_THREADS) are busy at once; beyond that, further
    /// mail waits for the first delivery thread to come free. For mail handed in through
    /// Mailbox::receiveMail or Mailbox::receiveNotification, the calling thread, with the same
    /// lock held.
    ///
    /// What it may do: call every public operation of its API object, postNotification,
    /// postNotificationAndWaitForReply, createMailbox, deleteMailbox (of its own mailbox too),
    /// registerService and the others, and let go of the last reference to that object (hold it
    /// through a std::weak_ptr; the object is then destroyed on this thread, after waiting for
    /// the listeners running on other threads, and this listener goes on safely). What it must
    /// not do: call addListener or removeListener on the same mailbox (the lock is held, that
    /// deadlocks), or let go of the last reference while it holds a lock that another
    /// listener of the same object waits for. An exception it throws is caught and logged by
    /// the mailbox; the other listeners still get the mail. A strong reference to the API
    /// object keeps it alive until the mailbox is deleted and its last poll has ended.
    virtual void onNotificationReceived(const ReceivedNotification& notification) = 0;

    /// Hands the mail to onNotificationReceived as a notification with only topic and content
    /// set (id, time and source ""). The mailbox calls it for mail that comes through
    /// Mailbox::receiveMail; fetched mail goes to onNotificationReceived directly. Final: a
    /// NotificationListener is written against onNotificationReceived alone. Throws what
    /// onNotificationReceived throws. Thread: as onNotificationReceived.
    void onMailReceived(const std::wstring& topic, const std::wstring& content) final;

    /// Nothing to release; the mailbox's shared pointer decides when this runs.
    ~NotificationListener() override;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
