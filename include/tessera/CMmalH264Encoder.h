#ifndef TESSERA_CMMALH264ENCODER_H
#define TESSERA_CMMALH264ENCODER_H

/// @file
/// The H.264 encoder on MMAL, and its callbacks.

#include <interface/mmal/mmal.h>
#include <semaphore.h>
#include <tessera/IH264Encoder.h>

struct TesseraTestAccess;

/// H.264 encoder on the MMAL component "vc.ril.video_encode"; what `CreateEncoderH264` hands out.
///
/// **The stream.** Annex B, High profile, level 5.1, a key frame every second of video (frame rate
/// rounded down to whole frames), pixels cropped to the size given, frame rate and aspect ratio in
/// the parameter sets. Everything else is the component's default. The frames carry no time stamps:
/// one goes in, one comes out, in the same order.
///
/// **Flow.** One frame at a time is inside the component. After `Create` the first `ProcessInput`
/// goes through at once, each later one once the component has given the frame before back, which
/// it can only do while finished data is collected. So for each frame: `ProcessInput`, then
/// `ProcessOutput` until the frame is out, which `tessera::EncodedFrames` tells (the loop is in
/// IH264Encoder). CodecTimeout never means that: it is 100 ms without data and a line; call again
/// while a frame is owed, and not when none is. The parameter sets come first, in a buffer of their
/// own with flags 0, and again in front of every later key frame. A frame longer than an output
/// buffer (the larger of width x height bytes and the component's own wish) comes in pieces, in
/// order, by as many calls.
///
/// Output buffers that the component refuses during `Create` are not told. When every frame is
/// taken and nothing ever comes out, `Create` again; when that does not help, release the object.
///
/// **Results.** docs/errors-and-limits.md has the table. Arguments and states that are wrong are
/// told on standard error, failures of a frame on standard output, one line each; CodecNoBuffer and
/// CodecBufferTooSmall have none. docs/lines.md lists all lines but this one, on standard error:
/// - `CMmalH264Encoder::Create - failed to create output queue`: memory is short; call again later
///
/// **Threads.** One caller thread at a time; objects do not share anything.
class TESSERA_API CMmalH264Encoder : public IH264Encoder {
 public:
  /// Brings up the host library and makes the component. Never fails outright: without a component
  /// it prints one line on standard error, and every later operation answers with its failure for
  /// an invalid state.
  CMmalH264Encoder();

  /// Stops and gives back everything; frames in flight are discarded. Blocks for the frame that the
  /// component is working on.
  ~CMmalH264Encoder() override;

  CMmalH264Encoder(const CMmalH264Encoder&) = delete;
  CMmalH264Encoder& operator=(const CMmalH264Encoder&) = delete;

  /// Configures the component and starts it.
  ///
  /// A further call, after a success or a failure, starts afresh with the new arguments: what went
  /// in before and has not been collected is lost. Blocks for as long as the platform's calls take.
  /// @param pixelFormat,width,height,frameRateNum,frameRateDen,aspectNum,aspectDen,bitrate  as for
  ///        IH264Encoder
  /// @return true; or false after a line on standard error for the failed step, in the order output
  ///         queue (made here when the constructor could not make it), pixel format, dimensions,
  ///         frame rate, aspect ratio, platform. Nothing runs then
  bool Create(unsigned int pixelFormat, int width, int height, unsigned int frameRateNum,
              unsigned int frameRateDen, unsigned int aspectNum, unsigned int aspectDen,
              unsigned int bitrate) override;

  /// Copies one frame into the component's buffer; see IH264Encoder for its layout. A YUYV frame
  /// that is too short fills what it reaches.
  ///
  /// Blocks until the component has given the frame before back, for at most 1000 ms.
  /// @param frame,frameSize     the picture, and its bytes
  /// @param duration,timestamp  not read
  /// @return CodecOk; or the frame was not taken: CodecTimeout, CodecSendFailed, CodecNoBuffer,
  ///         CodecInvalidArgument (`frame` is null), CodecInvalidState, CodecWaitFailed
  CodecStatus ProcessInput(unsigned char* frame, unsigned int frameSize, long long duration,
                           long long timestamp) override;

  /// Hands out one buffer of the stream in a new array, then gives the component its buffers back.
  ///
  /// Blocks until there is one, for at most 100 ms.
  /// @param data        receives the array; free it with `delete[]`. Untouched on failure
  /// @param size,flags  its bytes; bit 0 for a key frame
  /// @return CodecOk, CodecTimeout, CodecNoBuffer, CodecInvalidArgument (`data` is null),
  ///         CodecInvalidState, CodecWaitFailed; no data was lost
  /// @throws std::bad_alloc when there is no memory for the array; that buffer's data is lost
  CodecStatus ProcessOutput(unsigned char** data, unsigned int& size, unsigned int& flags) override;

  /// The same into the caller's memory.
  /// @param data,capacity  the memory, and its bytes
  /// @param size,flags     as above
  /// @return also CodecBufferTooSmall: `size` tells what was needed, that buffer's data is lost,
  ///         and the stream is damaged until the next key frame
  CodecStatus ProcessOutput(unsigned char* data, unsigned int capacity, unsigned int& size,
                            unsigned int& flags) override;

  /// A step of `Create`; call that instead. Disables the input port where it is enabled and commits
  /// its format.
  /// @param component  the encoder's own
  /// @param pixelFormat,width,height,frameRateNum,frameRateDen,aspectNum,aspectDen  as for `Create`
  /// @return MMAL_SUCCESS; MMAL_EINVAL for arguments that are not supported, or the platform's
  ///         status, after a line on standard error
  MMAL_STATUS_T SetInputFormat(MMAL_COMPONENT_T* component, unsigned int pixelFormat, int width,
                               int height, unsigned int frameRateNum, unsigned int frameRateDen,
                               unsigned int aspectNum, unsigned int aspectDen);
  /// The same for the output port, which follows the input port's format, with profile, level, bit
  /// rate and intra period.
  /// @param component,width,height,bitrate,frameRateNum,frameRateDen  as above
  /// @return as above
  MMAL_STATUS_T SetOutputFormat(MMAL_COMPONENT_T* component, int width, int height,
                                unsigned int bitrate, unsigned int frameRateNum,
                                unsigned int frameRateDen);

  /// What the operations are made of; defined inside the library.
  struct TESSERA_HIDDEN Steps;

 private:
  friend struct TesseraTestAccess;

  using CopyFrame = void (*)(unsigned char* source, unsigned int sourceSize, unsigned int width,
                             unsigned int height, unsigned char* destination, unsigned int capacity,
                             unsigned int& outSize);

  MMAL_COMPONENT_T* pComponent = nullptr;
  MMAL_QUEUE_T* pOutputQueue = nullptr;
  MMAL_POOL_T* pInputPool = nullptr;
  MMAL_POOL_T* pOutputPool = nullptr;
  sem_t semInput{};
  sem_t semOutput{};
  unsigned int nWidth = 0;
  unsigned int nHeight = 0;
  CopyFrame pfnCopyFrame;
};

/// Callback of the input port: gives the used buffer back to its pool and allows another frame.
/// @param port    its user data is the encoder, or null; the platform calls from a thread of its
///                own
/// @param buffer  used
TESSERA_API void InputCallback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);
/// Callback of the output port: queues finished data.
/// @param port    as above; without an encoder nothing happens
/// @param buffer  filled; without a queue it goes back to its pool
TESSERA_API void OutputCallback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);

#endif  // TESSERA_CMMALH264ENCODER_H
