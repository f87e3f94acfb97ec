// The small services of a platform: notifications and the memory monitor.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/ManualPlatform.h"
#include "zellive/platform/linux/MemoryMonitor.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;

TEST(NotificationCenter, CallsTheObserversOfOneNameInOrderUntilTheirObservationsEnd) {
  NotificationCenter center;
  std::string calls;
  std::vector<NotificationCenter::Observation> observations;
  for (const char letter : {'a', 'b', 'c'}) {
    observations.push_back(center.addObserver("name", [&calls, letter](const UserInfo&) { calls += letter; }));
  }
  const auto other = center.addObserver("other", [&](const UserInfo& info) { calls += std::to_string(info.at("x")); });
  center.post("name");
  center.post("nobody");
  center.post("other", {{"x", 7}});
  observations[0] = std::move(observations[1]);  // Ends what it observed so far.
  center.post("name");
  observations.clear();
  center.post("name");
  EXPECT_EQ(calls, "abc7bc");
}

TEST(NotificationCenter, HandlersMayEndObservationsAndTheCentreThatCallsThem) {
  auto center = std::make_unique<NotificationCenter>();
  std::string calls;
  NotificationCenter::Observation next;
  NotificationCenter::Observation own = center->addObserver("name", [&](const UserInfo&) {
    calls += "own ";
    own = {};
    next = {};
    center.reset();
  });
  next = center->addObserver("name", [&](const UserInfo&) { calls += "next "; });
  center->post("name");
  EXPECT_EQ(calls, "own ");
}

/// A monitor over files that the test makes.
class MemoryMonitorTest : public testing::Test {
 protected:
  ~MemoryMonitorTest() override { std::filesystem::remove(path_); }
  void start(const MemoryMonitor::Sources& sources) {
    monitor_ = MemoryMonitor::create(manual_.time->mainQueue(), manual_.time, manual_.notifications, sources);
    manual_.runPending();
  }
  /// Lets time pass with so much of 100000 kB available.
  void pass(int kibibytes, std::chrono::seconds duration) {
    std::ofstream(path_) << "MemTotal:  100000 kB\nHugePages_Total:  0\nMemAvailable:  " << kibibytes << " kB\n";
    manual_.advance(duration);
  }

  test::ManualPlatform manual_;
  test::LogCapture log_;
  std::string path_ = std::filesystem::temp_directory_path() / ("zellive-memory-" + std::to_string(getpid()));
  int warnings_ = 0;
  NotificationCenter::Observation observation_ = manual_.notifications->addObserver(
      notification::DidReceiveMemoryWarning, [this](const UserInfo&) { ++warnings_; });
  std::shared_ptr<MemoryMonitor> monitor_;
};

TEST_F(MemoryMonitorTest, WarnsOfPressureThatTheKernelTells) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  start({.pressure = path_, .memoryInfo = ""});
  std::string request;
  std::getline(std::ifstream(path_), request, '\0');
  EXPECT_EQ(request, "some 200000 2000000");
  manual_.time->tellReadable();
  manual_.time->tellReadable();
  EXPECT_EQ(warnings_, 1) << "at most one in 30 s";
  manual_.advance(30s);
  manual_.time->tellReadable();
  EXPECT_EQ(warnings_, 2);
}

TEST_F(MemoryMonitorTest, ElsewhereWarnsOnceUntilMemoryHasRecoveredAndAtMostOnceInThirtySeconds) {
  pass(50000, 0s);
  start({.pressure = "/does/not/exist", .memoryInfo = path_});
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
  for (const char* text : {"", "MemTotal: 0 kB\nMemAvailable: 0 kB\n", "garbage\n\n\n"}) {
    std::ofstream(path_) << text;
    const test::LogCapture log;
    start({.pressure = "/does/not/exist", .memoryInfo = path_});
    EXPECT_EQ(log.count(LogLevel::Warning, "memory cannot be watched"), 1U) << text;
  }
  EXPECT_EQ(manual_.time->delayedWork(), 0U);
}

}  // namespace
}  // namespace zellive
