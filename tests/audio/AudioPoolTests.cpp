#include "zellive/audio/ZelLiveAudioPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

namespace zellive {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Block {
  Bytes data;
  double timeStamp = 0;
  bool operator==(const Block&) const = default;
};

struct Collector : ZelLiveAudioPoolDelegate {
  std::vector<Block> blocks;
  void processedAudioData(ZelLiveAudioPool&, std::span<const std::uint8_t> audioData, double timeStamp) override {
    blocks.push_back({Bytes(audioData.begin(), audioData.end()), timeStamp});
  }
};

struct Fixture {
  std::shared_ptr<ZelLiveAudioPool> pool = ZelLiveAudioPool::create();
  std::shared_ptr<Collector> collector = std::make_shared<Collector>();
  Fixture() { pool->setDelegate(collector); }
};

/// Remembers the blocks that it sees and marks them.
struct Marker : ZelLiveProcessFilterProtocol {
  explicit Marker(std::uint8_t summand) : add(summand) {}
  std::uint8_t add;
  std::vector<Bytes> seen;
  void processAudio(std::span<std::uint8_t> bytes) override {
    seen.emplace_back(bytes.begin(), bytes.end());
    for (auto& byte : bytes) {
      byte = static_cast<std::uint8_t>(byte * 3 + add);
    }
  }
};

/// One stage of the pool in its plainest form: everything is joined in new memory for each call.
class PlainStage {
 public:
  explicit PlainStage(std::size_t size) : size_(size) {}
  std::vector<Block> feed(const Block& input) {
    Bytes all = left_;
    all.insert(all.end(), input.data.begin(), input.data.end());
    std::vector<Block> out;
    const double delta = input.timeStamp - last_;
    double stamp = last_;
    for (std::size_t i = 0; i < all.size() / size_; ++i) {
      const float bytes = static_cast<float>(i == 0 ? size_ - left_.size() : size_);
      const double fraction = bytes / static_cast<float>(input.data.size());
      stamp = stamp + delta * fraction;
      const auto begin = all.begin() + static_cast<std::ptrdiff_t>(i * size_);
      out.push_back({Bytes(begin, begin + static_cast<std::ptrdiff_t>(size_)), stamp});
    }
    left_.assign(all.end() - static_cast<std::ptrdiff_t>(all.size() % size_), all.end());
    last_ = input.timeStamp;
    return out;
  }

