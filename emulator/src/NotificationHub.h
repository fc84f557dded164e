// Mailboxes, their topic subscriptions and queues, routing of published notifications, and
// the long polls waiting on mailboxes.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <nlohmann/json.hpp>

#include "HttpExchange.h"
#include "PollWaiter.h"

namespace qxpemu {

class NotificationHub {
  public:
    using Clock = std::chrono::steady_clock;

    // One published notification, shared by every mailbox it was routed to.
    struct Notification {
        std::string json;  // the object as delivered
        bool expires = false;
        Clock::time_point expiresAt;
    };

    enum class CreateResult { Created, Duplicate };
    enum class PollStart { Unknown, Answered, Waiting };

    explicit NotificationHub(std::size_t maxQueuedPerMailbox);

    // Creates a mailbox subscribed to `subscription`; ttlSeconds 0 = never idles out.
    CreateResult create(const std::string& id, const std::string& subscription,
                        long long ttlSeconds, bool durable, std::string& secret);
    // false when the mailbox is unknown.
    bool subscribe(const std::string& id, const std::string& topic);
    bool unsubscribe(const std::string& id, const std::string& topic);
    // Deletes the mailbox that `secret` belongs to; false when unknown. A poll waiting on it
    // is answered 404.
    bool removeBySecret(const std::string& secret);

    // Queues the notification on every mailbox subscribed to `topic` (case-insensitive)
    // and wakes their waiting polls. Returns the number of mailboxes reached.
    std::size_t publish(const std::string& topic, std::shared_ptr<const Notification> note);

    // Starts a poll: Unknown (404), Answered (`reply` holds the pending mail) or Waiting
    // (`waiter` is parked; a poll already parked there is answered 204 first).
    PollStart startPoll(const std::string& id, const std::shared_ptr<PollWaiter>& waiter,
                        HttpReply& reply);
    // Takes a parked waiter back when its wait ends; false when mail (or a newer poll, or a
    // deletion) already took it, in which case that path completes it.
    bool withdrawPoll(const std::string& id, const std::shared_ptr<PollWaiter>& waiter);

    // Drops expired notifications and mailboxes that were not polled within their ttl.
    void sweep();
    // Answers every parked poll 404 and forgets all mailboxes.
    void clear();
    // Forgets parked polls without completing them (their connections are going away).
    void abandonWaiters();

    nlohmann::json describe() const;
    std::size_t mailboxCount() const;

    // Everything a restarted emulator needs to go on serving the mailboxes: ids, secrets,
    // subscriptions, ttl, durability and queued mail with its remaining lifetime. Parked polls
    // are not part of it.
    nlohmann::json snapshot() const;
    // Replaces every mailbox with those of a snapshot; idle times start again from now.
    // Throws nlohmann::json::exception for a malformed snapshot (nothing is changed then).
    void restore(const nlohmann::json& snapshot);

  private:
    struct Mailbox {
        std::string secret;
        std::set<std::string> topics;  // lower-cased
        std::deque<std::shared_ptr<const Notification>> queue;
        long long ttlSeconds = 0;
        bool durable = true;
        Clock::time_point lastActivity;
        std::shared_ptr<PollWaiter> waiter;
        std::size_t delivered = 0;
        std::size_t dropped = 0;
    };

    using Completion = std::pair<std::shared_ptr<PollWaiter>, HttpReply>;

    static void dropExpired(Mailbox& mailbox, Clock::time_point now);
    static std::string takeQueue(Mailbox& mailbox);
    bool idledOut(const Mailbox& mailbox, Clock::time_point now) const;
    void eraseLocked(std::unordered_map<std::string, Mailbox>::iterator it);
    Mailbox* findLiveLocked(const std::string& id, Clock::time_point now);
    static void completeAll(std::vector<Completion>& completions);

    const std::size_t maxQueued_;
    mutable std::mutex mutex_;
    std::unordered_map<std::string, Mailbox> mailboxes_;
    std::unordered_map<std::string, std::set<std::string>> subscribers_;  // topic -> ids
    std::unordered_map<std::string, std::string> idsBySecret_;
};

}  // namespace qxpemu
