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
///   if (!encoder.Create(tessera::fourccYuyv, 1280, 720, 30, 1, 1, 1, 4000000)) return 1;
///   std::vector<unsigned char> data(1 << 20);
///   tessera::EncodedFrames out(1280, 720);
///   CodecStatus status = CodecOk;
///   for (unsigned fed = 1; status == CodecOk && camera.grab(frame); ++fed) {
///     status = encoder.ProcessInput(frame.data(), frame.size(), 0, frame.microseconds());
///     while (status == CodecOk && out.Begun() < fed) {
///       unsigned int size = 0, flags = 0;
///       status = encoder.ProcessOutput(data.data(), data.size(), size, flags);
///       if (status != CodecOk) break;
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
/// more second once it has reported an error, by a steady clock. That goes for the constructor and
/// for each of the answers that `Create` needs, too. Destruction waits for nothing.
///
/// **Results.** docs/errors-and-limits.md has the table. Every failure but CodecBufferTooSmall
/// writes one line, or two, to standard error: what failed, with the OpenMAX IL status where the
/// component refused something. docs/lines.md lists all lines but these:
/// - `COmxH264Encoder::InitializeHardware - no answer to %s`, of the constructor or of a further
///   `Create`; the object has no component then
/// - `COmxH264Encoder::Create - no answer to %s`
/// - `COmxH264Encoder::ProcessInput - the input buffer did not come back`
/// - `COmxH264Encoder::ProcessInput - the late output did not come back`
/// - `COmxH264Encoder::ProcessOutput - the output buffer was not filled`
/// - and the labels of refused calls `COmxH264Encoder::ProcessInput::OMX_CommandFlush::Output` and
///   `COmxH264Encoder::ProcessInput - OMX_FillThisBuffer failed`
///
/// Release prints two lines about a port that has lost its buffers, also after a good run.
///
/// **Threads.** One thread at a time; objects share nothing.
class TESSERA_API COmxH264Encoder : public IH264Encoder {
 public:
  /// Obtains the component. Never fails to the caller: without one every `Create` fails, and the
  /// object is to be released.
  COmxH264Encoder();

  /// Gives everything back, whatever state the component is in.
  ~COmxH264Encoder() override;

  COmxH264Encoder(const COmxH264Encoder&) = delete;
  COmxH264Encoder& operator=(const COmxH264Encoder&) = delete;

  /// Configures and starts. A further call starts over with a new component, whether the last one
  /// succeeded or failed; output not yet fetched is lost.
  /// @param pixelFormat,width,height,bitrate  as for IH264Encoder
  /// @param frameRateNum  whole frames a second
  /// @param frameRateDen,aspectNum,aspectDen  not read
  /// @return true; false after one line or two. After a step that failed `ProcessInput` and
  ///         `ProcessOutput` answer CodecInvalidState until a `Create` succeeds
  bool Create(unsigned int pixelFormat, int width, int height, unsigned int frameRateNum,
              unsigned int frameRateDen, unsigned int aspectNum, unsigned int aspectDen,
              unsigned int bitrate) override;

  /// Takes one frame; see IH264Encoder for its layout. Blocks until the component has given the
  /// last frame's buffer back, and after a time-out of `ProcessOutput` its output buffer.
  /// @param frame,frameSize  the picture, as for IH264Encoder
  /// @param duration   not read
  /// @param timestamp  stamps the frame, in microseconds
  /// @return CodecOk; or the frame was not taken: CodecTimeout (no buffer back), CodecSendFailed
  ///         (the component refused it, or the flush of late output), CodecInvalidArgument (`frame`
  ///         is null), CodecInvalidState
  CodecStatus ProcessInput(unsigned char* frame, unsigned int frameSize, long long duration,
                           long long timestamp) override;

  /// Hands out the next buffer of encoded data; see IH264Encoder.
  ///
  /// After CodecTimeout, calling again waits on for the same data. Feeding another frame instead
  /// gives that data up: the next output is the new frame's.
  /// @param data        receives an array; free it with `delete[]`. Untouched on failure
  /// @param size,flags  its bytes; bit 0 for a key frame
  /// @return CodecOk, CodecTimeout, CodecSendFailed (the component does not take its output
  ///         buffer), CodecInvalidArgument (`data` is null), CodecInvalidState
  /// @throws std::bad_alloc when memory is short; the data is kept for the next call
  CodecStatus ProcessOutput(unsigned char** data, unsigned int& size, unsigned int& flags) override;

