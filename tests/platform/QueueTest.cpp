#include "zellive/platform/Queue.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Event.h"
#include "zellive/platform/linux/AsioQueues.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;
using test::Event;

/// Runs `task` on the queue and waits for it.
void runOn(Queue& queue, const Task& task) {
  Event done;
  queue.async([&] {
    task();
    done.set();
  });
  ASSERT_TRUE(done.wait());
}

/// Keeps a queue from running anything until it is opened.
class Hold {
 public:
  explicit Hold(Queue& queue) {
    queue.async([this] {
      entered_.set();
      EXPECT_TRUE(open_.wait());
    });
    EXPECT_TRUE(entered_.wait());
  }
  void open() { open_.set(); }

 private:
  Event entered_;
  Event open_;
};

class QueueTest : public testing::Test {
 protected:
  std::shared_ptr<QueueService> service = makeAsioQueues();
  std::shared_ptr<Queue> queue = service->makeSerialQueue("com.example.queue");
};

TEST_F(QueueTest, RunsTasksOneAtATimeInTheOrderOfEachPoster) {
  constexpr int kPosters = 3;
  constexpr int kTasks = 2000;
  std::array<int, kPosters> next{};  // Not atomic: only the queue touches it.
  int outOfOrder = 0;
  std::vector<std::thread> posters;
  for (std::size_t poster = 0; poster < kPosters; ++poster) {
    posters.emplace_back([&, poster] {
      for (int i = 0; i < kTasks; ++i) {
        queue->async([&, poster, i] { outOfOrder += next[poster]++ == i ? 0 : 1; });
      }
    });
  }
  for (auto& thread : posters) {
    thread.join();
  }
  runOn(*queue, [&] { EXPECT_EQ(next, (std::array<int, kPosters>{kTasks, kTasks, kTasks})); });
  EXPECT_EQ(outOfOrder, 0);
}

TEST_F(QueueTest, TasksOfTheQueueKeepTheirPlaceAmongTasksOfOthers) {
  // A task posts to its own queue, then has another thread post: the second must not overtake the first.
  std::string order;
  Event done;
  queue->async([&] {
    queue->async([&] { order += 'a'; });
    std::thread([&] { queue->async([&] { order += 'b'; }); }).join();
    queue->async([&] {
      order += 'c';
      done.set();
    });
  });
  ASSERT_TRUE(done.wait());
  EXPECT_EQ(order, "abc");
}

TEST_F(QueueTest, KnowsItsOwnTasks) {
  const auto other = service->makeSerialQueue("other");
  EXPECT_EQ(queue->label(), "com.example.queue");
  EXPECT_FALSE(queue->isCurrent());
  runOn(*queue, [&] {
    EXPECT_TRUE(queue->isCurrent());
    EXPECT_FALSE(other->isCurrent());
    runOn(*other, [&] { EXPECT_FALSE(queue->isCurrent()); });
  });
  runOn(*service->mainQueue(), [&] { EXPECT_TRUE(service->mainQueue()->isCurrent()); });
}

TEST_F(QueueTest, DelayedWorkRunsInOrderOfTimeAndNotEarly) {
  std::string order;
  Event done;
  const auto start = std::chrono::steady_clock::now();
  {
    Hold hold(*queue);
    queue->after(30ms, [&] {
      order += 'e';
      EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
      done.set();
    });
    queue->after(20ms, [&] { order += 'd'; });
    queue->after(std::chrono::nanoseconds::max(), [&] { order += '!'; });
    queue->after(0ms, [&] { order += 'a'; });
    queue->after(-1h, [&] { order += 'b'; });
    queue->after(std::chrono::nanoseconds::min(), [&] { order += 'c'; });
    queue->after(0ms, {});
    hold.open();
    ASSERT_TRUE(done.wait());
  }
  EXPECT_EQ(order, "abcde");
}

TEST_F(QueueTest, DelayedWorkOnTheQueueItselfIsArmedAnew) {
  Event done;
  int runs = 0;
  Task again = [&] { ++runs < 5 ? static_cast<void>(queue->after(1ms, again)) : done.set(); };
  queue->after(1ms, again);
  ASSERT_TRUE(done.wait());
  runOn(*queue, [&] { EXPECT_EQ(runs, 5); });
}

TEST_F(QueueTest, CancelledWorkIsDestroyedAndNeverRuns) {
  Hold hold(*queue);
  auto owned = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = owned;
  bool ran = false;
  auto cancelled = queue->after(0ms, [&ran, owned = std::move(owned)] { ran = true; });
  Event done;
  auto kept = queue->after(1ms, [&] { done.set(); });
  cancelled->cancel();
  EXPECT_TRUE(watched.expired());
  cancelled->cancel();
  hold.open();
  ASSERT_TRUE(done.wait());
  kept->cancel();
  runOn(*queue, [&] { EXPECT_FALSE(ran); });
}

