// InlineScheduler: a pplx scheduler that runs each task at once, on the thread that schedules
// it. A continuation given this scheduler runs on the thread that completed what it follows
// (for an HTTP answer, the HTTP library's thread that read it) instead of being queued to the
// pool for another thread to pick up: one hand-over between threads fewer per continuation.
//
//   request.then(checkStatus, InlineScheduler::options());
//
// Only for the library's own short continuations, which neither block nor run host code.
// A continuation inherits its antecedent's scheduler, so a task given to callers is never one
// of these: they get a task of the pool's scheduler (RestCall completes one through an event).
//
// Internal to the library.
#pragma once

#include <pplx/pplxtasks.h>

#include <memory>

namespace Varkel {
namespace Tolva {
namespace Rest {

// pplx's scheduler interface has no virtual destructor; this one is only ever owned by a
// shared_ptr made for this very type, which destroys it as what it is.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class InlineScheduler final : public pplx::scheduler_interface {
  public:
    void schedule(pplx::TaskProc_t proc, void* parameter) override { proc(parameter); }

    // Task options that run a continuation inline.
    static pplx::task_options options() {
        static const auto scheduler = std::make_shared<InlineScheduler>();
        return pplx::task_options(scheduler);
    }
};
#pragma GCC diagnostic pop

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
