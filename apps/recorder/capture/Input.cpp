#include "apps/recorder/capture/Input.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "apps/recorder/base/ParameterSets.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/capture/StreamInfo.h"

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
  // A closed terminal is no crash; nohup(1) has it ignored, and that stays.
  struct sigaction before = {};
  if (sigaction(SIGHUP, nullptr, &before) == 0 && before.sa_handler != SIG_IGN) {
    sigaction(SIGHUP, &action, nullptr);
  }
}

int64_t MonotonicNow() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kMicros + now.tv_nsec / 1000;
}

namespace {

constexpr int64_t kBackwardJump = 1 * kMicros;
constexpr int64_t kForwardJump = 3600 * kMicros;
constexpr size_t kSoundLimit = 1024;  // packets that wait for the first picture
constexpr AVRational kMicroBase = {1, static_cast<int>(kMicros)};
// What is read of a network stream to find out what it is; libavformat's own limits take up to 7 seconds.
constexpr const char* kAnalysis = "2000000";  // microseconds
constexpr const char* kRatePictures = "5";

// As H.264 and H.265 have them where no container says how long they are.
bool HasStartCodes(const std::vector<uint8_t>& sets) { return sets.size() > 3 && sets[0] == 0 && sets[1] == 0; }

// The time of day at which the source says that it took a picture, as RTCP's sender reports do.
std::optional<int64_t> CameraTime(const AVPacket& packet) {
  size_t size = 0;
  const uint8_t* reference = av_packet_get_side_data(&packet, AV_PKT_DATA_PRFT, &size);
  AVProducerReferenceTime time;
  if (reference == nullptr || size < sizeof time) return std::nullopt;
  std::memcpy(&time, reference, sizeof time);
  return time.wallclock;
}

// Whether the format's name, which may be several with commas between, has one of `names`.
bool IsFormat(const AVInputFormat& format, std::initializer_list<const char*> names) {
  const std::string list = std::string(",") + format.name + ",";
  return std::any_of(names.begin(), names.end(), [&](const char* name) {
    return list.find("," + std::string(name) + ",") != std::string::npos;
  });
}

}  // namespace

Input::Input(std::string url, int channel, int64_t timeout, bool audio)
    : mUrl(std::move(url)),
      mChannel(channel),
      mIsNetwork(IsNetwork(mUrl)),
      mTimeout(timeout),
      mWithAudio(audio),
      mPacket(av_packet_alloc()) {}

Input::~Input() {
  // Taking leave of a camera that does not listen any more must not take long either.
  mDeadline = std::min(mDeadline, MonotonicNow() + kMicros);
  avformat_close_input(&mContext);
  av_packet_free(&mPacket);
}

int Input::InterruptIfDue(void* input) {
  auto* self = static_cast<Input*>(input);
  if (gStop || (self->mIsNetwork && MonotonicNow() > self->mDeadline)) self->mInterrupted = true;
  return self->mInterrupted ? 1 : 0;
}

void Input::ExtendDeadline() {
  if (!mInterrupted) mDeadline = MonotonicNow() + mTimeout;
}

bool Input::Fail(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(error, text, sizeof text);
  mError = text;
  mTimedOut = mIsNetwork && MonotonicNow() > mDeadline;
  mHopeless = error == AVERROR_PROTOCOL_NOT_FOUND;
  return false;
}

