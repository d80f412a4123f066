#ifndef TESSERA_BASICS_H
#define TESSERA_BASICS_H

#include <tessera/CodecStatus.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

/// @file
/// What every program around the codecs needs beside them: pixel format codes, the padded geometry,
/// texts of results, and where the frames of an H.264 stream begin and end. All of it is inline, so
/// nothing of it is in `libtessera.so`, and it needs nothing but C++17.

namespace tessera {

// ---- raw pictures

/// Pixel format for `IH264Encoder::Create`, planar 4:2:0: the four characters, the first in the
/// lowest byte.
inline constexpr unsigned int fourccI420 = 0x30323449;
/// The same for packed 4:2:2.
inline constexpr unsigned int fourccYuyv = 0x56595559;

/// Luma stride of a picture; also the width that components which do not crop give their pictures.
/// @param width  in pixels, 0 or more
/// @return bytes a luma row
constexpr int PaddedWidth(int width) {
  return (width + 31) & ~31;
}

/// Luma rows reserved for a picture.
/// @param height  in rows, 0 or more
/// @return rows
constexpr int PaddedHeight(int height) {
  return (height + 15) & ~15;
}

/// Bytes of a picture in the padded I420 layout, which the encoders take and the decoders give: Y
/// with PaddedWidth() x PaddedHeight() bytes, then U and V with a quarter of that each.
/// @param width,height  in pixels, 0 or more
/// @return bytes of the three planes together
constexpr std::size_t PaddedSize(int width, int height) {
  return static_cast<std::size_t>(PaddedWidth(width)) *
         static_cast<std::size_t>(PaddedHeight(height)) / 2 * 3;
}

// ---- results

/// A text for messages.
/// @param status  any value
/// @return the result's name and what it means; never null
inline const char* StatusText(CodecStatus status) {
  switch (status) {
    case CodecOk:
      return "CodecOk: done";
    case CodecNoBuffer:
      return "CodecNoBuffer: no buffer of the platform was free, or none was finished";
    case CodecSendFailed:
      return "CodecSendFailed: the platform refused a buffer";
    case CodecInvalidArgument:
      return "CodecInvalidArgument: a pointer or a size is missing";
    case CodecInvalidState:
      return "CodecInvalidState: not set up, or the set-up failed";
    case CodecWaitFailed:
      return "CodecWaitFailed: the clock or a semaphore does not work";
    case CodecTimeout:
      return "CodecTimeout: no answer within the time limit";
    case CodecBufferTooSmall:
      return "CodecBufferTooSmall: the data is longer than the buffer for it";
    case CodecStreamMismatch:
      return "CodecStreamMismatch: data of another size than the decoder was set up for";
  }
  return "unknown status";
}

// ---- H.264 in Annex B

/// The NAL unit that ends a sequence. Fed behind the last access unit it makes the decoder hand out
/// every picture that it still holds. ProcessInput() takes no constant data; feed a copy:
/// `auto end = tessera::endOfSequence;`.
inline constexpr std::array<unsigned char, 5> endOfSequence = {0, 0, 0, 1, 10};

/// How many bytes IH264Decoder::ProcessInput() takes as a whole or, when it times out, not at all.
/// It sends longer data on in pieces, of which a time-out may leave some behind.
/// @param width,height  as given to IH264Decoder::Create()
/// @return bytes of the decoder's input buffer
constexpr std::size_t DecoderBufferSize(int width, int height) {
  const std::size_t pixels = static_cast<std::size_t>(width < 0 ? -width : width) *
                             static_cast<std::size_t>(height < 0 ? -height : height);
  return pixels < 0x80000 ? pixels : 0x80000;
}

namespace annexb {

/// Types of NAL units: the low five bits of their first byte.
enum NalType {
  Slice = 1,
  PartitionA = 2,
  KeySlice = 5,
  SupplementalInformation = 6,
  SequenceParameters = 7,
  PictureParameters = 8,
  Delimiter = 9,
};

/// Finds the next NAL unit.
/// @param data,size  Annex B bytes, and their number
/// @param from       where to start to look for its start code
/// @return the offset of the unit's first byte, behind its start code; `size` where there is none
inline std::size_t NextUnit(const unsigned char* data, std::size_t size, std::size_t from) {
  for (std::size_t at = from + 2; at + 1 < size; ++at) {
    const void* const found = std::memchr(data + at, 1, size - 1 - at);
    if (found == nullptr) break;
    at = static_cast<std::size_t>(static_cast<const unsigned char*>(found) - data);
    if (data[at - 1] == 0 && data[at - 2] == 0) return at + 1;
  }
  return size;
}

/// The type of a NAL unit.
/// @param data  Annex B bytes
/// @param unit  offset of the unit's first byte in them
/// @return a NalType, or another number up to 31
inline int TypeOf(const unsigned char* data, std::size_t unit) {
  return data[unit] & 31;
}

/// Whether NAL units of a type hold picture data.
/// @param type  from TypeOf()
/// @return true for slices and their partitions
inline bool IsPicture(int type) {
  return type >= Slice && type <= KeySlice;
}

/// Whether a NAL unit behind the slices of one picture belongs to the next: what may stand before a
/// picture, or a slice that starts at the first macroblock, which its first bit tells.
/// @param data,size  Annex B bytes, and their number
/// @param unit       offset of the unit's first byte in them
/// @return true where the next picture begins
inline bool OpensNext(const unsigned char* data, std::size_t size, std::size_t unit) {
  const int type = TypeOf(data, unit);
  if (type == Slice || type == PartitionA || type == KeySlice)
    return unit + 1 < size && (data[unit + 1] & 0x80) != 0;
  return (type >= SupplementalInformation && type <= Delimiter) || (type >= 14 && type <= 18);
}

}  // namespace annexb

/// Whether an encoder's output, or any other piece of a stream that starts with a NAL unit, holds
/// picture data. Without any it is parameter sets, for the frame that comes next.
/// @param data,size  Annex B bytes, and their number
/// @return true when there is a slice among them
inline bool HasPicture(const unsigned char* data, std::size_t size) {
  for (std::size_t unit = annexb::NextUnit(data, size, 0); unit < size;
       unit = annexb::NextUnit(data, size, unit))
    if (annexb::IsPicture(annexb::TypeOf(data, unit))) return true;
  return false;
}

/// Where the access unit that starts at `from` ends: one coded picture (of interlaced video perhaps
/// one field) with all that belongs to it. This is the cut that the decoder's ProcessInput() wants.
///
/// In a stream that is still growing, an answer of `size` may mean that the rest has not come yet.
/// @param stream,size  Annex B bytes, and their number
/// @param from         where the access unit starts
/// @return the offset of the next one's start code, or `size`
inline std::size_t AccessUnitEnd(const unsigned char* stream, std::size_t size, std::size_t from) {
  bool picture = false;
  for (std::size_t unit = annexb::NextUnit(stream, size, from); unit < size;
       unit = annexb::NextUnit(stream, size, unit)) {
    // The zero byte before the start code is the next unit's.
    if (picture && annexb::OpensNext(stream, size, unit))
      return unit - (unit - from >= 4 && stream[unit - 4] == 0 ? 4 : 3);
    picture = picture || annexb::IsPicture(annexb::TypeOf(stream, unit));
  }
  return size;
}

/// Tells where frames begin and end in the buffers that an H.264 encoder hands out.
///
/// ProcessOutput() gives the parameter sets in a buffer of their own, then a frame a buffer; but a
/// frame longer than the component's buffer comes in pieces, and nothing marks the last of them.
/// What can be told: a piece that does not fill the buffer is a frame's last, and every frame
/// starts a buffer of its own. How long the buffer is shows with the first frame that is split;
/// until then it is known to hold at least a byte a pixel.
///
/// So for each frame that was fed: ProcessOutput() until Begun() has counted it. Then feed the next
/// one; where MayGoOn(), the rest comes before that one does. A time-out never means that a frame
/// is out, only that it takes longer.
class EncodedFrames {
 public:
  /// Starts with no frame begun.
  /// @param width,height  as given to IH264Encoder::Create()
  EncodedFrames(int width, int height)
      : whole_(static_cast<std::size_t>(width < 0 ? -width : width) *
               static_cast<std::size_t>(height < 0 ? -height : height)) {}

