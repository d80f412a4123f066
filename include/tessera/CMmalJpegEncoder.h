#ifndef TESSERA_CMMALJPEGENCODER_H
#define TESSERA_CMMALJPEGENCODER_H

/// @file
/// The JPEG encoder on MMAL, and its callback.

#include <interface/mmal/mmal.h>
#include <interface/mmal/util/mmal_component_wrapper.h>
#include <semaphore.h>
#include <tessera/IJPEGEncoder.h>

struct TesseraTestAccess;

/// JPEG encoder on the MMAL component "vc.ril.image_encode"; what `CreateEncoderJPEG` hands out.
///
/// The first encode sets the component up for its width, height and pixel format; later ones of the
/// same size reuse that setup, another size replaces it. **The pixel format is not compared:** at
/// an unchanged size the format of the first call stays. Use one object for each pixel format.
///
/// **Layout.** The frame's bytes go to the component as they are. It reads rows of
/// S = (width + 31) / 32 * 32 pixels and H = (height + 15) / 16 * 16 of them, so for a size that is
/// not a multiple of 32 x 16 the caller lays the frame out that way: S * H * bytes a pixel. A
/// shorter frame leaves the rest of the component's buffer as the last frame left it (or
/// undefined), a longer one fails. The JPEG has exactly width x height pixels.
///
/// **Results.** Every encode gives 1, or 0 after one line or two; the object can be used again at
/// once. docs/errors-and-limits.md says what to do, docs/lines.md lists all lines but these, on
/// standard output:
/// - `CMmalJpegEncoder::Encode - frame of %u bytes does not fit input buffer of %u`: mend
///   frameSize, or take an object of its own for each pixel format
/// - `CMmalJpegEncoder::Encode - the component delivered no picture`: encode again
/// - `CMmalJpegEncoder::Encode - timeout`: encode again; the component is made anew
///
/// An output buffer that the component refuses is told by one line ("failed to send buffer") and
/// offered again until the time is up: that call may still give 1.
///
/// A JPEG longer than the caller's capacity gives 0 without a line: `jpegSize` then holds the size
/// needed. When the platform reports an error instead of the finished JPEG, the process ends by
/// `exit(1)` after "CMmalJpegEncoder::Encode - failed to get full buffer".
///
/// **Time.** A call blocks until the JPEG is there, for at most 10 seconds by a steady clock, and
/// for as long as the platform's calls take that set the component up.
///
/// **Threads.** One thread at a time; objects do not share anything.
class TESSERA_API CMmalJpegEncoder : public IJPEGEncoder {
 public:
  /// Brings up the host library; makes no component and cannot fail.
  CMmalJpegEncoder();

  /// Takes the component down, if there is one.
  ~CMmalJpegEncoder() override;

  CMmalJpegEncoder(const CMmalJpegEncoder&) = delete;
  CMmalJpegEncoder& operator=(const CMmalJpegEncoder&) = delete;

  /// Packed 4:2:2 to JPEG in a new array of capacity width x height x 2; see IJPEGEncoder.
  /// @param frame,frameSize,width,height  the picture, as for IJPEGEncoder
  /// @param jpeg,jpegSize  receive array and bytes; null and 0 on failure
  /// @return 1, or 0 after a line
  int EncodeYUYV(unsigned char* frame, unsigned int frameSize, int width, int height,
                 unsigned char** jpeg, unsigned int& jpegSize) override;

  /// Packed 4:2:2 to JPEG in the caller's memory; see IJPEGEncoder. Sizes below 1 fail.
  /// @param frame,frameSize,width,height  the picture, as for IJPEGEncoder
  /// @param jpeg,jpegCapacity  the caller's memory, and its bytes
  /// @param jpegSize  bytes of the JPEG, or those needed; otherwise untouched on failure
  /// @return 1, or 0 after a line
  int EncodeYUYV(unsigned char* frame, unsigned int frameSize, int width, int height,
                 unsigned char* jpeg, unsigned int jpegCapacity, unsigned int& jpegSize) override;

