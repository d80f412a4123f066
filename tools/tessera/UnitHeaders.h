#ifndef TESSERA_TOOLS_UNITHEADERS_H
#define TESSERA_TOOLS_UNITHEADERS_H

#include <optional>
#include <string>

#include "AvSupport.h"
#include "SequenceParameters.h"
#include "StreamReader.h"

namespace tool {

/// Reads what an access unit tells of itself, and what it does not follow from the one before.
class UnitHeaders {
 public:
  /// @param input  for messages
  explicit UnitHeaders(const std::string& input);

  /// Fills everything but data, size, decodeOnly and milliseconds.
  void read(AccessUnit& unit);

  /// Pixels that the decoder does not take are a Failure.
  void checkPixels(int format) const;

 private:
  unsigned missingBefore(const AccessUnit& unit);

  std::string input_;
  AvOwned<AVCodecContext> context_;
  AvOwned<AVCodecParserContext> parser_;
  std::optional<SequenceParameters> parameters_;
  std::optional<unsigned> lastReference_;  ///< its frame number
};

}  // namespace tool

#endif  // TESSERA_TOOLS_UNITHEADERS_H
