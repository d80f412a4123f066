#ifndef TESSERA_COMXH264ENCODER_H
#define TESSERA_COMXH264ENCODER_H

/// @file
/// The H.264 encoder on OpenMAX IL, and its handlers.

#include <IL/OMX_Component.h>
#include <semaphore.h>
#include <tessera/IH264Encoder.h>

#include <atomic>

struct TesseraTestAccess;

/// H.264 encoder on the OpenMAX IL component "OMX.broadcom.video_encode": High profile, level 4,
/// variable bit rate, one buffer on each side. No function hands it out: construct it with `new`,
/// release it with `ReleaseEncoderH264`.
///
/// **Feed and drain.** One frame in, its data out, then the next: the first `ProcessOutput` gives
/// the parameter sets, every later one a frame (or a piece of a frame longer than the output
/// buffer, width * height bytes rounded up like the picture). Unlike CMmalH264Encoder there is no
/// "nothing more for now" after 100 ms: a `ProcessOutput` for which nothing was fed waits for ten
/// seconds. So ask only while a frame is owed; `tessera::EncodedFrames` of Basics.h counts them:
///
/// @code
///   COmxH264Encoder encoder;
///   if (!encoder.Create(tessera::fourccYuyv, 1280, 720, 30, 1, 1, 1, 4000000)) { ... }
///   tessera::EncodedFrames out(1280, 720);
///   unsigned fed = 0;
///   while (camera.grab(frame)) {
///     if (encoder.ProcessInput(frame.data(), frame.size(), 0, frame.microseconds) != CodecOk)
///       break;
///     ++fed;
///     while (out.Begun() < fed) {
///       unsigned int size = 0, flags = 0;
///       if (encoder.ProcessOutput(data.data(), data.size(), size, flags) != CodecOk) break;
///       sink.write(data.data(), size);
///       out.Add(data.data(), size);
///     }
///   }
/// @endcode
///
/// What a frame longer than the output buffer has left comes before the next frame does. For the
/// last one, feed one frame more and leave out what comes once `out.Add()` says that it begins one.
///
/// **The picture has the padded size**, width rounded up to a multiple of 32 and height to one of
/// 16: this component does not crop. 'YUYV' frames leave the padding black, but for one column at
/// an odd width; 'I420' frames bring their own.
///
/// **Time.** No call waits for more than 10 seconds for any answer of the component, or for one
/// more second once it has reported an error, whatever the wall clock does. Destruction waits for
/// nothing.
///
/// **Lines.** Every failure writes one line, or two, to standard error: what failed, with the
/// OpenMAX IL status where the component refused something.
///
/// **Threads.** One thread at a time; objects share nothing.
class TESSERA_API COmxH264Encoder : public IH264Encoder {
 public:
  /// Obtains the component. Never fails to the caller: without one, `Create` fails.
  COmxH264Encoder();

  /// Gives everything back, whatever state the component is in.
  ~COmxH264Encoder() override;

  COmxH264Encoder(const COmxH264Encoder&) = delete;
  COmxH264Encoder& operator=(const COmxH264Encoder&) = delete;

  /// Configures and starts; see IH264Encoder. `frameRateNum` counts whole frames a second, the
  /// denominator and the aspect ratio are not read. A further call starts over with a new
  /// component, whether the last one succeeded or failed; output not yet fetched is lost.
  bool Create(unsigned int pixelFormat, int width, int height, unsigned int frameRateNum,
              unsigned int frameRateDen, unsigned int aspectNum, unsigned int aspectDen,
              unsigned int bitrate) override;

  /// Takes one frame; see IH264Encoder for its layout. Blocks until the component has given the
  /// last frame's buffer back.
  /// @param frame,frameSize  the picture, as for IH264Encoder
  /// @param duration   not read
  /// @param timestamp  stamps the frame, in microseconds
  /// @return CodecOk; CodecInvalidArgument without a frame; CodecInvalidState before a successful
  ///         `Create`; CodecSendFailed when the component refused it (this frame is lost, the next
  ///         may pass); CodecTimeout when it did not give the buffer back (call again with the same
  ///         frame, or give up)
  CodecStatus ProcessInput(unsigned char* frame, unsigned int frameSize, long long duration,
                           long long timestamp) override;

  /// Hands out the next buffer of encoded data; see IH264Encoder.
  ///
  /// After CodecTimeout, calling again waits on for the same data. Feeding another frame instead
  /// gives that data up: the next output is the new frame's.
  /// @return CodecOk; CodecInvalidArgument; CodecInvalidState, likewise before a successful
  /// `Create`
  ///         and after one that failed at any step; CodecTimeout; CodecSendFailed when
  ///         the component does not take its output buffer
  /// @throws std::bad_alloc when memory is short; the data is kept for the next call
  CodecStatus ProcessOutput(unsigned char** data, unsigned int& size, unsigned int& flags) override;

