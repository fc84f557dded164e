#include <TolvaCore/MailboxState.h>

namespace Varkel {
namespace Tolva {
namespace Rest {

const wchar_t* mailboxStateName(MailboxState state) {
    switch (state) {
        case MailboxState::Queued:
            return L"queued";
        case MailboxState::Polling:
            return L"polling";
        case MailboxState::Delivering:
            return L"delivering";
        case MailboxState::BackingOff:
            return L"backingOff";
        case MailboxState::Recovering:
            return L"recovering";
        case MailboxState::Stopped:
            return L"stopped";
        case MailboxState::Deleting:
            return L"deleting";
    }
    return L"unknown";
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
