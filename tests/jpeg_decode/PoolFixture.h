#ifndef TESSERA_TESTS_JPEG_DECODE_POOLFIXTURE_H
#define TESSERA_TESTS_JPEG_DECODE_POOLFIXTURE_H

#include <semaphore.h>
#include <tessera/DecoderPool.h>

#include <string>
#include <vector>

#include "support/Capture.h"
#include "support/JpegOracle.h"

/// Sees the fields of a pool.
struct TesseraTestAccess {
  /// Posts of semCommandDone, semFillDone and semPortSettingsChanged that nobody has taken.
  static std::vector<int> counts(DecoderPool& pool) {
    std::vector<int> counts;
    for (sem_t* semaphore :
         {&pool.semCommandDone, &pool.semFillDone, &pool.semPortSettingsChanged}) {
      counts.push_back(-1);
      sem_getvalue(semaphore, &counts.back());
    }
    return counts;
  }
  static OMX_U32 outputCapacity(const DecoderPool& pool) { return pool.pOutputBuffer->nAllocLen; }
  static OMX_U32 inputCapacity(const DecoderPool& pool) {
    return pool.ppInputBuffers[0]->nAllocLen;
  }
  /// Has the input buffers look as if the component had consumed them.
  static void freeInputs(DecoderPool& pool) {
    for (int i = 0; i < pool.nInputBuffers; ++i) pool.ppInputBuffers[i]->nFilledLen = 0;
  }
};

inline support::Bytes jpegOf(int width, int height, int t = 0,
                             support::Sampling sampling = support::Sampling::Yuv420) {
  return support::encodeJpeg(support::scene(width, height, t), sampling, 85);
}

struct Decoded {
  const unsigned char* data = nullptr;
  int width = 0;
  int height = 0;
  std::string lines;  ///< on standard output
};

/// Decodes; width and height are what the caller passes in.
inline Decoded decode(DecoderPool& pool, support::Bytes jpeg, int width = 0, int height = 0) {
  Decoded decoded{nullptr, width, height, {}};
  support::Capture capture;
  decoded.data =
      pool.DecodeJpeg(reinterpret_cast<char*>(jpeg.data()), static_cast<unsigned int>(jpeg.size()),
                      decoded.width, decoded.height);
  decoded.lines = capture.out();
  return decoded;
}

/// Whether the planes are those of the JPEG: luma bit for bit, chroma within 2 of the average of
/// the samples that lie under it, and the padding repeats the edge. Empty when they are.
std::string difference(const Decoded& decoded, const support::Bytes& jpeg);

/// A pool that does not print.
class QuietPool {
 public:
  QuietPool() {
    const support::Capture capture;
    pool_ = GetDecoderPool();
  }
  ~QuietPool() {
    const support::Capture capture;
    ReleaseDecoderPool(pool_);
  }
  QuietPool(const QuietPool&) = delete;
  QuietPool& operator=(const QuietPool&) = delete;
  DecoderPool& operator*() { return *pool_; }

 private:
  DecoderPool* pool_;
};

#endif  // TESSERA_TESTS_JPEG_DECODE_POOLFIXTURE_H
