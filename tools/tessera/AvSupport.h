#ifndef TESSERA_TOOLS_AVSUPPORT_H
#define TESSERA_TOOLS_AVSUPPORT_H

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/pixdesc.h>
}

#include <memory>
#include <string>

namespace tool {

struct AvFree {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVBSFContext* filter) const { av_bsf_free(&filter); }
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVCodecParserContext* parser) const { av_parser_close(parser); }
  void operator()(AVIOContext* io) const {
    av_freep(&io->buffer);
    avio_context_free(&io);
  }
};
template <typename T>
using AvOwned = std::unique_ptr<T, AvFree>;

inline std::string avErrorText(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = "";
  av_strerror(error, text, sizeof text);
  return text;
}

}  // namespace tool

#endif  // TESSERA_TOOLS_AVSUPPORT_H
