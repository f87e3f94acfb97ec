#include "apps/zellive/PreviewWindow.h"

#include <algorithm>

#include "apps/zellive/LogCollector.h"

namespace zellive::tool {
namespace {

/// Leaves room for other windows on a small screen.
constexpr Size largest{960, 540};

Size windowSize(Size picture) {
  const double scale = std::min({1.0, largest.width / picture.width, largest.height / picture.height});
  return {picture.width * scale, picture.height * scale};
}

}  // namespace

std::shared_ptr<PreviewWindow> PreviewWindow::open(const Platform& platform, const std::string& title, Size size,
                                                   std::shared_ptr<AppState> focus, std::shared_ptr<Output> output,
                                                   std::string& error) {
  const LogCollector complaints(LogLevel::Warning);
  std::shared_ptr<PreviewWindow> preview(new PreviewWindow(std::move(focus), std::move(output)));
  preview->window_ = platform.windows->makeWindow(
      {.title = title, .size = windowSize(size), .delegate = preview, .queue = platform.queues->mainQueue()});
  if (!preview->window_) {
    const auto text = complaints.text();
    error = "the preview cannot be shown: " + (text.empty() ? std::string("there is no display") : text);
    return nullptr;
  }
  return preview;
}

void PreviewWindow::show(const std::shared_ptr<ZelLiveSession>& session) {
  {
    const std::lock_guard lock(mutex_);
    session_ = session;
  }
  session->setPreView(window_->contentView());
}

void PreviewWindow::windowShouldClose(const std::shared_ptr<Window>& window) {
  window->close();
  end();
}

void PreviewWindow::windowDidVanish(const std::shared_ptr<Window>& /*window*/) { end(); }

void PreviewWindow::end() {
  std::shared_ptr<ZelLiveSession> session;
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    session = session_.lock();
  }
  if (session) {
    session->setPreView(nullptr);
  }
  if (focus_) {
    focus_->setUnfocused(false);
  }
  output_->note("the preview is closed; the stream goes on");
}

void PreviewWindow::windowDidBecomeKey(const std::shared_ptr<Window>& /*window*/) { follow(true); }

void PreviewWindow::windowDidResignKey(const std::shared_ptr<Window>& /*window*/) { follow(false); }

void PreviewWindow::follow(bool isKey) {
  {
    // A window that closes loses the keyboard as well.
    const std::lock_guard lock(mutex_);
    if (ended_) {
      return;
    }
  }
  if (focus_) {
    focus_->setUnfocused(!isKey);
  }
}

}  // namespace zellive::tool
