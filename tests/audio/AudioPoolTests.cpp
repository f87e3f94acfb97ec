#include "zellive/audio/ZelLiveAudioPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "tests/support/Event.h"

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

struct AudioPool : testing::Test {
  std::shared_ptr<ZelLiveAudioPool> pool = ZelLiveAudioPool::create();
  std::shared_ptr<Collector> collector = std::make_shared<Collector>();
  AudioPool() { pool->setDelegate(collector); }
};

struct Marker : ZelLiveProcessFilterProtocol {
  explicit Marker(std::uint8_t summand) : add(summand) {}
  std::uint8_t add;
  void processAudio(std::span<std::uint8_t> bytes) override {
    EXPECT_EQ(bytes.size(), 960U);
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
    double stamp = last_;
    std::size_t at = 0;
    for (; at + size_ <= all.size(); at += size_) {
      const float bytes = static_cast<float>(at == 0 ? size_ - left_.size() : size_);
      const double fraction = bytes / static_cast<float>(input.data.size());
      stamp = stamp + (input.timeStamp - last_) * fraction;
      out.push_back({Bytes(all.data() + at, all.data() + at + size_), stamp});
    }
    left_ = Bytes(all.data() + at, all.data() + all.size());
    last_ = input.timeStamp;
    return out;
  }

 private:
  std::size_t size_;
  Bytes left_;
  double last_ = 0;
};

TEST_F(AudioPool, AgreesWithThePlainFormOnRandomBlocksWithAndWithoutFilters) {
  const std::vector<std::size_t> sizes = {0,   1,   2,    63,   64,   512,  896,  959,
                                          960, 961, 1023, 1024, 1920, 2048, 9600, 40000};
  std::mt19937 random(20);
  PlainStage receive(960);
  PlainStage send(1024);
  Marker markers[] = {Marker(7), Marker(1)};
  std::vector<Block> expected;
  double time = 12.5;
  for (int call = 0; call < 3000; ++call) {
    const bool filtered = call >= 1000;
    if (call == 1000) {
      pool->setFilters({std::make_shared<Marker>(7), nullptr, std::make_shared<Marker>(1)});
    }
    Block input{Bytes(call % 2 == 0 ? sizes[random() % sizes.size()] : random() % 4000), time};
    std::ranges::generate(input.data, [&] { return static_cast<std::uint8_t>(random()); });
    const Bytes untouched = input.data;
    pool->receiveAudioData(input.data, time);
    ASSERT_EQ(input.data, untouched);
    for (Block& block : receive.feed(input)) {
      for (Marker& marker : std::span(markers).first(filtered ? 2 : 0)) {
        marker.processAudio(block.data);
      }
      std::ranges::copy(send.feed(block), std::back_inserter(expected));
    }
    time += static_cast<double>(random() % 1000) / 7;
  }
  EXPECT_GT(expected.size(), 2000U);
  EXPECT_TRUE(collector->blocks == expected);
}

TEST_F(AudioPool, StampsBlocksByTheShareOfTheCallThatTheyUse) {
  pool->receiveAudioData(Bytes(959), 10);
  pool->receiveAudioData(Bytes(1), 20);
  EXPECT_TRUE(collector->blocks.empty());
  // The second stage holds 960 bytes of stamp 20 and is given blocks of stamps 25 and 30.
  pool->receiveAudioData(Bytes(1920), 30);
  ASSERT_EQ(collector->blocks.size(), 2U);
  EXPECT_DOUBLE_EQ(collector->blocks[0].timeStamp, 20 + 5.0 * (64 / 960.0F));
  EXPECT_DOUBLE_EQ(collector->blocks[1].timeStamp, 25 + 5.0 * (128 / 960.0F));
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
  struct Releasing : ZelLiveAudioPoolDelegate {
    std::shared_ptr<ZelLiveAudioPool> pool = ZelLiveAudioPool::create();
    int blocks = 0;
    void processedAudioData(ZelLiveAudioPool&, std::span<const std::uint8_t>, double) override {
      ++blocks;
      pool.reset();
    }
  };
  const auto releasing = std::make_shared<Releasing>();
  releasing->pool->setDelegate(releasing);
  releasing->pool->receiveAudioData(Bytes(9600), 1);
  EXPECT_EQ(releasing->blocks, 9);
}

TEST_F(AudioPool, LevelAndListMayChangeWhileAudioRuns) {
  std::int64_t level = 0;
  const auto change = [&] {
    pool->setDenoiseLevel(++level % 5);
    pool->setDelegate(collector);
    if (level % 16 == 0) {
      pool->setFilters({});
    }
  };
  test::whileMeddling(change, [&] {
    for (int i = 0; i < 100; ++i) {
      pool->receiveAudioData(Bytes(1500, static_cast<std::uint8_t>(i)), i);
    }
  });
  EXPECT_EQ(collector->blocks.size(), 100 * 1500 / 960 * 960 / 1024U);
}

}  // namespace
}  // namespace zellive
