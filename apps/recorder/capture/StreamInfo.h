// What a recording says of a stream, as libavformat describes it.
#pragma once

#include "platform/host/imf/ImfRecord.h"

extern "C" {
#include <libavutil/rational.h>
}

struct AVStream;

namespace recorder {

// Whether a decoder needs to be told nothing new.
bool SameStream(const ImfStreamInfo& a, const ImfStreamInfo& b);

// Pictures a second, 0/1 or 0/0 when it is not known.
AVRational RateOf(const AVStream& stream);
ImfStreamInfo DescribeStream(const AVStream& stream, int channel);
// `number`: which one it is among the sounds of its channel.
ImfStreamInfo DescribeSound(const AVStream& stream, int channel, int number);
// Each picture can be decoded alone.
bool IsIntraOnly(const AVStream& stream);

}  // namespace recorder
