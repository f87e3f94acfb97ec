// Views in real windows of a real X server, looked at by another client of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "tests/gpu/GpuTest.h"
#include "tests/support/Event.h"
#include "tests/support/ManualPlatform.h"
#include "tests/support/XvfbServer.h"
#include "zellive/gpu/GPUImageView.h"
#include "zellive/platform/linux/SdlWindows.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 30s;

/// Notes what it hears, and whether on its queue.
class Listener : public WindowDelegate {
 public:
  explicit Listener(std::shared_ptr<Queue> queue) : queue_(std::move(queue)) {}
  void windowDidResize(const std::shared_ptr<Window>& window, Size size) override {
    note("resize " + std::to_string(static_cast<int>(size.width)) + (window->size() == size ? "" : "?"));
  }
  void windowShouldClose(const std::shared_ptr<Window>&) override { note("close?"); }
  void windowDidBecomeKey(const std::shared_ptr<Window>&) override { note("key"); }
  void windowDidResignKey(const std::shared_ptr<Window>&) override { note("no key"); }
  void windowDidShow(const std::shared_ptr<Window>&) override { note("shown"); }
  void windowDidHide(const std::shared_ptr<Window>&) override { note("hidden"); }
  void windowDidVanish(const std::shared_ptr<Window>&) override { note("vanished"); }

  /// Waits until that has been heard, and forgets it with all before it.
  [[nodiscard]] bool hears(const std::string& what) {
    return waitUntil(
        [&] {
          const std::lock_guard lock(mutex_);
          const auto found = std::find(heard_.begin(), heard_.end(), what);
          const bool there = found != heard_.end();
          heard_.erase(heard_.begin(), there ? found + 1 : heard_.begin());
          return there;
        },
        kPatience);
  }

 private:
  void note(const std::string& what) {
    const std::lock_guard lock(mutex_);
    heard_.push_back(queue_->isCurrent() ? what : what + " elsewhere");
  }

  const std::shared_ptr<Queue> queue_;
  std::mutex mutex_;
  std::vector<std::string> heard_;
};

class WindowTest : public GpuTest {
 protected:
  static void SetUpTestSuite() { ASSERT_TRUE(XvfbServer::available()); }

  [[nodiscard]] std::shared_ptr<Window> open(const std::string& title, Size size = {120, 90}) {
    return windows_->makeWindow({.title = title, .size = size, .delegate = listener_, .queue = queue_});
  }
  [[nodiscard]] bool shows(const std::string& title, std::size_t width, std::size_t x, std::size_t y, Color color) {
    return waitUntil(
        [&] {
          const auto picture = client_.picture(client_.find(title));
          return picture && picture->width() == width && colorAt(*picture, x, y) == color;
        },
        kPatience);
  }

  XvfbServer server_;
  XClient client_;
  const std::shared_ptr<Queue> queue_ = defaultPlatform()->queues->makeSerialQueue("test.windows");
  const std::shared_ptr<Listener> listener_ = std::make_shared<Listener>(queue_);
  const std::shared_ptr<WindowService> windows_ = makeSdlWindows();
};

TEST_F(WindowTest, ShowsTheFramesAndWhatLiesOverThemAtEverySize) {
  const auto window = open("preview");
  ASSERT_TRUE(window);
  const auto view = GPUImageView::create({0, 0, 120, 90});
  view->setAutoresizing(ViewAutoresizingFlexibleWidth | ViewAutoresizingFlexibleHeight);
  view->setFillMode(GPUImageFillMode::Stretch);
  const auto mark = std::make_shared<View>(Rect{10, 20, 30, 15});
  mark->setBackgroundColor({1, 0, 0, 1});
  mark->setAlpha(0.4);
  window->contentView()->addSubview(mark);
  window->contentView()->insertSubview(view, 0);
  source_->addTarget(view);

  auto picture = samplePicture(PixelFormat::BGRA, 32, 18);
  for (std::size_t i = 3; i < picture->plane(0).bytesPerRow * 18; i += 4) {
    picture->plane(0).base[i] = 255;
  }
  source_->send(*picture);
  const auto expectScreen = [&](std::size_t width, std::size_t height) {
    const auto wanted = [&](std::size_t x, std::size_t y) {
      auto color = sampleLinear(picture->plane(0), 4, (static_cast<double>(x) + 0.5) / static_cast<double>(width),
                                (static_cast<double>(y) + 0.5) / static_cast<double>(height));
      const bool marked = x >= 10 && x < 40 && y >= 20 && y < 35;
      for (std::size_t c = 0; marked && c < 3; ++c) {
        color[c] = color[c] * 0.6 + (c == 2 ? 255 * 0.4 : 0);
      }
      return color;
    };
    std::shared_ptr<PixelBuffer> screen;
    (void)waitUntil(
        [&] {
          screen = client_.picture(client_.find("preview"));
          bool near = screen && screen->width() == width && screen->height() == height;
          for (std::size_t i = 0; near && i < width * height; i += 7) {
            near = std::abs(colorAt(*screen, i % width, i / width)[1] - wanted(i % width, i / width)[1]) < 3.5;
          }
          return near;
        },
        kPatience);
    EXPECT_TRUE(matches(screen, width, height, 3.5, wanted));
  };
  expectScreen(120, 90);
  client_.resize(client_.find("preview"), 210, 140);
  EXPECT_TRUE(listener_->hears("resize 210"));
  expectScreen(210, 140);
  window->setSize({160, 100});
  EXPECT_TRUE(listener_->hears("resize 160"));
  expectScreen(160, 100);
}

