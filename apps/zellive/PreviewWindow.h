#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "apps/zellive/AppState.h"
#include "apps/zellive/Output.h"
#include "zellive/platform/Platform.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::tool {

/// The window in which a person sees what the camera gives. Closing it ends the preview; the stream goes on: it may
/// have viewers, and Ctrl-C is there to end it.
class PreviewWindow : public WindowDelegate, public std::enable_shared_from_this<PreviewWindow> {
 public:
  /// For pictures of `size`; smaller on screens. With `focus`, it hears whether the window is the one in use. Null with
  /// `error` set when there is no display.
  [[nodiscard]] static std::shared_ptr<PreviewWindow> open(const Platform& platform, const std::string& title,
                                                           Size size, std::shared_ptr<AppState> focus,
                                                           std::shared_ptr<Output> output, std::string& error);

  /// Shows that session's camera.
  void show(const std::shared_ptr<ZelLiveSession>& session);

  void windowShouldClose(const std::shared_ptr<Window>& window) override;
  void windowDidVanish(const std::shared_ptr<Window>& window) override;
  void windowDidBecomeKey(const std::shared_ptr<Window>& window) override;
  void windowDidResignKey(const std::shared_ptr<Window>& window) override;

 private:
  PreviewWindow(std::shared_ptr<AppState> focus, std::shared_ptr<Output> output)
      : focus_(std::move(focus)), output_(std::move(output)) {}
  void end();
  void follow(bool isKey);

  std::shared_ptr<Window> window_;
  const std::shared_ptr<AppState> focus_;  // May be null.
  const std::shared_ptr<Output> output_;
  std::mutex mutex_;
  std::weak_ptr<ZelLiveSession> session_;
  bool ended_ = false;
};

}  // namespace zellive::tool
