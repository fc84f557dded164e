// MailboxLife: one creation of one mailbox, as the API object's mailbox registry keeps it. A
// Mailbox object created again gets a new record, so anything that still holds the old one (a
// poll, a delivery job, a retry) finds it no longer current and ends without a trace.
#pragma once

#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxState.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <pplx/pplxtasks.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

struct MailboxLife {
    MailboxLife(std::shared_ptr<Mailbox> created, std::wstring idText, std::uint64_t number)
        : mailbox(std::move(created)), id(std::move(idText)), generation(number) {}

    const std::shared_ptr<Mailbox> mailbox;
    // The standard hyphenated text form of the mailbox id.
    const std::wstring id;
    // Counts creations within one API object, for the logs and the tests.
    const std::uint64_t generation;

    // Everything below is guarded by the registry's lock.
    MailboxState state = MailboxState::Queued;
    // False once the host deleted it, created it again, or it was dropped from the table.
    bool current = true;
    // Deleted or replaced by the host (as opposed to stopped by an answer).
    bool deletedByHost = false;
    // Consecutive failed polls, and whether the host was told that it backs off.
    unsigned int failures = 0;
    bool backingOffReported = false;
    int lastStatus = 0;
    std::wstring lastError;
    // What it is subscribed to, for creating it again: the creation's subscription first.
    std::vector<std::wstring> subscriptions;
    // The outstanding poll's task and the source that cancels it.
    pplx::task<void> receptionTask;
    pplx::cancellation_token_source pollCancellation;
    bool pollOutstanding = false;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
