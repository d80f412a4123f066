#ifndef TESSERA_IJPEGENCODER_H
#define TESSERA_IJPEGENCODER_H

/// @file
/// Raw frames to JPEG, and the functions that make and release an encoder.

#include <tessera/Export.h>

/// Encodes raw frames to JPEG at quality 75, one picture a call.
///
/// Obtain one from `CreateEncoderJPEG()` (CMmalJpegEncoder) or construct `COmxJpegEncoder`; release
/// either with `ReleaseEncoderJPEG`. No set-up call is needed: the first encode sets the component
/// up, and later ones reuse what the class keeps.
///
/// **Layout.** The component reads rows of the *rounded* picture: width rounded up to a multiple of
/// 32, height to a multiple of 16. Both encoders take the frame's bytes unchanged, so unless the
/// size is already such a multiple the caller lays its rows out at the rounded width:
/// `(width + 31) / 32 * 32 * bytes a pixel` bytes from one row to the next, and provides
/// `(height + 15) / 16 * 16` of them. A 100 x 50 YUYV frame is 64 rows of 256 bytes, 16,384 bytes.
/// What stands in the padding does not matter to CMmalJpegEncoder, whose JPEG has exactly
/// width x height pixels; COmxJpegEncoder does not crop, its JPEG has the rounded size.
///
/// **Threads.** One caller thread at a time per object; any number of objects at once.
///
/// **Time.** Each call blocks until the JPEG is complete: with CMmalJpegEncoder for at most 10
/// seconds, with COmxJpegEncoder for at most 10 seconds for each answer of the component. Then it
/// prints one line and fails.
///
/// **Errors.** Every failure is the result 0 and, but for a JPEG that does not fit, a line of text.
/// docs/errors-and-limits.md tells what to do next. CMmalJpegEncoder stays usable; COmxJpegEncoder
/// perhaps not after a command that its component refused.
class TESSERA_API IJPEGEncoder {
 public:
  /// Takes the platform's component down. Objects of the factory go by `ReleaseEncoderJPEG`.
  virtual ~IJPEGEncoder() = default;

  /// Encodes packed 4:2:2 (bytes Y0 U Y1 V for each pixel pair, 2 bytes a pixel).
  ///
  /// Allocates the result: on success `*jpeg` is an array made with `new[]` that holds `jpegSize`
  /// bytes and belongs to the caller, who frees it with `delete[]`. Its capacity is
  /// width x height x 2 bytes; a picture that needs more fails.
  /// @param frame      the raw picture; read during the call only
  /// @param frameSize  its length in bytes, above 0
  /// @param width      picture width in pixels, above 0
  /// @param height     picture height in rows, above 0
  /// @param jpeg       where to store the array; null fails. Set to null when encoding fails
  /// @param jpegSize   bytes of the JPEG; 0 when encoding fails
  /// @return 1 when a complete JPEG was produced, else 0
  virtual int EncodeYUYV(unsigned char* frame, unsigned int frameSize, int width, int height,
                         unsigned char** jpeg, unsigned int& jpegSize) = 0;

  /// The same into the caller's memory.
  /// @param frame,frameSize,width,height  as above
  /// @param jpeg          receives the JPEG; never written beyond `jpegCapacity`
  /// @param jpegCapacity  bytes at `jpeg`, above 0
  /// @param jpegSize      bytes of the JPEG. When the JPEG is longer than `jpegCapacity` nothing is
  ///                      copied, the result is 0 and this is the size needed: call again with that
  ///                      much. Untouched on any other failure
  /// @return 1 when a complete JPEG was produced and copied, else 0
  virtual int EncodeYUYV(unsigned char* frame, unsigned int frameSize, int width, int height,
                         unsigned char* jpeg, unsigned int jpegCapacity,
                         unsigned int& jpegSize) = 0;

  /// Encodes 32-bit RGB, 4 bytes a pixel: R, G, B, A in memory for CMmalJpegEncoder; B, G, R, A for
  /// COmxJpegEncoder. The fourth byte is ignored. Negative sizes count by their magnitude.
  /// Allocates like the allocating `EncodeYUYV`, with a capacity of |width| x |height| x 4 bytes.
  /// @param frame,frameSize,width,height,jpeg,jpegSize  as for `EncodeYUYV`
  /// @return 1 when a complete JPEG was produced, else 0
  virtual int EncodeRGB32(unsigned char* frame, unsigned int frameSize, int width, int height,
                          unsigned char** jpeg, unsigned int& jpegSize) = 0;

  /// The same into the caller's memory, like the second `EncodeYUYV`.
  /// @param frame,frameSize,width,height,jpeg,jpegCapacity,jpegSize  as for the second `EncodeYUYV`
  /// @return 1 when a complete JPEG was produced and copied, else 0
  virtual int EncodeRGB32(unsigned char* frame, unsigned int frameSize, int width, int height,
                          unsigned char* jpeg, unsigned int jpegCapacity,
                          unsigned int& jpegSize) = 0;
};

extern "C" {

/// Makes a JPEG encoder (CMmalJpegEncoder). No platform component exists until the first encode.
/// @return the encoder, never null; it belongs to the caller until `ReleaseEncoderJPEG`
/// @throws std::bad_alloc when memory is short
TESSERA_API IJPEGEncoder* CreateEncoderJPEG();

/// Destroys any IJPEGEncoder made with `new`, whichever class it is, and gives back all it holds.
/// @param encoder  the object, or null
/// @return 0 for null (nothing happens), else 1
TESSERA_API int ReleaseEncoderJPEG(IJPEGEncoder* encoder);
}

#endif  // TESSERA_IJPEGENCODER_H