bool Input::Open() {
  struct stat st;
  const std::string path = mUrl.rfind("file:", 0) == 0 ? mUrl.substr(5) : mUrl;
  const bool isStandard = mUrl == "-";
  mIsFile = (isStandard ? fstat(STDIN_FILENO, &st) : stat(path.c_str(), &st)) == 0 && S_ISREG(st.st_mode);

  mContext = avformat_alloc_context();
  if (mContext == nullptr || mPacket == nullptr) return Fail(AVERROR(ENOMEM));
  mContext->interrupt_callback = {InterruptIfDue, this};
  AVDictionary* options = nullptr;
  av_dict_set(&options, "rtsp_transport", "tcp", 0);  // a recording with holes is worth less than a late one
  if (mIsNetwork) {
    av_dict_set(&options, "analyzeduration", kAnalysis, 0);
    av_dict_set(&options, "fpsprobesize", kRatePictures, 0);
  } else {
    mContext->flags |= AVFMT_FLAG_GENPTS;
  }
  ExtendDeadline();
  int result = avformat_open_input(&mContext, isStandard ? "pipe:0" : mUrl.c_str(), nullptr, &options);
  av_dict_free(&options);
  if (result >= 0) {
    ExtendDeadline();
    result = avformat_find_stream_info(mContext, nullptr);
  }
  if (result < 0) {
    Fail(result);
    if (mTimedOut) mError = "nothing came within " + FormatDuration(static_cast<double>(mTimeout) / kMicros);
    return false;
  }
  mIndex = av_find_best_stream(mContext, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (mIndex < 0) {
    mError = "there is no video in it";
    return false;
  }
  if (mWithAudio) FindSound();
  for (unsigned i = 0; i < mContext->nb_streams; i++) {
    const int index = static_cast<int>(i);
    if (index != mIndex && mSounds.count(index) == 0) mContext->streams[i]->discard = AVDISCARD_ALL;
  }
  DescribeStamps();
  ExtendDeadline();
  return true;
}

// What the packets' stamps are worth depends on where they come from: RTP and Matroska have presentation times
// only, and of what libavformat makes of these the first ones are missing; pictures in a row have no times at
// all, though libavformat counts 25 of them a second.
void Input::DescribeStamps() {
  const AVInputFormat& format = *mContext->iformat;
  const AVStream& stream = *mContext->streams[mIndex];
  mHasStamps = mIsFile || ((format.flags & AVFMT_NOTIMESTAMPS) == 0 && !IsFormat(format, {"mpjpeg"}));
  const bool isRtp = IsFormat(format, {"rtsp", "rtp", "sdp"});
  if (!mIsFile && !IsIntraOnly(stream)) mPicturesHeld = isRtp ? 1 : IsFormat(format, {"mpegts"}) ? 2 : 0;
  StampFiller::Options options;
  options.decodeStamps = !isRtp && !IsFormat(format, {"matroska", "webm"});
  options.reorder = std::max(stream.codecpar->video_delay, 0);
  AVRational rate = RateOf(stream);
  if (rate.num <= 0 || rate.den <= 0) rate = {25, 1};
  options.interval = std::max<int64_t>(1, av_rescale_q(1, av_inv_q(rate), stream.time_base));
  options.jump = std::max(av_rescale_q(kBackwardJump, kMicroBase, stream.time_base),
                          2 * (options.reorder + 1) * options.interval);
  mFiller.emplace(options);
}

// Where several programmes share a transport stream, the sound is that of the picture's.
void Input::FindSound() {
  const AVProgram* program = av_find_program_from_stream(mContext, nullptr, mIndex);
  const unsigned count = program != nullptr ? program->nb_stream_indexes : mContext->nb_streams;
  for (unsigned i = 0; i < count && mSounds.size() < static_cast<size_t>(IMF_STREAM_LIMIT); i++) {
    const unsigned index = program != nullptr ? program->stream_index[i] : i;
    const AVStream& stream = *mContext->streams[index];
    if (stream.codecpar->codec_type != AVMEDIA_TYPE_AUDIO || stream.codecpar->codec_id == AV_CODEC_ID_NONE)
      continue;
    const int number = static_cast<int>(mSounds.size());
    mSounds[static_cast<int>(index)].stream =
        std::make_shared<const ImfStreamInfo>(DescribeSound(stream, mChannel, number));
  }
}

Input::Result Input::Read(Sample* sample) {
  for (;;) {
    if (TakeSound(sample)) return Result::kPacket;
    std::optional<StampFiller::Stamps> stamps = mFiller->Take(mEnd != Result::kPacket);
    if (stamps) {
      *sample = std::move(mRead.front());
      mRead.pop_front();
      FillStamps(*stamps, sample);
      return Result::kPacket;
    }
    if (mEnd == Result::kPacket) {
      // A disk that kept the packet before waiting is not the camera's fault.
      if (mFetched != 0) mDeadline += MonotonicNow() - mFetched;
      mEnd = Fetch();
      mFetched = MonotonicNow();
    }
    if (mEnd != Result::kPacket && mRead.empty()) return mEnd;
  }
}

// Reads one packet into mRead.
Input::Result Input::Fetch() {
  for (;; av_packet_unref(mPacket)) {
    const int result = av_read_frame(mContext, mPacket);
    if (gStop && result < 0) return Result::kStopped;
    if (result >= 0 && mInterrupted) continue;  // what libavformat had in store, which may be half a picture
    if (result == AVERROR(EINTR)) continue;
    if (result < 0) {
      Fail(result);
      if (mTimedOut) mError = "no picture for " + FormatDuration(static_cast<double>(mTimeout) / kMicros);
      return result == AVERROR_EOF && !mTimedOut ? Result::kEnd : Result::kFailed;
    }
    if (mPacket->stream_index == mIndex && mPacket->size > 0) break;
    if (mPacket->size > 0 && mSounds.count(mPacket->stream_index) != 0) {
      FetchSound();
      if (mStarted) return Result::kPacket;
    }
  }
  ExtendDeadline();
  Sample sample;
  FillArrival(&sample);
  ImfPacket& packet = sample.packet;
  packet.channel = mChannel;
  packet.keyFrame = (mPacket->flags & AV_PKT_FLAG_KEY) != 0;
  packet.duration = mHasStamps ? mPacket->duration : 0;
  packet.data.assign(mPacket->data, mPacket->data + mPacket->size);
  UpdateStream(packet.keyFrame);
  sample.stream = mStream;
  StampFiller::Given given;
  if (mPacket->pts != AV_NOPTS_VALUE) given.pts = mPacket->pts;
  if (mPacket->dts != AV_NOPTS_VALUE) given.dts = mPacket->dts;
  mFiller->Put(given);
  mRead.push_back(std::move(sample));
  av_packet_unref(mPacket);
  return Result::kPacket;
}

// Sound is decoded in the order in which it is heard, so one stamp is enough.
void Input::FetchSound() {
  Sound& sound = mSounds[mPacket->stream_index];
  const AVStream& stream = *mContext->streams[mPacket->stream_index];
  const int number = sound.stream->number;
  ImfStreamInfo info = DescribeSound(stream, mChannel, number);
  size_t size = 0;
  const uint8_t* extraData = av_packet_get_side_data(mPacket, AV_PKT_DATA_NEW_EXTRADATA, &size);
  if (extraData != nullptr) {
    info.extraData.assign(extraData, extraData + size);
  } else if (info.extraData.empty()) {
    info.extraData = sound.stream->extraData;
  }
  if (!SameStream(info, *sound.stream)) sound.stream = std::make_shared<const ImfStreamInfo>(std::move(info));

  Sample sample;
  sample.arrival = MonotonicNow();
  sample.stream = sound.stream;
  ImfPacket& packet = sample.packet;
  packet.channel = mChannel;
  packet.kind = ImfKind::kAudio;
  packet.number = number;
  packet.keyFrame = (mPacket->flags & AV_PKT_FLAG_KEY) != 0;
  packet.duration = mPacket->duration;
  packet.pts = mPacket->pts != AV_NOPTS_VALUE   ? mPacket->pts
               : mPacket->dts != AV_NOPTS_VALUE ? mPacket->dts
                                                : sound.next;
  packet.dts = packet.pts;
  sound.next = packet.pts + packet.duration;
  packet.data.assign(mPacket->data, mPacket->data + mPacket->size);
  av_packet_unref(mPacket);
  if (mHasStamps) {
    const int64_t time = av_rescale_q(packet.pts, stream.time_base, kMicroBase);
    sample.stamps = StreamStamps{time, time};
  }
  mSoundRead.push_back(std::move(sample));
  if (mSoundRead.size() > kSoundLimit) mSoundRead.pop_front();
}

// Pictures set the pace and the time: sound takes its place among them by its distance from their beginning.
bool Input::TakeSound(Sample* sample) {
  if (!mStarted || mSoundRead.empty()) return false;
  *sample = std::move(mSoundRead.front());
  mSoundRead.pop_front();
  sample->streamTime = mLastTime;
  if (sample->stamps) sample->displayOffset = sample->stamps->pts - mOrigin - mLastTime;
  return true;
}

// A picture whose end is only seen by the beginning of the one behind it comes out when that arrives, and with
// what came beside that.
void Input::FillArrival(Sample* sample) {
  mComeOut.push_back({MonotonicNow(), CameraTime(*mPacket)});
  const bool isFull = mComeOut.size() > mPicturesHeld;
  sample->arrival = mComeOut.front().at;
  if (!isFull) return;
  sample->camera = mComeOut.front().camera;
  mComeOut.pop_front();
}

// New parameters come with a key frame; looking at every packet would compare for nothing.
void Input::UpdateStream(bool keyFrame) {
  size_t size = 0;
  const uint8_t* extraData = av_packet_get_side_data(mPacket, AV_PKT_DATA_NEW_EXTRADATA, &size);
  if (mStream && !keyFrame && extraData == nullptr) return;
  ImfStreamInfo info = DescribeStream(*mContext->streams[mIndex], mChannel);
  if (!mHasStamps) {
    info.timeBaseNumerator = kMicroBase.num;
    info.timeBaseDenominator = kMicroBase.den;
    info.frameRateNumerator = 0;
  }
  if (extraData != nullptr) {
    info.extraData.assign(extraData, extraData + size);
  } else if (mStream && info.extraData == mFirstExtraData) {
    info.extraData = mStream->extraData;
  }
  if (!mStream) mFirstExtraData = info.extraData;
  // A container that is a stream says nothing any more when the coder is set up anew; its key frames do.
  const AVCodecParameters& parameters = *mContext->streams[mIndex]->codecpar;
  const auto length = static_cast<size_t>(mPacket->size);
  if (keyFrame && extraData == nullptr && HasStartCodes(info.extraData)) {
    std::vector<uint8_t> sets = ParameterSetsIn(parameters, mPacket->data, length);
    if (!sets.empty()) info.extraData = std::move(sets);
  }
  if (info.extraData != mFirstExtraData) {
    if (mStream && info.extraData == mStream->extraData) {
      info.width = mStream->width;
      info.height = mStream->height;
    } else {
      PictureSize(parameters, info.extraData, mPacket->data, length, &info.width, &info.height);
    }
  }
  if (!mStream || !SameStream(*mStream, info)) mStream = std::make_shared<const ImfStreamInfo>(std::move(info));
}

void Input::FillStamps(StampFiller::Stamps stamps, Sample* sample) {
  ImfPacket& packet = sample->packet;
  if (!mHasStamps) {
    if (!mStarted) mFirstArrival = sample->arrival;
    packet.pts = packet.dts = sample->streamTime = std::max(sample->arrival - mFirstArrival, mLastTime + 1);
    mLastTime = packet.dts;
    mStarted = true;
    return;
  }
  packet.pts = stamps.pts;
  packet.dts = stamps.dts;
  const AVRational timeBase = mContext->streams[mIndex]->time_base;
  sample->stamps = StreamStamps{av_rescale_q(packet.pts, timeBase, kMicroBase),
                                av_rescale_q(packet.dts, timeBase, kMicroBase)};
  sample->displayOffset = sample->stamps->pts - sample->stamps->dts;
  FillStreamTime(sample);
}

void Input::FillStreamTime(Sample* sample) {
  const int64_t decoding = sample->stamps->dts;
  if (!mStarted) mOrigin = sample->stamps->pts;  // the first picture is shown at time 0
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
