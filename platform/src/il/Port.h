#ifndef TESSERA_PLATFORM_SRC_IL_PORT_H
#define TESSERA_PLATFORM_SRC_IL_PORT_H

#include <IL/OMX_Component.h>

#include <chrono>
#include <memory>
#include <vector>

#include "control/Hooks.h"

namespace il {

using Clock = std::chrono::steady_clock;

/// A block that a buffer may own.
class Memory {
 public:
  Memory() = default;
  explicit Memory(OMX_U32 size);

  OMX_U8* data() const { return bytes_.get(); }
  OMX_U32 size() const { return size_; }
  /// Whether it does for so many bytes without being a waste.
  bool suits(OMX_U32 size) const { return bytes_ != nullptr && size <= size_ && size_ / 2 <= size; }

 private:
  struct Release {
    void operator()(OMX_U8* bytes) const;
  };

  std::unique_ptr<OMX_U8[], Release> bytes_;
  OMX_U32 size_ = 0;
};

/// One buffer: the client's header, the memory behind it, and who has it.
struct Buffer {
  enum class Place {
    Client,
    Queued,    ///< in its port's queue
    Working,   ///< taken from the queue by the component's work
    Withheld,  ///< done, but its callback is held back by a fault
  };

  /// @param bytes  `size` bytes of the client's own, or those of `memory`
  Buffer(OMX_U32 portIndex, bool input, OMX_U32 size, OMX_U8* bytes, OMX_PTR appPrivate,
         Memory memory);

  OMX_U8* data() const { return header.pBuffer + header.nOffset; }

  /// Empties an output buffer for what comes next in it.
  void prepare() { header.nOffset = header.nFilledLen = header.nFlags = 0; }

  OMX_BUFFERHEADERTYPE header{};
  Place place = Place::Client;
  bool leaving = false;     ///< on its way back with all others of its port
  Clock::time_point due{};  ///< while Withheld: when it goes back by itself
  Memory memory;            ///< none where the client brought its own

 private:
  tessera_platform::hooks::Counted counted_{tessera_platform::hooks::Kind::Buffer};
};

/// What a port can carry: a coding with no pixel format, or no coding with a pixel format.
struct Format {
  OMX_U32 coding = 0;  ///< OMX_IMAGE_CODINGTYPE or OMX_VIDEO_CODINGTYPE
  OMX_COLOR_FORMATTYPE colour = OMX_COLOR_FormatUnused;
  bool operator==(const Format& other) const {
    return coding == other.coding && colour == other.colour;
  }
};

/// A port: its definition, its buffers, and those of them that wait to be worked on. bEnabled is
/// what the client asked for last; it changes inside OMX_SendCommand already.
struct Port {
  /// Enabled and without buffers, with the first of the formats.
  Port(OMX_U32 index, OMX_PORTDOMAINTYPE domain, OMX_DIRTYPE direction, OMX_U32 bufferCount,
       std::vector<Format> supported);

  bool isInput() const { return definition.eDir == OMX_DirInput; }
  bool enabled() const { return definition.bEnabled != OMX_FALSE; }
  bool populated() const { return buffers.size() >= definition.nBufferCountActual; }
  OMX_IMAGE_PORTDEFINITIONTYPE& image() { return definition.format.image; }
  OMX_VIDEO_PORTDEFINITIONTYPE& video() { return definition.format.video; }

  Buffer* find(const OMX_BUFFERHEADERTYPE* header) const;
  bool supports(const Format& format) const;

  /// The next buffer that waits, for the component's work; null when none does.
  Buffer* take();
  void enqueue(Buffer& buffer);
  void unqueue(Buffer& buffer);
  void erase(Buffer& buffer);
  /// Memory for a buffer: that of the last one erased, if it suits.
  Memory memoryFor(OMX_U32 size);
  /// The next buffer that leaves: those at work first, then the queue, then those held back.
  Buffer* nextLeaving() const;

  OMX_PARAM_PORTDEFINITIONTYPE definition{};
  std::vector<Format> formats;
  std::vector<std::unique_ptr<Buffer>> buffers;
  std::vector<Buffer*> queue;
  /// Of the last buffer erased. A client that has its buffers made anew for every picture shall not
  /// wait for the kernel to clear their pages each time.
  Memory spare;
};

/// The format members of a definition, whichever domain it has.
Format formatOf(const OMX_PARAM_PORTDEFINITIONTYPE& definition);
void setFormat(OMX_PARAM_PORTDEFINITIONTYPE& definition, const Format& format);

/// Of every port, until the client says otherwise.
constexpr OMX_U32 defaultWidth = 640;
constexpr OMX_U32 defaultHeight = 480;

/// Fills in a structure's size and version.
template <typename Structure>
void stamp(Structure& structure) {
  structure.nSize = sizeof structure;
  structure.nVersion.nVersion = OMX_VERSION;
}

}  // namespace il

#endif  // TESSERA_PLATFORM_SRC_IL_PORT_H
