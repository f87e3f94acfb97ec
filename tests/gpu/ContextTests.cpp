#include <GLES2/gl2.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/gpu/GpuTest.h"
#include "tests/support/Event.h"
#include "tests/support/ManualPlatform.h"
#include "zellive/gpu/ShaderSources.h"

namespace zellive::test {
namespace {

TEST(Context, NestedDispatchRunsInlineWhicheverContextItIsFor) {
  GPUImageContext other;
  std::string order;
  runSynchronouslyOnContextQueue(other, [&] {
    EXPECT_TRUE(other.contextQueue()->isCurrent());
    runAsynchronouslyOnVideoProcessingQueue([&] { order += '1'; });
    runSynchronouslyOnVideoProcessingQueue([&] {
      EXPECT_TRUE(other.contextQueue()->isCurrent());
      order += '2';
    });
    runAsynchronouslyOnContextQueue(other, [&] { order += '3'; });
    order += '4';
  });
  EXPECT_EQ(order, "1234");
  EXPECT_EQ(other.contextQueue()->label(), "com.brackenvale.GPUImage.openGLESContextQueue");
  EXPECT_FALSE(isOnContextQueue());

  Event ran;
  runAsynchronouslyOnVideoProcessingQueue([&] {
    EXPECT_TRUE(GPUImageContext::sharedContextQueue()->isCurrent());
    runOnMainQueueWithoutDeadlocking([&] { runOnMainQueueWithoutDeadlocking([&] { ran.set(); }); });
  });
  EXPECT_TRUE(ran.wait());
}

TEST(Context, ProgramsAreSharedByEqualSourcesUntilReleased) {
  onQueue([] {
    auto& context = GPUImageContext::sharedImageProcessingContext();
    context.useAsCurrentContext();
    const std::string vertex = kDefaultVertexShaderString;
    const std::string fragment = kPassThroughFragmentShaderString;
    const auto program = context.programForVertexShaderString(vertex, fragment);
    EXPECT_EQ(context.programForVertexShaderString(vertex, fragment), program);
    EXPECT_NE(context.programForVertexShaderString(vertex + " ", fragment), program);
    EXPECT_NE(context.programForVertexShaderString(vertex, fragment + " "), program);
    const auto cache = context.framebufferCache();
    context.releaseContext();
    EXPECT_NE(context.programForVertexShaderString(vertex, fragment), program);
    EXPECT_NE(context.framebufferCache(), cache);
  });
}

TEST(Context, ContextsOfOneShareGroupKnowEachOthersTextures) {
  GPUImageContext owner;
  GPUImageContext stranger;
  GPUImageContext friendly;
  friendly.useSharegroup(owner.context());
  (void)stranger.context();
  stranger.useSharegroup(owner.context());
  GLuint texture = 0;
  runSynchronouslyOnContextQueue(owner, [&] {
    owner.useAsCurrentContext();
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D, texture);
  });
  for (auto* const context : {&friendly, &stranger}) {
    runSynchronouslyOnContextQueue(*context, [&] {
      context->useAsCurrentContext();
      EXPECT_EQ(glIsTexture(texture), context == &friendly) << "too late once there is a context";
    });
  }
}

}  // namespace
}  // namespace zellive::test