  /// The same into the caller's memory; CodecBufferTooSmall in addition.
  CodecStatus ProcessOutput(unsigned char* data, unsigned int capacity, unsigned int& size,
                            unsigned int& flags) override;

  // The steps that these are made of.

  /// Obtains the component and disables its ports. Runs in the constructor.
  bool InitializeHardware();
  /// Sets the input port to raw pictures of that (padded) size. Of the last four, only
  /// `frameRateNum` is read.
  OMX_ERRORTYPE SetInputFormat(OMX_HANDLETYPE encoder, unsigned int pixelFormat, unsigned int width,
                               unsigned int height, unsigned int frameRateNum,
                               unsigned int frameRateDen, unsigned int aspectNum,
                               unsigned int aspectDen);
  /// Sets the output port to H.264. Follows `SetInputFormat`, whose port it starts from.
  OMX_ERRORTYPE SetOutputFormat(OMX_HANDLETYPE encoder, unsigned int bitrate);
  /// Have the component allocate the port's one buffer, unless it is there.
  OMX_ERRORTYPE AllocateOmxInputBuffer(OMX_HANDLETYPE encoder);
  OMX_ERRORTYPE AllocateOmxOutputBuffer(OMX_HANDLETYPE encoder);
  /// Frees the buffers that are there. @return whether there was one
  bool ReleaseBuffers();
  /// Gives buffers, component, core and semaphores back. Runs in the destructor. @return true
  bool ReleaseHardware();

  /// Wait for an answer of the component, within the limits above. @return whether it came
  bool WaitForStateChange();
  bool WaitForPortEnableDisable();
  bool WaitForFlush();
  bool WaitForOutputBufferFilled();
  bool WaitForInputBufferReturned();

  /// What the callbacks report; each ends one wait.
  void SignalStateChanged();
  void SignalPortEnabledDisabled();
  void SignalFlushed();
  void SignalOutputBufferFill();
  void SignalInputBufferReturned();
  /// An error event: ends no wait, but leaves the one under way one more second.
  void SignalComponentError();

  /// What the operations are made of; defined inside the library.
  struct TESSERA_HIDDEN Steps;

 private:
  friend struct TesseraTestAccess;

  using CopyFrame = void (*)(unsigned char* source, unsigned int sourceSize, unsigned int width,
                             unsigned int height, unsigned char* destination, unsigned int capacity,
                             unsigned int& outSize);

  /// Where the output buffer is.
  enum class Output {
    Here,       ///< to be handed to the component
    Component,  ///< being filled
    Filled,     ///< here, with data that nobody has fetched
  };

  sem_t semStateChanged{};
  sem_t semPortEnableDisable{};
  sem_t semFlushed{};
  sem_t semOutputFilled{};
  OMX_HANDLETYPE hEncoder = nullptr;
  OMX_BUFFERHEADERTYPE* pInputBuffer = nullptr;
  OMX_BUFFERHEADERTYPE* pOutputBuffer = nullptr;
  OMX_U32 nInputPort = 0;
  OMX_U32 nOutputPort = 0;
  OMX_U32 nWidth = 0;
  OMX_U32 nHeight = 0;
  CopyFrame pfnCopyFrame;
  sem_t semInputReturned{};
  std::atomic<bool> bComponentError{false};
  Output eOutput = Output::Here;
  bool bInputAway = false;   // the component has the input buffer
  bool bOutputOwed = false;  // a wait for the output was given up
  bool bFlushOwed = false;   // a flush was sent and not yet answered
  bool bStarted = false;     // OMX_Init and the semaphores are to be undone
  bool bTried = false;       // a Create was begun: the next one needs a new component
  bool bCreated = false;     // ... and succeeded
};

/// The component's callbacks; the application data is the encoder. All return OMX_ErrorNone.
TESSERA_API OMX_ERRORTYPE OmxH264EventsHandler(OMX_HANDLETYPE component, OMX_PTR appData,
                                               OMX_EVENTTYPE event, OMX_U32 data1, OMX_U32 data2,
                                               OMX_PTR eventData);
TESSERA_API OMX_ERRORTYPE OmxH264EmptyInputBufferHandler(OMX_HANDLETYPE component, OMX_PTR appData,
                                                         OMX_BUFFERHEADERTYPE* buffer);
TESSERA_API OMX_ERRORTYPE OmxH264FillOutputBufferHandler(OMX_HANDLETYPE component, OMX_PTR appData,
                                                         OMX_BUFFERHEADERTYPE* buffer);

#endif  // TESSERA_COMXH264ENCODER_H
