// Timers of the activity loop: order, periodic timers without drift, and
// cancelling from inside a callback.
#include <Kel/ActivityLoop.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

using namespace std::chrono_literals;
using Kel::ActivityLoop;

TEST(ActivityLoopTimer, TimersRunInDueOrderAndOneShotsOnce) {
   ActivityLoop loop;
   std::string order;
   loop.timerIs(30ms, [&] { order += "c"; });
   loop.timerIs(10ms, [&] { order += "a"; });
   loop.timerIs(20ms, [&] { order += "b"; });
   auto cancelled = loop.timerIs(15ms, [&] { order += "x"; });
   loop.timerDel(cancelled);
   loop.runUntil([&] { return order.size() >= 3; }, 2000);
   for (int i = 0; i < 5; ++i) loop.runOnce(5);
   EXPECT_EQ(order, "abc");
   EXPECT_EQ(loop.timers(), 0u);
}

TEST(ActivityLoopTimer, APeriodicTimerKeepsItsScheduleAndCanCancelItself) {
   ActivityLoop loop;
   auto start = std::chrono::steady_clock::now();
   std::vector<std::chrono::steady_clock::duration> at;
   ActivityLoop::TimerId id = 0;
   id = loop.timerIs(10ms, [&] {
      at.push_back(std::chrono::steady_clock::now() - start);
      if (at.size() == 20) loop.timerDel(id);
   }, 10ms);
   loop.runUntil([&] { return at.size() >= 20; }, 5000);
   for (int i = 0; i < 5; ++i) loop.runOnce(15);
   ASSERT_EQ(at.size(), 20u);  // cancelled from inside: no 21st
   EXPECT_EQ(loop.timers(), 0u);
   // Due every 10 ms from the start: the 20th run cannot come before 200 ms.
   EXPECT_GE(at.back(), 200ms);
}

TEST(ActivityLoopTimer, RunsAPeriodicTimerMissedDuringAStallOnceNotInABurst) {
   ActivityLoop loop;
   int runs = 0;
   loop.timerIs(1ms, [&] {
      if (++runs == 1) std::this_thread::sleep_for(30ms);  // misses about 30 periods
   }, 1ms);
   loop.runUntil([&] { return runs >= 1; }, 2000);
   loop.runOnce(0);
   EXPECT_EQ(runs, 2);  // one catch-up run, not thirty
}

TEST(ActivityLoopTimer, ACallbackMayAddAndCancelOtherTimers) {
   ActivityLoop loop;
   std::string order;
   ActivityLoop::TimerId later = loop.timerIs(40ms, [&] { order += "later;"; });
   loop.timerIs(5ms, [&] {
      order += "first;";
      loop.timerDel(later);
      loop.timerIs(5ms, [&] { order += "added;"; });
   });
   loop.runUntil([&] { return order.find("added") != std::string::npos; }, 2000);
   for (int i = 0; i < 6; ++i) loop.runOnce(10);
   EXPECT_EQ(order, "first;added;");
}
