// The body of a poll answered 200, handed to a mailbox's delivery: either every notification
// reaches the listener in array order, or a json_exception reports a body that is not an
// array of notifications; nothing else.
#include "FuzzSupport.h"

#include "private/PollDelivery.h"

#include <TolvaCore/Mailbox.h>
#include <TolvaCore/MailboxListener.h>

#include <ZuCore/MakeShared.h>

#include <cpprest/json.h>

#include <exception>

#include <cstdlib>

namespace {

class Counter : public Varkel::Tolva::Rest::MailboxListener {
  public:
    void onMailReceived(const std::wstring&, const std::wstring&) override { ++received; }
    std::size_t received = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    TolvaFuzz::quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    web::json::value body;
    try {
        body = web::json::value::parse(TolvaFuzz::bytes(data, size));
    } catch (const std::exception&) {
        // Not JSON (the parser also throws std::range_error, for a lone surrogate escape).
        return 0;
    }
    auto mailbox = Varkel::Zu::MakeShared::create<Varkel::Tolva::Rest::Mailbox>();
    auto counter = std::make_shared<Counter>();
    mailbox->addListener(counter);
    try {
        Varkel::Tolva::Rest::deliverPollBody(body, *mailbox);
        if (counter->received != body.as_array().size()) {
            std::abort();
        }
    } catch (const web::json::json_exception&) {
    }
    return 0;
}
