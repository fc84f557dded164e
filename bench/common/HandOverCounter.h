// Counts the hand-overs a benchmark's calls make: every task the HTTP library's pool is given
// to run (a continuation, or the library's own start of a request), and the context switches
// of the whole process (with TOLVA_BENCH_TASK_NAMES set, the kinds of task too). Installed
// before the first HTTP client is made, it wraps the pool's
// scheduler and passes every task on to it unchanged.
//
//   TolvaBench::HandOverCounter::install();
//   const auto before = TolvaBench::HandOverCounter::now();
//   ... N calls ...
//   const auto per = TolvaBench::HandOverCounter::now().minus(before).per(N);
#pragma once

#include <pplx/pplx.h>
#include <pplx/pplxtasks.h>

#include <sys/resource.h>

#include <cxxabi.h>
#include <dlfcn.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <typeinfo>

namespace TolvaBench {

// pplx's scheduler interface has no virtual destructor; this one is only ever owned by a
// shared_ptr made for this very type, which destroys it as what it is.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
class HandOverCounter final : public pplx::scheduler_interface {
  public:
    struct Counts {
        double poolTasks = 0;
        double contextSwitches = 0;

        Counts minus(const Counts& earlier) const {
            return {poolTasks - earlier.poolTasks, contextSwitches - earlier.contextSwitches};
        }
        Counts per(double calls) const { return {poolTasks / calls, contextSwitches / calls}; }
    };

    explicit HandOverCounter(std::shared_ptr<pplx::scheduler_interface> inner)
        : inner_(std::move(inner)) {}

    void schedule(pplx::TaskProc_t proc, void* parameter) override {
        scheduled().fetch_add(1, std::memory_order_relaxed);
        if (naming_) {
            // A task reaches the scheduler as a task handle, whose dynamic type names the
            // function it runs (a lambda's type names its function); anything else (pplx's
            // own thunks, as for cancellations) has no type to read.
            std::string kind = "(pplx thunk)";
            if (isTaskHandle(proc, parameter)) {
                const auto* handle = static_cast<pplx::details::_TaskProcHandle*>(parameter);
                int status = 0;
                char* name = abi::__cxa_demangle(typeid(*handle).name(), nullptr, nullptr, &status);
                kind = status == 0 && name ? shortened(name) : typeid(*handle).name();
                std::free(name);
            }
            std::lock_guard<std::mutex> lock(namesMutex_);
            ++names_[kind];
        }
        inner_->schedule(proc, parameter);
    }

    // Forgets the kinds counted so far.
    static void resetKinds() {
        if (auto* self = instance()) {
            std::lock_guard<std::mutex> lock(self->namesMutex_);
            self->names_.clear();
        }
    }

    // With TOLVA_BENCH_TASK_NAMES set, the kinds of task counted so far, most frequent first,
    // per `calls` (and the counts reset).
    static void printKinds(const char* title, double calls) {
        const auto* self = instance();
        if (!self || !self->naming_) {
            return;
        }
        std::multimap<std::uint64_t, std::string, std::greater<>> byCount;
        {
            std::lock_guard<std::mutex> lock(self->namesMutex_);
            for (const auto& [name, count] : self->names_) {
                byCount.emplace(count, name);
            }
            self->names_.clear();
        }
        std::printf("pool tasks by kind, %s:\n", title);
        for (const auto& [count, name] : byCount) {
            std::printf("  %8.2f  %s\n", static_cast<double>(count) / calls, name.c_str());
        }
    }

    // Puts a counting scheduler in front of the pool's default one; tasks made after this are
    // counted. Only before anything has asked for the ambient scheduler.
    static void install() {
        auto counter =
            std::make_shared<HandOverCounter>(std::make_shared<pplx::default_scheduler_t>());
        counter->naming_ = std::getenv("TOLVA_BENCH_TASK_NAMES") != nullptr;
        instance() = counter.get();
        pplx::set_ambient_scheduler(counter);
    }

    static Counts now() {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return {static_cast<double>(scheduled().load()),
                static_cast<double>(usage.ru_nvcsw + usage.ru_nivcsw)};
    }

  private:
    // Each module has its own copy of pplx's inline bridge functions, so they are told apart
    // by name: a thunk's parameter is not a task handle. Anything else counts as a handle when
    // its first word points into a loaded module (a vtable), which a thunk's does not.
    static bool isTaskHandle(pplx::TaskProc_t proc, void* parameter) {
        Dl_info info{};
        if (dladdr(reinterpret_cast<void*>(proc), &info) != 0 && info.dli_sname != nullptr &&
            std::string(info.dli_sname).find("_TaskProcThunk") != std::string::npos) {
            return false;
        }
        void* const vtable = *static_cast<void**>(parameter);
        return dladdr(vtable, &info) != 0;
    }

    // A type name cut to at most 600 characters.
    static std::string shortened(const std::string& name) {
        return name.size() > 600 ? name.substr(0, 600) + "..." : name;
    }

    static HandOverCounter*& instance() {
        static HandOverCounter* counter = nullptr;
        return counter;
    }

    static std::atomic<std::uint64_t>& scheduled() {
        static std::atomic<std::uint64_t> count{0};
        return count;
    }

    std::shared_ptr<pplx::scheduler_interface> inner_;
    bool naming_ = false;
    mutable std::mutex namesMutex_;
    mutable std::map<std::string, std::uint64_t> names_;
};
#pragma GCC diagnostic pop

}  // namespace TolvaBench
