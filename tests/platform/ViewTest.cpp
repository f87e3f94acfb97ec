// The tree of views, and what it looks like when it is drawn.
#include "zellive/platform/View.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/ManualPlatform.h"
#include "tests/support/Process.h"
#include "zellive/platform/Drawing.h"
#include "zellive/platform/Image.h"
#include "zellive/platform/ImageView.h"
#include "zellive/platform/TextView.h"

namespace zellive::test {
namespace {

using Views = std::vector<std::shared_ptr<View>>;

TEST(View, TreeStaysATreeWhateverIsAsked) {
  struct Case {
    const char* what;
    std::function<void(const Views&)> change;
    std::vector<std::vector<int>> subviews;  // Of views 0, 1, 2; 1 and 2 lie in 0 at first.
  };
  const Case cases[] = {
      {"nothing", [](const Views&) {}, {{1, 2}, {}, {}}},
      {"add to itself", [](const Views& v) { v[1]->addSubview(v[1]); }, {{1, 2}, {}, {}}},
      {"the root to itself", [](const Views& v) { v[0]->insertSubview(v[0], 0); }, {{1, 2}, {}, {}}},
      {"a circle", [](const Views& v) { v[1]->addSubview(v[0]); }, {{1, 2}, {}, {}}},
      {"a longer circle", [](const Views& v) { v[1]->addSubview(v[2]), v[2]->addSubview(v[0]); }, {{1}, {2}, {}}},
      {"null", [](const Views& v) { v[0]->addSubview(nullptr); }, {{1, 2}, {}, {}}},
      {"to the front", [](const Views& v) { v[0]->addSubview(v[1]); }, {{2, 1}, {}, {}}},
      {"to the back", [](const Views& v) { v[0]->insertSubview(v[2], 0); }, {{2, 1}, {}, {}}},
      {"beyond the front", [](const Views& v) { v[0]->insertSubview(v[1], 99); }, {{2, 1}, {}, {}}},
      {"elsewhere", [](const Views& v) { v[2]->addSubview(v[1]); }, {{2}, {}, {1}}},
      {"out", [](const Views& v) { v[1]->removeFromSuperview(), v[1]->removeFromSuperview(); }, {{2}, {}, {}}},
  };
  for (const auto& [what, change, subviews] : cases) {
    Views views{std::make_shared<View>(), std::make_shared<View>(), std::make_shared<View>()};
    views[0]->addSubview(views[1]);
    views[0]->addSubview(views[2]);
    change(views);
    std::vector<std::shared_ptr<View>> parents(3);
    for (std::size_t i = 0; i < 3; ++i) {
      Views expected;
      for (const int child : subviews[i]) {
        expected.push_back(views[static_cast<std::size_t>(child)]);
        parents[static_cast<std::size_t>(child)] = views[i];
      }
      EXPECT_EQ(views[i]->subviews(), expected) << what;
    }
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(views[i]->superview(), parents[i]) << what;
    }
    const std::weak_ptr<View> trace = views[0];
    parents.clear();
    views.clear();
    EXPECT_TRUE(trace.expired()) << what << " keeps itself alive";
  }
}

TEST(View, SidesFollowTheSuperviewAsAskedAndAllChangesAreTold) {
  const auto root = std::make_shared<View>(Rect{0, 0, 100, 80});
  const auto both = std::make_shared<View>(Rect{10, 10, 80, 60});
  const auto inner = std::make_shared<View>(Rect{1, 2, 30, 20});
  both->setAutoresizing(ViewAutoresizingFlexibleWidth | ViewAutoresizingFlexibleHeight);
  inner->setAutoresizing(ViewAutoresizingFlexibleHeight);
  root->addSubview(both);
  both->addSubview(inner);
  int told = 0;
  root->setDisplayHandler([&] { ++told; });
  root->setFrame({5, 5, 150, 60});
  EXPECT_EQ(both->frame(), (Rect{10, 10, 130, 40}));
  EXPECT_EQ(inner->frame(), (Rect{1, 2, 30, 0})) << "no side is below zero";
  inner->setFrame({1, 2, std::numeric_limits<double>::quiet_NaN(), 7});
  EXPECT_EQ(inner->frame(), (Rect{1, 2, 0, 7}));
  inner->setAlpha(0.5);
  inner->setAlpha(0.5);
  inner->setHidden(true);
  inner->setNeedsDisplay();
  EXPECT_EQ(told, 5) << "once for each change, none for what is as it was";
  const auto version = root->contentVersion();
  inner->removeFromSuperview();
  EXPECT_GT(root->contentVersion(), version);
  inner->setBackgroundColor({1, 1, 1, 1});
  EXPECT_EQ(told, 6) << "it is in the tree no more";
}

std::uint32_t pixel(const PixelBuffer& picture, std::size_t x, std::size_t y) {
  const auto* at = picture.plane(0).base + y * picture.plane(0).bytesPerRow + x * 4;
  return std::uint32_t{at[3]} << 24 | std::uint32_t{at[2]} << 16 | std::uint32_t{at[1]} << 8 | at[0];
}

TEST(View, TreeIsDrawnBackToFrontWithItsPartsAsOne) {
  const auto root = std::make_shared<View>(Rect{7, 7, 12, 8});  // Its own place does not matter.
  const auto group = std::make_shared<View>(Rect{2, 1, 8, 6});
  group->setAlpha(0.5);
  group->setBackgroundColor({0, 0, 1, 1});
  const auto front = std::make_shared<View>(Rect{4, 0, 20, 2});  // Reaches out of its superview.
  front->setBackgroundColor({1, 0, 0, 1});
  const auto hidden = std::make_shared<View>(Rect{0, 0, 12, 8});
  hidden->setBackgroundColor({1, 1, 1, 1});
  hidden->setHidden(true);
  const auto image = PixelBuffer::create(PixelFormat::BGRA, 1, 1);
  std::copy_n(std::array<std::uint8_t, 4>{0, 64, 0, 64}.data(), 4, image->plane(0).base);
  std::array<std::uint8_t, 32> memory{};
  for (const std::size_t width : {0, 2}) {  // Those that cannot be drawn are no harm to those that can.
    const auto odd = PixelBuffer::wrap(PixelFormat::BGRA, width, 2, {memory.data()}, {9});
    root->addSubview(std::make_shared<ImageView>(Rect{0, 0, 4, 4}, odd));
  }
  root->addSubview(group);
  group->addSubview(front);
  root->addSubview(hidden);
  root->addSubview(std::make_shared<ImageView>(Rect{0, 6, 3, 2}, image));
  const auto picture = PixelBuffer::create(PixelFormat::BGRA, 12, 8);
  std::fill_n(picture->plane(0).base, picture->plane(0).bytesPerRow * 8, std::uint8_t{9});
  renderView(*root, *picture);
  const std::tuple<int, int, std::uint32_t> expected[] = {
      {0, 0, 0x00000000}, {3, 4, 0x80000080}, {7, 1, 0x80800000}, {11, 2, 0x80800000},
      {0, 7, 0x40004000}, {2, 6, 0xA0004060}, {9, 6, 0x80000080}, {10, 6, 0x00000000},
  };
  for (const auto& [x, y, color] : expected) {
    const auto found = pixel(*picture, static_cast<std::size_t>(x), static_cast<std::size_t>(y));
    for (int shift = 0; shift < 32; shift += 8) {
      EXPECT_NEAR((found >> shift) & 0xFF, (color >> shift) & 0xFF, 1) << x << ", " << y << std::hex << ": " << found;
    }
  }
}

TEST(View, TextIsDrawnWhereItsAlignmentPutsIt) {
  const auto text = std::make_shared<TextView>(Rect{0, 0, 200, 40}, "Hi");
  text->setTextColor({0, 1, 0, 1});
  const auto fits = text->sizeThatFits();
  EXPECT_TRUE(fits.width > 10 && fits.width < 60 && fits.height > 15 && fits.height < 40);
  for (const auto& [alignment, from] : {std::pair{TextAlignment::Left, 0.0},
                                        {TextAlignment::Center, 100 - fits.width / 2},
                                        {TextAlignment::Right, 200 - fits.width}}) {
    text->setAlignment(alignment);
    const auto picture = PixelBuffer::create(PixelFormat::BGRA, 200, 40);
    renderView(*text, *picture);
    std::size_t inked = 0;
    for (std::size_t y = 0; y < 40; ++y) {
      for (std::size_t x = 0; x < 200; ++x) {
        const auto at = static_cast<double>(x);
        const bool ink = pixel(*picture, x, y) != 0;
        inked += ink ? 1 : 0;
        EXPECT_FALSE(ink && (at < from - 2 || at > from + fits.width + 2)) << x << ", " << y;
      }
    }
    EXPECT_GT(inked, 30U);
  }
}

TEST(View, PngKeepsItsTransparencyAndWhatIsNoneIsRefused) {
  const TemporaryDirectory directory;
  const auto path = directory.path() + "/mark.png";
  const std::uint8_t straight[] = {0, 0, 255, 128, 10, 20, 30, 255};
  ASSERT_TRUE(savePNG(Image(Image::Layout::BGRAPremultiplied, 2, 1, 8, straight, {}), path));
  const auto view = ImageView::createWithPNG(path);
  ASSERT_TRUE(view);
  EXPECT_EQ(view->frame(), (Rect{0, 0, 2, 1}));
  EXPECT_EQ(pixel(*view->image(), 0, 0), 0x80800000U);
  EXPECT_EQ(pixel(*view->image(), 1, 0), 0xFF1E140AU);
  const LogCapture log;
  std::ofstream(path, std::ios::binary | std::ios::trunc) << "\x89PNG\r\n\x1a\n and no more";
  EXPECT_EQ(ImageView::createWithPNG(path), nullptr);
  EXPECT_EQ(ImageView::createWithPNG(directory.path() + "/absent.png"), nullptr);
  EXPECT_EQ(log.count(LogLevel::Error, "cannot be read"), 2U);
}

}  // namespace
}  // namespace zellive::test
