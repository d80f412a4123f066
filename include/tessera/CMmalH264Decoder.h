#ifndef TESSERA_CMMALH264DECODER_H
#define TESSERA_CMMALH264DECODER_H

/// @file
/// The H.264 decoder on MMAL, and its callbacks.

#include <interface/mmal/mmal.h>
#include <semaphore.h>
#include <tessera/IH264Decoder.h>

#include <mutex>

struct TesseraTestAccess;

/// H.264 decoder on the MMAL component "vc.ril.video_decode"; what `CreateH264Decoder` hands out.
///
/// **Flow.** After `Create` one input buffer may be inside the component at a time; each further
/// piece of the stream waits until the component has given an earlier one back. The component
/// decodes ahead by as many pictures as it has output buffers (at least 4), and gets them back only
/// from `ProcessOutput`: drain as you feed.
///
/// **Change of size.** The decoder does not follow a stream to another size by itself. Where the
/// stream's own parameter sets have another size than `Create` was told, the component says so in a
/// buffer that comes out like a picture: **`ProcessOutput` answers CodecOk with a `size` other than
/// `tessera::PaddedSize(width, height)`**, and the data is no picture. Compare; on such an answer
/// call `Create` with the stream's size and feed again from a key frame. When you know the size
/// yourself, tell it with every `ProcessInput`: if it is not that of `Create` the answer is
/// CodecStreamMismatch.
///
/// **Results.** docs/errors-and-limits.md has the table. Arguments and states that are wrong are
/// told on standard error, failures of the platform on standard output, one line each;
/// CodecNoBuffer, CodecBufferTooSmall and the time-out of `ProcessOutput` have none. Data longer
/// than an input buffer prints a line for each buffer but the last, although it succeeds.
/// docs/lines.md lists all lines.
///
/// **Threads.** One thread may feed and another drain. `Create`, from either or from a third, waits
/// for a picture that is just being copied out and keeps both from the component while it runs.
/// Destruction must wait until no operation is under way.
///
/// Every operation throws std::system_error if a mutex of the object cannot be locked.
class TESSERA_API CMmalH264Decoder : public IH264Decoder {
 public:
  /// Brings up the host library; makes no component and cannot fail outright.
  CMmalH264Decoder();

  /// Stops and gives back everything; pictures not yet fetched are discarded. Arrays handed out
  /// stay the caller's. Blocks for the picture that the component is working on.
  ~CMmalH264Decoder() override;

  CMmalH264Decoder(const CMmalH264Decoder&) = delete;
  CMmalH264Decoder& operator=(const CMmalH264Decoder&) = delete;

  /// Configures the component for a stream and starts it, or anew for another stream.
  ///
  /// Blocks for as long as the platform's calls take, and for a picture that is being copied out.
  /// @param width,height  picture size; not 0. The magnitude counts, but `ProcessInput` must be
  ///                      given the same sign
  /// @param extraDataSize,extraData  parameter sets that precede the stream, or 0 and null; read
  ///                      during the call only. Without memory for them the stream goes without
  /// @return true when ready for input; false after lines on standard error: nothing is set up
  ///         then, and a further call may follow. Pictures of the former setup are lost either way
  bool Create(int width, int height, unsigned int extraDataSize,
              const unsigned char* extraData) override;

  /// Copies a piece of the stream into as many of the component's buffers as it takes, each of
  /// `tessera::DecoderBufferSize(width, height)` bytes.
  ///
  /// Blocks up to 1000 ms for each buffer.
  /// @param data,size     stream bytes, and their number
  /// @param width,height  as given to `Create`, sign included
  /// @param flags         bit 0: decode, but hand out no picture
  /// @param timestamp     milliseconds, 0 for none
  /// @return CodecOk, CodecTimeout, CodecSendFailed, CodecNoBuffer (`size` is 0),
  ///         CodecInvalidArgument (`data` is null), CodecStreamMismatch (also before the first
  ///         `Create`, and when another thread has just called it for another size),
  ///         CodecInvalidState, CodecWaitFailed. When data longer than a buffer is not answered
  ///         with CodecOk, a part of it may be with the component; and CodecOk is the answer for
  ///         the last piece: one that was refused before it is told by its line alone
  CodecStatus ProcessInput(unsigned char* data, unsigned int size, int width, int height,
                           unsigned int flags, unsigned long long timestamp) override;

