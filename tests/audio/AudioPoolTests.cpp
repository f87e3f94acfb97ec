#include "zellive/audio/ZelLiveAudioPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace zellive {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Collector : ZelLiveAudioPoolDelegate {
  void processedAudioData(ZelLiveAudioPool&, std::span<const std::uint8_t> audioData, double timeStamp) override {
    EXPECT_EQ(audioData.size(), 1024U);
    bytes.insert(bytes.end(), audioData.begin(), audioData.end());
    stamps.push_back(timeStamp);
    onBlock();
  }
  Bytes bytes;
  std::vector<double> stamps;
  std::function<void()> onBlock = [] {};
};

struct AudioPool : testing::Test {
  AudioPool() { pool->setDelegate(collector); }
  std::shared_ptr<ZelLiveAudioPool> pool = ZelLiveAudioPool::create();
  std::shared_ptr<Collector> collector = std::make_shared<Collector>();
};

struct Marker : ZelLiveProcessFilterProtocol {
  explicit Marker(std::uint8_t summand) : add(summand) {}
  void processAudio(std::span<std::uint8_t> bytes) override {
    EXPECT_EQ(bytes.size(), 960U);
    std::ranges::for_each(bytes, [this](auto& byte) { byte = static_cast<std::uint8_t>(byte * 3 + add); });
  }
  const std::uint8_t add;
};

TEST_F(AudioPool, HandsOnEveryByteOfRandomBlocksOnceAndInOrder) {
  for (const bool filtered : {false, true}) {
    pool = ZelLiveAudioPool::create();
    pool->setDelegate(collector = std::make_shared<Collector>());
    if (filtered) {
      pool->setFilters({std::make_shared<Marker>(7), nullptr, std::make_shared<Marker>(1)});
    }
    const std::size_t sizes[] = {0, 1, 63, 64, 896, 959, 960, 961, 1023, 1024, 1920, 2048, 40000};
    std::mt19937 random(20);
    Bytes expected;
    double time = 12.5;
    for (int call = 0; call < 1000; ++call) {
      Bytes input(call % 2 == 0 ? sizes[random() % std::size(sizes)] : random() % 4000);
      std::ranges::generate(input, [&] { return static_cast<std::uint8_t>(random()); });
      const Bytes untouched = input;
      const std::size_t before = collector->stamps.size();
      pool->receiveAudioData(input, time);
      ASSERT_EQ(input, untouched);
      for (const auto byte : input) {
        expected.push_back(static_cast<std::uint8_t>(filtered ? (byte * 3 + 7) * 3 + 1 : byte));
      }
      // Stamps never go back, nor beyond the call's own but for the rounding of its shares.
      EXPECT_TRUE(std::ranges::is_sorted(collector->stamps));
      EXPECT_TRUE(collector->stamps.size() == before || collector->stamps.back() <= time + 1e-3);
      time += static_cast<double>(random() % 1000) / 7;
    }
    expected.resize(expected.size() / 960 * 960 / 1024 * 1024);
    EXPECT_TRUE(collector->bytes == expected);
  }
}

TEST_F(AudioPool, StampsBlocksByTheShareOfTheCallThatTheyUse) {
  pool->receiveAudioData(Bytes(959), 10);
  pool->receiveAudioData(Bytes(1), 20);
  EXPECT_TRUE(collector->stamps.empty());
  // The second stage holds 960 bytes of stamp 20 and is given blocks of stamps 25 and 30.
  pool->receiveAudioData(Bytes(1920), 30);
  EXPECT_EQ(collector->stamps, (std::vector{20 + 5.0 * (64 / 960.0F), 25 + 5.0 * (128 / 960.0F)}));
}

TEST_F(AudioPool, KeepsOneSuppressorOnceALevelWasSet) {
  for (const std::int64_t ignored : {0LL, 4LL, -1LL, 1LL << 32 | 2}) {
    pool->setDenoiseLevel(ignored);
    EXPECT_TRUE(pool->denoiseLevel() == 0 && pool->filters().empty()) << ignored;
  }
  for (const auto& [set, level] : {std::pair{1, 1}, {2, 2}, {0, 2}, {4, 2}, {3, 3}}) {
    pool->setDenoiseLevel(set);
    EXPECT_EQ(pool->denoiseLevel(), level) << set;
    EXPECT_EQ(pool->filters(), ZelLiveAudioPool::Filters{pool->rnnoise()});
  }
}

TEST_F(AudioPool, SurvivesItsOwnerInsideTheCall) {
  collector->onBlock = [this] { pool.reset(); };
  pool->receiveAudioData(Bytes(9600), 1);
  EXPECT_EQ(collector->stamps.size(), 9U);
}

}  // namespace
}  // namespace zellive
