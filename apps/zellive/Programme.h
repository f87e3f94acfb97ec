#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "apps/zellive/Waker.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::tool {

/// What is published, from the first picture to the last. On the publisher's thread; times are the Waker's.
class Programme {
 public:
  using Duration = Waker::Duration;

  virtual ~Programme() = default;

  /// For people: "the test card".
  [[nodiscard]] virtual std::string name() const = 0;
  /// Whether it is about devices that are not virtual.
  [[nodiscard]] virtual bool usesHardware() const { return false; }
  /// Bits of ZelLiveCaptureTypeMask for the session.
  [[nodiscard]] virtual std::int64_t captureType() const = 0;
  [[nodiscard]] virtual const std::shared_ptr<ZelLiveVideoConfiguration>& video() const = 0;

  /// The session is made, and starts when this returns.
  virtual void attach(const std::shared_ptr<ZelLiveSession>& session) = 0;
  /// The stream is up for the first time.
  virtual void begin(Duration now) = 0;
  /// When there is something to do next.
  [[nodiscard]] virtual Duration nextStep(Duration now) const = 0;
  /// Does one step of it, if it is due. False when the programme is over.
  [[nodiscard]] virtual bool step(Duration now) = 0;
  /// Why it was over, if not by its own end.
  [[nodiscard]] virtual std::string failure() const { return {}; }
  /// What nobody can see or hear yet, while nothing has been published; empty where that has no reason of its own.
  [[nodiscard]] virtual std::string whatIsMissing() const { return {}; }
  /// Pictures left out because the encoder was too far behind.
  [[nodiscard]] virtual std::int64_t skipped() const { return 0; }
};

}  // namespace zellive::tool
