// StatisticsReporter: the periodic statistics report of one API object. A thread of its own,
// "QXP statistics", takes a snapshot every interval and hands its JSON document to the host's
// callback, or writes it at info level on the "TolvaCore.Statistics" logger when there is no
// callback.
//
// The callback is host code: it runs on this thread only, never on the HTTP pool or the
// object's other threads, so a slow callback delays nothing but the next report. The thread
// holds the recorder, not the API object, and goes on safely when the object ends inside a
// callback (the callback let go of the last reference): stop() then leaves the thread to
// end by itself once the callback returns.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace Varkel {
namespace Tolva {
namespace Rest {

class StatisticsRecorder;

class StatisticsReporter {
  public:
    using Callback = std::function<void(const std::wstring& json)>;

    StatisticsReporter(std::shared_ptr<const StatisticsRecorder> recorder,
                       std::chrono::milliseconds interval, Callback callback);
    // stop().
    ~StatisticsReporter();
    StatisticsReporter(const StatisticsReporter&) = delete;
    StatisticsReporter& operator=(const StatisticsReporter&) = delete;

    // Ends the reports: waits for a callback under way and for the thread to end, unless
    // called on the reporting thread itself (from inside the callback), which then ends by
    // itself once the callback returns. Later calls do nothing.
    void stop();

  private:
    struct State;
    static void run(const std::shared_ptr<State>& state);
    std::shared_ptr<State> state_;
};

}  // namespace Rest
}  // namespace Tolva
}  // namespace Varkel
