#ifndef TESSERA_TOOLS_STREAMREADER_H
#define TESSERA_TOOLS_STREAMREADER_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "FrameLayout.h"
#include "FrameSource.h"
#include "InputFile.h"

namespace tool {

/// A piece of an H.264 stream as the decoder takes it.
struct AccessUnit {
  std::uint8_t* data = nullptr;  ///< Annex B; valid until the next call
  std::size_t size = 0;
  FrameSize picture;               ///< of the parameter sets in force; 0 x 0 before any
  std::uint64_t milliseconds = 0;  ///< presentation time, from 1; 0 where there is none
  int fields = 2;                  ///< 2: a picture; 1: a field, two of which make one; 0: neither
  char order = 'p';                ///< p: progressive; t or b: the field that comes first
  bool decodeOnly = false;         ///< needed by later pictures, but not to be shown
  bool keyFrame = false;           ///< decoding may start here
  unsigned missing = 0;            ///< pictures that the stream lacks before it
  bool damaged = false;            ///< the container knows that data is missing in it
};

/// The H.264 stream of an input.
class StreamReader {
 public:
  /// What the input tells of its pictures.
  struct Info {
    Ratio rate{25, 1};
    Ratio aspect{1, 1};
    bool fullRange = false;
    int reorder = 0;   ///< pictures that the decoder may hold back to put them in order
    int rotation = 0;  ///< degrees, clockwise, by which a player is to turn them
  };

  /// A bare stream, or whatever libavformat opens. An input without H.264 is a Failure that tells
  /// what it holds instead.
  /// @param lowDelay  do not look further into a container than its header
  static std::unique_ptr<StreamReader> open(InputFile& input, bool lowDelay);

  virtual ~StreamReader() = default;

  /// @return false at the end
  virtual bool next(AccessUnit& unit) = 0;

  /// How far the access units have come in the input, 0 to 1; empty where its length is not known.
  /// The one operation that may be called while another thread calls next(). Readers read ahead, so
  /// this is less than what the input itself says.
  virtual std::optional<double> fraction() const = 0;

  const Info& info() const { return info_; }

  /// After the end: why that was not the stream's own; empty where it was.
  const std::string& cut() const { return cut_; }

 protected:
  Info info_;
  std::string cut_;
};

}  // namespace tool

#endif  // TESSERA_TOOLS_STREAMREADER_H
