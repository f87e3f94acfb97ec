#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "zellive/gpu/GPUImageInput.h"
#include "zellive/platform/View.h"

namespace zellive {

class GLProgram;

/// How a picture of another shape than the view's lies in it.
enum class GPUImageFillMode : int {
  Stretch = 0,                     ///< All of the picture, in the shape of the view.
  PreserveAspectRatio = 1,         ///< All of the picture, in the middle; the background beside it.
  PreserveAspectRatioAndFill = 2,  ///< All of the view, with the middle of the picture.
};

/// A view that shows the newest frame of its source, over its background colour (black at first), in a window or for
/// whoever asks for picture().
///
/// The pipeline never waits for the view: a frame is kept, not drawn, until whoever shows the view has taken the one
/// before; those in between are let go. A view that nobody shows costs no drawing.
///
/// Any thread, as for View; the operations of GPUImageInput belong to the video-processing queue. The view holds one
/// frame of its source, and with it one of its framebuffers.
class GPUImageView : public View, public GPUImageInput {
 public:
  [[nodiscard]] static std::shared_ptr<GPUImageView> create(Rect frame = {});
  ~GPUImageView() override;

  /// PreserveAspectRatio at first.
  [[nodiscard]] GPUImageFillMode fillMode() const;
  void setFillMode(GPUImageFillMode mode);

  /// What the view shows of its newest frame, in whole pixels of its size: BGRA, multiplied by alpha. Nobody writes it
  /// any more. Null where there is no OpenGL ES or the view has no size. Waits for the video-processing queue; the same
  /// picture is drawn once.
  [[nodiscard]] std::shared_ptr<PixelBuffer> picture();

  /// Draws what has been drawn last; where that is not the newest, it asks for the newest, which will need display.
  void draw(cairo_t* context, Size size) override;

  void newFrameReadyAtTime(MediaTime frameTime, std::size_t index) override;
  void setInputFramebuffer(std::shared_ptr<GPUImageFramebuffer> framebuffer, std::size_t index) override;
  [[nodiscard]] std::size_t nextAvailableTextureIndex() const override { return 0; }
  void setInputSize(Size size, std::size_t index) override;
  void setInputRotation(GPUImageInputTurn turn, std::size_t index) override;
  /// The view's own size.
  [[nodiscard]] Size maximumOutputSize() const override;
  /// The last frame stays.
  void endProcessing() override {}
  [[nodiscard]] bool shouldIgnoreUpdatesToThisTarget() const override { return false; }
  [[nodiscard]] bool enabled() const override { return true; }
  [[nodiscard]] bool wantsMonochromeInput() const override { return false; }
  void setCurrentlyReceivingMonochromeInput(bool) override {}

 private:
  struct Frame {
    std::shared_ptr<GPUImageFramebuffer> framebuffer;  // Locked.
    Size size;
    GPUImageInputTurn turn = kGPUImageTurnNone;
  };
  /// All that a picture depends on.
  struct Look {
    std::uint64_t frame = 0;
    Size size;
    RGBAColor background;
    GPUImageFillMode fillMode = GPUImageFillMode::PreserveAspectRatio;
    friend bool operator==(const Look&, const Look&) = default;
  };

  explicit GPUImageView(Rect frame);
  [[nodiscard]] Look look() const;
  /// Queue: draws and reads the picture of the present look, if it is not there already.
  void renderIfBehind();
  /// Whether the frame as it is is what would be drawn; its bytes may have been read by another stage already.
  [[nodiscard]] bool isAsDrawn(const Look& look) const;
  void render(const Look& look);
  void drawFrame(const Look& look);
  void renderLater();

  // On the video-processing queue.
  Frame coming_;
  Frame shown_;
  std::shared_ptr<GPUImageFramebuffer> output_;
  std::shared_ptr<GLProgram> program_;

  std::atomic<std::uint64_t> frames_ = 0;
  std::atomic<bool> renderPosted_ = false;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  GPUImageFillMode fillMode_ = GPUImageFillMode::PreserveAspectRatio;
  std::shared_ptr<PixelBuffer> picture_;
  Look pictureLook_;
  bool wanted_ = false;  // Somebody has taken picture_ and would take the next.
};

}  // namespace zellive
