#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "zellive/platform/Geometry.h"
#include "zellive/platform/PixelBuffer.h"
#include "zellive/platform/Platform.h"

namespace zellive {

class FitSizePainter;
class ZelLivePixelBufferFitSizeFilter;

/// Receives the renderer's pictures.
class ZelLivePixelBufferFitSizeDelegate {
 public:
  virtual ~ZelLivePixelBufferFitSizeDelegate() = default;
  /// `timeStamp`: milliseconds, as it was given. A picture that passes arrives on the thread that called
  /// renderPixelBuffer, a drawn one on the renderer's queue. Nobody writes the picture again while it is held.
  virtual void filterPixelBuffer(ZelLivePixelBufferFitSizeFilter& filter, std::shared_ptr<PixelBuffer> pixelBuffer,
                                 double timeStamp) = 0;
  /// A picture that was waiting has been handed over, or dropped. On the renderer's queue.
  virtual void filterDidFinishPicture(ZelLivePixelBufferFitSizeFilter& /*filter*/) {}
};

/// Brings pictures to the shape of the output.
///
/// A picture that has it (width ÷ height equal to two decimals) is handed on as it is, at its own size, at once; the
/// encoder scales it. Any other is drawn on the GPU, as large as fits and in the middle, into a BGRA picture of the
/// output's size; what is left over is black. It follows later, and what passes meanwhile waits behind it, so that
/// pictures keep their order.
///
/// Only BGRA and BiPlanarFullRange are drawn, the latter by the matrix of BT.601 (`draws` tells); for a picture in
/// another format the last drawn one is handed over once more. Where the machine has no OpenGL ES, pictures that would
/// have to be drawn are dropped, and a message says so. No failure reaches the delegate: each is logged, and costs at
/// most the picture concerned. Every operation may be called on any thread. The end waits for a drawing under way, not
/// for the delegate.
class ZelLivePixelBufferFitSizeFilter : public std::enable_shared_from_this<ZelLivePixelBufferFitSizeFilter> {
 public:
  /// `videoSize`: the output in pixels; fractions are cut off. Nothing on the GPU is made before the first picture that
  /// needs it.
  [[nodiscard]] static std::shared_ptr<ZelLivePixelBufferFitSizeFilter> create(
      Size videoSize, std::shared_ptr<const Platform> platform = defaultPlatform());
  ~ZelLivePixelBufferFitSizeFilter();
  ZelLivePixelBufferFitSizeFilter(const ZelLivePixelBufferFitSizeFilter&) = delete;
  ZelLivePixelBufferFitSizeFilter& operator=(const ZelLivePixelBufferFitSizeFilter&) = delete;

  /// Null is ignored; a picture that is not shareable, or of no size, is refused with a log line; one that comes while
  /// four are waiting is dropped. `timeStamp`: milliseconds.
  void renderPixelBuffer(std::shared_ptr<PixelBuffer> pixelBuffer, double timeStamp);

  /// Whether a picture of this size is handed on as it is.
  [[nodiscard]] bool passes(std::size_t width, std::size_t height) const;
  /// Whether a picture in this format is drawn, and in its own colours.
  [[nodiscard]] static bool draws(const PixelBuffer& pixelBuffer);

  /// The time stamp of the oldest picture that waits to be drawn or is on its way to the delegate.
  [[nodiscard]] std::optional<std::uint64_t> oldestPicture() const;
  /// Pictures dropped because too many were waiting.
  [[nodiscard]] std::uint64_t droppedPictures() const;

  /// To be called when the device has been turned. isExchange() changes when it went from upright to lying, or back;
  /// lying flat counts for nothing. Drawing does not depend on it: whoever turns the output makes a new renderer.
  void orientationChange();
  [[nodiscard]] bool isExchange() const;

  [[nodiscard]] std::shared_ptr<ZelLivePixelBufferFitSizeDelegate> delegate() const;
  void setDelegate(std::weak_ptr<ZelLivePixelBufferFitSizeDelegate> delegate);
  /// The context that pictures are drawn with, of OpenGL ES 3; null until the first one is.
  [[nodiscard]] std::shared_ptr<GraphicsContext> context() const;
  /// Draws the pictures that follow with `context`, which must be current nowhere, or, null, with a new one.
  void setContext(std::shared_ptr<GraphicsContext> context);

 private:
  ZelLivePixelBufferFitSizeFilter(Size videoSize, std::shared_ptr<const Platform> platform);

  enum class Admission { PassNow, Queued, Dropped };
  [[nodiscard]] Admission admit(bool passes, double timeStamp);
  void finishPicture(std::shared_ptr<PixelBuffer> pixelBuffer, double timeStamp);

  const std::shared_ptr<const Platform> platform_;
  const double videoRatio_;
  const std::shared_ptr<FitSizePainter> painter_;

  mutable std::mutex mutex_;
  std::weak_ptr<ZelLivePixelBufferFitSizeDelegate> delegate_;  // All guarded by mutex_.
  std::vector<std::uint64_t> inFlight_;                        // Time stamps.
  std::uint64_t dropped_ = 0;
  std::int64_t lastDeviceOrientation_ = 0;
  bool isExchange_ = false;

  std::shared_ptr<Queue> contextQueue_;
};

}  // namespace zellive
