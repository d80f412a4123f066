#include "codec/Report.h"

#include <linux/videodev2.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "codec/Choice.h"
#include "codec/kernel/Devices.h"
#include "codec/kernel/H264Encoder.h"
#include "codec/kernel/H264M2m.h"
#include "codec/kernel/M2mDevice.h"

namespace codec {

namespace {

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const char letter : text) {
    if (letter == '"' || letter == '\\') out += '\\';
    const auto code = static_cast<unsigned char>(letter);
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\u%04x", code);
    out += code < 0x20 || code > 0x7e ? std::string(escaped) : std::string(1, letter);
  }
  return out + "\"";
}

std::string list(const std::vector<std::string>& texts) {
  std::string out;
  for (const std::string& text : texts) out += (out.empty() ? "" : ",") + quoted(text);
  return "[" + out + "]";
}

std::vector<std::string> names(const std::vector<std::uint32_t>& formats) {
  std::vector<std::string> all;
  all.reserve(formats.size());
  for (const std::uint32_t each : formats) all.push_back(kernel::nameOf(each));
  return all;
}

bool has(const std::vector<std::uint32_t>& formats, std::uint32_t fourcc) {
  return std::find(formats.begin(), formats.end(), fourcc) != formats.end();
}

/// What an encoder lacks of the settings that are asked of it, as it shows when one is opened.
std::vector<std::string> notTaken(const kernel::Node& node) {
  if (has(node.out, V4L2_PIX_FMT_H264)) {
    VideoEncoder::Config config;
    config.width = 640;
    config.height = 480;
    config.bitrate = 1000000;
    config.aspectNum = 4;
    config.aspectDen = 3;
    kernel::H264Encoder encoder;
    encoder.openOn(node.path, config);
    return encoder.notTaken();
  }
  if (!has(node.out, V4L2_PIX_FMT_JPEG) && !has(node.out, V4L2_PIX_FMT_MJPEG)) return {};
  kernel::M2mDevice device;
  kernel::Control quality;
  if (!device.open(node.path)) return {};
  if (!device.findControl(V4L2_CID_JPEG_COMPRESSION_QUALITY, quality))
    return {"quality (not there)"};
  if (!device.setControl(V4L2_CID_JPEG_COMPRESSION_QUALITY, quality.maximum))
    return {"quality (refused)"};
  return {};
}

std::string describe(const kernel::Node& node) {
  std::vector<std::string> controls;
  bool tenBits = false;
  kernel::M2mDevice device;
  if (node.passedOver.empty() && device.open(node.path)) {
    controls = device.controlNames();
    tenBits = has(node.in, V4L2_PIX_FMT_H264) && kernel::decodesTenBits(device);
  }
  device.close();
  return "{\"path\":" + quoted(node.path) + ",\"card\":" + quoted(node.card) +
         ",\"driver\":" + quoted(node.driver) + ",\"takes\":" + list(names(node.in)) +
         ",\"gives\":" + list(names(node.out)) + ",\"controls\":" + list(controls) +
         ",\"not_taken\":" + list(notTaken(node)) +
         ",\"ten_bits\":" + (tenBits ? "true" : "false") +
         ",\"passed_over\":" + quoted(node.passedOver) + "}";
}

struct Service {
  const char* name;
  bool encode;
  std::vector<std::uint32_t> coded;
};

std::string describe(const Service& service, Codecs codecs) {
  std::vector<std::string> reasons;
  std::vector<kernel::Offer> offers;
  if (codecs != Codecs::Cpu)
    offers = kernel::offersFor({service.encode, service.coded, 0, 0}, reasons);
  const bool onKernel = !offers.empty();
  const kernel::Offer offer = onKernel ? offers[0] : kernel::Offer();
  const char* const coder = onKernel ? "kernel" : codecs == Codecs::Kernel ? "none" : "cpu";
  return "{\"service\":" + quoted(service.name) + ",\"coder\":" + quoted(coder) +
         ",\"device\":" + quoted(offer.path) + ",\"largest\":[" + std::to_string(offer.width) +
         "," + std::to_string(offer.height) + "],\"passed_over\":" + list(reasons) + "}";
}

}  // namespace

std::string codecReport() {
  const Codecs codecs = chosenCodecs();
  const std::vector<std::uint32_t> h264 = {V4L2_PIX_FMT_H264};
  const std::vector<std::uint32_t> jpeg = {V4L2_PIX_FMT_JPEG, V4L2_PIX_FMT_MJPEG};
  const Service services[] = {{"JPEG encoding", true, jpeg},
                              {"JPEG decoding", false, jpeg},
                              {"H.264 encoding", true, h264},
                              {"H.264 decoding", false, h264}};
  constexpr const char* choices[] = {"auto", "cpu", "kernel"};
  std::string devices, chosen;
  for (const kernel::Node& node : kernel::nodes())
    devices += (devices.empty() ? "" : ",") + describe(node);
  for (const Service& service : services)
    chosen += (chosen.empty() ? "" : ",") + describe(service, codecs);
  return std::string("{\"choice\":\"") + choices[static_cast<int>(codecs)] + "\",\"services\":[" +
         chosen + "],\"devices\":[" + devices + "]}";
}

}  // namespace codec
