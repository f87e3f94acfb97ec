#include "tests/support/NginxServer.h"

#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* module = "/usr/lib/nginx/modules/ngx_rtmp_module.so";
constexpr const char* program = "/usr/sbin/nginx";

// One process, so that ending it ends everything.
constexpr const char* configuration = R"(
daemon off;
master_process off;
pid nginx.pid;
error_log error.log info;
events { worker_connections 128; }
rtmp {
  server {
    chunk_size 4096;
    application closed {
      live on;
      on_publish http://127.0.0.1:9/;  # Whoever is to be asked does not answer, which means no.
    }
    application live {
      live on;
      record all;
      record_suffix .flv;
      record_unique off;
)";

}  // namespace

bool NginxServer::available() { return access(module, R_OK) == 0 && access(program, X_OK) == 0; }

NginxServer::NginxServer() {
  const std::string& directory = directory_.path();
  std::ofstream(directory + "/nginx.conf")
      << "load_module " << module << ";\n"
      << (geteuid() == 0 ? "user root;" : "")  // Ordinary users cannot change theirs.
      << configuration << "record_path " << directory << ";\n}\nlisten 127.0.0.1:" << rtmpPort_ << ";\n}\n}\n";
  start();
}

void NginxServer::start() {
  const std::string& directory = directory_.path();
  process_ = std::make_unique<Process>(std::vector<std::string>{
      program, "-p", directory, "-c", directory + "/nginx.conf", "-e", directory + "/error.log"});
  const auto answers = [this] { return static_cast<bool>(connectToLoopback(rtmpPort_)); };
  if (!waitUntil([&] { return process_->waitFor(0ms) || answers(); }, 10s) || process_->waitFor(0ms)) {
    throw std::runtime_error("nginx does not answer: " + process_->errors() + log());
  }
}

void NginxServer::kill() {
  process_->signal(SIGKILL);
  (void)process_->waitFor(10s);
}

std::string NginxServer::finishedRecording(const std::string& stream) const {
  const auto path = recording(stream);
  if (!waitUntil([&] { return std::filesystem::exists(path) && !hasOpen(path); }, 20s)) {
    throw std::runtime_error("no finished recording of " + stream + ": " + log());
  }
  return path;
}

bool NginxServer::hasOpen(const std::string& path) const {
  const std::filesystem::path descriptors("/proc/" + std::to_string(process_->id()) + "/fd");
  std::error_code gone;  // Of a descriptor that nginx closes meanwhile.
  for (const auto& entry : std::filesystem::directory_iterator(descriptors, gone)) {
    if (std::filesystem::read_symlink(entry.path(), gone) == path) {
      return true;
    }
  }
  return false;
}

}  // namespace zellive::test
