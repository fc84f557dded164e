#include <ZuCore/Timer.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using Varkel::Zu::Timer;

namespace {
// Elapsed time is what a timer measures, so these tests have to let time pass.
void pause(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
}  // namespace

TEST(TimerTest, CountsFromConstruction) {
    const auto before = std::chrono::steady_clock::now();
    Timer timer(0, 0);
    pause(30);
    const auto measured = timer.getMilliseconds();
    const auto bound = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - before)
                           .count();
    EXPECT_GE(measured, 30u);
    EXPECT_LE(measured, static_cast<std::uint64_t>(bound));
    EXPECT_TRUE(timer.isRunning());
    EXPECT_GE(timer.getMicroseconds(), 30000u);
}

TEST(TimerTest, StartStoppedDoesNotCountUntilStarted) {
    Timer timer(Timer::START_STOPPED, 0);
    EXPECT_FALSE(timer.isRunning());
    pause(20);
    EXPECT_EQ(timer.getMilliseconds(), 0u);
    timer.start();
    pause(20);
    EXPECT_GE(timer.getMilliseconds(), 20u);
}

TEST(TimerTest, InitialElapsedTimeIsCounted) {
    const Timer timer(Timer::START_STOPPED, 1500);
    EXPECT_EQ(timer.getMilliseconds(), 1500u);
}

TEST(TimerTest, StopKeepsTheElapsedTimeAndResetClearsIt) {
    Timer timer;
    pause(20);
    timer.stop();
    const auto stopped = timer.getMilliseconds();
    EXPECT_GE(stopped, 20u);
    pause(20);
    EXPECT_EQ(timer.getMilliseconds(), stopped);
    timer.reset();
    EXPECT_EQ(timer.getMilliseconds(), 0u);
    EXPECT_FALSE(timer.isRunning());
    timer.start();
    pause(10);
    EXPECT_GE(timer.getMilliseconds(), 10u);
}
