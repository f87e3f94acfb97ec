#pragma once

#include <string>

#include "apps/zellive/CommandLine.h"
#include "zellive/platform/Platform.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive::tool {

/// Opens a video encoder, and closes it again: empty when that works, otherwise why it does not, for people. Takes the
/// library's messages over for as long as it lasts.
[[nodiscard]] std::string tryEncoder(const Platform& platform, const VideoCompressionSettings& settings);

/// Opens an encoder as the stream will need it, before anybody is bothered with a connection; as above.
[[nodiscard]] std::string tryEncoder(const PublishOptions& options, const ZelLiveVideoConfiguration& video);

}  // namespace zellive::tool
