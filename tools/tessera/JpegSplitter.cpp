#include "JpegSplitter.h"

#include <algorithm>
#include <cstring>

#include "Failure.h"

namespace tool {
namespace {

constexpr std::size_t chunk = 256 * 1024;
constexpr std::size_t longestPicture = std::size_t{512} << 20;

enum Marker : std::uint8_t { Tem = 0x01, Soi = 0xD8, Eoi = 0xD9, Sos = 0xDA };

bool isRestart(std::uint8_t code) {
  return code >= 0xD0 && code <= 0xD7;
}

bool isFrameHeader(std::uint8_t code) {
  return code >= 0xC0 && code <= 0xCF && code != 0xC4 && code != 0xC8 && code != 0xCC;
}

}  // namespace

JpegSplitter::JpegSplitter(InputFile& input) : input_(input) {}

/// Makes sure that the buffer reaches to `end`. @return false where the input ends before
bool JpegSplitter::have(std::size_t end) {
  while (buffer_.size() < end) {
    if (buffer_.size() - begin_ > longestPicture)
      throw Failure(input_.name() + ": no end of a picture within 512 MiB; is this a JPEG?");
    const std::size_t old = buffer_.size();
    buffer_.resize(old + chunk);
    const std::size_t got = input_.readSome(buffer_.data() + old, chunk);
    buffer_.resize(old + got);
    if (got == 0) return false;
    empty_ = false;
  }
  return true;
}

bool JpegSplitter::findStart() {
  while (have(begin_ + 3)) {
    const std::uint8_t* at = &buffer_[begin_];
    if (at[0] == 0xFF && at[1] == Soi && at[2] == 0xFF) return true;
    if (at[0] != 0) ++stray_;
    ++begin_;
    if (begin_ < chunk) continue;
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(begin_));
    begin_ = 0;
  }
  for (; begin_ < buffer_.size(); ++begin_) stray_ += buffer_[begin_] != 0;
  return false;
}

/// Goes on to the next marker that is no restart. @return false at the end of the input
bool JpegSplitter::passEntropyCoded(std::size_t& at) {
  while (have(at + 2)) {
    const void* found = std::memchr(&buffer_[at], 0xFF, buffer_.size() - 1 - at);
    if (!found) {
      at = buffer_.size() - 1;
      continue;
    }
    at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - buffer_.data());
    const std::uint8_t code = buffer_[at + 1];
    if (code != 0 && code != 0xFF && !isRestart(code)) return true;
    at += code == 0xFF ? 1 : 2;
  }
  return false;
}

/// Passes the marker at `at` with what belongs to it. @return false at the end of the input
bool JpegSplitter::passSegment(std::size_t& at, JpegPiece& piece) {
  const std::uint8_t code = buffer_[at + 1];
  if (code == Tem || isRestart(code)) {
    at += 2;
    return true;
  }
  if (!have(at + 4)) return false;
  const std::size_t length = std::size_t{buffer_[at + 2]} << 8 | buffer_[at + 3];
  if (!have(at + 2 + std::max<std::size_t>(length, 2))) return false;
  if (isFrameHeader(code) && length >= 7)
    piece.picture = {buffer_[at + 7] << 8 | buffer_[at + 8],
                     buffer_[at + 5] << 8 | buffer_[at + 6]};
  at += 2 + length;
  // A length that cannot be is damage; the next marker is then looked for like after a scan.
  return code == Sos || length < 2 ? passEntropyCoded(at) : true;
}

bool JpegSplitter::next(JpegPiece& piece) {
  buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(begin_));
  begin_ = 0;
  if (!findStart()) return false;

  piece = {};
  std::size_t at = begin_ + 2;
  for (;;) {
    if (!have(at + 2) || (buffer_[at] != 0xFF && !passEntropyCoded(at))) {
      piece.complete = false;
      at = buffer_.size();
      break;
    }
    const std::uint8_t code = buffer_[at + 1];
    if (code == 0xFF) {  // a fill byte
      ++at;
      continue;
    }
    if (code == Soi) {
      piece.complete = false;
      break;
    }
    if (code == Eoi) {
      at += 2;
      break;
    }
    if (!passSegment(at, piece)) at = buffer_.size();
  }
  piece.data = &buffer_[begin_];
  piece.size = at - begin_;
  begin_ = at;
  return true;
}

}  // namespace tool
