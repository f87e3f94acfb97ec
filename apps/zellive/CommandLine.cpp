#include "apps/zellive/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <string_view>
#include <utility>

#include "apps/zellive/HelpText.h"

#ifndef ZELLIVE_VERSION
#define ZELLIVE_VERSION "unknown"
#endif

namespace zellive::tool {
namespace {

constexpr int usageError = 2;
constexpr const char* noCommand = "say what to do: zellive publish URL ..., or zellive devices";
constexpr const char* oneCommand = "publish or devices, one at a time";
constexpr std::array<std::pair<const char*, std::int64_t>, 4> orientations{
    {{"portrait", 1}, {"upside-down", 2}, {"landscape-right", 3}, {"landscape-left", 4}}};

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
  std::string orientation;
  std::string camera;
  std::string microphone;
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

std::optional<std::int64_t> orientationOf(std::string_view text) {
  for (const auto& [name, value] : orientations) {
    if (text == name) {
      return value;
    }
  }
  return std::nullopt;
}

std::string checkOrientation(const std::string& text) {
  return orientationOf(text) ? "" : "an orientation is portrait, upside-down, landscape-right or landscape-left";
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

/// The texts that people read are in helpText.
void addOptions(CLI::App& publish, PublishOptions& options, RawOptions& raw) {
  publish.add_option("URL", options.url)->required()->check(validator(checkUrl));
  auto* input = publish.add_option("-i,--input", options.input);
  auto* testCard = publish.add_flag("--test-card", raw.testCard)->excludes(input);
  auto* camera = publish.add_option("--camera", raw.camera)->excludes(input)->excludes(testCard);
  publish.add_option("--microphone", raw.microphone)->excludes(input)->excludes(testCard);
  publish.add_flag("--loop", options.loop)->needs(input);
  publish.add_flag("--mirror", options.mirror)->needs(camera);
  publish.add_option("--orientation", raw.orientation)->needs(camera)->check(validator(checkOrientation));
  auto* preview = publish.add_flag("--preview", options.preview)->needs(camera);
  publish.add_option("--watermark", options.watermark)->needs(preview);
  publish.add_flag("--pause-unfocused", options.pauseUnfocused)->needs(preview);
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

/// CLI11 speaks of its own types: "--duration: 1 required FLOAT missing", "--size: At Most 1 required but received 2".
std::string countMistake(const std::string& words) {
  const std::string option = words.substr(0, words.find(':'));
  if (words.ends_with(" missing")) {
    return option + " needs a value";
  }
  return words.find("At Most 1 ") == std::string::npos ? words : option + " is given more than once";
}

/// NAME may be left out: what follows then is the next option, the URL, or nothing.
std::vector<std::string> withNames(std::vector<std::string> arguments) {
  std::vector<std::string> whole;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const bool takesName = arguments[i] == "--camera" || arguments[i] == "--microphone";
    const std::string following = i + 1 < arguments.size() ? arguments[i + 1] : "-";
    whole.push_back(std::move(arguments[i]));
    if (takesName && (following.starts_with('-') || looksLikeUrl(following))) {
      whole.emplace_back();
    }
  }
  return whole;
}

/// Fills in what the options leave as text. Empty, or what is wrong.
std::string finish(const CLI::App& publish, const RawOptions& raw, PublishOptions& options) {
  if (publish.count("--camera") > 0) {
    options.camera = raw.camera;
  }
  if (publish.count("--microphone") > 0) {
    options.microphone = raw.microphone;
  }
  if (options.input.empty() && !raw.testCard && !options.captures()) {
    return "what to publish is missing: give --input FILE, --test-card, --camera or --microphone";
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
  if (!raw.orientation.empty()) {
    options.orientation = *orientationOf(raw.orientation);
  }
  return {};
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

std::variant<PublishOptions, DevicesOptions, Farewell> parseCommandLine(std::vector<std::string> arguments) {
  PublishOptions options;
  DevicesOptions devicesOptions;
  RawOptions raw;
  CLI::App app;
  app.set_version_flag("--version", "zellive " ZELLIVE_VERSION);
  auto* publish = app.add_subcommand("publish");
  addOptions(*publish, options, raw);
  auto* devices = app.add_subcommand("devices");
  devices->add_flag("--json", devicesOptions.json);
  const std::string first = arguments.empty() ? std::string() : arguments.front();
  try {
    arguments = withNames(std::move(arguments));
    std::reverse(arguments.begin(), arguments.end());
    app.parse(arguments);
  } catch (const CLI::CallForHelp&) {
    return Farewell{0, helpText};
  } catch (const CLI::CallForVersion& version) {
    return Farewell{0, std::string(version.what()) + "\n"};
  } catch (const CLI::ExtrasError& error) {
    // A URL holds a key: none is repeated.
    const std::string text = error.what();
    const bool repeatable = text.find("://") == std::string::npos;
    if (publish->parsed() && !repeatable) {
      return complaint("there is one URL too many");
    }
    if (!publish->parsed() && !devices->parsed()) {
      return complaint((first.find("://") == std::string::npos ? "unknown: " + first + "; " : std::string()) +
                       noCommand);
    }
    return complaint(repeatable ? text : "zellive devices takes no URL");
  } catch (const CLI::ArgumentMismatch& error) {
    return complaint(countMistake(error.what()));
  } catch (const CLI::ParseError& error) {
    return complaint(error.what());
  }
  if (devices->parsed()) {
    return publish->parsed() ? std::variant<PublishOptions, DevicesOptions, Farewell>(complaint(oneCommand))
                             : devicesOptions;
  }
  if (!publish->parsed()) {
    return complaint(noCommand);
  }
  if (const auto mistake = finish(*publish, raw, options); !mistake.empty()) {
    return complaint(mistake);
  }
  return options;
}

}  // namespace zellive::tool
