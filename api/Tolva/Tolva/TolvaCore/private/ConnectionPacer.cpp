#include "ConnectionPacer.h"

#include <utility>

namespace Varkel {
namespace Tolva {
namespace Rest {

ConnectionPacer::Slot::Slot(std::shared_ptr<ConnectionPacer> pacer) : pacer_(std::move(pacer)) {}

ConnectionPacer::Slot::~Slot() {
    release();
}

void ConnectionPacer::Slot::release() {
    std::shared_ptr<ConnectionPacer> pacer;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pacer.swap(pacer_);
    }
    if (pacer) {
        pacer->giveBack();
    }
}

ConnectionPacer::ConnectionPacer(std::size_t most) : most_(most == 0 ? 1 : most) {}

std::shared_ptr<ConnectionPacer::Slot> ConnectionPacer::acquire() {
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!stopped_ && opening_ >= most_) {
            ++waits_;
        }
        freed_.wait(lock, [this] { return stopped_ || opening_ < most_; });
        if (stopped_) {
            return nullptr;
        }
        ++opening_;
    }
    return std::make_shared<Slot>(shared_from_this());
}

void ConnectionPacer::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
    }
    freed_.notify_all();
}

std::size_t ConnectionPacer::opening() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return opening_;
}

std::size_t ConnectionPacer::waits() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return waits_;
}

void ConnectionPacer::giveBack() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (opening_ > 0) {
            --opening_;
        }
    }
    freed_.notify_one();
}

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