  /// The same into the caller's memory.
  /// @param data,capacity  the memory, and its bytes
  /// @param size,flags     as above
  /// @return also CodecBufferTooSmall: `size` tells what was needed, that data is lost
  CodecStatus ProcessOutput(unsigned char* data, unsigned int capacity, unsigned int& size,
                            unsigned int& flags) override;

  // The steps that these are made of.

  /// Obtains the component and disables its ports. Runs in the constructor.
  /// @return true, or false after a line
  bool InitializeHardware();
  /// Sets the input port to raw pictures.
  /// @param encoder       the component
  /// @param pixelFormat   `tessera::fourccI420` or `tessera::fourccYuyv`
  /// @param width,height  the padded size
  /// @param frameRateNum  whole frames a second
  /// @param frameRateDen,aspectNum,aspectDen  not read
  /// @return OMX_ErrorNone, or the status after a line
  OMX_ERRORTYPE SetInputFormat(OMX_HANDLETYPE encoder, unsigned int pixelFormat, unsigned int width,
                               unsigned int height, unsigned int frameRateNum,
                               unsigned int frameRateDen, unsigned int aspectNum,
                               unsigned int aspectDen);
  /// Sets the output port to H.264. Follows `SetInputFormat`, whose port it starts from.
  /// @param encoder  the component
  /// @param bitrate  bits a second
  /// @return OMX_ErrorNone, or the status after a line
  OMX_ERRORTYPE SetOutputFormat(OMX_HANDLETYPE encoder, unsigned int bitrate);
  /// Has the component allocate the input port's one buffer, unless it is there.
  /// @param encoder  the component
  /// @return OMX_ErrorNone, or the status after a line
  OMX_ERRORTYPE AllocateOmxInputBuffer(OMX_HANDLETYPE encoder);
  /// The same for the output port.
  /// @param encoder  the component
  /// @return OMX_ErrorNone, or the status after a line
  OMX_ERRORTYPE AllocateOmxOutputBuffer(OMX_HANDLETYPE encoder);
  /// Frees the buffers that are there.
  /// @return whether there was one
  bool ReleaseBuffers();
  /// Gives buffers, component, core and semaphores back. Runs in the destructor.
  /// @return true
  bool ReleaseHardware();

  // Waits for an answer of the component, within the limits above.
  bool WaitForStateChange();          ///< @return whether it came
  bool WaitForPortEnableDisable();    ///< @return whether it came
  bool WaitForFlush();                ///< @return whether it came
  bool WaitForOutputBufferFilled();   ///< @return whether it came
  bool WaitForInputBufferReturned();  ///< @return whether it came

  // What the callbacks report.
  void SignalStateChanged();         ///< ends WaitForStateChange()
  void SignalPortEnabledDisabled();  ///< ends WaitForPortEnableDisable()
  void SignalFlushed();              ///< ends WaitForFlush()
  void SignalOutputBufferFill();     ///< ends WaitForOutputBufferFilled()
  void SignalInputBufferReturned();  ///< ends WaitForInputBufferReturned()
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

/// The component's event callback: passes answers on, prints errors and events that answer nothing.
/// @param component,data2,eventData  not read
/// @param appData      the encoder; null: a line
/// @param event,data1  what happened, and the command or the error that it tells of
/// @return OMX_ErrorNone
TESSERA_API OMX_ERRORTYPE OmxH264EventsHandler(OMX_HANDLETYPE component, OMX_PTR appData,
                                               OMX_EVENTTYPE event, OMX_U32 data1, OMX_U32 data2,
                                               OMX_PTR eventData);
/// The callback of the returned input buffer: ends the wait for it.
/// @param component,buffer  not read
/// @param appData           the encoder; null: a line
/// @return OMX_ErrorNone
TESSERA_API OMX_ERRORTYPE OmxH264EmptyInputBufferHandler(OMX_HANDLETYPE component, OMX_PTR appData,
                                                         OMX_BUFFERHEADERTYPE* buffer);
/// The callback of the filled output buffer: ends the wait for it.
/// @param component,buffer  not read
/// @param appData           the encoder; null: a line
/// @return OMX_ErrorNone
TESSERA_API OMX_ERRORTYPE OmxH264FillOutputBufferHandler(OMX_HANDLETYPE component, OMX_PTR appData,
                                                         OMX_BUFFERHEADERTYPE* buffer);

#endif  // TESSERA_COMXH264ENCODER_H
