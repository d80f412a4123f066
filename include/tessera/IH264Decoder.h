#ifndef TESSERA_IH264DECODER_H
#define TESSERA_IH264DECODER_H

/// @file
/// H.264 to planar 4:2:0, and the functions that make and release a decoder.

#include <tessera/CodecStatus.h>
#include <tessera/Export.h>

/// Decodes an H.264 stream (Annex B) to I420 pictures in presentation order.
///
/// Obtain one from `CreateH264Decoder`, call `Create` with the stream's size, then feed and drain,
/// from one thread or from two; release with `FreeH264Decoder`:
///
/// @code
///   IH264Decoder* decoder = nullptr;
///   if (!CreateH264Decoder(&decoder) || !decoder->Create(1280, 720, 0, nullptr)) return 1;
///   std::atomic<unsigned> fed{0};
///   std::atomic<bool> ended{false};
///   std::thread feeder([&] {
///     CodecStatus status = CodecOk;
///     while (status == CodecOk && stream.next(unit)) {  // cut by tessera::AccessUnitEnd()
///       ++fed;
///       int tries = 10;  // of a second each: the drain is slow; nothing was taken
///       do status = decoder->ProcessInput(unit.data(), unit.size(), 1280, 720, 0, unit.ms());
///       while (status == CodecTimeout && --tries > 0);
///     }
///     auto end = tessera::endOfSequence;
///     decoder->ProcessInput(end.data(), end.size(), 1280, 720, 0, 0);
///     ended = true;
///   });
///   const unsigned wanted = tessera::PaddedSize(1280, 720);
///   std::vector<unsigned char> picture(wanted);
///   for (unsigned shown = 0, waits = 0; waits < 20 && (!ended || shown < fed); ++waits) {
///     unsigned int size = 0, width = 0, height = 0;
///     unsigned long long ms = 0;
///     const CodecStatus status =
///         decoder->ProcessOutput(picture.data(), wanted, size, width, height, ms);
///     if (status == CodecOk && size != wanted) break;  // another size: Create() again
///     if (status == CodecOk) {
///       show(picture.data(), width, height, ms);
///       ++shown;
///     }
///     if (status == CodecOk || !ended) waits = 0;  // CodecTimeout after 100 ms: none yet
///   }
///   feeder.join();
///   FreeH264Decoder(decoder);
/// @endcode
///
/// A time-out has taken nothing of data up to `tessera::DecoderBufferSize()`, and perhaps a part of
/// longer data: such access units are fed in pieces of that size.
///
/// There is no end-of-stream call. An end-of-sequence NAL unit (bytes 00 00 00 01 0A) makes the
/// decoder hand out every picture that it still holds for reordering.
///
/// **Pictures** have the padded layout: luma stride S = width rounded up to 32, H = height rounded
/// up to 16 rows, then U and V at stride S / 2 and H / 2 rows: S * H * 3 / 2 bytes.
///
/// **Results.** docs/errors-and-limits.md tells for each status what became of the data and what to
/// do next.
///
/// **Threads.** One thread may feed while another drains; `Create` on a third excludes both while
/// it runs. Nothing else may run during destruction.
class TESSERA_API IH264Decoder {
 public:
  /// Stops the decoder and gives back all it holds; pictures not yet fetched are lost. Blocks for
  /// the picture that the platform is working on. Objects of the factory go by `FreeH264Decoder`.
  virtual ~IH264Decoder() = default;

  /// Sets the decoder up for a stream, or anew for another one; pictures not yet fetched are lost.
  ///
  /// Blocks for as long as the platform's calls take: it stops what ran before. From any thread.
  /// @param width,height   picture size in pixels; not 0, the magnitude counts
  /// @param extraDataSize  bytes at `extraData`; used only when both are given
  /// @param extraData      codec data that precedes the stream (parameter sets, Annex B)
  /// @return true when ready for input; false after one or two lines on standard error. A further
  ///         `Create` may follow either way
  /// @throws std::system_error when the object's mutex cannot be locked
  virtual bool Create(int width, int height, unsigned int extraDataSize,
                      const unsigned char* extraData) = 0;

