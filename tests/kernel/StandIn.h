#ifndef TESSERA_TESTS_KERNEL_STANDIN_H
#define TESSERA_TESTS_KERNEL_STANDIN_H

#include <linux/videodev2.h>
#include <poll.h>

#include <cerrno>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "codec/cpu/H264Decoder.h"
#include "codec/cpu/H264Encoder.h"
#include "codec/cpu/JpegDecoder.h"
#include "codec/cpu/JpegEncoder.h"

/// A memory-to-memory device without hardware: what the kernel's pages say that one does, with the
/// CPU's codecs doing the work whenever somebody looks.
namespace standin {

struct Kind {
  unsigned number;  ///< of /dev/video
  const char* card;
  bool encoder;
  std::uint32_t coded;
};

/// Milliseconds of the devices' own clock. It runs, and skips what is waited for while nothing can
/// happen: no device of these does anything on its own.
std::uint64_t nowMs();
void skipTo(std::uint64_t moment);

/// What goes wrong, from TESSERA_STANDIN: words with a comma between them.
struct Faults {
  unsigned dropEach = 0;     ///< drop=N: every N-th frame gives nothing
  unsigned delayMs = 0;      ///< delay=MS: of each frame
  unsigned silentAfter = 0;  ///< silent=N: no answer after N frames
  unsigned goneAfter = 0;    ///< gone=N: no device after N frames
  unsigned stride = 32;      ///< stride=N: rows are multiples of N bytes long
  unsigned align = 2;        ///< align=N: so are the sides of frames, in pixels
  unsigned nv12 = 0;
  unsigned multiPlanar = 0;          ///< mplane: nothing but the multi-planar interface
  unsigned lag = 0;                  ///< an encoder that is a frame behind
  unsigned stubborn = 0;             ///< an encoder that refuses every control
  unsigned plain = 0;                ///< one that has none
  unsigned busy = 0, forbidden = 0;  ///< to open
};

struct ControlKind {
  std::uint32_t id;
  v4l2_ctrl_type type;
  const char* name;
  std::int64_t initial = 0, minimum = 0, maximum = 0;
  std::vector<const char*> entries = {};
};
const std::vector<ControlKind>& controlsOf(const Kind& kind);

/// How pictures of a format lie in memory.
struct Layout {
  std::uint32_t fourcc;
  const char* name;         ///< the kernel's own
  unsigned planes = 0;      ///< pieces of memory; 0: coded
  unsigned chromaStep = 0;  ///< 2: interleaved; 0: packed YUYV
  bool isRaw() const { return planes != 0; }
};
const Layout& layoutOf(std::uint32_t fourcc);

struct Format {
  std::uint32_t fourcc = 0;
  unsigned width = 0, height = 0, planes = 1;
  std::uint32_t bytesPerLine[3] = {}, sizeImage[3] = {};
  std::uint32_t colours[4] = {};  ///< what applications say of them, handed through
  void setSize(unsigned toWidth, unsigned toHeight) { width = toWidth, height = toHeight; }
};

struct Buffer {
  enum State { Idle, Queued, Done } state = Idle;
  unsigned planes = 1;
  std::uint32_t length[3] = {}, offset[3] = {}, used[3] = {};
  std::uint8_t* data[3] = {};
  std::uint64_t stamp = 0;
  std::uint32_t flags = 0, sequence = 0;
};

struct Queue {
  std::uint32_t type = 0;
  Format format;
  std::vector<Buffer> buffers;
  std::deque<unsigned> queued, done;
  bool streaming = false;
  std::uint32_t sequence = 0;
};

inline int fails(int error) {
  errno = error;
  return -1;
}

struct Call {
  int fd;
  unsigned long request;
  void* argument;
  template <typename Structure>
  Structure& as() const {
    return *static_cast<Structure*>(argument);
  }
  template <typename Structure>
  Structure& blank() const {
    return as<Structure>() = Structure();
  }
};

class Session;
/// Of all who have a device open.
std::map<const Session*, std::uint32_t>& priorities(const Kind& kind);

/// One open descriptor.
class Session {
 public:
  Session(const Kind& kind, const Faults& faults);
  ~Session();

