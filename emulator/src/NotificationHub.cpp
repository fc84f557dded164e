#include "NotificationHub.h"

#include <algorithm>

#include "Text.h"

namespace qxpemu {

NotificationHub::NotificationHub(std::size_t maxQueuedPerMailbox)
    : maxQueued_(maxQueuedPerMailbox == 0 ? 1 : maxQueuedPerMailbox) {}

void NotificationHub::dropExpired(Mailbox& mailbox, Clock::time_point now) {
    auto& queue = mailbox.queue;
    const auto before = queue.size();
    queue.erase(
        std::remove_if(queue.begin(), queue.end(),
                       [now](const auto& note) { return note->expires && note->expiresAt <= now; }),
        queue.end());
    mailbox.dropped += before - queue.size();
}

std::string NotificationHub::takeQueue(Mailbox& mailbox) {
    std::size_t size = 2;
    for (const auto& note : mailbox.queue) {
        size += note->json.size() + 1;
    }
    std::string body;
    body.reserve(size);
    body += '[';
    for (const auto& note : mailbox.queue) {
        if (body.size() > 1) {
            body += ',';
        }
        body += note->json;
    }
    body += ']';
    mailbox.delivered += mailbox.queue.size();
    mailbox.queue.clear();
    return body;
}

bool NotificationHub::idledOut(const Mailbox& mailbox, Clock::time_point now) const {
    // A parked poll counts as being polled, so only an unattended mailbox idles out.
    return mailbox.ttlSeconds > 0 && !mailbox.waiter &&
           now - mailbox.lastActivity > std::chrono::seconds(mailbox.ttlSeconds);
}

void NotificationHub::eraseLocked(std::unordered_map<std::string, Mailbox>::iterator it) {
    for (const auto& topic : it->second.topics) {
        auto subscribed = subscribers_.find(topic);
        if (subscribed != subscribers_.end()) {
            subscribed->second.erase(it->first);
            if (subscribed->second.empty()) {
                subscribers_.erase(subscribed);
            }
        }
    }
    idsBySecret_.erase(it->second.secret);
    mailboxes_.erase(it);
}

NotificationHub::Mailbox* NotificationHub::findLiveLocked(const std::string& id,
                                                          Clock::time_point now) {
    auto it = mailboxes_.find(id);
    if (it == mailboxes_.end()) {
        return nullptr;
    }
    if (idledOut(it->second, now)) {
        eraseLocked(it);
        return nullptr;
    }
    return &it->second;
}

void NotificationHub::completeAll(std::vector<Completion>& completions) {
    for (auto& completion : completions) {
        completion.first->complete(std::move(completion.second));
    }
}

NotificationHub::CreateResult NotificationHub::create(const std::string& id,
                                                      const std::string& subscription,
                                                      long long ttlSeconds, bool durable,
                                                      std::string& secret) {
    const auto now = Clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    if (findLiveLocked(id, now) != nullptr) {
        return CreateResult::Duplicate;
    }
    Mailbox mailbox;
    mailbox.secret = text::randomToken(32);
    mailbox.ttlSeconds = ttlSeconds;
    mailbox.durable = durable;
    mailbox.lastActivity = now;
    const std::string topic = text::toLowerAscii(subscription);
    mailbox.topics.insert(topic);
    subscribers_[topic].insert(id);
    idsBySecret_[mailbox.secret] = id;
    secret = mailbox.secret;
    mailboxes_.emplace(id, std::move(mailbox));
    return CreateResult::Created;
}

bool NotificationHub::subscribe(const std::string& id, const std::string& topicIn) {
    const std::string topic = text::toLowerAscii(topicIn);
    std::lock_guard<std::mutex> lock(mutex_);
    Mailbox* mailbox = findLiveLocked(id, Clock::now());
    if (mailbox == nullptr) {
        return false;
    }
    mailbox->topics.insert(topic);
    subscribers_[topic].insert(id);
    return true;
}

bool NotificationHub::unsubscribe(const std::string& id, const std::string& topicIn) {
    const std::string topic = text::toLowerAscii(topicIn);
    std::lock_guard<std::mutex> lock(mutex_);
    Mailbox* mailbox = findLiveLocked(id, Clock::now());
    if (mailbox == nullptr) {
        return false;
    }
    mailbox->topics.erase(topic);
    auto subscribed = subscribers_.find(topic);
    if (subscribed != subscribers_.end()) {
        subscribed->second.erase(id);
        if (subscribed->second.empty()) {
            subscribers_.erase(subscribed);
        }
    }
    return true;
}

bool NotificationHub::removeBySecret(const std::string& secret) {
    std::vector<Completion> completions;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto owner = idsBySecret_.find(secret);
        if (owner == idsBySecret_.end()) {
            return false;
        }
        auto it = mailboxes_.find(owner->second);
        if (it->second.waiter) {
            completions.emplace_back(std::move(it->second.waiter),
                                     HttpReply::text(404, "mailbox deleted"));
        }
        const bool live = !idledOut(it->second, Clock::now());
        eraseLocked(it);
        if (!live) {
            return false;
        }
    }
    completeAll(completions);
    return true;
}

