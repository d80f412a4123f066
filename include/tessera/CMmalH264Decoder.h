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
/// **Change of size.** The decoder does not follow a stream to another size by itself. Tell the
/// size with every `ProcessInput`; when it is not that of `Create` the answer is
/// CodecStreamMismatch, and `Create` with the new size makes the decoder ready for it.
///
/// **Results.** Arguments and states that are wrong are told on standard error, failures of the
/// platform on standard output, one line each; CodecNoBuffer and an output timeout have none.
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
  /// @param width,height  picture size; not 0. The magnitude counts, but `ProcessInput` must be
  ///                      given the same sign
  /// @param extraDataSize,extraData  parameter sets that precede the stream, or 0 and null; read
  ///                      during the call only
  /// @return true when ready for input; false after lines on standard error: nothing is set up
  ///         then, and a further call may follow. Pictures of the former setup are lost either way
  bool Create(int width, int height, unsigned int extraDataSize,
              const unsigned char* extraData) override;

  /// Copies a piece of the stream into as many of the component's buffers as it takes, each of
  /// width x height bytes but at most 524,288.
  ///
  /// Blocks up to 1000 ms for each buffer.
  /// @return CodecOk; CodecTimeout: drain and go on, from the next key frame if the data was longer
  ///         than a buffer; CodecSendFailed: the last piece was refused; CodecNoBuffer: `size` is
  ///         0; CodecInvalidArgument: `data` is null; CodecStreamMismatch: `Create` for this size
  ///         first (also when another thread has just called it for another); CodecInvalidState:
  ///         `Create` has failed; CodecWaitFailed: the semaphore or the clock does not work,
  ///         release the object
  CodecStatus ProcessInput(unsigned char* data, unsigned int size, int width, int height,
                           unsigned int flags, unsigned long long timestamp) override;

  /// Hands out the next picture in a new array, in the padded layout of IH264Decoder, then gives
  /// the component its buffers back.
  ///
  /// Blocks until there is one, for at most 100 ms.
  /// @return CodecOk; CodecTimeout: none yet, feed or call again; CodecNoBuffer: the picture went
  ///         with a call of `Create`, call again; CodecInvalidArgument: `frame` is null;
  ///         CodecInvalidState: `Create` first; CodecWaitFailed as for `ProcessInput`
  /// @throws std::bad_alloc when there is no memory for the array; that picture is lost
  CodecStatus ProcessOutput(unsigned char** frame, unsigned int& size, unsigned int& width,
                            unsigned int& height, unsigned long long& timestamp) override;

  /// The same into the caller's memory.
  /// @return also CodecBufferTooSmall: `size` tells what was needed, that picture is lost
  CodecStatus ProcessOutput(unsigned char* frame, unsigned int capacity, unsigned int& size,
                            unsigned int& width, unsigned int& height,
                            unsigned long long& timestamp) override;

  /// Makes the component, once; a further call finds it there.
  bool Initialize() override;

  /// Steps of `Create`; call that instead. The first two commit a port's format, the last stops the
  /// component and drops pools and queued pictures.
  /// @return MMAL_SUCCESS; MMAL_EINVAL for a size of 0, or the platform's status, after a line on
  ///         standard error
  MMAL_STATUS_T SetInputFormat(MMAL_COMPONENT_T* component, int width, int height,
                               unsigned int extraDataSize, const unsigned char* extraData);
  MMAL_STATUS_T SetOutputFormat(MMAL_COMPONENT_T* component, int width, int height);
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

/// Callbacks of the component's ports, called by the platform from a thread of its own; the port's
/// user data names the decoder. The first gives a used input buffer back to its pool and allows
/// another, the second queues a picture.
TESSERA_API void InputDecH264Callback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);
TESSERA_API void OutputDecH264Callback(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer);

#endif  // TESSERA_CMMALH264DECODER_H
