#ifndef TESSERA_TOOLS_BARESTREAMREADER_H
#define TESSERA_TOOLS_BARESTREAMREADER_H

#include <atomic>
#include <vector>

#include "StreamReader.h"
#include "UnitHeaders.h"

namespace tool {

/// An H.264 stream in Annex B. Nothing is looked into beyond its first parameter sets, and no
/// access unit waits for the next one where the input pauses.
class BareStreamReader : public StreamReader {
 public:
  /// Whether the input starts like one: with a start code and a NAL unit that may stand first.
  static bool recognises(InputFile& input);

  explicit BareStreamReader(InputFile& input);

  bool next(AccessUnit& unit) override;
  std::optional<double> fraction() const override;

 private:
  bool readMore();
  std::size_t findEnd();

  InputFile& input_;
  UnitHeaders headers_;
  std::vector<std::uint8_t> buffer_;
  std::size_t begin_ = 0;  ///< of what has not been handed out
  bool ended_ = false;
  FrameSize size_;
  std::uint64_t start_;                    ///< the input's position at first
  std::atomic<std::uint64_t> reached_{0};  ///< bytes handed out
};

}  // namespace tool

#endif  // TESSERA_TOOLS_BARESTREAMREADER_H