  /// The kernel's calls. @return 0, or -1 with errno
  int call(const Call& call);
  static bool knows(unsigned long request) { return answerTo(request) != nullptr; }
  /// Works on, then tells what poll() would.
  short look(short wanted);
  const Kind& kind() const { return kind_; }
  static inline std::set<const Kind*> gone;  ///< with no more to open
  /// When a frame that is being worked on will be done; 0 where there is none.
  std::uint64_t due() const { return busy_ ? due_ : 0; }
  /// No answers any more; nothing for the next frame, or for all that follow.
  void fallSilent() { silent_ = true; }
  void drop(unsigned howMany) { toDrop_ = howMany; }

 private:
  struct Coded {
    std::vector<std::uint8_t> bytes;
    std::uint64_t stamp = 0;
    unsigned width = 0, height = 0;
    bool keyFrame = false, error = false;
  };

  Queue& coded() { return kind_.encoder ? out_ : in_; }
  Queue* queueOf(std::uint32_t type);
  std::vector<std::uint32_t> offered(const Queue& queue) const;
  /// Makes a format one that the queue can have.
  void adjust(const Queue& queue, Format& format) const;
  bool allocate(Queue& queue, unsigned count, int fd);
  void start(Queue& queue);
  void stop(Queue& queue);

  void pump();
  bool step();
  void encode(const Buffer& from);
  void startEncoder();
  void decode(Buffer& from);
  void decodeJpeg(Buffer& from);
  void refuse(Buffer& from);
  void takePictures();
  void keep(Coded picture, const codec::ConstPlanes& from);
  /// An encoder that lags keeps its last one to itself until it is drained.
  bool hasResult() const {
    return waiting_.size() > (kind_.encoder && !draining_ ? faults_.lag : 0);
  }
  bool deliver();
  void fill(Buffer& to, const Coded& result);
  void finish(Buffer& last);
  void announce(const Coded& picture);
  void post(std::uint32_t type, std::uint32_t changes = 0, const ControlKind* control = nullptr);

  using Answer = int (Session::*)(const Call&);
  static Answer answerTo(unsigned long request);
  int queryCapability(const Call& call);
  int enumerateFormat(const Call& call);
  int enumerateSize(const Call& call);
  int format(const Call& call);
  int request(const Call& call);
  int stream(const Call& call);
  int exchange(const Call& call);
  int enqueue(Queue& queue, Buffer& buffer, const v4l2_buffer& from);
  int dequeue(int fd, Queue& queue, v4l2_buffer& to);
  void describe(const Queue& queue, unsigned index, v4l2_buffer& to) const;
  int selection(const Call& call);
  int interval(const Call& call);
  const ControlKind* findControl(std::uint32_t& id) const;
  int queryControl(const Call& call);
  int queryOldControl(const Call& call);
  int queryMenu(const Call& call);
  int oldControl(const Call& call);
  int setValue(const ControlKind& control, std::int64_t& value, bool apply);
  int controls(const Call& call);
  int subscribe(const Call& call);
  int takeEvent(const Call& call);
  int command(const Call& call);
  int priority(const Call& call);
  int mediaInfo(const Call& call);
  int topology(const Call& call);

  const Kind& kind_;
  const Faults faults_;
  Queue in_, out_;
  v4l2_rect crop_ = {}, shown_ = {};
  v4l2_fract interval_ = {1, 30};
  std::map<std::uint32_t, std::int64_t> values_;
  std::size_t end_ = 0;  // of the memory that buffers were made of

  unsigned frames_ = 0;
  std::uint64_t due_ = 0;
  bool busy_ = false;  // due_ is the first input's
  bool gone_ = false, silent_ = false;
  unsigned toDrop_ = 0;
  bool drainAsked_ = false;
  bool draining_ = false;  // the inputs are through
  bool stopped_ = false;   // until a queue starts again
  bool lastTaken_ = false;
  bool restart_ = false;  // for a new size
  bool lastDue_ = false;
  bool encoding_ = false, first_ = false, keyFrameAsked_ = false;
  std::deque<Coded> waiting_;
  std::uint64_t stamp_ = 0;

  std::set<std::pair<std::uint32_t, std::uint32_t>> subscribed_;
  std::deque<v4l2_event> events_;
  std::uint32_t sequence_ = 0;

  codec::H264Encoder h264Encoder_;
  codec::H264Decoder decoder_;
  codec::JpegEncoder jpegEncoder_;
  codec::JpegDecoder jpegDecoder_;
};

}  // namespace standin

#endif  // TESSERA_TESTS_KERNEL_STANDIN_H
