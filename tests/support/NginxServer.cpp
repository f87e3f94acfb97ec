#include "tests/support/NginxServer.h"

#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/support/Sockets.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* module = "/usr/lib/nginx/modules/ngx_rtmp_module.so";
constexpr const char* program = "/usr/sbin/nginx";

// One process, so that ending it ends everything. @USER@ is empty for ordinary users, who cannot change theirs.
constexpr const char* configuration = R"(load_module @MODULE@;
daemon off;
master_process off;
@USER@
pid nginx.pid;
error_log error.log info;
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
  client_body_temp_path body;
  proxy_temp_path proxy;
  fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi;
  scgi_temp_path scgi;
  server {
    listen 127.0.0.1:@HTTP@;
    location = /refuse { return 403; }
  }
}
)";

bool answers(std::uint16_t port) {
  const int descriptor = connectToLoopback(port);
  return descriptor >= 0 && close(descriptor) == 0;
}

/// Looks every 20 ms until it holds; false after `limit`.
template <typename Condition>
bool waitUntil(Condition holds, std::chrono::seconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

}  // namespace

bool NginxServer::available() { return access(module, R_OK) == 0 && access(program, X_OK) == 0; }

NginxServer::NginxServer() {
  std::filesystem::create_directory(directory_.path() + "/recordings");
  // Somebody else may take a port between our choosing it and nginx's opening it.
  for (int attempt = 1;; ++attempt) {
    rtmpPort_ = freePort();
    httpPort_ = freePort();
    try {
      start();
      return;
    } catch (const std::runtime_error&) {
      if (attempt == 5) {
        throw;
      }
    }
  }
}

void NginxServer::start() {
  const std::string& directory = directory_.path();
  std::string text(configuration);
  for (const auto& [mark, value] : {std::pair<std::string, std::string>{"@MODULE@", module},
                                    {"@USER@", geteuid() == 0 ? "user root;" : ""},
                                    {"@DIR@", directory},
                                    {"@RTMP@", std::to_string(rtmpPort_)},
                                    {"@HTTP@", std::to_string(httpPort_)}}) {
    for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark)) {
      text.replace(at, mark.size(), value);
    }
  }
  std::ofstream(directory + "/nginx.conf") << text;
  process_ = std::make_unique<Process>(std::vector<std::string>{
      program, "-p", directory, "-c", directory + "/nginx.conf", "-e", directory + "/error.log"});
  const auto up = [&] { return answers(rtmpPort_) && answers(httpPort_); };
  waitUntil([&] { return process_->waitFor(0ms) || up(); }, 10s);
  if (process_->waitFor(0ms) || !up()) {
    throw std::runtime_error("nginx does not answer: " + process_->errors() + errorLog());
  }
}

std::string NginxServer::url(const std::string& stream, const std::string& application) const {
  return "rtmp://127.0.0.1:" + std::to_string(rtmpPort_) + "/" + application + "/" + stream;
}

std::string NginxServer::recording(const std::string& stream) const {
  return directory_.path() + "/recordings/" + stream + ".flv";
}

std::string NginxServer::finishedRecording(const std::string& stream) const {
  const auto path = recording(stream);
  if (!waitUntil([&] { return std::filesystem::exists(path) && !hasOpen(path); }, 20s)) {
    throw std::runtime_error("no finished recording of " + stream + ": " + errorLog());
  }
  return path;
}

bool NginxServer::hasOpen(const std::string& path) const {
  std::error_code error;
  for (std::filesystem::directory_iterator entry("/proc/" + std::to_string(process_->id()) + "/fd", error), end;
       !error && entry != end; entry.increment(error)) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry->path(), gone) == path) {
      return true;
    }
  }
  return false;
}

std::string NginxServer::errorLog() const {
  std::ostringstream text;
  text << std::ifstream(directory_.path() + "/error.log").rdbuf();
  return text.str();
}

void NginxServer::kill() {
  process_->signal(SIGKILL);
  (void)process_->waitFor(10s);
}

}  // namespace zellive::test
