#include <gtest/gtest.h>

#include <chrono>

#include "zellive/session/ZelLiveDebug.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;

TEST(LiveDebug, DescriptionOfAFreshRecord) {
  EXPECT_EQ(ZelLiveDebug().description(),
            "dropFrame:0 unsendFrame:0 senfFrame:0(a:0, v:0) totalBandWidth:0.00MB(a:0.00MB, v:0.00MB) "
            "liveTime:0.000000");
}

TEST(LiveDebug, DescriptionOfARun) {
  ZelLiveDebug debug;
  debug.dropFrame = 3;
  debug.unSendCount = 4;
  debug.totalFrame = 30;
  debug.captureAudioTotalCount = 20;
  debug.captureVideoTotalCount = 10;
  debug.dataFlow = 3'000'000;
  debug.audioDataFlow = 500'000;
  debug.videoDataFlow = 2'500'000;
  debug.startDate = Date(1h);
  const std::string counts =
      "dropFrame:3 unsendFrame:4 senfFrame:30(a:20, v:10) totalBandWidth:3.00MB(a:0.50MB, v:2.50MB) ";
  EXPECT_EQ(debug.description(), counts + "liveTime:0.000000");
  debug.stopDate = Date(1h + 12s + 345678us);
  EXPECT_EQ(debug.description(), counts + "liveTime:12.345678");
  debug.startDate.reset();
  EXPECT_EQ(debug.description(), counts + "liveTime:0.000000");
  debug.dataFlow = 1e306;
  EXPECT_GT(debug.description().size(), 300U);
}

}  // namespace
}  // namespace zellive
