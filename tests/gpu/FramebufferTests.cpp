#include <GLES2/gl2.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "tests/gpu/Golden.h"
#include "tests/gpu/GpuTest.h"
#include "tests/support/ManualPlatform.h"

namespace zellive::test {
namespace {

void fill(GPUImageFramebuffer& framebuffer, float red) {
  onQueue([&] {
    GPUImageContext::useImageProcessingContext();
    framebuffer.activateFramebuffer();
    glClearColor(red, 0, 0, 1);
    glClear(GL_COLOR_BUFFER_BIT);
  });
}

auto plainRed(double red) {
  return [red](std::size_t, std::size_t) { return Color{0, 0, red, 255}; };
}

void memoryWarning() {
  defaultPlatform()->notifications->post(notification::DidReceiveMemoryWarning);
  onQueue([] {});
}

TEST(FramebufferCache, LastReturnedIsFirstFetchedAndKindsStayApart) {
  const auto first = fetch(33, 20);
  const auto second = fetch(33, 20);
  EXPECT_NE(first, second);
  EXPECT_EQ(first->framebufferReferenceCount(), 1U);
  first->lock();
  first->unlock();
  first->unlock();
  second->unlock();
  const auto texture = fetch(33, 20, true);
  EXPECT_TRUE(texture->missingFramebuffer());
  EXPECT_NE(fetch(33, 21), second);
  EXPECT_EQ(fetch(33, 20), second);
  EXPECT_EQ(fetch(33, 20), first);
  EXPECT_NE(fetch(33, 20), first);
  first->disableReferenceCounting();
  first->unlock();
  EXPECT_NE(fetch(33, 20), first);
}

TEST(FramebufferCache, MemoryWarningForgetsWhatNobodyHolds) {
  auto idle = fetch(40, 30);
  const auto held = fetch(40, 30);
  const std::weak_ptr<GPUImageFramebuffer> gone = idle;
  const auto texture = idle->texture();
  idle->unlock();
  idle.reset();
  memoryWarning();
  EXPECT_TRUE(gone.expired());
  onQueue([&] { EXPECT_EQ(glIsTexture(texture), GL_FALSE); });
  fill(*held, 1);
  EXPECT_TRUE(matches(held->pixelBuffer(), 40, 30, 0, plainRed(255)));
  held->unlock();
  EXPECT_EQ(fetch(40, 30), held);
}

TEST(Framebuffer, BytesAreReadOncePerDrawingAndOnlyWhenAskedFor) {
  const auto framebuffer = fetch(50, 7);
  const auto before = counted();
  fill(*framebuffer, 0.2F);
  fill(*framebuffer, 1);
  EXPECT_EQ((counted() - before).reads, 0U);
  const auto picture = framebuffer->pixelBuffer();
  EXPECT_TRUE(matches(picture, 50, 7, 0, plainRed(255)));
  EXPECT_TRUE(picture->shareable());
  EXPECT_EQ(picture->plane(0).bytesPerRow, framebuffer->bytesPerRow());
  framebuffer->lockForReading();
  EXPECT_EQ(framebuffer->byteBuffer(), picture->plane(0).base);
  framebuffer->unlockAfterReading();
  EXPECT_EQ(framebuffer->pixelBuffer(), picture);
  EXPECT_EQ((counted() - before).reads, 1U);

  // Whoever keeps a picture keeps what it shows.
  fill(*framebuffer, 0);
  EXPECT_TRUE(matches(framebuffer->pixelBuffer(), 50, 7, 0, plainRed(0)));
  EXPECT_TRUE(matches(picture, 50, 7, 0, plainRed(255)));
}

TEST(Framebuffer, ImagesLendItAndGiveItBack) {
  auto framebuffer = fetch(21, 5);
  fill(*framebuffer, 1);
  auto* const address = framebuffer.get();
  auto image = framebuffer->newCGImageFromFramebufferContents();
  ASSERT_TRUE(image);
  EXPECT_EQ(image->layout(), Image::Layout::BGRAPremultiplied);
  EXPECT_EQ(image->bytesPerRow(), framebuffer->bytesPerRow());
  EXPECT_EQ(std::memcmp(image->bytes(), "\0\0\377\377", 4), 0);
  framebuffer.reset();
  memoryWarning();
  EXPECT_EQ(image->bytes()[4 * image->bytesPerRow() + 20 * 4 + 2], 255);
  image.reset();
  EXPECT_EQ(fetch(21, 5).get(), address);
}

TEST(TextureCache, RefusesWhatItCannotMakeAndKeepsWhatIsUsed) {
  onQueue([] {
    auto& context = GPUImageContext::sharedImageProcessingContext();
    context.useAsCurrentContext();
    auto& cache = *context.coreVideoTextureCache();
    const auto picture = samplePicture(PixelFormat::BiPlanarFullRange, 30, 20);
    const std::size_t beyond = static_cast<std::size_t>(GPUImageContext::maximumTextureSizeForThisDevice()) + 1;
    constexpr std::uint32_t kLuma = GL_LUMINANCE;
    const auto status = [&](std::size_t plane, TextureShape shape) {
      return cache.makeTexture(*picture, plane, shape).status;
    };
    EXPECT_EQ(status(0, {kLuma, 30, 20, kLuma}), TextureStatus::Made);
    EXPECT_EQ(status(2, {kLuma, 1, 1, kLuma}), TextureStatus::BadPicture);
    EXPECT_EQ(status(1, {kLuma, 30, 11, kLuma}), TextureStatus::BadPicture);
    EXPECT_EQ(status(0, {.width = 17, .height = 1}), TextureStatus::BadPicture) << "17 x 4 bytes in a row of 64";
    EXPECT_EQ(status(0, {kLuma, 0, 20, kLuma}), TextureStatus::BadPicture);
    EXPECT_EQ(status(0, {kLuma, beyond, 1, kLuma}), TextureStatus::TooLarge);
    EXPECT_EQ(status(0, {kLuma, 8, 8, 0x1234}), TextureStatus::NotSupported);

    // Busy textures are not written over; idle ones serve again, also when each picture is preceded by a flush.
    const auto held = cache.makeTexture(*picture, 0, {kLuma, 8, 8, kLuma}).texture;
    const auto before = counted();
    for (int i = 0; i < 100; ++i) {
      cache.flush(TextureCache::Flush::Stale);
      const auto texture = cache.makeTexture(*picture, 0, {kLuma, 8, 8, kLuma}).texture;
      EXPECT_NE(texture->name, held->name);
    }
    EXPECT_EQ((counted() - before).glObjects, 1U);
    const auto name = held->name;
    cache.flush(TextureCache::Flush::All);
    EXPECT_EQ(glIsTexture(name), GL_TRUE);
  });
}

/// Rows with and without padding, up and down, on a driver with every extension and on one with none.
TEST(TextureCache, CarriesPicturesBothWaysOnAnyDriver) {
  for (const bool plain : {false, true}) {
    for (const auto& [width, height] : {std::pair{16, 3}, {37, 5}}) {
      onQueue([&] {
        auto& context = GPUImageContext::sharedImageProcessingContext();
        context.useAsCurrentContext();
        GpuPlatform::plainDriver = plain;
        const auto cache = context.context()->makeTextureCache();
        GpuPlatform::plainDriver = false;
        const auto picture =
            samplePicture(PixelFormat::BGRA, static_cast<std::size_t>(width), static_cast<std::size_t>(height));
        const TextureShape shape{.width = picture->width(), .height = picture->height()};
        const auto texture = cache->makeTexture(*picture, 0, shape).texture;
        const auto target = cache->makeRenderTarget(shape).texture;
        ASSERT_TRUE(texture && target);
        // A copy by the GPU from the one texture to the other.
        GLuint framebuffer = 0;
        glGenFramebuffers(1, &framebuffer);
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture->name, 0);
        glBindTexture(GL_TEXTURE_2D, target->texture().name);
        glCopyTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 0, 0, width, height);
        const auto copy = target->pixelBuffer();
        glDeleteFramebuffers(1, &framebuffer);
        EXPECT_TRUE(matches(copy, picture->width(), picture->height(), 0, [&](std::size_t x, std::size_t y) {
          return colorAt(*picture, x, y);
        })) << (plain ? "plain driver" : "driver with extensions");
      });
    }
  }
}

}  // namespace
}  // namespace zellive::test
