#include "apps/recorder/base/ParameterSets.h"

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
}

namespace recorder {

std::vector<uint8_t> ParameterSetsIn(const AVCodecParameters& parameters, const uint8_t* data, size_t size) {
  const AVCodecID id = parameters.codec_id;
  const char* name = id == AV_CODEC_ID_H264 || id == AV_CODEC_ID_HEVC ? "extract_extradata"
                     : id == AV_CODEC_ID_AAC                          ? "aac_adtstoasc"
                                                                      : nullptr;
  if (name == nullptr) return {};
  AVBSFContext* filter = nullptr;
  AVPacket* packet = av_packet_alloc();
  int result = packet != nullptr ? av_bsf_alloc(av_bsf_get_by_name(name), &filter) : AVERROR(ENOMEM);
  if (result >= 0) {
    filter->par_in->codec_type = parameters.codec_type;
    filter->par_in->codec_id = parameters.codec_id;  // without what the container says, which would be taken
    result = av_bsf_init(filter);
  }
  if (result >= 0) result = av_new_packet(packet, static_cast<int>(size));
  if (result >= 0) {
    std::memcpy(packet->data, data, size);
    result = av_bsf_send_packet(filter, packet);
  }
  if (result >= 0) result = av_bsf_receive_packet(filter, packet);
  size_t length = 0;
  const uint8_t* found =
      result >= 0 ? av_packet_get_side_data(packet, AV_PKT_DATA_NEW_EXTRADATA, &length) : nullptr;
  std::vector<uint8_t> sets;
  if (found != nullptr) sets.assign(found, found + length);
  av_packet_free(&packet);
  av_bsf_free(&filter);
  return sets;
}

bool PictureSize(const AVCodecParameters& parameters, const std::vector<uint8_t>& sets, const uint8_t* data,
                 size_t size, int* width, int* height) {
  AVCodecParserContext* parser = av_parser_init(parameters.codec_id);
  AVCodecContext* context = avcodec_alloc_context3(nullptr);
  bool known = parser != nullptr && context != nullptr;
  if (known) {
    context->codec_id = parameters.codec_id;
    context->codec_type = parameters.codec_type;
    context->extradata = static_cast<uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    known = context->extradata != nullptr;
  }
  std::vector<uint8_t> padded(data, data + size);
  padded.resize(size + AV_INPUT_BUFFER_PADDING_SIZE);
  if (known) {
    if (!sets.empty()) std::memcpy(context->extradata, sets.data(), sets.size());
    context->extradata_size = static_cast<int>(sets.size());
    parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    uint8_t* out = nullptr;
    int length = 0;
    av_parser_parse2(parser, context, &out, &length, padded.data(), static_cast<int>(size), AV_NOPTS_VALUE,
                     AV_NOPTS_VALUE, -1);
    known = parser->width > 0 && parser->height > 0;
  }
  if (known) {
    *width = parser->width;
    *height = parser->height;
  }
  av_parser_close(parser);
  avcodec_free_context(&context);
  return known;
}

}  // namespace recorder
