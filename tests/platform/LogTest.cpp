#include "zellive/platform/Log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zellive {
namespace {

TEST(Log, HandlerReceivesLevelPlaceAndTextOfAnyLength) {
  std::vector<std::string> seen;
  setLogHandler([&](LogLevel level, std::string_view function, int line, std::string_view text) {
    EXPECT_EQ(level, LogLevel::Warning);
    seen.push_back(std::string(function) + ":" + std::to_string(line) + " " + std::string(text));
  });
  for (const std::size_t length : {0U, 503U, 504U, 505U, 100000U}) {
    const std::string text(length, 'x');
    const int line = __LINE__ + 1;
    ZEL_LOG_WARNING("Live: %d%s|", 3, text.c_str());
    EXPECT_EQ(seen.back(), "TestBody:" + std::to_string(line) + " Live: 3" + text + "|");
  }
  setLogHandler({});
}

TEST(Log, DefaultWritesOneLineToStandardError) {
  testing::internal::CaptureStderr();
  ZEL_LOG_ERROR("Live: first\nsecond\x1b[2J");
  const auto output = testing::internal::GetCapturedStderr();
  EXPECT_NE(output.find("error   Live: first second [2J (TestBody:"), std::string::npos) << output;
  EXPECT_EQ(output.find('\n'), output.size() - 1) << output;
}

TEST(Log, MaskedUrlHidesEverySecret) {
  const std::pair<const char*, const char*> cases[] = {
      {"rtmp://host:1936/app/streamkey?token=abc", "rtmp://host:1936/app/***"},
      {"rtmps://[2001:db8::1]:443/app/key", "rtmps://[2001:db8::1]:443/app/***"},
      {"rtmp://us@er:secret@host/app/key", "rtmp://***@host/app/***"},
      {"rtmp://host/app/instance/key", "rtmp://host/app/instance/***"},
      {"rtmp://host/app/key//", "rtmp://host/app/***"},
      {"rtmp://host/key", "rtmp://host/***"},
      {"rtmp://host?token=abc", "rtmp://host/***"},
      {"rtmp://host/app?token=a/b/c", "rtmp://host/***"},
      {"rtmp://host/app/key pubPasswd=a/b/c", "rtmp://host/app/***"},
      {"rtmp://host/app/key%3Ftoken=a/b/c", "rtmp://host/app/***"},
      {"rtmp://user:se/cret@host/app/key", "rtmp://***"},
      {"rtmp://host:secret/app/key", "rtmp://***"},
      {"rtmp://ho\x01st/app/key", "rtmp://***"},
      {"host/app/key", "***"},
      {"", ""},
  };
  for (const auto& [url, masked] : cases) {
    EXPECT_EQ(maskedUrl(url), masked) << url;
  }
}

}  // namespace
}  // namespace zellive
