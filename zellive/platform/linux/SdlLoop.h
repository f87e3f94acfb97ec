#pragma once

#include <SDL.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zellive/platform/linux/Descriptor.h"

namespace zellive {

class SdlWindow;

/// The thread that owns the connection to the window system, and all that calls SDL. The connection lasts as long as
/// there is a window.
class SdlLoop : public std::enable_shared_from_this<SdlLoop> {
 public:
  SdlLoop();
  ~SdlLoop();
  SdlLoop(const SdlLoop&) = delete;
  SdlLoop& operator=(const SdlLoop&) = delete;

  /// Any thread: runs `task` on the thread, which starts with the first one.
  void post(std::function<void()> task);
  /// Any thread: looks what there is to do.
  void wake();
  /// Any thread: closes every window and ends the thread. Waits for it, unless it is this one.
  void stop();

  // The rest belongs to the thread.

  /// Connects unless it is connected; false, with the reason, when it cannot.
  [[nodiscard]] bool connect(std::string& failure);
  /// `window` has been made on this connection.
  void add(const std::shared_ptr<SdlWindow>& window);
  /// Ends the connection with the last window.
  void remove(const SdlWindow& window);
  /// Ends a connection without windows.
  void disconnectIfIdle();

 private:
  void run();
  void waitForWork();
  void runTasks();
  void handleEvents();
  void drawWindows();
  void giveUpIfLost();
  void findConnection(SDL_Window* window);

  const Descriptor wakeUp_;
  std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<std::function<void()>> tasks_;
  std::thread thread_;
  bool stopped_ = false;

  // On the thread.
  std::map<std::uint32_t, std::shared_ptr<SdlWindow>> windows_;
  bool connected_ = false;
  int connection_ = -1;  // The window system's descriptor, lent.
  bool lost_ = false;    // The window system has gone; SDL does not survive that.
};

}  // namespace zellive
