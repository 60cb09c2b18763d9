// What a stream's packets say themselves of how they are coded, beside what their container says.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct AVCodecParameters;

namespace recorder {

// What a decoder has to know, as far as it is in a packet of H.264, H.265 or AAC. Empty: it isn't, or it is not
// sound.
std::vector<uint8_t> ParameterSetsIn(const AVCodecParameters& parameters, const uint8_t* data, size_t size);

// The size of a key frame's pictures by these parameter sets and those in the packet. False: not known.
bool PictureSize(const AVCodecParameters& parameters, const std::vector<uint8_t>& sets, const uint8_t* data,
                 size_t size, int* width, int* height);

}  // namespace recorder
