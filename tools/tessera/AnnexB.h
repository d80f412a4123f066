#ifndef TESSERA_TOOLS_ANNEXB_H
#define TESSERA_TOOLS_ANNEXB_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tool {

/// Whether Annex B bytes hold coded picture data, and not parameter sets alone.
bool hasSlice(const std::uint8_t* data, std::size_t size);

/// Whether Annex B bytes begin a new frame: parameter sets, or the first slice of a picture.
bool startsFrame(const std::uint8_t* data, std::size_t size);

/// Joins the buffers that an encoder hands out to frames.
///
/// The encoder does not say where a frame ends. A frame longer than the component's output buffer
/// fills it to the last byte and goes on in the next one, so a buffer that is not full is a
/// frame's last. How long the component's buffer is shows with the first frame that is split;
/// until then it is known to hold a byte a pixel at least, and a longer piece is in doubt: it is
/// whole when a wait for more ends without any.
class FrameJoiner {
 public:
  explicit FrameJoiner(std::size_t smallestBuffer) : whole_(smallestBuffer) {}

  enum class State {
    Open,      ///< more of the frame must come
    InDoubt,   ///< it may be complete
    Complete,  ///< take() it
  };

  /// Adds a buffer. A new frame while the one before is in doubt shows that one to be complete; it
  /// is then kept for after take().
  State add(const std::uint8_t* data, std::size_t size);

  /// Nothing came although a frame was in doubt: it is complete.
  State nothingCame();

  /// The complete frame, with the parameter sets that came before it.
  std::vector<std::uint8_t> take();

  State state() const { return state_; }

 private:
  State judge(std::size_t size);

  std::size_t whole_;     ///< pieces below this are a frame's last
  std::size_t full_ = 0;  ///< the buffer's length once it is known
  State state_ = State::Open;
  std::size_t lastPiece_ = 0;
  std::vector<std::uint8_t> frame_;
  std::vector<std::uint8_t> kept_;
};

}  // namespace tool

#endif  // TESSERA_TOOLS_ANNEXB_H
