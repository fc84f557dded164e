// A long poll parked on a mailbox until mail arrives or its wait ends.
#pragma once

#include <functional>

#include "HttpExchange.h"

namespace qxpemu {

// The hub calls `complete` at most once, never under its own lock; whoever removes the
// waiter from its mailbox is the one that completes it.
struct PollWaiter {
    std::function<void(HttpReply)> complete;
};

}  // namespace qxpemu
