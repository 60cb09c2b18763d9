#include "apps/recorder/capture/StreamInfo.h"

#include <tuple>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace recorder {

bool SameStream(const ImfStreamInfo& a, const ImfStreamInfo& b) {
  const auto fields = [](const ImfStreamInfo& info) {
    return std::tie(info.codecName, info.codecTag, info.profile, info.level, info.width, info.height,
                    info.timeBaseNumerator, info.timeBaseDenominator, info.frameRateNumerator,
                    info.frameRateDenominator, info.sampleRate, info.audioChannels, info.audioLayout,
                    info.sampleFormat, info.extraData);
  };
  return fields(a) == fields(b);
}

AVRational RateOf(const AVStream& stream) {
  return stream.avg_frame_rate.num > 0 ? stream.avg_frame_rate : stream.r_frame_rate;
}

ImfStreamInfo DescribeStream(const AVStream& stream, int channel) {
  const AVCodecParameters& parameters = *stream.codecpar;
  ImfStreamInfo info;
  info.channel = channel;
  info.codecName = avcodec_get_name(parameters.codec_id);
  info.codecTag = parameters.codec_tag;
  info.profile = parameters.profile;
  info.level = parameters.level;
  info.width = parameters.width;
  info.height = parameters.height;
  info.timeBaseNumerator = stream.time_base.num;
  info.timeBaseDenominator = stream.time_base.den;
  const AVRational rate = RateOf(stream);
  if (rate.num > 0 && rate.den > 0) {
    info.frameRateNumerator = rate.num;
    info.frameRateDenominator = rate.den;
  }
  info.extraData.assign(parameters.extradata, parameters.extradata + parameters.extradata_size);
  return info;
}

ImfStreamInfo DescribeSound(const AVStream& stream, int channel, int number) {
  const AVCodecParameters& parameters = *stream.codecpar;
  ImfStreamInfo info = DescribeStream(stream, channel);
  info.kind = ImfKind::kAudio;
  info.number = number;
  info.frameRateNumerator = 0;
  info.frameRateDenominator = 1;
  info.sampleRate = parameters.sample_rate;
  info.audioChannels = parameters.ch_layout.nb_channels;
  if (parameters.ch_layout.order == AV_CHANNEL_ORDER_NATIVE) info.audioLayout = parameters.ch_layout.u.mask;
  info.sampleFormat = parameters.format;
  info.frameSize = parameters.frame_size;
  info.blockAlign = parameters.block_align;
  info.bitsPerCodedSample = parameters.bits_per_coded_sample;
  info.initialPadding = parameters.initial_padding;
  return info;
}

bool IsIntraOnly(const AVStream& stream) {
  const AVCodecDescriptor* codec = avcodec_descriptor_get(stream.codecpar->codec_id);
  return codec != nullptr && (codec->props & AV_CODEC_PROP_INTRA_ONLY) != 0;
}

}  // namespace recorder