  /// R, G, B, A bytes to JPEG in a new array of capacity |width| x |height| x 4; see IJPEGEncoder.
  /// @param frame,frameSize,width,height  the picture, as for IJPEGEncoder
  /// @param jpeg,jpegSize  receive array and bytes; null and 0 on failure
  /// @return 1, or 0 after a line
  int EncodeRGB32(unsigned char* frame, unsigned int frameSize, int width, int height,
                  unsigned char** jpeg, unsigned int& jpegSize) override;

  /// R, G, B, A bytes to JPEG in the caller's memory; see IJPEGEncoder.
  /// @param frame,frameSize,width,height  the picture, as for IJPEGEncoder
  /// @param jpeg,jpegCapacity  the caller's memory, and its bytes
  /// @param jpegSize  bytes of the JPEG, or those needed; otherwise untouched on failure
  /// @return 1, or 0 after a line
  int EncodeRGB32(unsigned char* frame, unsigned int frameSize, int width, int height,
                  unsigned char* jpeg, unsigned int jpegCapacity, unsigned int& jpegSize) override;

  /// RGB to JPEG in the caller's memory, like `EncodeYUYV`. Sizes below 1 fail.
  /// @param bitsPerPixel  16: little-endian words, red in bits 15..11, green 10..5, blue 4..0;
  ///                      24: bytes R, G, B; 32: bytes R, G, B, A (A ignored). Others fail
  /// @param frame,frameSize,width,height,jpeg,jpegCapacity,jpegSize  as for `EncodeYUYV`
  /// @return 1 when a complete JPEG was produced, else 0
  int EncodeRGB(unsigned char* frame, unsigned int frameSize, unsigned int bitsPerPixel, int width,
                int height, unsigned char* jpeg, unsigned int jpegCapacity, unsigned int& jpegSize);

  /// Encodes a frame of any format that the component takes; the operations above all call it.
  /// @param encoding  four-character code of the frame's format: 'YUYV', 'RGB2', 'RGB3' or 'RGBA';
  ///                  used when this call sets the component up
  /// @param frame,frameSize,width,height,jpeg,jpegCapacity,jpegSize  as for `EncodeYUYV`
  /// @return 1 when a complete JPEG was produced, else 0
  int Encode(unsigned char* frame, unsigned int frameSize, unsigned int encoding, int width,
             int height, unsigned char* jpeg, unsigned int jpegCapacity, unsigned int& jpegSize);

  /// Sets the component up, in place of a setup that is there. `Encode` calls it when needed, with
  /// quality 75; call it yourself, with the same size as the encodes that follow, for another one.
  /// @param encoding      as for `Encode`
  /// @param width,height  picture size in pixels, above 0
  /// @param quality       1 to 100
  /// @return 1; or 0 after a line on standard error that names the failed step. No setup is there
  ///         then, and the next encode makes its own
  int Initialize(unsigned int encoding, int width, int height, int quality);

  /// What the operations are made of; defined inside the library.
  struct TESSERA_HIDDEN Steps;

 private:
  friend struct TesseraTestAccess;

  MMAL_WRAPPER_T* pWrapper = nullptr;
  MMAL_PORT_T* pInputPort = nullptr;
  MMAL_PORT_T* pOutputPort = nullptr;
  MMAL_BUFFER_HEADER_T* pInputBuffer = nullptr;
  MMAL_BUFFER_HEADER_T* pOutputBuffer = nullptr;
  MMAL_STATUS_T nLastStatus = MMAL_SUCCESS;
  sem_t semaphore{};
  int nWidth = 0;
  int nHeight = 0;
};

/// The wrapper's callback: wakes the encoder.
/// @param wrapper  its user data is the encoder, or null; the platform calls from a thread of its
///                 own
TESSERA_API void MMALEncoderCallback(MMAL_WRAPPER_T* wrapper);

#endif  // TESSERA_CMMALJPEGENCODER_H
