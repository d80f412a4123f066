#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGROWS_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGROWS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "codec/Picture.h"
#include "codec/cpu/JpegError.h"
#include "codec/cpu/JpegScans.h"

namespace codec {

/// A picture's MCU rows, to be decoded by several JpegRows together. Each takes a unit at a time,
/// in order.
struct JpegUnits {
  JpegEntries entries;
  std::atomic<unsigned> next{0};
  std::atomic<bool> failed{false};  ///< what is in the planes may not be what one would decode
};

/// libjpeg's decompressor, and what it needs to put the rows of a JPEG into planes of 4:2:0. One
/// thread at a time per object; throws only where noted.
class JpegRows {
 public:
  static constexpr char tooManyScans[] = "more scans than the limit allows";

  JpegRows() = default;
  ~JpegRows();
  JpegRows(const JpegRows&) = delete;
  JpegRows& operator=(const JpegRows&) = delete;

  /// Reads the headers of a picture, whose bytes must stay. @return false with error() telling why
  bool open(const std::uint8_t* data, std::size_t size);

  /// Tells where the opened picture goes, or that of another object that it is decoded together
  /// with. @throws std::bad_alloc
  void place(const jpeg_decompress_struct& header, const Planes& planes);

  /// Decodes the opened picture, or as many of its scans. @return false with error() telling why
  bool readAll(int scansAllowed);

  /// Whether the opened picture is one that readUnits() takes.
  bool findUnits(JpegEntries& entries) const;

  /// Decodes units of the opened picture until none is left. Whatever is unusual about one of them
  /// sets `failed`.
  void readUnits(JpegUnits& units);

  /// Gives the picture's memory back; the tables stay.
  void close();

  jpeg_decompress_struct& info() { return cinfo_; }
  const jpeg_decompress_struct& info() const { return cinfo_; }
  const char* error() const { return errors_.text; }
  bool warned() const { return errors_.warned; }
  /// Rows of luma from the top that readAll() put into the planes for good.
  unsigned rowsDone() const { return rowsDone_; }

 private:
  static constexpr unsigned mostComponents = 3;
  struct Progress {
    jpeg_progress_mgr manager;  // first: libjpeg hands back its address
    int scansAllowed;
  };

  static void onProgress(j_common_ptr common);
  static boolean onRestart(j_decompress_ptr cinfo, int desired);

  void create();
  void forgetTables();
  void start(int scansAllowed);
  void readRaw(unsigned top);
  void foldBand(unsigned component, unsigned top);
  void readRgb();
  void take(JpegUnits& units);
  void seek(const std::uint8_t* at, const std::uint8_t* end);
  bool standsAt(std::size_t marker) const;
  void checkEnd();

  jpeg_decompress_struct cinfo_ = {};
  jpeg_compress_struct defaults_ = {};  // only for its standard Huffman tables
  JpegError errors_ = {};
  Progress progress_ = {};
  bool created_ = false;
  bool left_ = false;  // by the way that checkEnd() goes
  const std::uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
  unsigned rowsDone_ = 0;
  std::vector<std::uint8_t> stage_;          // one band of each component that is not in place
  std::vector<std::uint8_t> spare_;          // a row that nobody looks at
  std::uint8_t* band_[mostComponents] = {};  // in the stage; null: decoded straight to place
  std::uint8_t* plane_[mostComponents] = {};
  unsigned planeStride_[mostComponents] = {};
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGROWS_H
