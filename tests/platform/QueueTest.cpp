#include "zellive/platform/Queue.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Event.h"
#include "zellive/platform/linux/AsioQueues.h"
#include "zellive/platform/linux/Descriptor.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;
using test::Event;

/// Runs `task` on the queue and waits for it.
void runOn(Queue& queue, const Task& task = nullptr) {
  Event done;
  queue.async([&] {
    task ? task() : void();
    done.set();
  });
  ASSERT_TRUE(done.wait());
}

class QueueTest : public testing::Test {
 protected:
  std::shared_ptr<QueueService> service = makeAsioQueues();
  std::shared_ptr<Queue> queue = service->makeSerialQueue("com.example.queue");
};

class ReadWatchTest : public QueueTest {
 protected:
  ReadWatchTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    near = Descriptor(ends[0]);
    far = Descriptor(ends[1]);
  }
  void send(const std::string& text) {
    ASSERT_EQ(::write(far.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  Descriptor near;
  Descriptor far;
};

TEST_F(QueueTest, RunsTasksOneAtATimeInTheOrderOfEachPoster) {
  std::array<int, 3> next{};  // Not atomic: only the queue touches it.
  int outOfOrder = 0;
  std::vector<std::jthread> posters;
  for (auto& poster : next) {
    posters.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        queue->async([&, i] { outOfOrder += poster++ == i ? 0 : 1; });
      }
    });
  }
  posters.clear();
  // A task posts to its own queue, then has another thread post: the second must not overtake the first.
  std::string order;
  runOn(*queue, [&] {
    queue->async([&] { order += 'a'; });
    std::thread([&] { queue->async([&] { order += 'b'; }); }).join();
  });
  runOn(*queue);
  EXPECT_EQ(next, (std::array{2000, 2000, 2000}));
  EXPECT_EQ(outOfOrder, 0);
  EXPECT_EQ(order, "ab");
}

TEST_F(QueueTest, DelayedWorkRunsInOrderOfTimeAndNotEarlyNorOnceCancelled) {
  std::string order;
  Event done;
  const auto start = std::chrono::steady_clock::now();
  const auto add = [&](char letter) { return [&order, letter] { order += letter; }; };
  runOn(*queue, [&] {  // Nothing else runs meanwhile.
    queue->after(30ms, [&] {
      EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
      queue->after(1ms, [&] { done.set(); });  // Armed anew.
    });
    queue->after(20ms, add('d'));
    queue->after(std::chrono::nanoseconds::max(), add('!'));
    queue->after(0ms, add('a'));
    queue->after(-1h, add('b'));
    queue->after(std::chrono::nanoseconds::min(), add('c'));
    queue->after(0ms, {});
    auto owned = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = owned;
    const auto cancelled = queue->after(0ms, [&order, owned = std::move(owned)] { order += '!'; });
    cancelled->cancel();
    EXPECT_TRUE(watched.expired());
    cancelled->cancel();
  });
  ASSERT_TRUE(done.wait());
  EXPECT_EQ(order, "abcd");
}

TEST_F(QueueTest, CancelWorksFromAnyThreadWhileTheTimerFires) {
  std::vector<std::shared_ptr<DelayedWork>> handles;
  std::atomic<int> ran = 0;
  for (int i = 0; i < 500; ++i) {
    handles.push_back(queue->after(std::chrono::microseconds(i * 2), [&] { ++ran; }));
  }
  const auto cancel = [](const auto& handle) { handle->cancel(); };
  test::whileMeddling([&] { std::ranges::for_each(handles, cancel); },
                      [&] { std::for_each(handles.rbegin(), handles.rend(), cancel); });
  runOn(*queue);
  const int seen = ran;
  runOn(*queue);
  EXPECT_EQ(ran, seen);
}

