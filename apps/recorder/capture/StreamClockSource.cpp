#include "apps/recorder/capture/StreamClockSource.h"

#include <utility>

namespace recorder {

StreamClockSource::StreamClockSource(const std::vector<std::string>& urls, int64_t start, int64_t timeout,
                                     bool audio)
    : mStart(start), mChannels(urls.size()), mHealth(ShownAddresses(urls)) {
  for (size_t i = 0; i < urls.size(); i++) {
    Channel& channel = mChannels[i];
    channel.ended = urls[i].empty();
    if (channel.ended) continue;
    channel.input = std::make_unique<Input>(urls[i], static_cast<int>(i), timeout, audio);
    if (channel.input->Open()) {
      mOpened++;
    } else {
      End(static_cast<int>(i), "cannot read " + ShownAddress(urls[i]) + ": " + channel.input->Error());
    }
  }
}

void StreamClockSource::Advance(int number) {
  Channel& channel = mChannels[static_cast<size_t>(number)];
  if (channel.pending || channel.ended) return;
  const Input::Result result = channel.input->Read(&channel.sample);
  channel.pending = result == Input::Result::kPacket;
  if (channel.pending) {
    if (channel.sample.packet.kind != ImfKind::kVideo) return;
    const ImfStreamInfo& stream = *channel.sample.stream;
    if (channel.sample.packet.keyFrame)
      mHealth.NoteCoding(number, stream.codecName, stream.width, stream.height);
    mHealth.NotePicture(number, channel.sample.packet.data.size(), ChannelHealthBoard::Moment::Now());
  } else {
    End(number, channel.input->Address() +
                    (result == Input::Result::kEnd ? " has ended" : ": " + channel.input->Error()));
  }
}

void StreamClockSource::End(int number, const std::string& reason) {
  Channel& channel = mChannels[static_cast<size_t>(number)];
  channel.ended = true;
  if (!gStop) channel.reason = reason;
  channel.input.reset();
  mHealth.NoteEnded(number, reason, ChannelHealthBoard::Moment::Now());
}

void StreamClockSource::Next(SourceEvent* event) {
  event->kind = SourceEvent::kFinished;
  if (gStop) return;
  Channel* next = nullptr;
  for (size_t i = 0; i < mChannels.size(); i++) {
    Channel& channel = mChannels[i];
    Advance(static_cast<int>(i));
    if (channel.ended && !channel.reason.empty()) {
      event->kind = SourceEvent::kChannelEnded;
      event->channel = static_cast<int>(i);
      event->line = event->reason = std::exchange(channel.reason, "");
      return;
    }
    if (!channel.pending) continue;
    if (next == nullptr || channel.sample.streamTime < next->sample.streamTime) next = &channel;
  }
  if (next == nullptr) return;
  std::swap(event->sample, next->sample);
  next->pending = false;
  event->kind = SourceEvent::kPacket;
  event->sample.packet.time = mStart + event->sample.streamTime + event->sample.displayOffset;
}

}  // namespace recorder
