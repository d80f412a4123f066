#ifndef TESSERA_TOOLS_STREAMWRITER_H
#define TESSERA_TOOLS_STREAMWRITER_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "FrameLayout.h"
#include "FrameSource.h"
#include "OutputFile.h"

struct AVOutputFormat;

namespace tool {

/// Writes encoded H.264 frames as they are, or into a container.
class StreamWriter {
 public:
  struct Stream {
    FrameSize size;
    Ratio rate;
    Ratio aspect;
    unsigned bitrate = 0;
    Range range = Range::Limited;
  };

  virtual ~StreamWriter() = default;

  /// @param frame  a whole frame in Annex B, the first with its parameter sets
  virtual void write(const std::vector<std::uint8_t>& frame, bool keyFrame) = 0;

  /// After the last frame, before OutputFile::commit().
  virtual void finish() = 0;

  /// The container that the output's name asks for, null for the bare stream. A name that asks for
  /// something else is a UsageFailure.
  static const AVOutputFormat* containerFor(const std::string& output);

  static std::unique_ptr<StreamWriter> make(OutputFile& output, const AVOutputFormat* container,
                                            const Stream& stream);
};

}  // namespace tool

#endif  // TESSERA_TOOLS_STREAMWRITER_H