TEST_F(QueueTest, DestructionRunsPostedTasksAndDropsTheRest) {
  auto owned = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = owned;
  std::atomic<int> ran = 0;
  Event open;
  queue->async([&] { EXPECT_TRUE(open.wait()); });
  auto work = queue->after(1h, [owned = std::move(owned), &ran] { ran += 1000; });
  for (int i = 0; i < 100; ++i) {
    queue->async([&] { ++ran; });
  }
  const std::jthread opener([&] { open.set(); });
  queue.reset();
  EXPECT_EQ(ran, 100);
  EXPECT_TRUE(watched.expired());
  work->cancel();                            // The handle may outlive its queue.
  (void)service->makeSerialQueue("unused");  // Without a thread.
}

TEST_F(ReadWatchTest, ATaskDelayedWorkOrAWatchMayDropItsOwnQueue) {
  send("x");
  for (const std::string way : {"task", "delayed", "watch"}) {
    SCOPED_TRACE(way);
    Event posted;
    Event dropped;
    Event ran;
    auto own = service->makeSerialQueue("own");
    const auto drop = [&] {
      EXPECT_TRUE(posted.wait());
      own.reset();
      dropped.set();
    };
    const auto watch = way == "watch" ? own->whenReadable(near.get(), drop) : nullptr;
    if (way == "delayed") {
      own->after(0ms, drop);
    } else if (way == "task") {
      own->async(drop);
    }
    own->async([&] { ran.set(); });
    posted.set();
    EXPECT_TRUE(dropped.wait() && ran.wait());
  }
}

TEST_F(QueueTest, ThreadsTakeNoSignalsButACrash) {
  for (const auto& each : {queue, service->mainQueue(), service->globalQueue()}) {
    runOn(*each, [&] {
      EXPECT_TRUE(each->isCurrent() && (each == queue || !queue->isCurrent()));
      sigset_t blocked;
      pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
      EXPECT_TRUE(sigismember(&blocked, SIGINT) == 1 && sigismember(&blocked, SIGPIPE) == 1);
      EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);
    });
  }
  sigset_t own;
  pthread_sigmask(SIG_SETMASK, nullptr, &own);
  EXPECT_EQ(sigismember(&own, SIGINT), 0) << "starting threads changes the caller's mask";
}

TEST_F(ReadWatchTest, TellsEachArrivalAndThePeersEnd) {
  std::string received;
  Event first;
  Event end;
  std::unique_ptr<ReadWatch> watch;
  watch = queue->whenReadable(near.get(), [&] {
    char byte = 0;
    if (::read(near.get(), &byte, 1) == 1) {  // One byte a call: what remains is told again.
      received += byte;
      received == "abc" ? first.set() : void();
    } else {
      EXPECT_TRUE(queue->isCurrent());
      watch.reset();  // From its own handler.
      end.set();
    }
  });
  EXPECT_EQ(fcntl(near.get(), F_GETFL) & O_NONBLOCK, 0) << "the descriptor is left as it is";
  send("abc");
  ASSERT_TRUE(first.wait());
  send("de");
  far = {};
  ASSERT_TRUE(end.wait());
  EXPECT_EQ(received, "abcde");
}

TEST_F(ReadWatchTest, NoCallBeginsOnceDestroyedOnItsQueue) {
  int calls = 0;
  Event called;
  auto owned = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = owned;
  std::unique_ptr<ReadWatch> watch =
      queue->whenReadable(near.get(), [&, owned = std::move(owned)] { calls++ == 0 ? called.set() : void(); });
  send("x");  // Never read, so the handler is due all the time.
  ASSERT_TRUE(called.wait());
  int atEnd = 0;
  runOn(*queue, [&] {
    watch.reset();
    atEnd = calls;
  });
  runOn(*queue);
  EXPECT_EQ(calls, atEnd);
  EXPECT_TRUE(watched.expired());
  near = {};
  pollfd peer{far.get(), POLLIN, 0};
  EXPECT_EQ(poll(&peer, 1, 0), 1) << "something of ours keeps the connection open";
}

}  // namespace
}  // namespace zellive
