#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

#include "tests/support/Event.h"
#include "zellive/platform/linux/AsioQueues.h"
#include "zellive/platform/linux/Descriptor.h"

namespace zellive {
namespace {

class ReadWatchTest : public testing::Test {
 protected:
  ReadWatchTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    near_ = Descriptor(ends[0]);
    far_ = Descriptor(ends[1]);
  }
  void send(const std::string& text) {
    ASSERT_EQ(::write(far_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  /// Everything posted to the queue before this has run afterwards.
  void settle() {
    test::Event done;
    queue_->async([&] { done.set(); });
    ASSERT_TRUE(done.wait());
  }

  Descriptor near_;
  Descriptor far_;
  std::shared_ptr<QueueService> service_ = makeAsioQueues();
  std::shared_ptr<Queue> queue_ = service_->makeSerialQueue("watch");
};

TEST_F(ReadWatchTest, TellsEachArrivalAndThePeersEnd) {
  std::string received;
  test::Event first;
  test::Event end;
  std::unique_ptr<ReadWatch> watch;
  watch = queue_->whenReadable(near_.get(), [&] {
    EXPECT_TRUE(queue_->isCurrent());
    char byte = 0;
    if (::read(near_.get(), &byte, 1) == 1) {  // One byte a call: what remains is told again.
      received += byte;
      if (received == "abc") {
        first.set();
      }
    } else {
      watch.reset();  // From its own handler.
      end.set();
    }
  });
  ASSERT_NE(watch, nullptr);
  send("abc");
  ASSERT_TRUE(first.wait());
  send("de");
  far_ = {};
  ASSERT_TRUE(end.wait());
  EXPECT_EQ(received, "abcde");
}

TEST_F(ReadWatchTest, LeavesTheDescriptorAsItIs) {
  const auto watch = queue_->whenReadable(near_.get(), [] {});
  settle();
  EXPECT_EQ(fcntl(near_.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(ReadWatchTest, NoCallBeginsOnceDestroyedOnItsQueue) {
  int calls = 0;
  test::Event called;
  std::unique_ptr<ReadWatch> watch = queue_->whenReadable(near_.get(), [&] {
    if (calls++ == 0) {
      called.set();
    }
  });
  send("x");  // Never read, so the handler is due all the time.
  ASSERT_TRUE(called.wait());
  int atEnd = 0;
  queue_->async([&] {
    watch.reset();
    atEnd = calls;
  });
  settle();
  settle();
  EXPECT_EQ(calls, atEnd);
}

TEST_F(ReadWatchTest, DestructionFreesTheHandlerAndLetsTheConnectionClose) {
  auto owned = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = owned;
  auto watch = queue_->whenReadable(near_.get(), [owned = std::move(owned)] {});
  settle();
  watch.reset();
  EXPECT_TRUE(watched.expired());
  near_ = {};
  pollfd peer{far_.get(), POLLIN, 0};
  EXPECT_EQ(poll(&peer, 1, 0), 1);  // The peer sees the end at once: nothing of ours keeps the connection open.
}

TEST_F(ReadWatchTest, WatchMayOutliveItsQueue) {
  auto watch = queue_->whenReadable(near_.get(), [] {});
  queue_.reset();
  send("x");
  watch.reset();
}

TEST_F(ReadWatchTest, RefusesWhatCannotBeWatched) {
  EXPECT_EQ(queue_->whenReadable(-1, [] {}), nullptr);
  EXPECT_EQ(queue_->whenReadable(near_.get(), {}), nullptr);
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::tmpfile(), &std::fclose);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(queue_->whenReadable(fileno(file.get()), [] {}), nullptr);
}

}  // namespace
}  // namespace zellive
