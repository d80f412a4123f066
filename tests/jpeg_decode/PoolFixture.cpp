#include "PoolFixture.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

using support::Bytes;
using support::JpegPicture;

namespace {

/// The average of those samples of a plane that lie under one sample of a 4:2:0 plane.
int averageUnder(const Bytes& plane, const JpegPicture& picture, int stepX, int stepY, int x,
                 int y) {
  int sum = 0;
  for (int dy = 0; dy < stepY; ++dy)
    for (int dx = 0; dx < stepX; ++dx) {
      const int column = std::min(x * stepX + dx, picture.chromaWidth - 1);
      const int row = std::min(y * stepY + dy, picture.chromaHeight - 1);
      sum += plane[static_cast<std::size_t>(row) * picture.chromaWidth + column];
    }
  return (sum + stepX * stepY / 2) / (stepX * stepY);
}

int expectedChroma(const Bytes& plane, const JpegPicture& picture, int x, int y) {
  if (picture.sampling == support::Sampling::Grey) return 128;
  const int stepX = picture.chromaWidth > (picture.width + 1) / 2 ? 2 : 1;
  const int stepY = picture.chromaHeight > (picture.height + 1) / 2 ? 2 : 1;
  // One 4:1:1 sample covers four columns: two of 4:2:0.
  const int column = picture.sampling == support::Sampling::Yuv411 ? x / 2 : x;
  return averageUnder(plane, picture, stepX, stepY, column, y);
}

}  // namespace

std::string difference(const Decoded& decoded, const Bytes& jpeg) {
  if (decoded.data == nullptr) return "null: " + decoded.lines;
  const JpegPicture truth = support::decodeJpeg(jpeg);
  std::ostringstream text;
  if (!truth.ok) text << "the oracle refuses it: " << truth.error;
  if (decoded.width != truth.width || decoded.height != truth.height)
    text << decoded.width << "x" << decoded.height << " instead of " << truth.width << "x"
         << truth.height;
  if (!text.str().empty()) return text.str();
  const support::Yuv seen = support::unpadded(decoded.data, decoded.width, decoded.height);
  if (seen.y != truth.y) text << "luma differs by " << support::maxDifference(seen.y, truth.y);
  int worst = 0;
  for (int y = 0; y < seen.chromaHeight(); ++y)
    for (int x = 0; x < seen.chromaWidth(); ++x) {
      const auto at = static_cast<std::size_t>(y) * seen.chromaWidth() + x;
      worst = std::max(worst, std::abs(seen.u[at] - expectedChroma(truth.u, truth, x, y)));
      worst = std::max(worst, std::abs(seen.v[at] - expectedChroma(truth.v, truth, x, y)));
    }
  const bool resampled = truth.sampling != support::Sampling::Yuv420;
  if (worst > (resampled ? 2 : 0)) text << " chroma differs by " << worst;
  const Bytes whole = support::padded(seen);
  if (!std::equal(whole.begin(), whole.end(), decoded.data)) text << " its padding is not its edge";
  return text.str();
}