TEST_F(QueueTest, CancelWorksFromAnyThreadWhileTheTimerFires) {
  std::vector<std::shared_ptr<DelayedWork>> handles;
  std::atomic<int> ran = 0;
  for (int i = 0; i < 500; ++i) {
    handles.push_back(queue->after(std::chrono::microseconds(i * 2), [&] { ++ran; }));
  }
  std::thread first([&] {
    for (const auto& handle : handles) {
      handle->cancel();
    }
  });
  for (auto handle = handles.rbegin(); handle != handles.rend(); ++handle) {
    (*handle)->cancel();
  }
  first.join();
  runOn(*queue, [] {});
  const int seen = ran;
  runOn(*queue, [] {});
  EXPECT_EQ(ran, seen);
}

TEST_F(QueueTest, DestructionRunsPostedTasksAndDropsTheRest) {
  auto owned = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = owned;
  std::atomic<int> ran = 0;
  auto hold = std::make_unique<Hold>(*queue);
  auto work = queue->after(1h, [owned = std::move(owned), &ran] { ran += 1000; });
  for (int i = 0; i < 100; ++i) {
    queue->async([&] { ++ran; });
  }
  std::thread opener([&] { hold->open(); });
  queue.reset();
  EXPECT_EQ(ran, 100);
  EXPECT_TRUE(watched.expired());
  opener.join();
  work->cancel();  // The handle may outlive its queue.
}

TEST_F(QueueTest, UnusedQueueIsDestroyedWithoutAThread) {
  for (int i = 0; i < 50; ++i) {
    (void)service->makeSerialQueue("unused");
  }
  auto work = queue->after(1h, [] { FAIL(); });
  queue.reset();
}

TEST_F(QueueTest, ItsOwnTaskMayDropTheQueue) {
  Event done;
  int after = 0;
  Event dropped;
  queue->async([&] {
    EXPECT_TRUE(dropped.wait());
    queue.reset();
    EXPECT_EQ(after, 0);
  });
  for (int i = 0; i < 10; ++i) {
    queue->async([&] { ++after; });
  }
  queue->after(0ms, [] {});
  queue->async([&, guard = std::shared_ptr<void>(nullptr, [&](void*) { done.set(); })] { EXPECT_EQ(after, 10); });
  dropped.set();
  ASSERT_TRUE(done.wait());
}

TEST_F(QueueTest, DelayedWorkAndWatchesMayDropTheQueue) {
  Event first;
  {
    auto holder = std::make_shared<std::shared_ptr<Queue>>(service->makeSerialQueue("delayed"));
    (*holder)->after(1ms, [&, holder] {
      holder->reset();
      first.set();
    });
  }
  EXPECT_TRUE(first.wait());

  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  Event second;
  auto watched = service->makeSerialQueue("watched");
  Event ready;
  const auto watch = watched->whenReadable(pipe[0], [&] {
    EXPECT_TRUE(ready.wait());
    watched.reset();
    second.set();
  });
  ASSERT_EQ(::write(pipe[1], "x", 1), 1);
  ready.set();
  EXPECT_TRUE(second.wait());
  ::close(pipe[0]);
  ::close(pipe[1]);
}

TEST_F(QueueTest, QueuesComeAndGoUnderLoad) {
  std::atomic<int> ran = 0;
  Event all;
  for (int i = 0; i < 200; ++i) {
    auto brief = service->makeSerialQueue("brief");
    for (int j = 0; j < 10; ++j) {
      brief->async([&] {
        if (++ran == 2000) {
          all.set();
        }
      });
      brief->after(std::chrono::microseconds(j), [] {});
    }
    if (i % 2 == 0) {  // Dropped by its own task, or by this thread when that has run already.
      brief->async([brief] {});
    }
  }
  EXPECT_TRUE(all.wait());
}

TEST_F(QueueTest, ThreadsTakeNoSignalsAndBearTheLabel) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  ::close(pipe[0]);
  for (const auto& each : {queue, service->mainQueue(), service->globalQueue()}) {
    runOn(*each, [&] {
      sigset_t blocked;
      pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
      for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGCHLD, SIGUSR1, SIGALRM}) {
        EXPECT_EQ(sigismember(&blocked, number), 1) << number;
      }
      EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);  // A crash handler must still see a crash.
      EXPECT_EQ(::write(pipe[1], "x", 1), -1);
      EXPECT_EQ(errno, EPIPE);
    });
  }
  ::close(pipe[1]);
  runOn(*queue, [] {
    std::array<char, 16> name{};
    pthread_getname_np(pthread_self(), name.data(), name.size());
    EXPECT_STREQ(name.data(), "m.example.queue");
  });
  sigset_t own;
  pthread_sigmask(SIG_SETMASK, nullptr, &own);
  EXPECT_EQ(sigismember(&own, SIGINT), 0);  // Starting threads leaves the caller's mask alone.
}

TEST_F(QueueTest, GlobalQueueRunsTasksSideBySide) {
  const auto global = service->globalQueue();
  Event first;
  Event second;
  Event both;
  global->async([&] {
    EXPECT_TRUE(global->isCurrent());
    EXPECT_TRUE(second.wait());
    first.set();
  });
  global->after(0ms, [&] {
    EXPECT_TRUE(global->isCurrent());
    second.set();
    EXPECT_TRUE(first.wait());
    both.set();
  });
  EXPECT_TRUE(both.wait());
}

}  // namespace
}  // namespace zellive
