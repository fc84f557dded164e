#include <ZuCore/ConditionVariableBase.h>

#include <boost/assert.hpp>

namespace Varkel {
namespace Zu {

ConditionVariableBase::HandleManager::HandleManager()
    : handle_(ConditionVariableHelper::createAnonymousSemaphore(
          0, ConditionVariableHelper::MaximumCount)) {}

ConditionVariableBase::HandleManager::~HandleManager() {
    ConditionVariableHelper::Handle handle = handle_.exchange(nullptr);
    ConditionVariableHelper::deleteHandle(&handle);
}

ConditionVariableBase::Entry::Entry(std::shared_ptr<HandleManager> wake)
    : wakeSemaphore(std::move(wake)) {}

ConditionVariableBase::EntryManager::EntryManager(ConditionVariableBase& owner,
                                                  std::shared_ptr<Entry> entry)
    : owner_(owner), entry_(std::move(entry)) {}

ConditionVariableBase::EntryManager::~EntryManager() {
    {
        std::lock_guard<std::mutex> guard(owner_._mutex);
        --entry_->count;
    }
    entry_.reset();
}

ConditionVariableBase::ConditionVariableBase() = default;

ConditionVariableBase::~ConditionVariableBase() = default;

std::shared_ptr<ConditionVariableBase::Entry> ConditionVariableBase::getWaitEntry() {
    std::lock_guard<std::mutex> guard(_mutex);
    if (!_wakeSemaphore) {
        _wakeSemaphore = std::make_shared<HandleManager>();
    }
    BOOST_ASSERT(_wakeSemaphore && (*_wakeSemaphore));
    ++_waiters;
    if (!_entries.empty() && !_entries.back()->signalled) {
        ++_entries.back()->count;
        return _entries.back();
    }
    _entries.push_back(std::make_shared<Entry>(_wakeSemaphore));
    return _entries.back();
}

bool ConditionVariableBase::waitOnEntry(Entry& entry,
                                        const std::chrono::steady_clock::time_point& deadline) {
    for (;;) {
        if (!ConditionVariableHelper::interruptibleWait(entry.semaphore.get(), deadline)) {
            return false;
        }
        {
            std::lock_guard<std::mutex> guard(_mutex);
            if (entry.interrupted) {
                return false;
            }
        }
        // A generation token alone is not a notify: the wake token proves this waiter was
        // counted by the notify that released it.
        if (ConditionVariableHelper::waitForSingleObject(entry.wakeSemaphore->get(), 0) ==
            ConditionVariableHelper::WaitObject0) {
            return true;
        }
    }
}

void ConditionVariableBase::notifyAll() {
    signalAll(false);
}

void ConditionVariableBase::interruptAll() {
    signalAll(true);
}

void ConditionVariableBase::signalAll(bool interrupted) {
    if (_waiters.load() == 0) {
        return;
    }
    std::lock_guard<std::mutex> guard(_mutex);
    const std::uint32_t registered = _waiters.exchange(0);
    if (!interrupted && registered > 0 && _wakeSemaphore) {
        ConditionVariableHelper::releaseSemaphore(_wakeSemaphore->get(), registered);
    }
    for (const std::shared_ptr<Entry>& entry : _entries) {
        entry->signalled = true;
        entry->interrupted = interrupted;
        const std::uint32_t users = entry->count.load();
        if (users > 0) {
            ConditionVariableHelper::releaseSemaphore(entry->semaphore.get(), users);
        }
    }
    _entries.clear();
    _wakeSemaphore.reset();
}

bool ConditionVariableBase::hasWakeSemaphore() {
    std::lock_guard<std::mutex> guard(_mutex);
    return static_cast<bool>(_wakeSemaphore);
}

}  // namespace Zu
}  // namespace Varkel