TEST_F(WindowTest, TellsOnItsQueueWhatHappensToIt) {
  const auto window = open("first");
  ASSERT_TRUE(window);
  const auto id = client_.find("first");
  window->contentView()->setBackgroundColor({0, 0, 1, 1});
  EXPECT_TRUE(shows("first", 120, 60, 45, {255, 0, 0, 255}));
  client_.giveFocus(id);
  EXPECT_TRUE(listener_->hears("key"));
  EXPECT_TRUE(window->isKey());
  const auto other = open("second");
  client_.giveFocus(client_.find("second"));
  EXPECT_TRUE(listener_->hears("no key"));
  window->setVisible(false);
  EXPECT_TRUE(listener_->hears("hidden"));
  EXPECT_FALSE(window->visible());
  window->contentView()->setBackgroundColor({0, 1, 0, 1});
  window->setVisible(true);
  EXPECT_TRUE(listener_->hears("shown"));
  EXPECT_TRUE(shows("first", 120, 60, 45, {0, 255, 0, 255}));
  window->setTitle("renamed");
  EXPECT_TRUE(shows("renamed", 120, 60, 45, {0, 255, 0, 255}));
  client_.askToClose(id);
  EXPECT_TRUE(listener_->hears("close?"));
  EXPECT_NE(client_.find("renamed"), 0U) << "it is the application that closes it";
  window->close();
  EXPECT_TRUE(waitUntil([&] { return client_.find("renamed") == 0; }, kPatience));
  EXPECT_NE(client_.find("second"), 0U);
}

/// Holds whoever draws it until it is told to go on.
class SlowView : public View {
 public:
  using View::View;
  void draw(cairo_t*, Size) override {
    ++draws;
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return open_; });
  }
  void release() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  std::atomic<int> draws = 0;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

TEST_F(WindowTest, ASlowWindowHoldsNothingUpAndShowsTheNewest) {
  const auto window = open("slow");
  ASSERT_TRUE(window);
  const auto slow = std::make_shared<SlowView>(Rect{0, 0, 1, 1});
  const auto view = GPUImageView::create({0, 0, 120, 90});
  window->contentView()->addSubview(view);
  window->contentView()->addSubview(slow);
  source_->addTarget(view);
  ASSERT_TRUE(waitUntil([&] { return slow->draws > 0; }, kPatience));
  const auto before = counted();
  auto picture = PixelBuffer::create(PixelFormat::BGRA, 120, 90);
  for (int i = 1; i <= 100; ++i) {
    std::fill_n(picture->plane(0).base, picture->plane(0).bytesPerRow * 90, static_cast<std::uint8_t>(i));
    source_->send(*picture, MediaTime::make(i, 30));
  }
  const auto done = counted() - before;
  EXPECT_LE(done.draws, 100U + 2) << "one a frame is the source's";
  EXPECT_LE(done.reads, 2U);
  slow->release();
  EXPECT_TRUE(shows("slow", 120, 60, 45, {100, 100, 100, 255}));
}

TEST_F(WindowTest, ViewsAndWindowsEndWhileFramesFlow) {
  whileMeddling([&] { send(); },
                [&] {
                  for (int i = 0; i < 20; ++i) {
                    const auto window = open("brief");
                    ASSERT_TRUE(window);
                    const auto view = GPUImageView::create({0, 0, 120, 90});
                    source_->addTarget(view);
                    window->contentView()->addSubview(view);
                    if (i % 2 == 0) {
                      ASSERT_TRUE(listener_->hears("shown"));
                      (void)view->picture();
                    }
                    source_->removeTarget(view);
                  }
                });
  EXPECT_TRUE(waitUntil([&] { return client_.find("brief") == 0; }, kPatience));
}

TEST(Windows, AreNotMadeWithoutADisplay) {
  unsetenv("DISPLAY");
  unsetenv("WAYLAND_DISPLAY");
  unsetenv("XDG_RUNTIME_DIR");
  const LogCapture log;
  EXPECT_EQ(makeSdlWindows()->makeWindow({.title = "none"}), nullptr);
  EXPECT_EQ(log.count(LogLevel::Warning, "no window can be shown on this machine: neither DISPLAY nor"), 1U);
  EXPECT_EQ(log.count(""), 1U);
}

TEST(WindowsDeathTest, SurviveTheirXServer) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        XvfbServer server;
        const auto queue = defaultPlatform()->queues->makeSerialQueue("test.windows");
        const auto listener = std::make_shared<Listener>(queue);
        const auto windows = makeSdlWindows();
        const auto window = windows->makeWindow({.title = "orphan", .delegate = listener, .queue = queue});
        const bool shown = listener->hears("shown");
        server.kill();
        const bool vanished = listener->hears("vanished");
        const bool refused = windows->makeWindow({.title = "late"}) == nullptr;
        std::_Exit(shown && vanished && refused ? 0 : 1);
      },
      testing::ExitedWithCode(0), "the window system has gone; windows lost: 1");
}

}  // namespace
}  // namespace zellive::test