 private:
  std::size_t size_;
  Bytes left_;
  double last_ = 0;
};

class AudioPoolCutting : public testing::TestWithParam<bool> {};

TEST_P(AudioPoolCutting, AgreesWithThePlainFormOnRandomBlocks) {
  const bool filtered = GetParam();
  Fixture f;
  const auto first = std::make_shared<Marker>(7);
  const auto second = std::make_shared<Marker>(1);
  if (filtered) {
    f.pool->setFilters({first, nullptr, second});
  }
  PlainStage receive(960);
  PlainStage send(1024);
  Marker plainFirst(7);
  Marker plainSecond(1);
  std::vector<Block> expected;
  std::mt19937 random(20);
  const std::vector<std::size_t> sizes = {0,   1,   2,    63,   64,   512,  896,  959,
                                          960, 961, 1023, 1024, 1920, 2048, 9600, 40000};
  double time = 12.5;
  for (int call = 0; call < 2000; ++call) {
    Block input{Bytes(call % 2 == 0 ? sizes[random() % sizes.size()] : random() % 4000), time};
    std::generate(input.data.begin(), input.data.end(), [&] { return static_cast<std::uint8_t>(random()); });
    const Bytes untouched = input.data;
    f.pool->receiveAudioData(input.data, time);
    ASSERT_EQ(input.data, untouched);
    for (Block& block : receive.feed(input)) {
      if (filtered) {
        plainFirst.processAudio(block.data);
        plainSecond.processAudio(block.data);
      }
      std::ranges::copy(send.feed(block), std::back_inserter(expected));
    }
    time += static_cast<double>(random() % 1000) / 7;
  }
  ASSERT_GT(expected.size(), 2000U);
  EXPECT_TRUE(f.collector->blocks == expected);
  EXPECT_TRUE(first->seen == plainFirst.seen);
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutFilters, AudioPoolCutting, testing::Bool());

TEST(AudioPool, StampsBlocksByTheShareOfTheCallThatTheyUse) {
  Fixture f;
  const auto filter = std::make_shared<Marker>(0);
  f.pool->setFilters({filter});
  f.pool->receiveAudioData(Bytes(959), 10);
  EXPECT_TRUE(filter->seen.empty());
  f.pool->receiveAudioData(Bytes(1), 20);
  EXPECT_EQ(filter->seen.size(), 1U);
  EXPECT_TRUE(f.collector->blocks.empty());
  // The second stage holds 960 bytes of stamp 20 and is given blocks of stamps 25 and 30.
  f.pool->receiveAudioData(Bytes(1920), 30);
  ASSERT_EQ(f.collector->blocks.size(), 2U);
  EXPECT_DOUBLE_EQ(f.collector->blocks[0].timeStamp, 20 + 5.0 * (64 / 960.0F));
  EXPECT_DOUBLE_EQ(f.collector->blocks[1].timeStamp, 25 + 5.0 * (128 / 960.0F));
}

TEST(AudioPool, TakesTenMegabytesInOneCall) {
  Fixture f;
  f.pool->setDenoiseLevel(1);
  f.pool->setFilters({});
  Bytes input(10'000'000);
  std::mt19937 random(3);
  std::generate(input.begin(), input.end(), [&] { return static_cast<std::uint8_t>(random()); });
  f.pool->receiveAudioData(input, 1000);
  // Whole blocks of 960, then whole blocks of 1024.
  ASSERT_EQ(f.collector->blocks.size(), 10'000'000 / 960 * 960 / 1024);
  Bytes joined;
  for (const Block& block : f.collector->blocks) {
    joined.insert(joined.end(), block.data.begin(), block.data.end());
  }
  EXPECT_TRUE(std::equal(joined.begin(), joined.end(), input.begin()));
}

TEST(AudioPool, KeepsOneSuppressorOnceALevelWasSet) {
  Fixture f;
  EXPECT_EQ(f.pool->denoiseLevel(), 0);
  struct Step {
    std::int64_t set;
    std::int64_t level;
    std::size_t filters;
  };
  for (const auto& [set, level, filters] :
       {Step{0, 0, 0}, Step{4, 0, 0}, Step{-1, 0, 0}, Step{std::int64_t{1} << 32 | 2, 0, 0}, Step{1, 1, 1},
        Step{2, 2, 1}, Step{0, 2, 1}, Step{4, 2, 1}, Step{3, 3, 1}}) {
    f.pool->setDenoiseLevel(set);
    EXPECT_EQ(f.pool->denoiseLevel(), level) << set;
    EXPECT_EQ(f.pool->filters().size(), filters) << set;
  }
  EXPECT_EQ(f.pool->filters().front(), f.pool->rnnoise());
  // A new suppressor joins the one in the list with its first level.
  f.pool->setRnnoise(nullptr);
  EXPECT_EQ(f.pool->denoiseLevel(), 0);
  f.pool->setDenoiseLevel(1);
  EXPECT_EQ(f.pool->filters().size(), 2U);
}

TEST(AudioPool, SurvivesItsOwnerInsideTheCall) {
  struct Releasing : ZelLiveAudioPoolDelegate {
    std::shared_ptr<ZelLiveAudioPool> pool;
    int blocks = 0;
    void processedAudioData(ZelLiveAudioPool&, std::span<const std::uint8_t>, double) override {
      ++blocks;
      pool.reset();
    }
  };
  const auto releasing = std::make_shared<Releasing>();
  releasing->pool = ZelLiveAudioPool::create();
  releasing->pool->setDelegate(releasing);
  releasing->pool->receiveAudioData(Bytes(9600), 1);
  EXPECT_EQ(releasing->blocks, 9);
  EXPECT_EQ(releasing->pool, nullptr);
}

TEST(AudioPool, LevelAndListMayChangeWhileAudioRuns) {
  Fixture f;
  std::atomic<bool> done = false;
  std::thread audio([&] {
    for (int i = 0; i < 100; ++i) {
      f.pool->receiveAudioData(Bytes(1500, static_cast<std::uint8_t>(i)), i);
    }
    done = true;
  });
  std::int64_t level = 0;
  while (!done) {
    f.pool->setDenoiseLevel(++level % 5);
    f.pool->setDelegate(f.collector);
    if (level % 16 == 0) {
      f.pool->setFilters({});
    }
  }
  audio.join();
  // 100 calls of 1500 bytes make 156 blocks of 960, and these 146 of 1024.
  EXPECT_EQ(f.collector->blocks.size(), 146U);
}

}  // namespace
}  // namespace zellive
