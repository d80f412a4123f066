#ifndef TESSERA_IH264ENCODER_H
#define TESSERA_IH264ENCODER_H

/// @file
/// Raw video to H.264, and the functions that make and release an encoder.

#include <tessera/CodecStatus.h>
#include <tessera/Export.h>

/// Encodes raw video frames to an H.264 elementary stream (Annex B, High profile).
///
/// Obtain one from `CreateEncoderH264()` (CMmalH264Encoder) or construct `COmxH264Encoder`; release
/// either with `ReleaseEncoderH264`. Then:
///
/// @code
///   IH264Encoder* encoder = CreateEncoderH264();
///   // 1280 x 720 YUYV, 30 frames a second, square pixels, 4 Mb/s
///   if (!encoder->Create(tessera::fourccYuyv, 1280, 720, 30, 1, 1, 1, 4000000)) return 1;
///   std::vector<unsigned char> data(1 << 20);
///   tessera::EncodedFrames out(1280, 720);  // from Basics.h: tells where frames begin and end
///   unsigned fed = 0;
///   const auto take = [&] {  // one buffer; CodecTimeout: none within 100 ms, call again
///     unsigned int size = 0, flags = 0;
///     const CodecStatus status = encoder->ProcessOutput(data.data(), data.size(), size, flags);
///     if (status != CodecOk) return status;
///     sink.write(data.data(), size);  // flags bit 0: a key frame
///     out.Add(data.data(), size);
///     return status;
///   };
///   while (camera.grab(frame)) {
///     CodecStatus status = CodecTimeout;
///     for (int tries = 0; status == CodecTimeout && tries < 10; ++tries) {
///       status = encoder->ProcessInput(frame.data(), frame.size(), 0, 0);
///       if (status == CodecTimeout) take();  // it may be waiting for room in its output
///     }
///     if (status != CodecOk) break;
///     ++fed;
///     for (int tries = 0; out.Begun() < fed && tries < 20; ++tries) take();
///   }
///   while (out.MayGoOn() && take() == CodecOk) {
///   }  // the last frame may have pieces more
///   ReleaseEncoderH264(encoder);
/// @endcode
///
/// **Results.** docs/errors-and-limits.md tells for each status and class what became of the data
/// and what to do next.
///
/// **Threads.** One caller thread at a time per object; any number of objects at once. How long a
/// call may block is told in each class.
class TESSERA_API IH264Encoder {
 public:
  /// Stops the encoder and gives back all it holds; data not yet fetched is lost. For how long it
  /// may block is told in each class. Objects of the factory go by `ReleaseEncoderH264`.
  virtual ~IH264Encoder() = default;

  /// Configures the encoder and starts it. CMmalH264Encoder blocks for as long as the platform's
  /// calls take, COmxH264Encoder for at most 10 seconds for each answer of the component.
  /// @param pixelFormat   four-character code: `tessera::fourccI420` or `tessera::fourccYuyv`
  /// @param width,height  picture size in pixels; not 0, the magnitude counts
  /// @param frameRateNum,frameRateDen  frames a second as a fraction, neither 0
  /// @param aspectNum,aspectDen        pixel aspect ratio as a fraction, neither 0
  /// @param bitrate       target in bits a second
  /// @return true on success; false after one or two lines on standard error that say which step
  ///         failed. After a failure nothing runs: mend the arguments and call again, or release.
  virtual bool Create(unsigned int pixelFormat, int width, int height, unsigned int frameRateNum,
                      unsigned int frameRateDen, unsigned int aspectNum, unsigned int aspectDen,
                      unsigned int bitrate) = 0;

  /// Takes one frame. CMmalH264Encoder blocks for at most 1000 ms, COmxH264Encoder for at most 10
  /// seconds for an answer of the component.
  ///
  /// 'YUYV' frames are packed rows of `ceil(width / 2) * 4` bytes without padding. 'I420' frames
  /// are taken byte for byte, so they must already have the padded layout of the encoder's input:
  /// luma stride S = width rounded up to 32, H = height rounded up to 16 luma rows, then U and V at
  /// stride S / 2 and H / 2 rows: S * H * 3 / 2 bytes.
  /// @param frame      the picture; read during the call only
  /// @param frameSize  its length in bytes
  /// @param duration   not read
  /// @param timestamp  COmxH264Encoder stamps its input with it, CMmalH264Encoder does not read it
  /// @return CodecOk: the frame is with the platform. Otherwise it was not taken. CodecTimeout:
  ///         fetch output, then the same frame again. The others: see the table
  virtual CodecStatus ProcessInput(unsigned char* frame, unsigned int frameSize, long long duration,
                                   long long timestamp) = 0;

  /// Hands out one buffer of encoded data in a new array.
  ///
  /// A buffer is the parameter sets, a whole frame, or a piece of a frame longer than the
  /// component's output buffer; pieces come in order and join without gaps. CMmalH264Encoder blocks
  /// for at most 100 ms, COmxH264Encoder for at most 10 seconds.
  /// @param data   receives an array made with `new[]`; the caller frees it with `delete[]`.
  ///               Untouched on failure
  /// @param size   its bytes; untouched on failure
  /// @param flags  bit 0: the data belongs to a key frame; 0 on every failure
  /// @return CodecOk. CodecTimeout, CodecNoBuffer, CodecSendFailed: nothing is lost, call again
  ///         while a frame is owed. CodecInvalidArgument, CodecInvalidState, CodecWaitFailed: see
  ///         the table
  /// @throws std::bad_alloc when there is no memory for the array
  virtual CodecStatus ProcessOutput(unsigned char** data, unsigned int& size,
                                    unsigned int& flags) = 0;

  /// The same into the caller's memory.
  /// @param data      receives the data; never written beyond `capacity`
  /// @param capacity  bytes at `data`, above 0
  /// @param size      bytes of the data; with CodecBufferTooSmall the size that was needed, and
  ///                  that data is lost
  /// @param flags     as above
  /// @return as above, or CodecBufferTooSmall
  virtual CodecStatus ProcessOutput(unsigned char* data, unsigned int capacity, unsigned int& size,
                                    unsigned int& flags) = 0;
};

extern "C" {

/// Makes an H.264 encoder (CMmalH264Encoder). Blocks for as long as the platform takes to make its
/// component.
/// @return the encoder, never null, also when the platform has no component for it: `Create` then
///         says so and returns false. It belongs to the caller until `ReleaseEncoderH264`
/// @throws std::bad_alloc when memory is short
TESSERA_API IH264Encoder* CreateEncoderH264();

/// Destroys any IH264Encoder made with `new`, whichever class it is, and gives back all it holds.
/// @param encoder  the object, or null
/// @return 0 for null (nothing happens), else 1
TESSERA_API int ReleaseEncoderH264(IH264Encoder* encoder);
}

#endif  // TESSERA_IH264ENCODER_H
