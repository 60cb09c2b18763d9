#include "apps/recorder/clip/ClipWriter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "apps/recorder/base/ParameterSets.h"
#include "apps/recorder/base/Saturated.h"
#include "apps/recorder/base/Units.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

namespace recorder {

namespace {

constexpr int64_t kLongestPicture = 24 * 3600 * kMicros;
constexpr AVRational kMicroBase = {1, static_cast<int>(kMicros)};

struct Format {
  ClipFormat format;
  const char* muxer;
  const char* ending;
  const char* name;
};
constexpr Format kFormats[] = {{ClipFormat::kMp4, "mp4", "mp4", "an MP4"},
                               {ClipFormat::kMov, "mov", "mov", "a QuickTime"},
                               {ClipFormat::kMatroska, "matroska", "mkv", "a Matroska"}};

const Format& Row(ClipFormat format) { return kFormats[static_cast<size_t>(format)]; }

void SetExtraData(AVCodecParameters* parameters, const uint8_t* data, size_t size) {
  if (size == 0) return;
  parameters->extradata = static_cast<uint8_t*>(av_mallocz(size + AV_INPUT_BUFFER_PADDING_SIZE));
  if (parameters->extradata == nullptr) return;
  std::memcpy(parameters->extradata, data, size);
  parameters->extradata_size = static_cast<int>(size);
}

std::string UtcTime(int64_t micros) {
  const time_t seconds = micros / kMicros;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

// Where the source keeps its parameters in front of the packets only, the file's header gets them from there.
// False: they are needed, and not there either.
bool FindExtraData(AVCodecParameters* parameters, const ImfPacket& first) {
  const AVCodecID id = parameters->codec_id;
  const bool isNeeded = id == AV_CODEC_ID_H264 || id == AV_CODEC_ID_HEVC || id == AV_CODEC_ID_AAC;
  if (!isNeeded || parameters->extradata_size > 0) return true;
  const std::vector<uint8_t> sets = ParameterSetsIn(*parameters, first.data.data(), first.data.size());
  SetExtraData(parameters, sets.data(), sets.size());
  return parameters->extradata_size > 0;
}

// Bytes of the header that AAC has in front of each packet where no container tells of it.
size_t AdtsHeader(const ImfPacket& packet) {
  const std::vector<uint8_t>& data = packet.data;
  if (data.size() <= 9 || data[0] != 0xff || (data[1] & 0xf6) != 0xf0) return 0;
  return (data[1] & 1) != 0 ? 7 : 9;
}

// Muxers say so only when they begin to write.
bool CanHold(const Format& format, const AVStream& stream) {
  AVFormatContext* trial = nullptr;
  avformat_alloc_output_context2(&trial, nullptr, format.muxer, nullptr);
  if (trial == nullptr) return false;
  AVStream* track = avformat_new_stream(trial, nullptr);
  bool can = track != nullptr && avcodec_parameters_copy(track->codecpar, stream.codecpar) >= 0;
  if (can) {
    track->codecpar->codec_tag = 0;
    track->time_base = stream.time_base;
    can = avio_open_dyn_buf(&trial->pb) >= 0 && avformat_write_header(trial, nullptr) >= 0;
  }
  uint8_t* buffer = nullptr;
  if (trial->pb != nullptr) avio_close_dyn_buf(trial->pb, &buffer);
  av_free(buffer);
  trial->pb = nullptr;
  avformat_free_context(trial);
  return can;
}

// Whether it can be held; otherwise a line that says what can.
bool CheckHold(ClipFormat format, const AVStream& stream, const std::string& what, std::string* line) {
  if (CanHold(Row(format), stream)) return true;
  *line = what + " '" + avcodec_get_name(stream.codecpar->codec_id) + "' cannot be put into " +
          Row(format).name + " file";
  for (const Format& other : kFormats) {
    if (other.format == format || !CanHold(other, stream)) continue;
    *line += std::string("; .") + other.ending + " can hold it";
    break;
  }
  return false;
}

}  // namespace

std::optional<ClipFormat> ParseClipFormat(const std::string& name) {
  for (const Format& format : kFormats) {
    if (name == format.ending) return format.format;
  }
  return std::nullopt;
}

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

bool ClipWriter::Open(const Target& target, const ClipStreams& streams, const ImfPacket& first) {
  mStream = streams.video;
  mSounds.clear();
  mOffset = mSectionBegin = mLastDts = mEnd = mPackets = 0;
  mBytes = 0;
  const std::string url = target.path == "-" ? "pipe:1" : "file:" + target.path;  // a colon is no protocol
  avformat_alloc_output_context2(&mContext, nullptr, Row(target.format).muxer, url.c_str());
  if (mContext == nullptr || mPacket == nullptr) return Fail(AVERROR(ENOMEM));
  if (!AddVideo(target.format, streams.video, first)) return false;
  for (const auto& sound : streams.sounds) {
    if (!AddSound(target.format, sound.second)) return false;
  }
  av_dict_set(&mContext->metadata, "creation_time", UtcTime(first.time).c_str(), 0);

  int result = avio_open(&mContext->pb, url.c_str(), AVIO_FLAG_WRITE);
  if (result < 0) return Fail(result);
  AVDictionary* options = nullptr;
  if (target.format != ClipFormat::kMatroska) {
    // In fragments: an index in front of everything else would take a second pass. The header waits for the
    // first fragment, which knows where each stream begins.
    av_dict_set(&options, "movflags", "frag_keyframe+empty_moov+delay_moov+default_base_moof", 0);
    av_dict_set(&options, "min_frag_duration", "500000", 0);
    av_dict_set(&options, "frag_duration", "10000000", 0);
  }
  result = avformat_write_header(mContext, &options);
  av_dict_free(&options);
  return result >= 0 || Fail(result);
}

bool ClipWriter::AddVideo(ClipFormat format, const ImfStreamInfo& stream, const ImfPacket& first) {
  const AVCodecDescriptor* codec = avcodec_descriptor_get_by_name(stream.codecName.c_str());
  if (codec == nullptr) {
    mError = "the coding '" + stream.codecName + "' is not known";
    return false;
  }
  AVStream* out = avformat_new_stream(mContext, nullptr);
  if (out == nullptr) return Fail(AVERROR(ENOMEM));
  AVCodecParameters* parameters = out->codecpar;
  parameters->codec_type = AVMEDIA_TYPE_VIDEO;
  parameters->codec_id = codec->id;
  parameters->profile = stream.profile;
  parameters->level = stream.level;
  parameters->width = stream.width;
  parameters->height = stream.height;
  SetExtraData(parameters, stream.extraData.data(), stream.extraData.size());
  if (!FindExtraData(parameters, first)) {
    mError = "the stream's parameter sets are neither in its description nor in the first key frame";
    return false;
  }
  out->time_base = {stream.timeBaseNumerator, stream.timeBaseDenominator};
  out->avg_frame_rate = {stream.frameRateNumerator, std::max(stream.frameRateDenominator, 1)};
  if (!CheckHold(format, *out, "the coding", &mError)) return false;
  // The only kind of H.265 that some players take.
  if (codec->id == AV_CODEC_ID_HEVC && format != ClipFormat::kMatroska) {
    parameters->codec_tag = MKTAG('h', 'v', 'c', '1');
  }
  return true;
}

bool ClipWriter::AddSound(ClipFormat format, const ClipStreams::Sound& sound) {
  const ImfStreamInfo& info = sound.info;
  const AVCodecDescriptor* codec = avcodec_descriptor_get_by_name(info.codecName.c_str());
  if (codec == nullptr || info.sampleRate <= 0 || info.audioChannels <= 0) {
    mLeftOut.push_back("the sound '" + info.codecName + "' is not known well enough");
    return true;
  }
  // Tried in a context of its own, since a stream can't be taken back.
  AVFormatContext* trial = avformat_alloc_context();
  AVStream* track = trial != nullptr ? avformat_new_stream(trial, nullptr) : nullptr;
  if (track == nullptr) {
    avformat_free_context(trial);
    return Fail(AVERROR(ENOMEM));
  }
  AVCodecParameters* parameters = track->codecpar;
  parameters->codec_type = AVMEDIA_TYPE_AUDIO;
  parameters->codec_id = codec->id;
  parameters->profile = info.profile;
  parameters->sample_rate = info.sampleRate;
  if (info.audioLayout == 0 || av_channel_layout_from_mask(&parameters->ch_layout, info.audioLayout) < 0 ||
      parameters->ch_layout.nb_channels != info.audioChannels) {
    av_channel_layout_uninit(&parameters->ch_layout);
    av_channel_layout_default(&parameters->ch_layout, info.audioChannels);
  }
  parameters->format = info.sampleFormat;
  parameters->frame_size = info.frameSize;
  parameters->block_align = info.blockAlign;
  parameters->bits_per_coded_sample = info.bitsPerCodedSample;
  SetExtraData(parameters, info.extraData.data(), info.extraData.size());
  track->time_base = {1, info.sampleRate};
  std::string line = "the sound's parameters are neither in its description nor in its first packet";
  const bool fits = FindExtraData(parameters, sound.first) && CheckHold(format, *track, "the sound", &line);
  int result = 0;
  if (fits) {
    AVStream* out = avformat_new_stream(mContext, nullptr);
    result = out != nullptr ? avcodec_parameters_copy(out->codecpar, parameters) : AVERROR(ENOMEM);
    if (result >= 0) {
      out->time_base = track->time_base;
      mSounds[info.number] = {out->index, info};
    }
  } else if (std::find(mLeftOut.begin(), mLeftOut.end(), line) == mLeftOut.end()) {
    mLeftOut.push_back(line);
  }
  avformat_free_context(trial);
  return result >= 0 || Fail(result);
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
  mSectionBegin = Plus(av_rescale_q(key.pts, from, to), mOffset);
}

bool ClipWriter::Write(const ImfPacket& packet, int64_t duration) {
  const AVRational from = {static_cast<int>(mSectionNumerator), static_cast<int>(mSectionDenominator)};
  const AVRational to = {mStream.timeBaseNumerator, mStream.timeBaseDenominator};
  int64_t dts = Plus(av_rescale_q(packet.dts, from, to), mOffset);
  if (mPackets > 0) dts = std::max(dts, Plus(mLastDts, 1));  // coarse time bases only
  const int64_t pts = std::max(Plus(av_rescale_q(packet.pts, from, to), mOffset), dts);
  // A packet's own is exact, unless it is none.
  const int64_t own = av_rescale_q(packet.duration, from, kMicroBase);
  const bool isKnown = own > 0 && own <= kLongestPicture;
  const int64_t length =
      isKnown ? av_rescale_q(packet.duration, from, to) : av_rescale_q(duration, kMicroBase, to);
  mLastDts = dts;
  mEnd = std::max(mEnd, Plus(pts, length));
  mPackets++;
  mBytes += packet.data.size();

  mPacket->flags = packet.keyFrame ? AV_PKT_FLAG_KEY : 0;
  mPacket->pts = pts;
  mPacket->dts = dts;
  mPacket->duration = length;
  return WritePacket(packet, 0, 0, to);
}

// Exact where packets follow one another: rounding must not make gaps of a sample.
bool ClipWriter::WriteSound(const ImfPacket& packet, int64_t streamTime) {
  const auto found = mSounds.find(packet.number);
  if (found == mSounds.end()) return true;
  Track& track = found->second;
  const AVRational videoBase = {mStream.timeBaseNumerator, mStream.timeBaseDenominator};
  const AVRational samples = {1, track.info.sampleRate};
  const AVRational own = {track.info.timeBaseNumerator, track.info.timeBaseDenominator};
  const int64_t begin = av_rescale_q(mSectionBegin, videoBase, samples);
  int64_t pts =
      av_rescale_q(Plus(streamTime, av_rescale_q(mOffset, videoBase, kMicroBase)), kMicroBase, samples);
  if (track.last >= 0 && pts >= track.next - 1 && pts <= track.next + 1) pts = track.next;
  if (pts < begin || pts <= track.last) return true;
  int64_t length = av_rescale_q(packet.duration, own, samples);
  if (length < 0 || length > int64_t{60} * track.info.sampleRate) length = 0;
  track.last = pts;
  track.next = Plus(pts, length);
  const size_t header = track.info.codecName == "aac" && track.info.extraData.empty() ? AdtsHeader(packet) : 0;
  mBytes += packet.data.size() - header;
  mPacket->flags = AV_PKT_FLAG_KEY;
  mPacket->pts = mPacket->dts = pts;
  mPacket->duration = length;
  return WritePacket(packet, header, track.index, samples);
}

// The rest of mPacket is filled in. The muxer puts the streams in order, which takes a copy when there are
// several.
bool ClipWriter::WritePacket(const ImfPacket& packet, size_t from, int index, AVRational timeBase) {
  mPacket->data = const_cast<uint8_t*>(packet.data.data()) + from;  // not changed: the packet does not own it
  mPacket->size = static_cast<int>(packet.data.size() - from);
  mPacket->stream_index = index;
  mPacket->time_base = timeBase;
  av_packet_rescale_ts(mPacket, timeBase, mContext->streams[index]->time_base);
  const int result =
      mSounds.empty() ? av_write_frame(mContext, mPacket) : av_interleaved_write_frame(mContext, mPacket);
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
