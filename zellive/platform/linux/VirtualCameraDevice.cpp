#include "zellive/platform/linux/VirtualCameraDevice.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "zellive/platform/linux/RawPicture.h"

namespace zellive {
namespace {

bool isBiPlanar(PixelFormat format) {
  return format == PixelFormat::BiPlanarFullRange || format == PixelFormat::BiPlanarVideoRange;
}

RawPicture rawPictureOf(const PixelBuffer& picture) {
  RawPicture raw;
  raw.layout = picture.format() == PixelFormat::BGRA     ? RawLayout::BGRA
               : picture.format() == PixelFormat::Planar ? RawLayout::I420
                                                         : RawLayout::NV12;
  raw.width = picture.width();
  raw.height = picture.height();
  raw.fullRange = picture.format() == PixelFormat::BiPlanarFullRange;
  for (std::size_t i = 0; i < picture.planeCount(); ++i) {
    raw.planes[i] = {picture.plane(i).base, picture.plane(i).bytesPerRow};
  }
  return raw;
}

}  // namespace

class VirtualCameraDevice::Feed : public CameraFeed {
 public:
  Feed(const VirtualCamera& camera, const CameraRequest& request, std::weak_ptr<CameraFeedSink> sink,
       QueueService& queues, std::shared_ptr<MediaClock> clock)
      : run_(std::make_shared<Run>(camera, request, std::move(sink), std::move(clock),
                                   queues.makeSerialQueue("zellive.virtual-camera"))) {
    run_->queue->async([run = run_] { run->begin(); });
  }

  ~Feed() override {
    const std::lock_guard lock(run_->mutex);
    run_->sink.reset();
    if (run_->next) {
      run_->next->cancel();
    }
  }

  Feed(const Feed&) = delete;
  Feed& operator=(const Feed&) = delete;

 private:
  struct Run : std::enable_shared_from_this<Run> {
    Run(const VirtualCamera& source, const CameraRequest& asked, std::weak_ptr<CameraFeedSink> to,
        std::shared_ptr<MediaClock> time, std::shared_ptr<Queue> own)
        : camera(source), request(asked), sink(std::move(to)), clock(std::move(time)), queue(std::move(own)) {
      auto formats = camera.formats;
      for (auto& format : formats) {
        format.encoding = "NV12";  // Its own are for people.
      }
      formats = bySuitability(std::move(formats), request);
      const CaptureDeviceFormat chosen =
          !formats.empty() ? formats.front() : CaptureDeviceFormat{{}, request.size.width, request.size.height};
      size = {chosen.width, chosen.height};
      const auto rate = [](double perSecond) {
        const std::chrono::duration<double> seconds(1 / std::max(perSecond, 1e-3));
        return std::max(kLeastFrameDuration, std::chrono::duration_cast<std::chrono::nanoseconds>(seconds));
      };
      duration = request.frameDuration.count() > 0 ? request.frameDuration
                                                   : rate(camera.frameRate > 0 ? camera.frameRate : 30);
      if (chosen.maxFrameRate > 0) {
        duration = std::max(duration, rate(chosen.maxFrameRate));
      }
    }

    void begin() {
      pictures = camera.makePictures ? camera.makePictures() : nullptr;
      began = clock->now();
      if (pictures) {
        make();
      }
    }

    void make() {
      const auto time = duration * number;
      auto picture = fit(pictures->pictureAt(time, request.format, size.width, size.height));
      if (const auto to = living(); to && picture) {
        to->feedDelivers({std::move(picture), MediaTime::make((began + time).count(), 1'000'000'000)});
      }
      const auto elapsed = clock->now() - began;
      number = std::max(number + 1, static_cast<std::int64_t>(elapsed / duration));
      const std::lock_guard lock(mutex);
      if (!sink.expired()) {
        next = queue->after(began + duration * number - clock->now(), [weak = weak_from_this()] {
          if (const auto self = weak.lock()) {
            self->make();
          }
        });
      }
    }

    [[nodiscard]] std::shared_ptr<CameraFeedSink> living() {
      const std::lock_guard lock(mutex);
      return sink.lock();
    }

    [[nodiscard]] std::shared_ptr<PixelBuffer> fit(std::shared_ptr<PixelBuffer> picture) {
      if (!picture || picture->format() == request.format) {
        return picture;
      }
      if (!pool || pool->width() != picture->width() || pool->height() != picture->height()) {
        pool = PixelBufferPool::create(request.format, picture->width(), picture->height());
      }
      auto fitted = pool ? pool->acquire() : nullptr;
      if (fitted) {
        toBiPlanar(rawPictureOf(*picture), *fitted);
        fitted->setColorMatrix(isBiPlanar(picture->format()) || picture->format() == PixelFormat::Planar
                                   ? picture->colorMatrix()
                                   : ColorMatrix::BT601);
      }
      return fitted;
    }

    const VirtualCamera camera;
    const CameraRequest request;
    std::mutex mutex;  // Guards the next two.
    std::weak_ptr<CameraFeedSink> sink;
    std::shared_ptr<DelayedWork> next;
    const std::shared_ptr<MediaClock> clock;
    const std::shared_ptr<Queue> queue;

    // Of the queue.
    PictureSize size;
    std::chrono::nanoseconds duration{};
    std::chrono::nanoseconds began{};
    std::int64_t number = 0;
    std::unique_ptr<VirtualCameraPictures> pictures;
    std::shared_ptr<PixelBufferPool> pool;
  };

  const std::shared_ptr<Run> run_;
};

VirtualCameraDevice::VirtualCameraDevice(VirtualCamera camera, std::shared_ptr<QueueService> queues,
                                         std::shared_ptr<MediaClock> clock)
    : camera_(std::move(camera)), queues_(std::move(queues)), clock_(std::move(clock)) {}

std::unique_ptr<CameraFeed> VirtualCameraDevice::open(const CameraRequest& request,
                                                      std::weak_ptr<CameraFeedSink> sink) {
  return std::make_unique<Feed>(camera_, request, std::move(sink), *queues_, clock_);
}

}  // namespace zellive
