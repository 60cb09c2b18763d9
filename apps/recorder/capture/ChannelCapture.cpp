#include "apps/recorder/capture/ChannelCapture.h"

#include <algorithm>

#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

constexpr int64_t kHeld = 10 * kMicros;          // a connection of that long is one
constexpr int64_t kLongestDelay = 30 * kMicros;  // between attempts
constexpr int64_t kSayAgain = 60 * kMicros;

ChannelHealthBoard::Moment Now() { return ChannelHealthBoard::Moment::Now(); }

std::string LastedFrom(int64_t begin) {
  return FormatDuration(static_cast<double>(MonotonicNow() - begin) / kMicros);
}

}  // namespace

int64_t RetryPlan::AfterFailure(int64_t held) {
  if (held >= kHeld) mFailures = 0;
  const int64_t delay = mFailures == 0 ? 0 : kMicros << std::min(mFailures - 1, 5);
  mFailures++;
  return std::min(delay, kLongestDelay);
}

void ChannelCapture::Run() {
  RetryPlan plan;
  while (!mEnded) {
    mHeldSince = 0;
    mTimedOut = false;
    const std::string reason = Connect();
    if (mEnded) return;
    if (gStop) return End("", "");
    const int64_t held = mHeldSince != 0 ? MonotonicNow() - mHeldSince : 0;
    const int64_t delay = plan.AfterFailure(held);
    NoteLost(reason);
    if (!mTimedOut && delay > 0) mSink.WaitUntil(MonotonicNow() + delay);
    if (gStop) return End("", "");
  }
}

// Returns why there is no connection any more.
std::string ChannelCapture::Connect() {
  Input input(mUrl, mChannel, mTimeout, mWithAudio);
  if (!input.Open()) {
    mTimedOut = input.IsTimedOut();
    if (!gStop && (!IsNetwork(mUrl) || input.IsHopeless())) {
      End("cannot read " + input.Address() + ": " + input.Error(), input.Error());
    }
    return input.Error();
  }
  mSink.Opened();
  const int64_t begin = MonotonicNow();
  std::shared_ptr<const ImfStreamInfo> stream;
  for (;;) {
    Sample sample;
    const Input::Result result = input.Read(&sample);
    if (result == Input::Result::kStopped) return "";
    if (result != Input::Result::kPacket) {
      mTimedOut = input.IsTimedOut();
      const bool isEnd = result == Input::Result::kEnd;
      if (!IsNetwork(mUrl)) {
        End(input.Address() + (isEnd ? " has ended" : ": " + input.Error()),
            isEnd ? "has ended" : input.Error());
      }
      return isEnd ? "the connection was closed" : input.Error();
    }
    if (mHeldSince == 0) NoteBack();
    if (input.IsFile()) {  // at its own pace, as a camera would send it
      mSink.WaitUntil(begin + sample.streamTime);
      if (gStop) return "";
      sample.arrival = MonotonicNow();
    }
    if (sample.packet.kind != ImfKind::kVideo) {
      mSink.Put(std::move(sample));
      continue;
    }
    if (sample.stream != stream) {
      stream = sample.stream;
      mSink.Board().NoteCoding(mChannel, stream->codecName, stream->width, stream->height);
    }
    mSink.Board().NotePicture(mChannel, sample.packet.data.size(), Now());
    mSink.Put(std::move(sample));
  }
}

void ChannelCapture::NoteLost(const std::string& reason) {
  mSink.Board().NoteLost(mChannel, reason, Now());
  const int64_t now = MonotonicNow();
  const std::string address = ShownAddress(mUrl);
  if (mLostSince == 0) {
    mLostSince = mSaidLost = now;
    Say(SourceEvent::kChannelLost,
        mGavePictures ? address + " is lost: " + reason
                      : "cannot read " + address + ": " + reason + "; it is tried again",
        reason);
  } else if (now - mSaidLost >= kSayAgain) {
    mSaidLost = now;
    Say(SourceEvent::kChannelStillLost,
        address + " has been lost for " + LastedFrom(mLostSince) + ": " + reason, reason);
  }
}

void ChannelCapture::NoteBack() {
  mHeldSince = MonotonicNow();
  if (mLostSince != 0) {
    mSink.Board().NoteBack(mChannel);
    Say(SourceEvent::kChannelBack, ShownAddress(mUrl) + " is back after " + LastedFrom(mLostSince));
  }
  mLostSince = 0;
  mGavePictures = true;
}

void ChannelCapture::End(const std::string& line, const std::string& reason) {
  mEnded = true;
  mSink.Board().NoteEnded(mChannel, reason, Now());
  Say(SourceEvent::kChannelEnded, gStop ? "" : line, reason);
}

void ChannelCapture::Say(SourceEvent::Kind kind, const std::string& line, const std::string& reason) {
  SourceEvent event;
  event.kind = kind;
  event.channel = mChannel;
  event.line = line;
  event.reason = reason;
  mSink.Put(std::move(event));
}

}  // namespace recorder
