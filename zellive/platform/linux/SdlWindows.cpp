#include "zellive/platform/linux/SdlWindows.h"

#include <future>
#include <string>
#include <utility>

#include "zellive/platform/Log.h"
#include "zellive/platform/linux/SdlLoop.h"
#include "zellive/platform/linux/SdlWindow.h"

namespace zellive {
namespace {

class SdlWindows : public WindowService {
 public:
  SdlWindows() = default;
  ~SdlWindows() override { loop_->stop(); }
  SdlWindows(const SdlWindows&) = delete;
  SdlWindows& operator=(const SdlWindows&) = delete;

  std::shared_ptr<Window> makeWindow(const WindowOptions& options) override {
    std::promise<std::shared_ptr<Window>> made;
    loop_->post([&] { made.set_value(open(options)); });
    return made.get_future().get();
  }

 private:
  [[nodiscard]] std::shared_ptr<Window> open(const WindowOptions& options) {
    std::string failure;
    auto window = std::make_shared<SdlWindow>(loop_);
    if (!loop_->connect(failure) || !window->open(options, failure)) {
      loop_->disconnectIfIdle();
      ZEL_LOG_WARNING("Live: no window can be shown on this machine: %s", failure.c_str());
      return nullptr;
    }
    loop_->add(window);
    // The loop keeps the window itself; when the application's last reference goes it closes.
    // Weak references keep this function, and must not keep the window.
    std::shared_ptr<Window> reference(window.get(), [window](Window*) mutable { std::exchange(window, {})->close(); });
    window->setReference(reference);
    return reference;
  }

  const std::shared_ptr<SdlLoop> loop_ = std::make_shared<SdlLoop>();
};

}  // namespace

std::shared_ptr<WindowService> makeSdlWindows() { return std::make_shared<SdlWindows>(); }

}  // namespace zellive
