#ifndef TESSERA_PLATFORM_SRC_CODEC_KERNEL_M2MDEVICE_H
#define TESSERA_PLATFORM_SRC_CODEC_KERNEL_M2MDEVICE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct v4l2_buffer;

namespace codec::kernel {

/// The two queues of a memory-to-memory device. The kernel names them from the application's side:
/// what goes in is its OUTPUT, what comes out its CAPTURE.
enum class Side { In, Out };

constexpr unsigned mostPlanes = 3;

/// How pictures or coded bytes lie in a buffer, as the device answered.
struct Format {
  std::uint32_t fourcc = 0;
  unsigned width = 0;
  unsigned height = 0;
  unsigned planes = 1;  ///< pieces of memory
  std::uint32_t bytesPerLine[mostPlanes] = {};
  std::uint32_t sizeImage[mostPlanes] = {};
};

struct Rect {
  unsigned left = 0;
  unsigned top = 0;
  unsigned width = 0;
  unsigned height = 0;
};

/// A buffer of the device's, mapped.
struct Buffer {
  unsigned index = 0;
  unsigned planes = 1;
  std::uint8_t* data[mostPlanes] = {};
  std::size_t capacity[mostPlanes] = {};
  std::size_t used[mostPlanes] = {};
  std::uint64_t serial = 0;  ///< goes in with a buffer and comes out with what was made of it
  bool keyFrame = false;
  bool error = false;
  bool last = false;    ///< of a drain, or before a change of format
  bool queued = false;  ///< with the device
};

struct Control {
  std::int64_t minimum = 0;
  std::int64_t maximum = 0;
  bool menu = false;
};

/// A memory-to-memory device of the kernel's, with one queue of mapped buffers on either side. What
/// is coded how is the caller's business. One thread at a time per object. Where a call answers
/// false, error() tells which of the kernel's calls failed and why; the object can then only be
/// closed, unless the call says something else.
class M2mDevice {
 public:
  M2mDevice() = default;
  ~M2mDevice() { close(); }
  M2mDevice(const M2mDevice&) = delete;
  M2mDevice& operator=(const M2mDevice&) = delete;

  /// What error() ends with for a node that is something else, and will be tomorrow.
  static constexpr const char* stranger = "no memory-to-memory device";

  /// Opens the node and makes sure that it is such a device, with one planar interface or the
  /// other.
  bool open(const std::string& path);
  void close();
  bool isOpen() const { return fd_ >= 0; }
  const std::string& path() const { return path_; }
  const std::string& card() const { return card_; }
  const std::string& driver() const { return driver_; }
  const std::string& error() const { return error_; }

  /// Formats that the queue offers just now.
  std::vector<std::uint32_t> formats(Side side);
  /// Whether a picture of a size can be coded, and the largest one; false where the device tells no
  /// range.
  bool largestSize(std::uint32_t fourcc, unsigned& width, unsigned& height);
  /// Sets a format; what the device took instead is written back.
  bool setFormat(Side side, Format& format);
  bool getFormat(Side side, Format& format);
  /// The part of the frames that goes in. @return false where the device does not take it as it is
  bool setCrop(const Rect& rect);
  /// The part of the frames that comes out which shows something. The whole frame where the device
  /// does not tell.
  Rect visible();
  bool setFrameInterval(unsigned numerator, unsigned denominator);

  bool findControl(std::uint32_t id, Control& control);
  std::vector<std::string> controlNames();
  bool hasMenuEntry(std::uint32_t id, std::int64_t value);
  bool setControl(std::uint32_t id, std::int64_t value);
  /// The value, or `otherwise` where the device has no such control.
  std::int64_t control(std::uint32_t id, std::int64_t otherwise);

  /// Asks for buffers and maps them. @return false when there are none
  bool allocate(Side side, unsigned count);
  void release(Side side);
  std::vector<Buffer>& buffers(Side side) { return queue(side).buffers; }
  bool start(Side side);
  /// Takes all buffers back.
  bool stop(Side side);
  bool isStreaming(Side side) const { return queues_[side == Side::Out].streaming; }
  /// A buffer that is not with the device, null when there is none.
  Buffer* idle(Side side);
  bool enqueue(Side side, Buffer& buffer);
  bool enqueueAll(Side side);

  /// The events that change the course of a decoder.
  bool subscribe();
  bool beginDrain(bool encoder);
  bool endDrain(bool encoder);

  enum class Happened {
    InputBack,     ///< the buffer was read
    Output,        ///< the buffer was filled
    FormatChange,  ///< of what comes out
    Ended,         ///< nothing more comes out until the drain is ended or the queue restarted
    Nothing,       ///< in all the time
    Failed,        ///< error() tells
  };
  /// Waits until something happens. Signals neither shorten nor lengthen it.
  Happened wait(unsigned milliseconds, Buffer*& buffer);

 private:
  struct Queue {
    std::vector<Buffer> buffers;
    bool streaming = false;
    unsigned queued = 0;
  };
  enum class Dequeued { Yes, No, End, Error };

  Queue& queue(Side side) { return queues_[side == Side::Out]; }
  std::uint32_t type(Side side) const;
  bool call(unsigned long request, void* argument);
  bool refused(const char* call);
  bool refused(const std::string& why);
  bool map(Side side, unsigned index);
  Happened poll(unsigned& left, Buffer*& buffer);
  Happened takeEvent();
  Dequeued dequeue(Side side, Buffer*& buffer);
  void readBack(const v4l2_buffer& from, Buffer& buffer) const;

  int fd_ = -1;
  bool multiPlanar_ = false;
  bool subscribed_ = false;
  bool atEnd_ = false;
  std::string path_, card_, driver_, error_;
  Queue queues_[2];
};

/// A format's four letters.
std::string nameOf(std::uint32_t fourcc);

}  // namespace codec::kernel

#endif  // TESSERA_PLATFORM_SRC_CODEC_KERNEL_M2MDEVICE_H
