#include "il/Port.h"

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <new>
#include <utility>

namespace il {
namespace {

/// A cache line, so that vector code never straddles one at a buffer's start.
constexpr std::align_val_t alignment{64};

}  // namespace

Memory::Memory(OMX_U32 size)
    : bytes_(static_cast<OMX_U8*>(operator new[](size, alignment))), size_(size) {}

void Memory::Release::operator()(OMX_U8* bytes) const {
  operator delete[](bytes, alignment);
}

Buffer::Buffer(OMX_U32 portIndex, bool input, OMX_U32 size, OMX_U8* bytes, OMX_PTR appPrivate,
               Memory itsMemory)
    : memory(std::move(itsMemory)) {
  stamp(header);
  header.pBuffer = bytes != nullptr ? bytes : memory.data();
  header.nAllocLen = size;
  header.pAppPrivate = appPrivate;
  (input ? header.nInputPortIndex : header.nOutputPortIndex) = portIndex;
}

Port::Port(OMX_U32 index, OMX_PORTDOMAINTYPE domain, OMX_DIRTYPE direction, OMX_U32 bufferCount,
           std::vector<Format> supported)
    : formats(std::move(supported)) {
  stamp(definition);
  definition.nPortIndex = index;
  definition.eDir = direction;
  definition.eDomain = domain;
  definition.nBufferCountActual = bufferCount;
  definition.nBufferCountMin = 1;
  definition.bEnabled = OMX_TRUE;
  definition.nBufferAlignment = 1;
  setFormat(definition, formats.front());
}

Buffer* Port::find(const OMX_BUFFERHEADERTYPE* header) const {
  for (const auto& buffer : buffers)
    if (&buffer->header == header) return buffer.get();
  return nullptr;
}

bool Port::supports(const Format& format) const {
  return std::find(formats.begin(), formats.end(), format) != formats.end();
}

Buffer* Port::take() {
  if (queue.empty()) return nullptr;
  Buffer* const first = queue.front();
  queue.erase(queue.begin());
  first->place = Buffer::Place::Working;
  return first;
}

void Port::enqueue(Buffer& buffer) {
  buffer.place = Buffer::Place::Queued;
  queue.push_back(&buffer);
}

void Port::unqueue(Buffer& buffer) {
  queue.erase(std::remove(queue.begin(), queue.end(), &buffer), queue.end());
}

void Port::erase(Buffer& buffer) {
  unqueue(buffer);
  if (buffer.memory.data() != nullptr) {
    spare = std::move(buffer.memory);
    ASAN_POISON_MEMORY_REGION(spare.data(), spare.size());
  }
  buffers.erase(std::find_if(buffers.begin(), buffers.end(),
                             [&](const auto& each) { return each.get() == &buffer; }));
  definition.bPopulated = OMX_FALSE;
}

Memory Port::memoryFor(OMX_U32 size) {
  Memory kept = std::exchange(spare, Memory());
  if (!kept.suits(size)) return Memory(size);
  ASAN_UNPOISON_MEMORY_REGION(kept.data(), size);
  return kept;
}

Buffer* Port::nextLeaving() const {
  const auto at = [this](Buffer::Place place) -> Buffer* {
    for (const auto& buffer : buffers)
      if (buffer->leaving && buffer->place == place) return buffer.get();
    return nullptr;
  };
  if (Buffer* const working = at(Buffer::Place::Working)) return working;
  for (Buffer* const queued : queue)
    if (queued->leaving) return queued;
  return at(Buffer::Place::Withheld);
}

Format formatOf(const OMX_PARAM_PORTDEFINITIONTYPE& definition) {
  if (definition.eDomain == OMX_PortDomainVideo)
    return {static_cast<OMX_U32>(definition.format.video.eCompressionFormat),
            definition.format.video.eColorFormat};
  return {static_cast<OMX_U32>(definition.format.image.eCompressionFormat),
          definition.format.image.eColorFormat};
}

void setFormat(OMX_PARAM_PORTDEFINITIONTYPE& definition, const Format& format) {
  if (definition.eDomain == OMX_PortDomainVideo) {
    definition.format.video.eCompressionFormat = static_cast<OMX_VIDEO_CODINGTYPE>(format.coding);
    definition.format.video.eColorFormat = format.colour;
  } else {
    definition.format.image.eCompressionFormat = static_cast<OMX_IMAGE_CODINGTYPE>(format.coding);
    definition.format.image.eColorFormat = format.colour;
  }
}

}  // namespace il
