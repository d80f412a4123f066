#include "il/Text.h"

#include <array>
#include <cstdint>
#include <cstdio>

namespace il::text {
namespace {

template <typename Value>
struct Word {
  Value value;
  const char* text;
};

std::string hexadecimal(OMX_U32 value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", value);
  return text;
}

template <typename Value, std::size_t count>
std::string find(const Word<Value> (&words)[count], Value value) {
  for (const Word<Value>& word : words)
    if (word.value == value) return word.text;
  return hexadecimal(static_cast<OMX_U32>(value));
}

constexpr const char* errors[] = {"InsufficientResources",
                                  "Undefined",
                                  "InvalidComponentName",
                                  "ComponentNotFound",
                                  "InvalidComponent",
                                  "BadParameter",
                                  "NotImplemented",
                                  "Underflow",
                                  "Overflow",
                                  "Hardware",
                                  "InvalidState",
                                  "StreamCorrupt",
                                  "PortsNotCompatible",
                                  "ResourcesLost",
                                  "NoMore",
                                  "VersionMismatch",
                                  "NotReady",
                                  "Timeout",
                                  "SameState",
                                  "ResourcesPreempted",
                                  "PortUnresponsiveDuringAllocation",
                                  "PortUnresponsiveDuringDeallocation",
                                  "PortUnresponsiveDuringStop",
                                  "IncorrectStateTransition",
                                  "IncorrectStateOperation",
                                  "UnsupportedSetting",
                                  "UnsupportedIndex",
                                  "BadPortIndex",
                                  "PortUnpopulated",
                                  "ComponentSuspended",
                                  "DynamicResourcesUnavailable",
                                  "MbErrorsInFrame",
                                  "FormatNotDetected",
                                  "ContentPipeOpenFailed",
                                  "ContentPipeCreationFailed",
                                  "SeperateTablesUsed",
                                  "TunnelingUnsupported"};

constexpr Word<OMX_INDEXTYPE> indexes[] = {
    {OMX_IndexParamAudioInit, "AudioInit"},
    {OMX_IndexParamImageInit, "ImageInit"},
    {OMX_IndexParamVideoInit, "VideoInit"},
    {OMX_IndexParamOtherInit, "OtherInit"},
    {OMX_IndexParamStandardComponentRole, "StandardComponentRole"},
    {OMX_IndexParamPortDefinition, "PortDefinition"},
    {OMX_IndexParamImagePortFormat, "ImagePortFormat"},
    {OMX_IndexParamQFactor, "QFactor"},
    {OMX_IndexParamVideoPortFormat, "VideoPortFormat"},
    {OMX_IndexParamVideoBitrate, "VideoBitrate"},
    {OMX_IndexParamVideoAvc, "VideoAvc"},
    {OMX_IndexConfigVideoIntraVOPRefresh, "VideoIntraVOPRefresh"},
};

constexpr Word<OMX_COLOR_FORMATTYPE> colours[] = {
    {OMX_COLOR_FormatUnused, "Unused"},
    {OMX_COLOR_Format16bitRGB565, "16bitRGB565"},
    {OMX_COLOR_Format24bitARGB1887, "24bitARGB1887"},
    {OMX_COLOR_Format32bitARGB8888, "32bitARGB8888"},
    {OMX_COLOR_FormatYUV420PackedPlanar, "YUV420PackedPlanar"},
    {OMX_COLOR_FormatYCbYCr, "YCbYCr"},
};

std::string coding(OMX_IMAGE_CODINGTYPE value) {
  return value == OMX_IMAGE_CodingJPEG ? "JPEG" : value == OMX_IMAGE_CodingUnused ? "Unused" : "?";
}

std::string coding(OMX_VIDEO_CODINGTYPE value) {
  return value == OMX_VIDEO_CodingAVC ? "AVC" : value == OMX_VIDEO_CodingUnused ? "Unused" : "?";
}

/// What a port carries: its coding, or its pixel format where it is not coded.
template <typename Structure>
std::string format(const Structure& s) {
  return s.eColorFormat == OMX_COLOR_FormatUnused ? coding(s.eCompressionFormat)
                                                  : find(colours, s.eColorFormat);
}

template <typename View>
std::string view(const View& v) {
  std::array<char, 96> text;
  std::snprintf(text.data(), text.size(), "%ux%u stride %d slice %u ", v.nFrameWidth,
                v.nFrameHeight, v.nStride, v.nSliceHeight);
  return text.data() + format(v);
}

std::string definition(const OMX_PARAM_PORTDEFINITIONTYPE& d) {
  const std::string size = " size " + std::to_string(d.nBufferSize);
  if (d.eDomain != OMX_PortDomainVideo) return view(d.format.image) + size;
  const OMX_VIDEO_PORTDEFINITIONTYPE& video = d.format.video;
  std::string text = view(video) + " rate " + hexadecimal(video.xFramerate);
  if (video.nBitrate != 0) text += " bitrate " + std::to_string(video.nBitrate);
  if (video.bFlagErrorConcealment != OMX_FALSE) text += " concealment";
  return text + size;
}

/// Index and port, and what `tell` makes of the structure; the index alone where the structure is
/// missing or not the index's own.
template <typename Structure, typename Tell>
std::string described(OMX_INDEXTYPE value, const void* structure, Tell tell) {
  const auto* const s = static_cast<const Structure*>(structure);
  if (s == nullptr || s->nSize != sizeof *s) return index(value);
  const std::string told = tell(*s);
  return index(value) + ' ' + std::to_string(s->nPortIndex) + (told.empty() ? "" : ": ") + told;
}

template <typename Structure>
std::string described(OMX_INDEXTYPE value, const void* structure) {
  return described<Structure>(value, structure, [](const Structure&) { return std::string(); });
}

}  // namespace

std::string error(OMX_ERRORTYPE code) {
  if (code == OMX_ErrorNone) return "None";
  const OMX_U32 number =
      static_cast<OMX_U32>(code) - static_cast<OMX_U32>(OMX_ErrorInsufficientResources);
  return number < std::size(errors) ? errors[number] : hexadecimal(static_cast<OMX_U32>(code));
}

std::string state(OMX_U32 value) {
  constexpr const char* states[] = {"Invalid",   "Loaded", "Idle",
                                    "Executing", "Pause",  "WaitForResources"};
  return value < std::size(states) ? states[value] : hexadecimal(value);
}

std::string index(OMX_INDEXTYPE value) {
  return find(indexes, value);
}

std::string flags(OMX_U32 value) {
  constexpr const char* names[] = {"EOS",        "STARTTIME", "DECODEONLY", "DATACORRUPT",
                                   "ENDOFFRAME", "SYNCFRAME", "EXTRADATA",  "CODECCONFIG"};
  std::string text;
  for (unsigned bit = 0; bit < std::size(names); ++bit)
    if (value & (1u << bit)) text += std::string(" ") + names[bit];
  return text;
}

std::string timestamp(OMX_TICKS ticks) {
  const std::uint64_t value = std::uint64_t{ticks.nHighPart} << 32 | ticks.nLowPart;
  return value == 0 ? "" : " at " + std::to_string(value);
}

std::string command(OMX_COMMANDTYPE value, OMX_U32 parameter) {
  constexpr const char* commands[] = {"StateSet", "Flush", "PortDisable", "PortEnable",
                                      "MarkBuffer"};
  const OMX_U32 number = static_cast<OMX_U32>(value);
  const std::string name = number < std::size(commands) ? commands[number] : hexadecimal(number);
  if (value == OMX_CommandStateSet) return name + ' ' + state(parameter);
  return name + ' ' + (parameter == OMX_ALL ? "all" : std::to_string(parameter));
}

std::string event(OMX_EVENTTYPE value, OMX_U32 data1, OMX_U32 data2) {
  switch (value) {
    case OMX_EventCmdComplete:
      return "CmdComplete " + command(static_cast<OMX_COMMANDTYPE>(data1), data2);
    case OMX_EventError:
      return "Error " + error(static_cast<OMX_ERRORTYPE>(data1));
    case OMX_EventPortSettingsChanged:
      return "PortSettingsChanged " + std::to_string(data1);
    default:
      return hexadecimal(static_cast<OMX_U32>(value));
  }
}

std::string parameter(OMX_INDEXTYPE value, const void* structure) {
  switch (value) {
    case OMX_IndexParamPortDefinition:
      return described<OMX_PARAM_PORTDEFINITIONTYPE>(value, structure, definition);
    case OMX_IndexParamImagePortFormat:
      return described<OMX_IMAGE_PARAM_PORTFORMATTYPE>(value, structure,
                                                       [](const auto& s) { return format(s); });
    case OMX_IndexParamVideoPortFormat:
      return described<OMX_VIDEO_PARAM_PORTFORMATTYPE>(value, structure,
                                                       [](const auto& s) { return format(s); });
    case OMX_IndexParamQFactor:
      return described<OMX_IMAGE_PARAM_QFACTORTYPE>(
          value, structure, [](const auto& s) { return std::to_string(s.nQFactor); });
    case OMX_IndexParamVideoBitrate:
      return described<OMX_VIDEO_PARAM_BITRATETYPE>(value, structure, [](const auto& s) {
        return "mode " + std::to_string(static_cast<int>(s.eControlRate)) + ", " +
               std::to_string(s.nTargetBitrate);
      });
    case OMX_IndexParamVideoAvc:
      return described<OMX_VIDEO_PARAM_AVCTYPE>(value, structure, [](const auto& s) {
        return "profile " + hexadecimal(static_cast<OMX_U32>(s.eProfile)) + ", level " +
               hexadecimal(static_cast<OMX_U32>(s.eLevel));
      });
    default:
      return index(value);
  }
}

std::string query(OMX_INDEXTYPE value, const void* structure) {
  switch (value) {
    case OMX_IndexParamPortDefinition:
      return described<OMX_PARAM_PORTDEFINITIONTYPE>(value, structure);
    case OMX_IndexParamVideoAvc:
      return described<OMX_VIDEO_PARAM_AVCTYPE>(value, structure);
    default:
      return index(value);
  }
}

}  // namespace il::text
