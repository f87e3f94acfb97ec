#include "tests/support/NginxServer.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>

#include "tests/support/Sockets.h"

namespace zellive::test {
namespace {

constexpr const char* module = "/usr/lib/nginx/modules/ngx_rtmp_module.so";
constexpr const char* program = "/usr/sbin/nginx";

// One process, so that ending it ends everything. @USER@ is empty for ordinary users, who cannot change theirs.
constexpr std::string_view configuration = R"(load_module @MODULE@;
daemon off;
master_process off;
@USER@
pid @DIR@/nginx.pid;
error_log @DIR@/error.log info;
events { worker_connections 128; }
rtmp {
  server {
    listen 127.0.0.1:@RTMP@;
    chunk_size 4096;
    application live {
      live on;
      record all;
      record_path @DIR@/recordings;
      record_suffix .flv;
      record_unique off;
    }
    application closed {
      live on;
      on_publish http://127.0.0.1:@HTTP@/refuse;
    }
  }
}
http {
  access_log off;
  client_body_temp_path @DIR@/body;
  proxy_temp_path @DIR@/proxy;
  fastcgi_temp_path @DIR@/fastcgi;
  uwsgi_temp_path @DIR@/uwsgi;
  scgi_temp_path @DIR@/scgi;
  server {
    listen 127.0.0.1:@HTTP@;
    location = /refuse { return 403; }
  }
}
)";

std::string replaced(std::string text, const std::string& mark, const std::string& by) {
  for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark, at + by.size())) {
    text.replace(at, mark.size(), by);
  }
  return text;
}

bool answers(std::uint16_t port) {
  const int descriptor = connectToLoopback(port);
  if (descriptor >= 0) {
    close(descriptor);
  }
  return descriptor >= 0;
}

/// Whether any process has `path` open; only our own processes matter, and those we may look at.
bool isOpenSomewhere(const std::string& path) {
  std::error_code error;
  for (const auto& process : std::filesystem::directory_iterator("/proc", error)) {
    const auto descriptors = process.path() / "fd";
    std::error_code denied;
    for (std::filesystem::directory_iterator entry(descriptors, denied), end; !denied && entry != end;
         entry.increment(denied)) {
      std::error_code gone;
      if (std::filesystem::read_symlink(entry->path(), gone) == path) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace

bool NginxServer::available() { return access(module, R_OK) == 0 && access(program, X_OK) == 0; }

NginxServer::NginxServer() {
  std::filesystem::create_directory(directory_.path() + "/recordings");
  // Somebody else may take a port between our choosing it and nginx's opening it.
  for (int attempt = 0; attempt < 5; ++attempt) {
    rtmpPort_ = freePort();
    httpPort_ = freePort();
    try {
      start();
      return;
    } catch (const std::runtime_error&) {
      process_.reset();
    }
  }
  throw std::runtime_error("nginx does not start: " + errorLog());
}

void NginxServer::writeConfiguration() const {
  std::string text(configuration);
  text = replaced(text, "@MODULE@", module);
  text = replaced(text, "@USER@", geteuid() == 0 ? "user root;" : "");
  text = replaced(text, "@DIR@", directory_.path());
  text = replaced(text, "@RTMP@", std::to_string(rtmpPort_));
  text = replaced(text, "@HTTP@", std::to_string(httpPort_));
  std::ofstream(directory_.path() + "/nginx.conf") << text;
}

void NginxServer::start() {
  writeConfiguration();
  const std::string& directory = directory_.path();
  process_ = std::make_unique<Process>(std::vector<std::string>{
      program, "-p", directory, "-c", directory + "/nginx.conf", "-e", directory + "/error.log"});
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!answers(rtmpPort_) || !answers(httpPort_)) {
    if (process_->waitFor(std::chrono::milliseconds(20)) || std::chrono::steady_clock::now() > limit) {
      throw std::runtime_error("nginx does not answer: " + process_->errors());
    }
  }
}

std::string NginxServer::url(const std::string& stream, const std::string& application) const {
  return "rtmp://127.0.0.1:" + std::to_string(rtmpPort_) + "/" + application + "/" + stream;
}

std::string NginxServer::recording(const std::string& stream) const {
  return directory_.path() + "/recordings/" + stream + ".flv";
}

std::string NginxServer::errorLog() const {
  std::ostringstream text;
  text << std::ifstream(directory_.path() + "/error.log").rdbuf();
  return text.str();
}

void NginxServer::stop() {
  process_->signal(SIGTERM);
  if (!process_->waitFor(std::chrono::seconds(10))) {
    throw std::runtime_error("nginx does not stop");
  }
}

void NginxServer::kill() {
  process_->signal(SIGKILL);
  (void)process_->waitFor(std::chrono::seconds(10));
}

bool waitForRecording(const std::string& path) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < limit) {
    if (std::filesystem::exists(path) && !isOpenSomewhere(path)) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

}  // namespace zellive::test
