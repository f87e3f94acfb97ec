#include "zellive/platform/linux/SdlLoop.h"

#include <SDL_syswm.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <wayland-client-core.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "zellive/platform/Log.h"
#include "zellive/platform/linux/SdlWindow.h"

namespace zellive {
namespace {

/// SDL tells some changes, that of the focus for one, a while after it has heard of them and only when it is asked.
constexpr std::chrono::milliseconds kLongestNap{100};

/// The window system has gone. Xlib would end the process then, twice over; the thread looks at this instead.
std::atomic<bool> connectionBroken = false;
std::atomic<Display*> ourDisplay = nullptr;
std::atomic<XIOErrorHandler> formerHandler = nullptr;

int hearOfError(Display* display) {
  // The application may talk to X servers, too.
  const XIOErrorHandler former = formerHandler;
  return display == ourDisplay || former == nullptr ? 0 : former(display);
}

void noteBroken(Display*, void*) { connectionBroken = true; }

void surviveServer(Display* display) {
  ourDisplay = display;
  if (const auto former = XSetIOErrorHandler(hearOfError); former != hearOfError) {
    formerHandler = former;
  }
  XSetIOErrorExitHandler(display, noteBroken, nullptr);
}

bool isSet(const char* variable) {
  const char* const value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

void setHints() {
  // Both exist as window systems of a person's screen; others, such as a bare console, are nothing to take over.
  SDL_SetHint(SDL_HINT_VIDEODRIVER, isSet("XDG_RUNTIME_DIR") ? "x11,wayland" : "x11");
  // Signals, the screen saver, the compositor and the end of the program are the application's affairs.
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
  SDL_SetHint(SDL_HINT_VIDEO_ALLOW_SCREENSAVER, "1");
  SDL_SetHint(SDL_HINT_VIDEO_X11_NET_WM_BYPASS_COMPOSITOR, "0");
  SDL_SetHint(SDL_HINT_QUIT_ON_LAST_WINDOW_CLOSE, "0");
}

/// The descriptor on which the window system sends; −1 when it cannot be known.
int descriptorOf(SDL_Window* window) {
  SDL_SysWMinfo information;
  SDL_VERSION(&information.version);
  if (SDL_GetWindowWMInfo(window, &information) != SDL_TRUE) {
    return -1;
  }
  if (information.subsystem == SDL_SYSWM_X11) {
    surviveServer(information.info.x11.display);
    return ConnectionNumber(information.info.x11.display);
  }
  return information.subsystem == SDL_SYSWM_WAYLAND ? wl_display_get_fd(information.info.wl.display) : -1;
}

}  // namespace

SdlLoop::SdlLoop() : wakeUp_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

SdlLoop::~SdlLoop() = default;

void SdlLoop::post(std::function<void()> task) {
  {
    const std::lock_guard lock(mutex_);
    if (stopped_) {
      return;
    }
    tasks_.push_back(std::move(task));
    if (!thread_.joinable()) {
      thread_ = std::thread([self = shared_from_this()] { self->run(); });
    }
  }
  wake();
}

void SdlLoop::wake() { eventfd_write(wakeUp_.get(), 1); }

void SdlLoop::stop() {
  std::thread thread;
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    thread.swap(thread_);
  }
  wake();
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();
  } else if (thread.joinable()) {
    thread.join();
  }
}

void SdlLoop::run() {
  // Signals are for the application's threads; writing to a window system that has gone is an error like others.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  pthread_setname_np(pthread_self(), "zellive windows");
  for (;;) {
    runTasks();
    handleEvents();
    drawWindows();
    // Drawing may have read events that the descriptor no longer tells of.
    handleEvents();
    giveUpIfLost();
    {
      const std::lock_guard lock(mutex_);
      if (stopped_ && tasks_.empty()) {
        break;
      }
    }
    waitForWork();
  }
  while (!windows_.empty()) {
    remove(*windows_.begin()->second);
  }
  SDL_TLSCleanup();
}

