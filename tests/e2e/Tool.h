#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/FlvFile.h"
#include "tests/support/NginxServer.h"
#include "tests/support/Process.h"
#include "tests/support/Sockets.h"

namespace zellive::test {

using namespace std::chrono_literals;

/// 1280 × 720, 30 fps, 8.3 s, with 48 kHz speech.
inline constexpr const char* clip = "/usr/share/forensics-samples/original-files/movie2/movie-hello.mp4";

/// `zellive publish` with these arguments.
inline std::vector<std::string> toolCommand(const std::string& url, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {ZELLIVE_PROGRAM, "publish", url});
  return arguments;
}

inline void expectEnd(Process& tool, int status, std::chrono::seconds limit) {
  ASSERT_TRUE(tool.waitFor(limit)) << tool.output() << tool.errors();
  EXPECT_EQ(tool.exitStatus(), status) << tool.output() << tool.errors();
}

/// What the tool printed with --json. Fails the test when a line is no JSON object.
inline std::vector<nlohmann::json> jsonLines(const std::string& output) {
  std::vector<nlohmann::json> objects;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    objects.push_back(nlohmann::json::parse(line, nullptr, false));
    EXPECT_TRUE(objects.back().is_object()) << line;
  }
  return objects;
}

/// A test that needs the real server.
class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!NginxServer::available()) {
      GTEST_SKIP() << "nginx with its RTMP module is not installed; scripts/setup installs it";
    }
    server = std::make_unique<NginxServer>();
  }
  std::unique_ptr<NginxServer> server;
};

}  // namespace zellive::test
