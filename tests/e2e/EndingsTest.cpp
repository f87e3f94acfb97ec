#include <csignal>

#include "tests/e2e/Tool.h"

namespace zellive::test {
namespace {

constexpr const char* key = "very-secret-key";

void expectNoKey(const std::string& text) { EXPECT_EQ(text.find(key), std::string::npos) << text; }

std::string local(std::uint16_t port) { return "rtmp://127.0.0.1:" + std::to_string(port) + "/live/" + key; }

/// Gives up at the first failure, for a reason that is one line and names what a person can look into.
void expectReason(const std::string& url, const std::string& told, const std::string& option) {
  const auto run = runProgram(toolCommand(
      url, {"--test-card", "--size", "160x90", "--reconnect-interval", "1", "--reconnect-count", "1", option}));
  EXPECT_EQ(run.status, 1) << run.output << run.errors;
  const auto at = run.errors.find("zellive: cannot publish to rtmp://");
  ASSERT_NE(at, std::string::npos) << run.errors;
  const auto line = run.errors.substr(at, run.errors.find('\n', at) - at);
  EXPECT_NE(line.find(told), std::string::npos) << told << " is not in\n" << line;
  expectNoKey(run.output + run.errors);
}

TEST_F(ServerTest, AStreamThatNobodyTakesOrThatIsLostEndsWithAReason) {
  expectReason(local(freePort()), "Connection refused", "--verbose");
  expectReason(server->url(key, "closed"), "the server refuses the stream: it closed the connection", "--verbose");
  Process first(toolCommand(server->url(key), {"--test-card", "--size", "160x90", "--json", "--reconnect-interval", "1",
                                               "--reconnect-count", "2"}));
  ASSERT_TRUE(first.waitForText("\"type\":\"status\"", 30s)) << first.errors();
  expectReason(server->url(key), "Already publishing", "--json");
  server->kill();
  expectEnd(first, 1, 30s);
  EXPECT_NE(first.errors().find("was lost: "), std::string::npos) << first.errors();
  EXPECT_NE(first.output().find("\"code\":205"), std::string::npos) << first.output();
  expectNoKey(first.output() + first.errors());
}

TEST_F(ServerTest, InterruptEndsTheStreamCleanly) {
  for (const int signal : {SIGINT, SIGTERM}) {
    const auto stream = std::string(key) + std::to_string(signal);
    Process tool(toolCommand(server->url(stream), {"--test-card", "--size", "320x180", "--json", "--verbose"}));
    ASSERT_TRUE(tool.waitForText("\"elapsed\":3", 15s)) << tool.errors();
    tool.signal(signal);
    expectEnd(tool, 0, 5s);
    expectNoKey(tool.output() + tool.errors());

    auto lines = jsonLines(tool.output());
    std::vector<std::string> states;
    for (const auto& line : lines) {
      states.push_back(line.at("type") == "state" ? line.at("state") : line.at("type"));
    }
    EXPECT_GE(std::erase(states, "status"), 3U);
    EXPECT_EQ(states, (std::vector<std::string>{"connecting", "connected", "stopped"}));
    EXPECT_GT(lines[lines.size() - 2].at("bit_rate"), 0);
    EXPECT_NEAR(lines[lines.size() - 2].at("frame_rate").get<double>(), 24, 3);

    const FlvFile file(server->finishedRecording(stream));
    EXPECT_FALSE(file.mediaTags(FlvTag::Video).empty());
    EXPECT_FALSE(file.mediaTags(FlvTag::Audio).empty());
  }
}

TEST(EndingsTest, AnInterruptBeforeTheConnectionEndsAtOnce) {
  const LoopbackListener silent;
  Process tool(toolCommand(local(silent.port()), {"--test-card"}));
  ASSERT_TRUE(tool.waitForText("connecting", 10s)) << tool.errors();
  tool.signal(SIGINT);
  expectEnd(tool, 0, 4s);
  EXPECT_EQ(tool.errors(), "") << "nothing has failed";
  Process failing(toolCommand(local(freePort()), {"--test-card"}));
  ASSERT_TRUE(failing.waitForText("refused (retry 1 of 2 in 5 s)", 10s)) << failing.errors();
  failing.signal(SIGINT);
  expectEnd(failing, 1, 4s);
  EXPECT_NE(failing.errors().find("nothing was published"), std::string::npos) << failing.errors();
}

TEST(EndingsTest, MistakesOnTheCommandLineAndInFilesAreTold) {
  const auto expectMistake = [](std::vector<std::string> arguments, int status, const char* told,
                                const std::string& url = local(9)) {
    const auto run = runProgram(toolCommand(url, std::move(arguments)));
    EXPECT_EQ(run.status, status) << run.errors;
    EXPECT_NE(run.errors.find(told), std::string::npos) << run.errors;
    EXPECT_EQ(run.errors.find('\n'), run.errors.size() - 1) << run.errors;
    expectNoKey(run.output + run.errors);
  };
  expectMistake({"--input", "/nonexistent/clip.mp4"}, 1, "No such file");
  expectMistake({"--test-card", "--preset", "foo"}, 2, "has no preset \"foo\"");
  expectMistake({}, 2, "--input");
  expectMistake({"--test-card"}, 2, "the URL's port is not a number",
                std::string("rtmp://127.0.0.1:99999/live/") + key);
}

}  // namespace
}  // namespace zellive::test
