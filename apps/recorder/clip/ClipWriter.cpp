#include "apps/recorder/clip/ClipWriter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "apps/recorder/base/Saturated.h"
#include "apps/recorder/base/Units.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

namespace recorder {

namespace {

constexpr int64_t kLongestPicture = 24 * 3600 * kMicros;

void SetExtraData(AVCodecParameters* parameters, const std::vector<uint8_t>& data) {
  if (data.empty()) return;
  parameters->extradata = static_cast<uint8_t*>(av_mallocz(data.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (parameters->extradata == nullptr) return;
  std::memcpy(parameters->extradata, data.data(), data.size());
  parameters->extradata_size = static_cast<int>(data.size());
}

std::string UtcTime(int64_t micros) {
  const time_t seconds = micros / kMicros;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

}  // namespace

ClipWriter::ClipWriter() : mPacket(av_packet_alloc()) {}

ClipWriter::~ClipWriter() {
  if (mContext != nullptr) avio_closep(&mContext->pb);
  avformat_free_context(mContext);
  av_packet_free(&mPacket);
}

bool ClipWriter::Fail(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(error, text, sizeof text);
  mError = text;
  return false;
}

bool ClipWriter::Open(const std::string& path, const ImfStreamInfo& stream, const ImfPacket& first) {
  mStream = stream;
  const AVCodecDescriptor* codec = avcodec_descriptor_get_by_name(stream.codecName.c_str());
  if (codec == nullptr) {
    mError = "the coding '" + stream.codecName + "' is not known";
    return false;
  }
  const std::string url = "file:" + path;  // a colon in the path is no protocol
  avformat_alloc_output_context2(&mContext, nullptr, "mp4", url.c_str());
  AVStream* out = mContext != nullptr ? avformat_new_stream(mContext, nullptr) : nullptr;
  if (out == nullptr || mPacket == nullptr) return Fail(AVERROR(ENOMEM));
  AVCodecParameters* parameters = out->codecpar;
  parameters->codec_type = AVMEDIA_TYPE_VIDEO;
  parameters->codec_id = codec->id;
  // The only kind of H.265 that some players take.
  parameters->codec_tag = codec->id == AV_CODEC_ID_HEVC ? MKTAG('h', 'v', 'c', '1') : 0;
  parameters->profile = stream.profile;
  parameters->level = stream.level;
  parameters->width = stream.width;
  parameters->height = stream.height;
  SetExtraData(parameters, stream.extraData);
  if (parameters->extradata_size == 0 && !FindExtraData(first)) return false;
  out->time_base = {stream.timeBaseNumerator, stream.timeBaseDenominator};
  out->avg_frame_rate = {stream.frameRateNumerator, std::max(stream.frameRateDenominator, 1)};
  av_dict_set(&mContext->metadata, "creation_time", UtcTime(first.time).c_str(), 0);

  int result = avio_open(&mContext->pb, url.c_str(), AVIO_FLAG_WRITE);
  if (result < 0) return Fail(result);
  result = avformat_write_header(mContext, nullptr);
  if (result == AVERROR(EINVAL)) {
    mError = "the coding '" + stream.codecName + "' cannot be put into an MP4 file";
    return false;
  }
  return result >= 0 || Fail(result);
}

// Where the source keeps its parameter sets in front of the key frames only, the MP4's header gets them from
// there.
bool ClipWriter::FindExtraData(const ImfPacket& first) {
  AVCodecParameters* parameters = mContext->streams[0]->codecpar;
  if (parameters->codec_id != AV_CODEC_ID_H264 && parameters->codec_id != AV_CODEC_ID_HEVC) return true;
  AVBSFContext* filter = nullptr;
  int result = av_bsf_alloc(av_bsf_get_by_name("extract_extradata"), &filter);
  if (result >= 0) result = avcodec_parameters_copy(filter->par_in, parameters);
  if (result >= 0) result = av_bsf_init(filter);
  if (result >= 0) result = av_new_packet(mPacket, static_cast<int>(first.data.size()));
  if (result >= 0) {
    std::memcpy(mPacket->data, first.data.data(), first.data.size());
    result = av_bsf_send_packet(filter, mPacket);
  }
  if (result >= 0) result = av_bsf_receive_packet(filter, mPacket);
  size_t size = 0;
  const uint8_t* found =
      result >= 0 ? av_packet_get_side_data(mPacket, AV_PKT_DATA_NEW_EXTRADATA, &size) : nullptr;
  if (found != nullptr) SetExtraData(parameters, {found, found + size});
  av_packet_unref(mPacket);
  av_bsf_free(&filter);
  if (parameters->extradata_size > 0) return true;
  mError = "the stream's parameter sets are neither in its description nor in the first key frame";
  return false;
}

void ClipWriter::BeginSection(const ImfStreamInfo& stream, const ImfPacket& key) {
  mSectionNumerator = stream.timeBaseNumerator;
  mSectionDenominator = stream.timeBaseDenominator;
  const AVRational from = {stream.timeBaseNumerator, stream.timeBaseDenominator};
  const AVRational to = {mStream.timeBaseNumerator, mStream.timeBaseDenominator};
  mOffset = Minus(mEnd, av_rescale_q(key.pts, from, to));
  // With a longer way from decoding to display than before, the pictures have to wait a little.
  const int64_t dts = Plus(av_rescale_q(key.dts, from, to), mOffset);
  if (mPackets > 0 && dts <= mLastDts) mOffset = Plus(mOffset, Minus(Plus(mLastDts, 1), dts));
}

bool ClipWriter::Write(const ImfPacket& packet, int64_t duration) {
  const AVRational micros = {1, static_cast<int>(kMicros)};
  const AVRational from = {static_cast<int>(mSectionNumerator), static_cast<int>(mSectionDenominator)};
  const AVRational to = {mStream.timeBaseNumerator, mStream.timeBaseDenominator};
  int64_t dts = Plus(av_rescale_q(packet.dts, from, to), mOffset);
  if (mPackets > 0) dts = std::max(dts, Plus(mLastDts, 1));  // coarse time bases only
  const int64_t pts = std::max(Plus(av_rescale_q(packet.pts, from, to), mOffset), dts);
  // A packet's own is exact, unless it is none.
  const int64_t own = av_rescale_q(packet.duration, from, micros);
  const bool isKnown = own > 0 && own <= kLongestPicture;
  const int64_t length = isKnown ? av_rescale_q(packet.duration, from, to) : av_rescale_q(duration, micros, to);
  mLastDts = dts;
  mEnd = std::max(mEnd, Plus(pts, length));
  mPackets++;
  mBytes += packet.data.size();

  mPacket->data = const_cast<uint8_t*>(packet.data.data());  // not changed: the packet does not own it
  mPacket->size = static_cast<int>(packet.data.size());
  mPacket->stream_index = 0;
  mPacket->flags = packet.keyFrame ? AV_PKT_FLAG_KEY : 0;
  mPacket->pts = pts;
  mPacket->dts = dts;
  mPacket->duration = length;
  mPacket->time_base = to;
  av_packet_rescale_ts(mPacket, to, mContext->streams[0]->time_base);
  const int result = av_write_frame(mContext, mPacket);
  av_packet_unref(mPacket);
  return result >= 0 || Fail(result);
}

bool ClipWriter::Close() {
  int result = av_write_trailer(mContext);
  const int closed = avio_closep(&mContext->pb);
  if (result >= 0) result = closed;
  avformat_free_context(mContext);
  mContext = nullptr;
  return result >= 0 || Fail(result);
}

double ClipWriter::Seconds() const {
  return static_cast<double>(mEnd) * mStream.timeBaseNumerator / mStream.timeBaseDenominator;
}

}  // namespace recorder
