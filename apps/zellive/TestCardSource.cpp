#include "apps/zellive/TestCardSource.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>

#include "apps/zellive/Drawing.h"

namespace zellive::tool {
namespace {

constexpr auto second = std::chrono::nanoseconds(std::chrono::seconds(1));
constexpr double toneHertz = 1000;
constexpr double toneLevel = 8000;
constexpr auto sweepTime = 4 * second;

void copyPicture(const PixelBuffer& from, PixelBuffer& to) {
  for (std::size_t i = 0; i < from.planeCount(); ++i) {
    std::memcpy(to.plane(i).base, from.plane(i).base, from.plane(i).bytesPerRow * from.plane(i).height);
  }
}

std::string clockText(MediaTime time) {
  const auto hundredths = time.count() / 10'000'000;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%02lld:%02lld:%02lld.%02lld", static_cast<long long>(hundredths / 360000),
                static_cast<long long>(hundredths / 6000 % 60), static_cast<long long>(hundredths / 100 % 60),
                static_cast<long long>(hundredths % 100));
  return text.data();
}

}  // namespace

std::unique_ptr<TestCardSource> TestCardSource::create(PictureSize size) {
  if (size.width <= 0 || size.height <= 0) {
    return nullptr;
  }
  std::unique_ptr<TestCardSource> card(new TestCardSource(size));
  const auto width = static_cast<std::size_t>(size.width);
  const auto height = static_cast<std::size_t>(size.height);
  card->pool_ = PixelBufferPool::create(PixelFormat::Planar, width, height);
  card->background_ = PixelBuffer::create(PixelFormat::Planar, width, height);
  if (!card->pool_ || !card->background_) {
    return nullptr;
  }
  card->drawBackground();
  return card;
}

/// Bars above, a grey ramp below, and a dark field between them for what moves.
void TestCardSource::drawBackground() {
  const std::array bars{colourOf(191, 191, 191), colourOf(191, 191, 0), colourOf(0, 191, 191), colourOf(0, 191, 0),
                        colourOf(191, 0, 191),   colourOf(191, 0, 0),   colourOf(0, 0, 191)};
  const int count = static_cast<int>(bars.size());
  fill(*background_, {0, 0, size_.width + 1, size_.height + 1}, black);
  for (int i = 0; i < count; ++i) {
    const int left = size_.width * i / count;
    const int right = size_.width * (i + 1) / count;
    fill(*background_, {left, 0, right - left, size_.height / 2}, bars[static_cast<std::size_t>(i)]);
    const auto grey = 255 * i / (count - 1);
    fill(*background_, {left, size_.height * 7 / 8, right - left, size_.height / 8 + 1}, colourOf(grey, grey, grey));
  }
}

void TestCardSource::readAudio(std::span<std::int16_t> samples) {
  const auto flash = samplesUntil(flashLength);
  for (auto& sample : samples) {
    const auto inSecond = samplesRead_++ % sampleRate;
    // 1 kHz goes through whole periods in 48 samples, so every tone begins and ends at zero.
    sample = inSecond >= flash ? std::int16_t{0}
                               : static_cast<std::int16_t>(std::lround(
                                     toneLevel * std::sin(2 * std::numbers::pi * toneHertz *
                                                          static_cast<double>(inSecond % 48) / sampleRate)));
  }
}

std::shared_ptr<PixelBuffer> TestCardSource::pictureAt(MediaTime time) {
  auto picture = pool_->acquire();
  if (!picture) {
    return nullptr;
  }
  picture->setColorMatrix(ColorMatrix::BT709);
  copyPicture(*background_, *picture);
  if (time % second < flashLength) {
    fill(*picture, {size_.width / 4, size_.height / 8, size_.width / 2, size_.height / 4}, white);
  }
  const int markWidth = std::max(2, size_.width / 40);
  const auto travel = static_cast<std::int64_t>(size_.width - markWidth);
  const auto x = static_cast<int>(travel * (time % sweepTime).count() / sweepTime.count());
  fill(*picture, {x, size_.height * 13 / 16, markWidth, size_.height / 16}, white);

  const std::string text = clockText(time);
  const int letters = static_cast<int>(text.size());
  const int unit = std::max(2, std::min(size_.width * 3 / 4 / (letters * 6), size_.height / 4 / 8) & ~1);
  drawDigits(*picture, (size_.width - letters * 6 * unit) / 2, size_.height * 9 / 16, unit, text, white);
  return picture;
}

}  // namespace zellive::tool
