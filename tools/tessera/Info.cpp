#include <dlfcn.h>
#include <sys/wait.h>
#include <tessera/Basics.h>
#include <tessera/CMmalJpegEncoder.h>
#include <tessera/COmxH264Encoder.h>
#include <tessera/COmxJpegEncoder.h>
#include <tessera/DecoderPool.h>
#include <tessera/IH264Decoder.h>
#include <tessera/IH264Encoder.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "AvSupport.h"
#include "Commands.h"
#include "Failure.h"
#include "OutputFile.h"

namespace tool {
namespace {

constexpr int width = 64, height = 48;  // a multiple of 32 x 16: no padding anywhere
constexpr unsigned secondsPerCheck = 15;
using Bytes = std::vector<std::uint8_t>;

// ---- what each class has to do: one grey picture

Bytes encodeJpeg(IJPEGEncoder& encoder) {
  Bytes frame(width * height * 2, 128), jpeg(64 * 1024);
  unsigned size = 0;
  if (!encoder.EncodeYUYV(frame.data(), static_cast<unsigned>(frame.size()), width, height,
                          jpeg.data(), static_cast<unsigned>(jpeg.size()), size))
    size = 0;
  jpeg.resize(size);
  return jpeg;
}

template <typename Encoder>
Bytes encodeJpegWith() {
  return encodeJpeg(*std::make_unique<Encoder>());
}

Bytes encodeH264(IH264Encoder* owned) {
  const std::unique_ptr<IH264Encoder, int (*)(IH264Encoder*)> encoder(owned, ReleaseEncoderH264);
  Bytes frame(width * height * 3 / 2, 128), piece(1 << 20), stream;
  if (!encoder->Create(tessera::fourccI420, width, height, 30, 1, 1, 1, 500000)) return {};
  if (encoder->ProcessInput(frame.data(), static_cast<unsigned>(frame.size()), 0, 0) != CodecOk)
    return {};
  for (int tries = 0; tries < 20 && !tessera::HasPicture(stream.data(), stream.size()); ++tries) {
    unsigned size = 0, flags = 0;
    if (encoder->ProcessOutput(piece.data(), static_cast<unsigned>(piece.size()), size, flags) ==
        CodecOk)
      stream.insert(stream.end(), piece.begin(), piece.begin() + size);
  }
  return tessera::HasPicture(stream.data(), stream.size()) ? stream : Bytes();
}

bool decodesJpeg() {
  Bytes jpeg = encodeJpegWith<CMmalJpegEncoder>();
  if (jpeg.empty()) jpeg = encodeJpegWith<COmxJpegEncoder>();
  const std::unique_ptr<DecoderPool, int (*)(DecoderPool*)> pool(GetDecoderPool(),
                                                                 ReleaseDecoderPool);
  int w = 0, h = 0;
  return pool->DecodeJpeg(reinterpret_cast<char*>(jpeg.data()), static_cast<unsigned>(jpeg.size()),
                          w, h) &&
         w == width && h == height;
}

bool decodesH264() {
  Bytes stream = encodeH264(CreateEncoderH264());
  if (stream.empty()) stream = encodeH264(new COmxH264Encoder);
  IH264Decoder* made = nullptr;
  if (stream.empty() || !CreateH264Decoder(&made)) return false;
  const std::unique_ptr<IH264Decoder, int (*)(IH264Decoder*)> decoder(made, FreeH264Decoder);
  if (!decoder->Create(width, height, 0, nullptr) ||
      decoder->ProcessInput(stream.data(), static_cast<unsigned>(stream.size()), width, height, 0,
                            0) != CodecOk)
    return false;
  Bytes picture(width * height * 3 / 2);
  for (int tries = 0; tries < 20; ++tries) {
    unsigned size = 0, w = 0, h = 0;
    unsigned long long milliseconds = 0;
    if (decoder->ProcessOutput(picture.data(), static_cast<unsigned>(picture.size()), size, w, h,
                               milliseconds) == CodecOk)
      return w == width && h == height;
  }
  return false;
}

struct Check {
  const char* name;
  const char* work;
  const char* component;
  bool (*works)();
};

constexpr Check checks[] = {
    {"CMmalJpegEncoder", "JPEG encoding", "vc.ril.image_encode",
     [] { return !encodeJpegWith<CMmalJpegEncoder>().empty(); }},
    {"COmxJpegEncoder", "JPEG encoding", "OMX.broadcom.image_encode",
     [] { return !encodeJpegWith<COmxJpegEncoder>().empty(); }},
    {"DecoderPool", "JPEG decoding", "OMX.broadcom.image_decode", decodesJpeg},
    {"CMmalH264Encoder", "H.264 encoding", "vc.ril.video_encode",
     [] { return !encodeH264(CreateEncoderH264()).empty(); }},
    {"COmxH264Encoder", "H.264 encoding", "OMX.broadcom.video_encode",
     [] { return !encodeH264(new COmxH264Encoder).empty(); }},
    {"CMmalH264Decoder", "H.264 decoding", "vc.ril.video_decode", decodesH264}};

// ---- each in a process of its own: some failures of a platform end it, others never answer

struct Outcome {
  bool works = false;
  double milliseconds = 0;
  std::string said;  ///< what the library printed
};

[[noreturn]] void runInChild(const Check& check, int output) {
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  alarm(secondsPerCheck);
  const bool works = check.works();
  std::fflush(nullptr);
  _exit(works ? ExitDone : ExitFailed);
}

Outcome run(const Check& check) {
  Outcome outcome;
  int ends[2];
  if (pipe(ends) != 0) throw Failure("cannot make a pipe");
  std::fflush(nullptr);
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child < 0) throw Failure("cannot start a process");
  if (child == 0) {
    close(ends[0]);
    runInChild(check, ends[1]);
  }
  close(ends[1]);
  char text[512];
  for (ssize_t got; (got = read(ends[0], text, sizeof text)) > 0;)
    outcome.said.append(text, static_cast<std::size_t>(got));
  close(ends[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  outcome.works = WIFEXITED(status) && WEXITSTATUS(status) == ExitDone;
  if (WIFSIGNALED(status))
    outcome.said += WTERMSIG(status) == SIGALRM
                        ? "no answer for " + std::to_string(secondsPerCheck) + " s"
                        : "ended by signal " + std::to_string(WTERMSIG(status));
  outcome.milliseconds =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  return outcome;
}

// ---- the report

/// The shared object that a symbol of this process comes from.
std::string objectOf(const char* symbol) {
  Dl_info where = {};
  const void* address = dlsym(RTLD_DEFAULT, symbol);
  if (!address || !dladdr(address, &where) || !where.dli_fname) return "";
  return where.dli_fname;
}

/// What the software platform says of its coders; null on any other.
nlohmann::ordered_json codecs() {
  using Report = char* (*)();
  const auto ask = reinterpret_cast<Report>(dlsym(RTLD_DEFAULT, "tessera_platform_codecs"));
  if (ask == nullptr) return nullptr;
  const std::unique_ptr<char, void (*)(void*)> text(ask(), std::free);
  return text ? nlohmann::ordered_json::parse(text.get(), nullptr, false) : nullptr;
}

std::string versionText(unsigned version) {
  return std::to_string(AV_VERSION_MAJOR(version)) + "." +
         std::to_string(AV_VERSION_MINOR(version)) + "." +
         std::to_string(AV_VERSION_MICRO(version));
}

/// Why it is the software platform and not the board's libraries.
std::string whyNotBoard() {
  const std::string folder = "/opt/vc/lib";
  if (access(folder.c_str(), F_OK) != 0)
    return "there is no " + folder + ", where a board's system has its libraries";
  std::string missing;
  for (const char* name : {"bcm_host", "openmaxil", "mmal", "mmal_core", "mmal_util", "vcos"}) {
    const std::string file = std::string("lib").append(name).append(".so");
    if (access(std::string(folder).append("/").append(file).c_str(), R_OK) != 0)
      missing += (missing.empty() ? "" : ", ") + file;
  }
  if (!missing.empty()) return folder + " lacks " + missing;
  return "this library was built for the software platform; build it with -DTESSERA_PLATFORM=board";
}

/// Published figures of the board's codecs; the software platform keeps to them where asked.
constexpr const char* boardRefuses[] = {
    "H.264 of more than 8192 macroblocks a frame (1920x1088), either way",
    "H.264 encoding of more than 245760 macroblocks a second (1920x1080 at 30)",
    "H.264 encoding at more than 25 Mb/s", "progressive and arithmetic-coded JPEGs"};

nlohmann::ordered_json gather() {
  const std::string platform = objectOf("bcm_host_init");
  const bool software = platform.find("libtessera_platform") != std::string::npos;
  const char* const limited = std::getenv("TESSERA_BOARD_LIMITS");
  nlohmann::ordered_json report = {{"version", TESSERA_VERSION},
                                   {"library", objectOf("CreateEncoderJPEG")},
                                   {"platform", platform.empty() ? "none"
                                                : software       ? "software"
                                                                 : "board"},
                                   {"platform_library", platform},
                                   {"why_not_board", software ? whyNotBoard() : ""},
                                   {"board_refuses", boardRefuses},
                                   {"board_limits", limited && std::strcmp(limited, "1") == 0},
                                   {"libavformat", versionText(avformat_version())},
                                   {"codecs", codecs()},
                                   {"classes", nlohmann::ordered_json::array()}};
  for (const Check& check : checks) {
    const Outcome outcome = run(check);
    report["classes"].push_back({{"class", check.name},
                                 {"work", check.work},
                                 {"component", check.component},
                                 {"works", outcome.works},
                                 {"milliseconds", outcome.milliseconds},
                                 {"said", outcome.works ? "" : outcome.said}});
  }
  return report;
}

/// Which coder does what, and what is known of the devices.
std::string codecsAsText(const nlohmann::ordered_json& codecs) {
  const auto joined = [](const nlohmann::ordered_json& list, const char* between) {
    std::string all;
    for (const auto& each : list) all += (all.empty() ? "" : between) + each.get<std::string>();
    return all;
  };
  std::string out = "\ncodecs: " + codecs["choice"].get<std::string>() + " (TESSERA_CODECS)\n";
  char line[160];
  for (const auto& service : codecs["services"]) {
    const auto widest = service["largest"][0].get<unsigned>();
    std::snprintf(line, sizeof line, "%-17s %s", service["service"].get<std::string>().c_str(),
                  service["coder"].get<std::string>().c_str());
    const auto device = service["device"].get<std::string>();
    out += line + (device.empty() ? "" : " " + device);
    if (widest != 0)
      out += ", pictures up to " + std::to_string(widest) + "x" +
             std::to_string(service["largest"][1].get<unsigned>());
    const std::string passedOver = joined(service["passed_over"], "\n    not ");
    out += (passedOver.empty() ? "" : "\n    not " + passedOver) + "\n";
  }
  for (const auto& device : codecs["devices"]) {
    if (!device["passed_over"].get<std::string>().empty()) continue;
    out += device["path"].get<std::string>() + ": " + device["card"].get<std::string>() + " (" +
           device["driver"].get<std::string>() + "), " + joined(device["takes"], " ") + " to " +
           joined(device["gives"], " ") + "\n";
    const std::string controls = joined(device["controls"], ", ");
    if (!controls.empty()) out += "    controls: " + controls + "\n";
    const std::string notTaken = joined(device["not_taken"], ", ");
    if (!notTaken.empty()) out += "    does not take: " + notTaken + "\n";
    if (device["ten_bits"].get<bool>()) out += "    decodes H.264 of ten bits a sample\n";
  }
  return out;
}

std::string asText(const nlohmann::ordered_json& report) {
  const auto text = [&](const char* key) { return report[key].get<std::string>(); };
  std::string out = "tessera " + text("version") + " (" + text("library") + ")\n" +
                    "platform: " + text("platform") + " (" + text("platform_library") + ")\n" +
                    "containers: libavformat " + text("libavformat") + "\n";
  if (!text("why_not_board").empty()) out += "why not the board: " + text("why_not_board") + "\n";
  if (text("platform") == "software") {
    out +=
        "the board would refuse (published figures; this platform does too with "
        "TESSERA_BOARD_LIMITS=1" +
        std::string(report["board_limits"].get<bool>() ? ", as now" : "") + "):\n";
    for (const char* refused : boardRefuses) out += std::string("    ") + refused + "\n";
  }
  out += "\n";
  char line[160];
  std::snprintf(line, sizeof line, "%-17s %-15s %-26s %s\n", "class", "work", "component",
                "one picture, start to end");
  out += line;
  for (const auto& entry : report["classes"]) {
    const auto field = [&](const char* key) { return entry[key].get<std::string>(); };
    std::snprintf(line, sizeof line, "%-17s %-15s %-26s ", field("class").c_str(),
                  field("work").c_str(), field("component").c_str());
    out += line;
    if (entry["works"].get<bool>()) {
      std::snprintf(line, sizeof line, "works, %.1f ms\n", entry["milliseconds"].get<double>());
      out += line;
      continue;
    }
    std::string said = field("said");
    while (!said.empty() && said.back() == '\n') said.pop_back();
    for (std::size_t at = 0; (at = said.find('\n', at)) != std::string::npos; at += 5)
      said.replace(at, 1, "\n    ");
    out += "DOES NOT WORK" + (said.empty() ? "" : "\n    " + said) + "\n";
  }
  if (report["codecs"].is_object()) out += codecsAsText(report["codecs"]);
  return out;
}

}  // namespace

void info(const Arguments& arguments) {
  const nlohmann::ordered_json report = gather();
  const std::string text =
      arguments.json ? report.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n"
                     : asText(report);
  OutputFile output("-", OutputFile::Content::Text);
  output.write(text.data(), text.size());
  for (const auto& entry : report["classes"])
    if (!entry["works"].get<bool>())
      throw Failure(entry["class"].get<std::string>() + " does not work on this platform");
}

}  // namespace tool
