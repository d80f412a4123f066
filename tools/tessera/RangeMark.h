#ifndef TESSERA_TOOLS_RANGEMARK_H
#define TESSERA_TOOLS_RANGEMARK_H

#include <cstdint>
#include <vector>

#include "AvSupport.h"

namespace tool {

/// Writes into the parameter sets of an H.264 stream that its pictures have the full range. The
/// encoders do not ask, and a stream that says nothing means the limited one.
class RangeMark {
 public:
  RangeMark();

  /// @param frame  Annex B; without parameter sets it stays as it is
  void apply(std::vector<std::uint8_t>& frame);

 private:
  AvOwned<AVBSFContext> filter_;
  AvOwned<AVPacket> packet_;
};

}  // namespace tool

#endif  // TESSERA_TOOLS_RANGEMARK_H
