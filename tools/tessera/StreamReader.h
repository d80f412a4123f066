#ifndef TESSERA_TOOLS_STREAMREADER_H
#define TESSERA_TOOLS_STREAMREADER_H

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <vector>

#include "FrameLayout.h"
#include "FrameSource.h"
#include "InputFile.h"

namespace tool {

/// A piece of an H.264 stream as the decoder takes it.
struct AccessUnit {
  std::uint8_t* data = nullptr;  ///< Annex B; valid until the next call
  std::size_t size = 0;
  FrameSize picture;               ///< of the parameter sets in force
  std::uint64_t milliseconds = 0;  ///< presentation time, from 1
  int fields = 2;                  ///< 2: a picture; 1: a field, two of which make one; 0: neither
  bool decodeOnly = false;         ///< needed by later pictures, but not to be shown
};

/// The H.264 stream of whatever libavformat opens, a bare stream included.
class StreamReader {
 public:
  /// An input without H.264 is a Failure that tells what it holds instead.
  explicit StreamReader(InputFile& input);
  ~StreamReader();

  /// @return false at the end
  bool next(AccessUnit& unit);

  Ratio rate() const;
  Ratio aspect() const;
  bool fullRange() const;
  /// Pictures that the decoder may hold back to put them in order, as far as the input tells.
  int reorderDelay() const;

  /// How far the access units have come in the input, 0 to 1; empty where its length is not known.
  /// The one operation that may be called while another thread calls next(). libavformat reads
  /// ahead, so this is less than what the input itself says.
  std::optional<double> fraction() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tool

#endif  // TESSERA_TOOLS_STREAMREADER_H