void SdlLoop::waitForWork() {
  std::array<pollfd, 2> watched{pollfd{wakeUp_.get(), POLLIN, 0}, pollfd{connection_, POLLIN, 0}};
  poll(watched.data(), watched.size(), connected_ ? static_cast<int>(kLongestNap.count()) : -1);
  eventfd_t count = 0;
  eventfd_read(wakeUp_.get(), &count);
}

void SdlLoop::runTasks() {
  std::vector<std::function<void()>> tasks;
  {
    const std::lock_guard lock(mutex_);
    tasks.swap(tasks_);
  }
  for (const auto& task : tasks) {
    task();
  }
}

bool SdlLoop::connect(std::string& failure) {
  if (connected_) {
    return true;
  }
  if (lost_) {
    failure = "the window system went away before; windows come back when the application is started anew";
    return false;
  }
  if (SDL_WasInit(SDL_INIT_VIDEO) != 0) {
    failure = "the application shows windows of its own through SDL";
    return false;
  }
  // A compositor's socket lies in the second directory, under a name that need not be given.
  if (!isSet("DISPLAY") && !isSet("XDG_RUNTIME_DIR") && !isSet(SDL_HINT_VIDEODRIVER)) {
    failure = "neither DISPLAY nor WAYLAND_DISPLAY names a display";
    return false;
  }
  setHints();
  SDL_SetMainReady();
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
    failure = isSet("DISPLAY") || isSet("WAYLAND_DISPLAY") ? "the display does not let us in"
                                                           : "neither DISPLAY nor WAYLAND_DISPLAY names a display";
    failure = failure + " (" + SDL_GetError() + ")";
    return false;
  }
  connected_ = true;
  SDL_StopTextInput();
  // X11 takes pixels through shared memory, without a GPU and without drawing them again.
  if (SDL_GetCurrentVideoDriver() == std::string_view("x11")) {
    SDL_SetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION, "0");
  }
  return true;
}

void SdlLoop::add(const std::shared_ptr<SdlWindow>& window) {
  if (connection_ < 0) {
    connection_ = descriptorOf(window->handle());
  }
  windows_.emplace(window->id(), window);
}

void SdlLoop::remove(const SdlWindow& window) {
  const auto found = windows_.find(window.id());
  if (found == windows_.end() || found->second.get() != &window) {
    return;
  }
  const auto kept = found->second;
  windows_.erase(found);
  kept->destroy();
  disconnectIfIdle();
}

void SdlLoop::disconnectIfIdle() {
  if (connected_ && windows_.empty()) {
    SDL_QuitSubSystem(SDL_INIT_VIDEO);
    connected_ = false;
    connection_ = -1;
  }
}

void SdlLoop::handleEvents() {
  SDL_Event event;
  while (connected_ && !connectionBroken && SDL_PollEvent(&event) != 0) {
    if (event.type == SDL_WINDOWEVENT) {
      if (const auto found = windows_.find(event.window.windowID); found != windows_.end()) {
        const auto window = found->second;
        window->handleEvent(event.window);
      }
    } else if (event.type == SDL_QUIT) {
      // Nobody else asks for this: the compositor has gone.
      connectionBroken = true;
    }
  }
}

void SdlLoop::drawWindows() {
  for (const auto& [id, window] : windows_) {
    if (!connectionBroken) {
      window->drawIfNeeded();
    }
  }
}

void SdlLoop::giveUpIfLost() {
  if (!connected_ || !connectionBroken) {
    return;
  }
  ZEL_LOG_WARNING("Live: the window system has gone; windows lost: %zu", windows_.size());
  // SDL would end the process when it says good-bye to an X server that has gone. What it holds stays.
  lost_ = true;
  connected_ = false;
  connection_ = -1;
  const auto gone = std::exchange(windows_, {});
  for (const auto& [id, window] : gone) {
    window->vanish();
  }
}

}  // namespace zellive
