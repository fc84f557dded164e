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
    /// with the notification's topic and content exactly as fetched. Runs on the thread that
    /// delivers the mail (for mail fetched by a QxPlatformApi, an HTTP continuation thread)
    /// while the mailbox's listener lock is held: listeners of one mailbox run one at a time,
    /// and a slow listener delays that mailbox's next delivery. Must not call addListener or
    /// removeListener on the same mailbox (that deadlocks). An exception it throws is caught
    /// and logged by the mailbox; the other listeners still get the mail. A listener that needs
    /// its API object (to answer, say) is best given a std::weak_ptr to it: a strong one keeps
    /// the object alive until the mailbox is deleted (see ~QxPlatformApi).
    virtual void onMailReceived(const std::wstring& topic, const std::wstring& content) = 0;

    virtual ~MailboxListener();
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
