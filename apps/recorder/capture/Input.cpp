#include "apps/recorder/capture/Input.h"

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <tuple>

#include "apps/recorder/base/Units.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

namespace recorder {

std::atomic<bool> gStop{false};

// Without SA_RESTART, so that a read that waits is interrupted.
void StopOnSignals() {
  struct sigaction action = {};
  action.sa_handler = [](int) { gStop = true; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

namespace {

constexpr int64_t kBackwardJump = 1 * kMicros;
constexpr int64_t kForwardJump = 3600 * kMicros;

int Interrupted(void*) { return gStop ? 1 : 0; }

bool SameStream(const ImfStreamInfo& a, const ImfStreamInfo& b) {
  const auto fields = [](const ImfStreamInfo& info) {
    return std::tie(info.codecName, info.codecTag, info.profile, info.level, info.width, info.height,
                    info.timeBaseNumerator, info.timeBaseDenominator, info.frameRateNumerator,
                    info.frameRateDenominator, info.extraData);
  };
  return fields(a) == fields(b);
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
  const AVRational rate = stream.avg_frame_rate.num > 0 ? stream.avg_frame_rate : stream.r_frame_rate;
  if (rate.num > 0 && rate.den > 0) {
    info.frameRateNumerator = rate.num;
    info.frameRateDenominator = rate.den;
  }
  info.extraData.assign(parameters.extradata, parameters.extradata + parameters.extradata_size);
  return info;
}

// Whether a parameter of this name, which ends at `end`, is nobody's business.
bool IsSecret(const std::string& address, size_t end) {
  size_t begin = end;
  const auto isName = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-';
  };
  while (begin > 0 && isName(address[begin - 1])) --begin;
  std::string name = address.substr(begin, end - begin);
  for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (name == "pw") return true;
  for (const char* word : {"pas", "pwd", "psw", "secret", "token", "auth", "key", "sign", "credential"}) {
    if (name.find(word) != std::string::npos) return true;
  }
  return false;
}

}  // namespace

std::string ShownAddress(const std::string& url) {
  const size_t scheme = url.find("://");
  if (scheme == std::string::npos) return url;
  const size_t host = url.find_first_of("/?#", scheme + 3);
  const size_t at = url.rfind('@', host);
  std::string shown = url;
  if (at != std::string::npos && at > scheme) shown = url.substr(0, scheme + 3) + "***" + url.substr(at);
  // Cameras take passwords in the query, and some in the path.
  for (size_t i = shown.find('=', scheme); i != std::string::npos; i = shown.find('=', i + 1)) {
    if (!IsSecret(shown, i)) continue;
    const size_t end = std::min(shown.find_first_of("&;/?#", i), shown.size());
    shown.replace(i + 1, end - i - 1, "***");
  }
  return shown;
}

Input::Input(std::string url, int channel)
    : mUrl(std::move(url)), mChannel(channel), mPacket(av_packet_alloc()) {}

Input::~Input() {
  avformat_close_input(&mContext);
  av_packet_free(&mPacket);
}

bool Input::Fail(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(error, text, sizeof text);
  mError = text;
  return false;
}

bool Input::Open() {
  struct stat st;
  const std::string path = mUrl.rfind("file:", 0) == 0 ? mUrl.substr(5) : mUrl;
  mIsFile = stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);

  mContext = avformat_alloc_context();
  if (mContext == nullptr || mPacket == nullptr) return Fail(AVERROR(ENOMEM));
  mContext->interrupt_callback.callback = Interrupted;
  mContext->flags |= AVFMT_FLAG_GENPTS;
  AVDictionary* options = nullptr;
  av_dict_set(&options, "rtsp_transport", "tcp", 0);  // a recording with holes is worth less than a late one
  int result = avformat_open_input(&mContext, mUrl.c_str(), nullptr, &options);
  av_dict_free(&options);
  if (result < 0) return Fail(result);
  result = avformat_find_stream_info(mContext, nullptr);
  if (result < 0) return Fail(result);
  mIndex = av_find_best_stream(mContext, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (mIndex < 0) {
    mError = "there is no video in it";
    return false;
  }
  for (unsigned i = 0; i < mContext->nb_streams; i++) {
    if (static_cast<int>(i) != mIndex) mContext->streams[i]->discard = AVDISCARD_ALL;
  }
  return true;
}

Input::Result Input::Read(Sample* sample) {
  for (;; av_packet_unref(mPacket)) {
    const int result = av_read_frame(mContext, mPacket);
    if (gStop && result < 0) return Result::kStopped;
    if (result == AVERROR(EINTR)) continue;
    if (result == AVERROR_EOF) return Result::kEnd;
    if (result < 0) {
      Fail(result);
      return Result::kFailed;
    }
    if (mPacket->stream_index == mIndex && mPacket->size > 0) break;
  }
  ImfPacket& packet = sample->packet;
  packet.channel = mChannel;
  packet.keyFrame = (mPacket->flags & AV_PKT_FLAG_KEY) != 0;
  packet.duration = mPacket->duration;
  packet.data.assign(mPacket->data, mPacket->data + mPacket->size);
  UpdateStream(packet.keyFrame);
  sample->stream = mStream;
  sample->newTimeline = false;
  FillTimes(sample);
  av_packet_unref(mPacket);
  return Result::kPacket;
}

// New parameters come with a key frame; looking at every packet would compare for nothing.
void Input::UpdateStream(bool keyFrame) {
  size_t size = 0;
  const uint8_t* extraData = av_packet_get_side_data(mPacket, AV_PKT_DATA_NEW_EXTRADATA, &size);
  if (mStream && !keyFrame && extraData == nullptr) return;
  ImfStreamInfo info = DescribeStream(*mContext->streams[mIndex], mChannel);
  if (extraData != nullptr) {
    info.extraData.assign(extraData, extraData + size);
  } else if (mStream && info.extraData == mFirstExtraData) {
    info.extraData = mStream->extraData;
  }
  if (!mStream) mFirstExtraData = info.extraData;
  if (!mStream || !SameStream(*mStream, info)) mStream = std::make_shared<const ImfStreamInfo>(std::move(info));
}

void Input::FillTimes(Sample* sample) {
  ImfPacket& packet = sample->packet;
  const AVRational timeBase = mContext->streams[mIndex]->time_base;
  const AVRational micros = {1, static_cast<int>(kMicros)};
  packet.dts = mPacket->dts != AV_NOPTS_VALUE ? mPacket->dts
               : mStarted                     ? mNextDts
                                              : std::max<int64_t>(mPacket->pts, 0);
  packet.pts = mPacket->pts != AV_NOPTS_VALUE ? mPacket->pts : packet.dts;
  mNextDts = packet.dts + std::max<int64_t>(packet.duration, 1);

  const int64_t decoding = av_rescale_q(packet.dts, timeBase, micros);
  sample->displayOffset = av_rescale_q(packet.pts, timeBase, micros) - decoding;
  if (!mStarted) mOrigin = decoding + sample->displayOffset;  // the first picture is shown at time 0
  int64_t time = decoding - mOrigin;
  if (mStarted && (time < mLastTime - kBackwardJump || time > mLastTime + kForwardJump)) {
    // The stream's own clock was set, as where two recordings were put together. Ours goes on.
    mOrigin = decoding - mLastTime;
    time = mLastTime;
  }
  sample->streamTime = mStarted ? std::max(time, mLastTime) : time;
  mLastTime = sample->streamTime;
  mStarted = true;
}

}  // namespace recorder