std::size_t NotificationHub::publish(const std::string& topicIn,
                                     std::shared_ptr<const Notification> note) {
    const std::string topic = text::toLowerAscii(topicIn);
    const auto now = Clock::now();
    std::vector<Completion> completions;
    std::size_t reached = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto subscribed = subscribers_.find(topic);
        if (subscribed != subscribers_.end()) {
            std::vector<std::string> idledOutIds;
            for (const auto& id : subscribed->second) {
                Mailbox& mailbox = mailboxes_.at(id);
                if (idledOut(mailbox, now)) {
                    idledOutIds.push_back(id);
                    continue;
                }
                ++reached;
                dropExpired(mailbox, now);
                if (mailbox.queue.size() >= maxQueued_) {
                    mailbox.queue.pop_front();
                    ++mailbox.dropped;
                }
                mailbox.queue.push_back(note);
                if (mailbox.waiter) {
                    mailbox.lastActivity = now;
                    completions.emplace_back(std::move(mailbox.waiter),
                                             HttpReply::json(200, takeQueue(mailbox)));
                    mailbox.waiter.reset();
                }
            }
            for (const auto& id : idledOutIds) {
                eraseLocked(mailboxes_.find(id));
            }
        }
    }
    completeAll(completions);
    return reached;
}

NotificationHub::PollStart NotificationHub::startPoll(const std::string& id,
                                                      const std::shared_ptr<PollWaiter>& waiter,
                                                      HttpReply& reply) {
    const auto now = Clock::now();
    std::vector<Completion> completions;
    PollStart result = PollStart::Waiting;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Mailbox* mailbox = findLiveLocked(id, now);
        if (mailbox == nullptr) {
            return PollStart::Unknown;
        }
        mailbox->lastActivity = now;
        dropExpired(*mailbox, now);
        // The newer poll wins: a client whose earlier poll was cut off must not wait behind
        // it. The older one is told there is no mail.
        if (mailbox->waiter) {
            completions.emplace_back(std::move(mailbox->waiter), HttpReply::empty(204));
            mailbox->waiter.reset();
        }
        if (!mailbox->queue.empty()) {
            reply = HttpReply::json(200, takeQueue(*mailbox));
            result = PollStart::Answered;
        } else {
            mailbox->waiter = waiter;
        }
    }
    completeAll(completions);
    return result;
}

bool NotificationHub::withdrawPoll(const std::string& id,
                                   const std::shared_ptr<PollWaiter>& waiter) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = mailboxes_.find(id);
    if (it == mailboxes_.end() || it->second.waiter != waiter) {
        return false;
    }
    it->second.waiter.reset();
    it->second.lastActivity = Clock::now();
    return true;
}

void NotificationHub::sweep() {
    const auto now = Clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = mailboxes_.begin(); it != mailboxes_.end();) {
        auto next = std::next(it);
        if (idledOut(it->second, now)) {
            eraseLocked(it);
        } else {
            dropExpired(it->second, now);
        }
        it = next;
    }
}

void NotificationHub::clear() {
    std::vector<Completion> completions;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& entry : mailboxes_) {
            if (entry.second.waiter) {
                completions.emplace_back(std::move(entry.second.waiter),
                                         HttpReply::text(404, "mailbox deleted"));
            }
        }
        mailboxes_.clear();
        subscribers_.clear();
        idsBySecret_.clear();
    }
    completeAll(completions);
}

void NotificationHub::abandonWaiters() {
    std::vector<std::shared_ptr<PollWaiter>> abandoned;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& entry : mailboxes_) {
            if (entry.second.waiter) {
                abandoned.push_back(std::move(entry.second.waiter));
                entry.second.waiter.reset();
                entry.second.lastActivity = Clock::now();
            }
        }
    }
    // Released outside the lock: a waiter's completion may own the last reference to a
    // connection.
}