  /// Takes note of the next buffer.
  /// @param data,size  what ProcessOutput() gave, only looked at
  /// @return true when it begins a frame, or the parameter sets before one: what came before it is
  ///         whole. False: it belongs to the same frame
  bool Add(const unsigned char* data, std::size_t size) {
    const bool first = last_ == 0;
    const std::size_t unit = annexb::NextUnit(data, size, 0);
    const bool next = picture_ && unit <= 4 && unit < size && annexb::OpensNext(data, size, unit);
    if (next) {
      whole_ = std::max(whole_, last_ + 1);
      picture_ = false;
    } else if (picture_) {
      full_ = last_;
    }
    if (!picture_ && HasPicture(data, size)) {
      picture_ = true;
      ++begun_;
    }
    last_ = size;
    return next || first;
  }

  /// Counts frames.
  /// @return of how many the first picture data has come
  unsigned long long Begun() const { return begun_; }

  /// How long the component's buffer is.
  /// @return its bytes, once a frame has come in pieces; 0 before
  std::size_t BufferSize() const { return full_; }

  /// Whether the next buffer may belong to the same frame as the last one.
  /// @return false: that frame is complete. True is rare: behind parameter sets, and behind data
  ///         that may fill the component's buffer
  bool MayGoOn() const { return last_ > 0 && (!picture_ || last_ >= (full_ > 0 ? full_ : whole_)); }

 private:
  std::size_t whole_;     // shorter pieces are a frame's last, as long as full_ is not known
  std::size_t full_ = 0;  // bytes of the component's buffer
  std::size_t last_ = 0;  // bytes of the last buffer
  bool picture_ = false;  // the frame at hand has picture data
  unsigned long long begun_ = 0;
};

}  // namespace tessera

#endif  // TESSERA_BASICS_H
