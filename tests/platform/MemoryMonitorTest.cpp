#include "zellive/platform/linux/MemoryMonitor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;

/// A monitor without pressure events, over a file that the test writes.
class MemoryMonitorTest : public testing::Test {
 protected:
  MemoryMonitorTest() {
    path_ = std::filesystem::temp_directory_path() / ("zellive-meminfo-" + std::to_string(getpid()));
    observation_ = manual_.notifications->addObserver(notification::DidReceiveMemoryWarning,
                                                      [this](const UserInfo&) { ++warnings_; });
  }
  ~MemoryMonitorTest() override { std::filesystem::remove(path_); }

  void write(const std::string& text) { std::ofstream(path_) << text; }
  void setAvailable(int kibibytes) {
    write("MemTotal:  100000 kB\nHugePages_Total:  0\nMemAvailable:  " + std::to_string(kibibytes) + " kB\n");
  }
  void start() {
    monitor_ = MemoryMonitor::create(manual_.time->mainQueue(), manual_.time, manual_.notifications,
                                     {.pressure = "/does/not/exist", .memoryInfo = path_});
    manual_.runPending();
  }

  test::ManualPlatform manual_;
  test::LogCapture log_;
  std::filesystem::path path_;
  int warnings_ = 0;
  NotificationCenter::Observation observation_;
  std::shared_ptr<MemoryMonitor> monitor_;
};

TEST_F(MemoryMonitorTest, WarnsOnceUntilMemoryHasRecovered) {
  setAvailable(50000);
  start();
  manual_.advance(60s);
  EXPECT_EQ(warnings_, 0);
  setAvailable(4000);
  manual_.advance(300s);
  EXPECT_EQ(warnings_, 1);
  setAvailable(6000);  // More than at the warning, but no recovery.
  manual_.advance(5s);
  setAvailable(4000);
  manual_.advance(60s);
  EXPECT_EQ(warnings_, 1);
  setAvailable(20000);
  manual_.advance(5s);
  setAvailable(4000);
  manual_.advance(5s);
  EXPECT_EQ(warnings_, 2);
}

TEST_F(MemoryMonitorTest, WarnsAtMostOnceInThirtySeconds) {
  setAvailable(50000);
  start();
  for (int i = 0; i < 4; ++i) {  // Short and well again every 10 s.
    setAvailable(1000);
    manual_.advance(5s);
    setAvailable(50000);
    manual_.advance(5s);
  }
  EXPECT_EQ(warnings_, 2);
}

TEST_F(MemoryMonitorTest, EndsWhenItIsDropped) {
  setAvailable(50000);
  start();
  monitor_.reset();
  setAvailable(1000);
  manual_.advance(60s);
  EXPECT_EQ(warnings_, 0);
  EXPECT_EQ(manual_.time->delayedWork(), 0U);
}

TEST_F(MemoryMonitorTest, GivesUpWhereNothingTells) {
  for (const char* text : {"", "MemTotal: 100000 kB\n", "MemTotal: 0 kB\nMemAvailable: 0 kB\n", "garbage\n\n\n"}) {
    write(text);
    const auto before = log_.count(LogLevel::Warning, "memory cannot be watched");
    start();
    EXPECT_EQ(log_.count(LogLevel::Warning, "memory cannot be watched"), before + 1) << text;
    EXPECT_EQ(manual_.time->delayedWork(), 0U) << text;
  }
  EXPECT_EQ(warnings_, 0);
}

}  // namespace
}  // namespace zellive
