/// @class Varkel::Tolva::Rest::MailboxListener
/// MailboxListener: the callback through which mail fetched for a Mailbox reaches the host. The
/// host implements onMailReceived and attaches the listener with Mailbox::addListener.
#pragma once

#include <TolvaCore/TolvaExport.h>

#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

class TOLVA_EXPORT MailboxListener {
  public:
    /// Called once for every notification delivered to a mailbox the listener is attached to,
    /// with the notification's topic and content exactly as fetched.
    ///
    /// Thread: for mail fetched by a QxPlatformApi, one of that object's delivery threads (never
    /// a thread of the HTTP library's pool), with the mailbox's listener lock held. Listeners of
    /// one mailbox run one at a time and in the order the mail came, and that mailbox's next
    /// poll starts only once they have all returned. A listener that blocks delays only its own
    /// mailbox: other mailboxes' mail, posts, polls and heartbeats go on, while up to 64
    /// listeners (TOLVA_DELIVERY_THREADS) are busy at once; beyond that, further mail waits
    /// for the first delivery thread to come free.
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
    virtual void onMailReceived(const std::wstring& topic, const std::wstring& content) = 0;

    virtual ~MailboxListener();
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
