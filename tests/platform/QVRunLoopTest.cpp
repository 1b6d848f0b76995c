#include "platform/QVRunLoop.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
const std::thread::id kMainThread = std::this_thread::get_id();
bool onMainThread() { return std::this_thread::get_id() == kMainThread; }

// Posting: order per thread, nesting, and work that throws.
TEST(QVPostToMainThreadTest, PostsFromSeveralThreadsArriveOnTheMainThreadInEachThreadsOrder) {
  constexpr int kThreads = 4, kPosts = 500;
  std::vector<std::pair<int, int>> arrived;  // main thread only
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPosts; ++i)
        qv::postToMainThread([&, t, i] { arrived.emplace_back(t, onMainThread() ? i : -1); });
    });
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return arrived.size() == kThreads * kPosts; }, 10s));
  for (auto& thread : threads) thread.join();
  std::vector<int> next(kThreads, 0);
  for (auto [t, i] : arrived) ASSERT_EQ(i, next[t]++) << "thread " << t << " out of order or off the main thread";
}

TEST(QVPostToMainThreadTest, WorkPostedWhileRunningGoesLastAcrossANestedLoopAndAThrow) {
  std::string order;
  qv::postToMainThread([&] {
    order += "a";
    qv::postToMainThread([&] { order += "d"; });
    EXPECT_TRUE(qv::runMainLoopUntil([&] { return order.find('b') != std::string::npos; }, 5s));  // nested
    throw std::runtime_error("must not stop the work after it");
  });
  qv::postToMainThread([&] { order += "b"; });
  qv::postToMainThread([&] { order += "c"; });
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return order.size() == 4; }, 5s)) << order;
  EXPECT_EQ(order, "abcd");
}

TEST(QVTimerTest, FiresOnceWhenDueUnlessInvalidatedOrDestroyedAndItsActionMayDestroyIt) {
  const QVDate now = std::chrono::system_clock::now();
  int fired = 0;  // 1 for the past timer, which is no longer valid when it fires; 1000 for a cancelled one
  QVDate futureFiredAt{};
  QVTimer past(now - 24h, [&](QVTimer& t) { fired += t.isValid() ? 100 : 1; });
  QVTimer future(now + 150ms, [&](QVTimer&) { futureFiredAt = std::chrono::system_clock::now(); });
  QVTimer invalidated(now + 20ms, [&](QVTimer&) { fired += 1000; });
  invalidated.invalidate();
  {
    QVTimer destroyed(now - 1s, [&](QVTimer&) { fired += 1000; });
  }
  auto owned = std::make_shared<std::string>("still here");  // dies with the action
  std::string seen;
  std::unique_ptr<QVTimer> self;
  self = std::make_unique<QVTimer>(now, [&, owned](QVTimer&) {
    self.reset();
    seen = *owned;
  });
  EXPECT_TRUE(qv::runMainLoopUntil([&] { return fired && !self; }, 1s)) << "a past date fires at once";
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return futureFiredAt != QVDate{}; }, 3s));
  EXPECT_GE(futureFiredAt, now + 150ms);
  EXPECT_EQ(fired, 1);
  EXPECT_FALSE(past.isValid());
  EXPECT_EQ(seen, "still here");
}

}  // namespace
