#include "codec/Report.h"

#include <linux/videodev2.h>

#include <cstdio>
#include <vector>

#include "codec/Choice.h"
#include "codec/kernel/Devices.h"
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

std::string describe(const kernel::Node& node) {
  std::vector<std::string> controls;
  kernel::M2mDevice device;
  if (node.passedOver.empty() && device.open(node.path)) controls = device.controlNames();
  return "{\"path\":" + quoted(node.path) + ",\"card\":" + quoted(node.card) +
         ",\"driver\":" + quoted(node.driver) + ",\"takes\":" + list(names(node.in)) +
         ",\"gives\":" + list(names(node.out)) + ",\"controls\":" + list(controls) +
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