  /// Hands out the next picture in a new array, in the padded layout of IH264Decoder, then gives
  /// the component its buffers back.
  ///
  /// Blocks until there is one, for at most 100 ms.
  /// @param frame         receives the array; free it with `delete[]`. Untouched on failure
  /// @param size          its bytes. Not those of a padded picture: a change of size, see above
  /// @param width,height  the size given to `Create`, without signs; 0 on failure
  /// @param timestamp     milliseconds, 0 for none or on failure
  /// @return CodecOk, CodecTimeout (none yet; no line), CodecNoBuffer (what was counted went with a
  ///         call of `Create`: call again), CodecInvalidArgument (`frame` is null),
  ///         CodecInvalidState, CodecWaitFailed
  /// @throws std::bad_alloc when there is no memory for the array; that picture is lost
  CodecStatus ProcessOutput(unsigned char** frame, unsigned int& size, unsigned int& width,
                            unsigned int& height, unsigned long long& timestamp) override;

  /// The same into the caller's memory.
  /// @param frame,capacity  the memory, and its bytes: `tessera::PaddedSize(width, height)`
  /// @param size,width,height,timestamp  as above
  /// @return also CodecBufferTooSmall: `size` tells what was needed, that picture is lost
  CodecStatus ProcessOutput(unsigned char* frame, unsigned int capacity, unsigned int& size,
                            unsigned int& width, unsigned int& height,
                            unsigned long long& timestamp) override;

  /// Makes the component, once; a further call finds it there.
  /// @return true; or false, see IH264Decoder
  bool Initialize() override;

  /// A step of `Create`; call that instead. Commits the input port's format.
  /// @param component  the decoder's own
  /// @param width,height,extraDataSize,extraData  as for `Create`
  /// @return MMAL_SUCCESS; MMAL_EINVAL for a size of 0, or the platform's status, after a line on
  ///         standard error
  MMAL_STATUS_T SetInputFormat(MMAL_COMPONENT_T* component, int width, int height,
                               unsigned int extraDataSize, const unsigned char* extraData);
  /// A step of `Create`: commits the output port's format.
  /// @param component,width,height  as above
  /// @return as above
  MMAL_STATUS_T SetOutputFormat(MMAL_COMPONENT_T* component, int width, int height);
  /// The first step of `Create`: stops the component and drops pools and queued pictures.
  void ResetResources();

  /// What the operations are made of; defined inside the library.
  struct TESSERA_HIDDEN Steps;

 private:
  friend struct TesseraTestAccess;

  MMAL_COMPONENT_T* pComponent = nullptr;
  MMAL_QUEUE_T* pFrameQueue = nullptr;
  MMAL_POOL_T* pInputPool = nullptr;
  MMAL_POOL_T* pOutputPool = nullptr;
  sem_t semInput{};
  sem_t semOutput{};
  int nStreamWidth = 0;
  int nStreamHeight = 0;
  unsigned int nPictureWidth = 0;
  unsigned int nPictureHeight = 0;
  std::mutex lock;
  std::mutex pictureLock;
};

/// Callback of the input port: gives the used buffer back to its pool and allows another.
/// @param port    its user data is the decoder, or null; the platform calls from a thread of its
///                own
/// @param buffer  used
TESSERA_API void InputDecH264Callback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);
/// Callback of the output port: queues what the component delivers, pictures and events alike.
/// @param port    as above
/// @param buffer  filled; without a decoder or its queue it goes back to its pool
TESSERA_API void OutputDecH264Callback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);

#endif  // TESSERA_CMMALH264DECODER_H