  /// Takes a piece of the stream, normally one access unit.
  ///
  /// Blocks for at most one second for each platform buffer that the data needs (one, unless it is
  /// longer than width * height or 524,288 bytes).
  /// @param data           stream bytes; read during the call only
  /// @param size           their number. 0 sends nothing and answers CodecNoBuffer
  /// @param width,height   the size given to `Create`, or the answer is CodecStreamMismatch
  /// @param flags          bit 0: decode, but hand out no picture
  /// @param timestamp      milliseconds, 0 for none; comes back with the picture
  /// @return CodecOk: the data is with the platform. CodecTimeout: drain, then the same data again.
  ///         CodecStreamMismatch: `Create` for this size first. CodecNoBuffer: `size` is 0.
  ///         CodecSendFailed, CodecInvalidArgument, CodecInvalidState, CodecWaitFailed: see the
  ///         table
  virtual CodecStatus ProcessInput(unsigned char* data, unsigned int size, int width, int height,
                                   unsigned int flags, unsigned long long timestamp) = 0;

  /// Hands out the next picture in a new array.
  ///
  /// Blocks for at most 100 ms.
  /// @param frame         receives an array made with `new[]`; the caller frees it with `delete[]`.
  ///                      Untouched on failure
  /// @param size          its bytes; untouched on failure. With CodecOk and a size that is not
  ///                      `tessera::PaddedSize(width, height)` the array holds no picture: the
  ///                      stream has another size than `Create` was told
  /// @param width,height  picture size without padding; 0 on failure
  /// @param timestamp     milliseconds as given with its data, 0 for none or on failure
  /// @return CodecOk. CodecTimeout: none yet, feed or call again. CodecNoBuffer: call again.
  ///         CodecInvalidArgument, CodecInvalidState, CodecWaitFailed: see the table
  /// @throws std::bad_alloc when there is no memory for the array; that picture is lost
  virtual CodecStatus ProcessOutput(unsigned char** frame, unsigned int& size, unsigned int& width,
                                    unsigned int& height, unsigned long long& timestamp) = 0;

  /// The same into the caller's memory.
  /// @param frame     receives the picture; never written beyond `capacity`
  /// @param capacity  bytes at `frame`, above 0
  /// @param size      bytes of the picture; with CodecBufferTooSmall the size that was needed, and
  ///                  that picture is lost
  /// @param width,height,timestamp  as above
  /// @return as above, or CodecBufferTooSmall
  virtual CodecStatus ProcessOutput(unsigned char* frame, unsigned int capacity, unsigned int& size,
                                    unsigned int& width, unsigned int& height,
                                    unsigned long long& timestamp) = 0;

  /// Makes the platform's decoder component. `CreateH264Decoder` has called it; an application that
  /// constructs the class itself calls it once, before `Create`. Blocks for as long as the platform
  /// takes to make it.
  /// @return true on success; false after one line on standard error, or without one where the
  ///         platform reports success and gives no component
  virtual bool Initialize() = 0;
};

extern "C" {

/// Makes an H.264 decoder (CMmalH264Decoder) with its platform component.
/// @param decoder  receives the object, which belongs to the caller until `FreeH264Decoder`;
///                 untouched on failure
/// @return 1, or 0 when `decoder` is null or the component could not be made (one line on standard
///         error)
/// @throws std::bad_alloc when memory is short
TESSERA_API int CreateH264Decoder(IH264Decoder** decoder);

/// Destroys a decoder and gives back all it holds.
/// @param decoder  from `CreateH264Decoder` or made with `new`, or null
/// @return 0 for null (nothing happens), else 1
TESSERA_API int FreeH264Decoder(IH264Decoder* decoder);
}

#endif  // TESSERA_IH264DECODER_H
