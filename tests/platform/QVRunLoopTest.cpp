#include "platform/QVRunLoop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// ---- Posting to the main thread ---------------------------------------------------------------------

TEST(QVPostToMainThreadTest, PostsFromSeveralThreadsAllArriveOnTheMainThreadInEachThreadsOrder) {
  constexpr int kThreads = 4;
  constexpr int kPostsPerThread = 500;
  const auto mainThread = std::this_thread::get_id();
  std::vector<std::pair<int, int>> arrived;  // main thread only
  bool allOnMainThread = true;

  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPostsPerThread; ++i)
        qv::postToMainThread([&, t, i] {
          allOnMainThread = allOnMainThread && std::this_thread::get_id() == mainThread;
          arrived.emplace_back(t, i);
        });
    });
  }
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return arrived.size() == kThreads * kPostsPerThread; }, 10s));
  for (auto& thread : threads) thread.join();

  EXPECT_TRUE(allOnMainThread);
  std::vector<int> next(kThreads, 0);
  for (auto [t, i] : arrived) {
    ASSERT_EQ(i, next[t]) << "thread " << t << " out of order";
    ++next[t];
  }
}

TEST(QVPostToMainThreadTest, WorkPostedWhileRunningGoesAfterWhatWasPostedBefore) {
  std::vector<std::string> order;
  qv::postToMainThread([&] {
    order.push_back("a");
    qv::postToMainThread([&] { order.push_back("d"); });
  });
  qv::postToMainThread([&] { order.push_back("b"); });
  qv::postToMainThread([&] { order.push_back("c"); });
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return order.size() == 4; }, 5s));
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "c", "d"}));
}

TEST(QVPostToMainThreadTest, ANestedLoopInsidePostedWorkNeitherStallsNorReordersTheRest) {
  std::vector<std::string> order;
  bool bRanInsideA = false;
  qv::postToMainThread([&] {
    order.push_back("a");
    bRanInsideA = qv::runMainLoopUntil([&] { return std::find(order.begin(), order.end(), "b") != order.end(); },
                                       5s);
  });
  qv::postToMainThread([&] { order.push_back("b"); });
  qv::postToMainThread([&] { order.push_back("c"); });
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return order.size() == 3; }, 10s));
  EXPECT_TRUE(bRanInsideA);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "c"}));
}

TEST(QVPostToMainThreadTest, WorkThatThrowsDoesNotStopTheWorkAfterIt) {
  bool ranAfter = false;
  qv::postToMainThread([] { throw std::runtime_error("boom"); });
  qv::postToMainThread([&] { ranAfter = true; });
  EXPECT_TRUE(qv::runMainLoopUntil([&] { return ranAfter; }, 5s));
}

// ---- Running and quitting ---------------------------------------------------------------------------

TEST(QVMainLoopTest, RunUntilReturnsFalseOnceTheTimeoutPassesWithoutEvents) {
  auto start = Clock::now();
  EXPECT_FALSE(qv::runMainLoopUntil([] { return false; }, 150ms));
  auto elapsed = Clock::now() - start;
  EXPECT_GE(elapsed, 150ms);
  EXPECT_LT(elapsed, 2s);
}

TEST(QVMainLoopTest, QuitEndsOnlyTheInnermostRun) {
  std::vector<std::string> order;
  qv::postToMainThread([&] {
    qv::postToMainThread([] { qv::quitMainLoop(); });
    qv::runMainLoop();  // nested
    order.push_back("inner ended");
    qv::postToMainThread([&] {
      order.push_back("outer still running");
      qv::quitMainLoop();
    });
  });
  qv::runMainLoop();
  EXPECT_EQ(order, (std::vector<std::string>{"inner ended", "outer still running"}));
}

// ---- Timers -----------------------------------------------------------------------------------------

TEST(QVTimerTest, ATimerWhoseDatePassedFiresOnceAtTheNextPass) {
  int fired = 0;
  QVTimer timer(std::chrono::system_clock::now() - 24h, [&](QVTimer& t) {
    ++fired;
    EXPECT_FALSE(t.isValid());
  });
  EXPECT_TRUE(timer.isValid());
  EXPECT_TRUE(qv::runMainLoopUntil([&] { return fired > 0; }, 1s));
  qv::runMainLoopUntil([] { return false; }, 50ms);
  EXPECT_EQ(fired, 1);
  EXPECT_FALSE(timer.isValid());
}

TEST(QVTimerTest, AFutureTimerFiresNotBeforeItsDate) {
  const QVDate date = std::chrono::system_clock::now() + 150ms;
  QVDate firedAt{};
  QVTimer timer(date, [&](QVTimer&) { firedAt = std::chrono::system_clock::now(); });
  EXPECT_EQ(timer.fireDate(), date);
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return firedAt != QVDate{}; }, 3s));
  EXPECT_GE(firedAt, date);
}

TEST(QVTimerTest, InvalidatingOrDestroyingATimerKeepsItFromFiring) {
  bool fired = false;
  QVTimer invalidated(std::chrono::system_clock::now() + 20ms, [&](QVTimer&) { fired = true; });
  invalidated.invalidate();
  EXPECT_FALSE(invalidated.isValid());
  invalidated.invalidate();  // twice is harmless
  {
    QVTimer destroyed(std::chrono::system_clock::now() - 1s, [&](QVTimer&) { fired = true; });
  }
  qv::runMainLoopUntil([] { return false; }, 150ms);
  EXPECT_FALSE(fired);
}

TEST(QVTimerTest, TheActionMayDestroyOrInvalidateItsOwnTimer) {
  // Captures that die with the action: the destroyed timer must not be the end of the running action.
  auto owned = std::make_shared<std::string>("still here");
  std::unique_ptr<QVTimer> timer;
  std::string seen;
  timer = std::make_unique<QVTimer>(std::chrono::system_clock::now(), [&, owned](QVTimer& t) {
    t.invalidate();
    timer.reset();
    seen = *owned;
  });
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return timer == nullptr; }, 1s));
  EXPECT_EQ(seen, "still here");
}

// ---- Signals ----------------------------------------------------------------------------------------

TEST(QVSignalHandlerTest, ARaisedSignalRunsItsHandlerOnTheMainLoop) {
  const auto mainThread = std::this_thread::get_id();
  int calls = 0;
  bool onMainThread = false;
  unsigned id = qv::addSignalHandler(SIGUSR1, [&] {
    ++calls;
    onMainThread = std::this_thread::get_id() == mainThread;
  });
  ASSERT_NE(id, 0u);
  raise(SIGUSR1);
  EXPECT_TRUE(qv::runMainLoopUntil([&] { return calls == 1; }, 5s));
  EXPECT_TRUE(onMainThread);
  raise(SIGUSR1);  // the handler stays until removed
  EXPECT_TRUE(qv::runMainLoopUntil([&] { return calls == 2; }, 5s));
  qv::removeSignalHandler(id);
}

TEST(QVSignalHandlerTest, AnUnsupportedSignalIsRefused) {
  EXPECT_EQ(qv::addSignalHandler(SIGSEGV, [] {}), 0u);
  qv::removeSignalHandler(0);
}

}  // namespace
