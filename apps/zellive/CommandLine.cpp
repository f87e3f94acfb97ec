#include "apps/zellive/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

#ifndef ZELLIVE_VERSION
#define ZELLIVE_VERSION "unknown"
#endif

namespace zellive::tool {
namespace {

constexpr int usageError = 2;
constexpr const char* noCommand = "say what to do: zellive publish URL ...";
constexpr const char* help = R"(Publishes live audio and video to an RTMP server.

Usage: zellive publish URL (--input FILE | --test-card) [options]

URL is where to publish: rtmp://HOST[:PORT]/APPLICATION/STREAM

What to publish, exactly one of
  -i, --input FILE            A media file, in real time
      --test-card             A moving picture with a clock, and a flash and a beep every second

Source
      --loop                  Begin the file again when it ends
      --duration SECONDS      End after so many seconds of media

Picture and sound
      --quality 0..4          480p, 720p, 1080p, 1440p or 2160p; 1 (720p) by default
      --size WxH              Size of the stream, with bars where its shape is not the source's; by default the
                              source's, up to the quality's
      --fps N                 Pictures per second; by default the source's, up to the quality's
      --bitrate BPS           Video bits per second, such as 1500k or 1.5M; by default the quality's
      --adaptive              Let the video bit rate follow the network
      --denoise 0..3          Noise suppression, from off (the default) to strongest
      --encoder NAME          h264_nvenc, h264_vaapi or libx264; by default the best that works
      --preset NAME           The encoder's own preset, such as superfast

Connection
      --reconnect-interval S  Seconds before each new attempt; 5 by default
      --reconnect-count N     Give up after so many failures in a row; 3 by default

Output
      --json                  One JSON object a second, and one for each change of state and each error
  -v, --verbose               Every message of the library, on standard error
  -h, --help                  This text
      --version               The program's version

Examples
  zellive publish rtmp://live.example.net/app/KEY --input talk.mp4 --loop
  zellive publish rtmp://127.0.0.1/live/test --test-card --duration 30
  zellive publish rtmp://127.0.0.1/live/test --input talk.mp4 --bitrate 1.5M --adaptive --json

Ctrl-C ends the stream cleanly. Exit status: 0 after a clean run, 1 when the stream failed, 2 for a wrong command line.
)";

template <typename Value>
bool number(std::string_view text, Value& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

bool looksLikeUrl(const std::string& url) {
  for (const std::string_view scheme : {"rtmp://", "rtmps://"}) {
    if (url.starts_with(scheme)) {
      const auto application = url.find('/', scheme.size());
      const auto stream = application == std::string::npos ? application : url.find_first_of("/? ", application + 2);
      return application > scheme.size() && stream != std::string::npos && stream + 1 < url.size();
    }
  }
  return false;
}

/// What CLI11 collects as text, checked by the validators on the way in.
struct RawOptions {
  std::string size;
  std::string bitRate;
  double duration = 0;
  std::uint64_t framesPerSecond = 0;
  bool testCard = false;
};

std::string checkUrl(const std::string& text) {
  return looksLikeUrl(text) ? "" : "a URL is rtmp://HOST[:PORT]/APPLICATION/STREAM";
}

std::string checkSize(const std::string& text) {
  return parseSize(text) ? "" : "a size is WIDTHxHEIGHT, both even and from 16 to 8192, such as 1280x720";
}

std::string checkBitRate(const std::string& text) {
  return parseBitRate(text) ? "" : "a bit rate is a number of bits per second from 10k to 200M, such as 1500k or 1.5M";
}

std::string checkEncoder(const std::string& text) {
  const auto known = {"h264_nvenc", "h264_vaapi", "libx264"};
  return std::find(known.begin(), known.end(), text) != known.end() ? ""
                                                                    : "an encoder is h264_nvenc, h264_vaapi or libx264";
}

std::string checkDuration(const std::string& text) {
  double seconds = 0;
  return number(text, seconds) && seconds > 0 && seconds <= 1e9 ? "" : "a duration is a number of seconds above 0";
}

CLI::Validator validator(std::string (*check)(const std::string&)) { return {check, "", ""}; }

/// The texts that people read are in `help`.
void addOptions(CLI::App& publish, PublishOptions& options, RawOptions& raw) {
  publish.add_option("URL", options.url)->required()->check(validator(checkUrl));
  auto* input = publish.add_option("-i,--input", options.input);
  publish.add_flag("--test-card", raw.testCard)->excludes(input);
  publish.add_flag("--loop", options.loop)->needs(input);
  publish.add_option("--duration", raw.duration)->check(validator(checkDuration));
  publish.add_option("--quality", options.quality)->check(CLI::Range(0, 4));
  publish.add_option("--size", raw.size)->check(validator(checkSize));
  publish.add_option("--fps", raw.framesPerSecond)->check(CLI::Range(1, 120));
  publish.add_option("--bitrate", raw.bitRate)->check(validator(checkBitRate));
  publish.add_flag("--adaptive", options.adaptive);
  publish.add_option("--denoise", options.denoise)->check(CLI::Range(0, 3));
  publish.add_option("--encoder", options.encoder)->check(validator(checkEncoder));
  publish.add_option("--preset", options.preset);
  publish.add_option("--reconnect-interval", options.reconnectInterval)->check(CLI::Range(1, 3600));
  publish.add_option("--reconnect-count", options.reconnectCount)->check(CLI::Range(1, 1000000));
  publish.add_flag("--json", options.json);
  publish.add_flag("-v,--verbose", options.verbose);
}

Farewell complaint(const std::string& reason) {
  std::string line = reason.substr(0, reason.find('\n'));
  return {usageError, "zellive: " + line + " (zellive --help tells more)\n"};
}

}  // namespace

std::optional<std::uint64_t> parseBitRate(const std::string& text) {
  std::string_view digits = text;
  double factor = 1;
  if (!digits.empty() && (digits.back() == 'k' || digits.back() == 'K')) {
    factor = 1e3;
  } else if (!digits.empty() && (digits.back() == 'm' || digits.back() == 'M')) {
    factor = 1e6;
  }
  if (factor > 1) {
    digits.remove_suffix(1);
  }
  double value = 0;
  if (!number(digits, value) || !(value * factor >= 10e3) || value * factor > 200e6) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(std::llround(value * factor));
}

std::optional<PictureSize> parseSize(const std::string& text) {
  const auto cross = text.find_first_of("xX");
  PictureSize size;
  if (cross == std::string::npos || !number(std::string_view(text).substr(0, cross), size.width) ||
      !number(std::string_view(text).substr(cross + 1), size.height)) {
    return std::nullopt;
  }
  const auto fine = [](int side) { return side >= 16 && side <= 8192 && side % 2 == 0; };
  return fine(size.width) && fine(size.height) ? std::optional(size) : std::nullopt;
}

std::variant<PublishOptions, Farewell> parseCommandLine(std::vector<std::string> arguments) {
  PublishOptions options;
  RawOptions raw;
  CLI::App app;
  app.set_version_flag("--version", "zellive " ZELLIVE_VERSION);
  auto* publish = app.add_subcommand("publish");
  addOptions(*publish, options, raw);
  const std::string first = arguments.empty() ? std::string() : arguments.front();
  try {
    std::reverse(arguments.begin(), arguments.end());
    app.parse(arguments);
    if (!publish->parsed()) {
      return complaint(noCommand);
    }
  } catch (const CLI::CallForHelp&) {
    return Farewell{0, help};
  } catch (const CLI::CallForVersion& version) {
    return Farewell{0, std::string(version.what()) + "\n"};
  } catch (const CLI::ExtrasError& error) {
    // A URL holds a key: none is repeated.
    const std::string text = error.what();
    if (publish->parsed() && text.find("://") != std::string::npos) {
      return complaint("there is one URL too many");
    }
    if (!publish->parsed()) {
      const bool repeatable = first.find("://") == std::string::npos;
      return complaint((repeatable ? "unknown: " + first + "; " : std::string()) + noCommand);
    }
    return complaint(text);
  } catch (const CLI::ParseError& error) {
    return complaint(error.what());
  }
  if (options.input.empty() && !raw.testCard) {
    return complaint("what to publish is missing: give --input FILE or --test-card");
  }
  if (!raw.size.empty()) {
    options.size = parseSize(raw.size);
  }
  if (!raw.bitRate.empty()) {
    options.bitRate = parseBitRate(raw.bitRate);
  }
  if (raw.framesPerSecond > 0) {
    options.framesPerSecond = raw.framesPerSecond;
  }
  if (raw.duration > 0) {
    options.duration = std::chrono::duration<double>(raw.duration);
  }
  return options;
}

}  // namespace zellive::tool
