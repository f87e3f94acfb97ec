#pragma once

#include "zellive/transport/FlvTagBody.h"

namespace zellive {

class ZelLiveStreamInfo;

/// Body of the message that describes the stream: "@setDataFrame", "onMetaData" and its properties in AMF0. A missing
/// configuration counts as all 0.
void packMetaData(const ZelLiveStreamInfo& stream, RtmpBody& body);

}  // namespace zellive
