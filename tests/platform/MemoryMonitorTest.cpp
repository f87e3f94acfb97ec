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
  ~MemoryMonitorTest() override { std::filesystem::remove(path_); }
  void start() {
    monitor_ = MemoryMonitor::create(manual_.time->mainQueue(), manual_.time, manual_.notifications,
                                     {.pressure = "/does/not/exist", .memoryInfo = path_});
    manual_.runPending();
  }
  void write(const std::string& text) { std::ofstream(path_) << text; }
  /// Lets time pass with so much of 100000 kB available.
  void pass(int kibibytes, std::chrono::seconds duration) {
    write("MemTotal:  100000 kB\nHugePages_Total:  0\nMemAvailable:  " + std::to_string(kibibytes) + " kB\n");
    manual_.advance(duration);
  }

  test::ManualPlatform manual_;
  test::LogCapture log_;
  std::string path_ = std::filesystem::temp_directory_path() / ("zellive-meminfo-" + std::to_string(getpid()));
  int warnings_ = 0;
  NotificationCenter::Observation observation_ = manual_.notifications->addObserver(
      notification::DidReceiveMemoryWarning, [this](const UserInfo&) { ++warnings_; });
  std::shared_ptr<MemoryMonitor> monitor_;
};

TEST_F(MemoryMonitorTest, WarnsOnceUntilMemoryHasRecoveredAndAtMostOnceInThirtySeconds) {
  pass(50000, 0s);
  start();
  pass(50000, 60s);
  EXPECT_EQ(warnings_, 0);
  pass(4000, 300s);
  pass(6000, 5s);  // More than at the warning, but no recovery.
  pass(4000, 60s);
  EXPECT_EQ(warnings_, 1);
  pass(20000, 5s);
  for (int i = 0; i < 4; ++i) {  // Short and well again every 10 s.
    pass(4000, 5s);
    pass(50000, 5s);
  }
  EXPECT_EQ(warnings_, 3);
  monitor_.reset();
  pass(1000, 60s);
  EXPECT_EQ(warnings_, 3);
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