nlohmann::json NotificationHub::describe() const {
    const auto now = Clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    std::map<std::string, const Mailbox*> sorted;
    for (const auto& entry : mailboxes_) {
        if (!idledOut(entry.second, now)) {
            sorted.emplace(entry.first, &entry.second);
        }
    }
    nlohmann::json list = nlohmann::json::array();
    for (const auto& entry : sorted) {
        const Mailbox& mailbox = *entry.second;
        std::size_t depth = 0;
        for (const auto& note : mailbox.queue) {
            if (!note->expires || note->expiresAt > now) {
                ++depth;
            }
        }
        list.push_back({{"id", entry.first},
                        {"subscriptions", mailbox.topics},
                        {"queueDepth", depth},
                        {"mailboxTTL", mailbox.ttlSeconds},
                        {"durable", mailbox.durable},
                        {"polling", bool(mailbox.waiter)},
                        {"idleMs", std::chrono::duration_cast<std::chrono::milliseconds>(
                                       now - mailbox.lastActivity)
                                       .count()},
                        {"delivered", mailbox.delivered},
                        {"dropped", mailbox.dropped}});
    }
    return list;
}

std::size_t NotificationHub::mailboxCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mailboxes_.size();
}

nlohmann::json NotificationHub::snapshot() const {
    const auto now = Clock::now();
    std::lock_guard<std::mutex> lock(mutex_);
    nlohmann::json list = nlohmann::json::array();
    for (const auto& entry : mailboxes_) {
        const Mailbox& mailbox = entry.second;
        if (idledOut(mailbox, now)) {
            continue;
        }
        nlohmann::json queue = nlohmann::json::array();
        for (const auto& note : mailbox.queue) {
            if (note->expires && note->expiresAt <= now) {
                continue;
            }
            nlohmann::json saved = {{"json", note->json}};
            if (note->expires) {
                saved["expiresInMs"] =
                    std::chrono::duration_cast<std::chrono::milliseconds>(note->expiresAt - now)
                        .count();
            }
            queue.push_back(std::move(saved));
        }
        list.push_back({{"id", entry.first},
                        {"secret", mailbox.secret},
                        {"subscriptions", mailbox.topics},
                        {"mailboxTTL", mailbox.ttlSeconds},
                        {"durable", mailbox.durable},
                        {"queue", std::move(queue)}});
    }
    return list;
}

void NotificationHub::restore(const nlohmann::json& snapshot) {
    const auto now = Clock::now();
    // Built aside first: a malformed snapshot throws before anything is replaced.
    std::unordered_map<std::string, Mailbox> mailboxes;
    std::unordered_map<std::string, std::set<std::string>> subscribers;
    std::unordered_map<std::string, std::string> idsBySecret;
    for (const auto& saved : snapshot) {
        const std::string id = saved.at("id").get<std::string>();
        Mailbox mailbox;
        mailbox.secret = saved.at("secret").get<std::string>();
        mailbox.ttlSeconds = saved.at("mailboxTTL").get<long long>();
        mailbox.durable = saved.at("durable").get<bool>();
        mailbox.lastActivity = now;
        for (const auto& topic : saved.at("subscriptions")) {
            mailbox.topics.insert(topic.get<std::string>());
            subscribers[topic.get<std::string>()].insert(id);
        }
        for (const auto& savedNote : saved.at("queue")) {
            auto note = std::make_shared<Notification>();
            note->json = savedNote.at("json").get<std::string>();
            const auto expiresIn = savedNote.find("expiresInMs");
            if (expiresIn != savedNote.end()) {
                note->expires = true;
                note->expiresAt = now + std::chrono::milliseconds(expiresIn->get<long long>());
            }
            mailbox.queue.push_back(std::move(note));
        }
        idsBySecret[mailbox.secret] = id;
        mailboxes[id] = std::move(mailbox);
    }
    std::vector<Completion> completions;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& entry : mailboxes_) {
            if (entry.second.waiter) {
                completions.emplace_back(std::move(entry.second.waiter),
                                         HttpReply::text(404, "mailbox deleted"));
            }
        }
        mailboxes_ = std::move(mailboxes);
        subscribers_ = std::move(subscribers);
        idsBySecret_ = std::move(idsBySecret);
    }
    completeAll(completions);
}

}  // namespace qxpemu
