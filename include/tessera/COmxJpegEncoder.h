#ifndef TESSERA_COMXJPEGENCODER_H
#define TESSERA_COMXJPEGENCODER_H

/// @file
/// The JPEG encoder on OpenMAX IL, and its handlers.

#include <IL/OMX_Component.h>
#include <semaphore.h>
#include <tessera/IJPEGEncoder.h>

#include <atomic>

struct TesseraTestAccess;

/// JPEG encoder on the OpenMAX IL component "OMX.broadcom.image_encode". No function hands it out:
/// construct it with `new`, release it with `ReleaseEncoderJPEG`.
///
/// The constructor obtains the component; every encode runs it through a whole cycle, from Idle to
/// Executing and back, so the size and pixel format may change from call to call.
///
/// **Layout.** The frame is what IJPEGEncoder.h describes: rows of S = (width + 31) / 32 * 32
/// pixels, H = (height + 15) / 16 * 16 of them, S * H * bytes a pixel in all. A shorter frame fails
/// before anything is sent; of a longer one the rest is not read. **The JPEG has S x H pixels**,
/// the padding included.
///
/// **Results.** 1, or 0 after a line or two. docs/errors-and-limits.md says what to do,
/// docs/lines.md lists all lines but these, on standard output:
/// - `COmxJpegEncoder::Encode - frame of %u bytes, the input buffer takes %llu`: pass the padded
///   picture
/// - `COmxJpegEncoder::Encode - no answer to %s`: encode again; that call takes a new component
/// - `COmxJpegEncoder::Encode - the component delivered no whole picture`: encode again
///
/// **A refused command is for good.** After a line with an OpenMAX IL status or one that ends in
/// "failed" the component stays in the state and with the ports that it got to, and later encodes
/// may fail as well: release the object and make a new one. Only a buffer that it could not
/// allocate is followed by a new component at the next encode.
///
/// A JPEG longer than the capacity gives 0 without a line, and `jpegSize` is the size needed.
/// Output without the end-of-frame flag gives 0 without a line, too, and leaves `jpegSize` alone.
///
/// **Time.** No call waits for more than 10 seconds for any answer of the component, and for one
/// more second once it has reported an error, by a steady clock; then the call fails. That goes for
/// the constructor, too. Destruction waits for nothing.
///
/// **Threads.** One thread at a time; objects share nothing.
class TESSERA_API COmxJpegEncoder : public IJPEGEncoder {
 public:
  /// Obtains the component. Never fails to the caller: without one, every encode fails.
  COmxJpegEncoder();

  /// Gives everything back, whatever state an encode left the component in.
  ~COmxJpegEncoder() override;

  COmxJpegEncoder(const COmxJpegEncoder&) = delete;
  COmxJpegEncoder& operator=(const COmxJpegEncoder&) = delete;

  /// Packed 4:2:2 to JPEG in a new array of capacity width x height x 2; see IJPEGEncoder.
  /// @param frame,frameSize,width,height  the padded picture, and the size that it was padded from
  /// @param jpeg,jpegSize  receive array and bytes; null and 0 on failure
  /// @return 1, or 0 after a line
  int EncodeYUYV(unsigned char* frame, unsigned int frameSize, int width, int height,
                 unsigned char** jpeg, unsigned int& jpegSize) override;

  /// Packed 4:2:2 to JPEG in the caller's memory; see IJPEGEncoder. Sizes below 1 fail.
  /// @param frame,frameSize,width,height  as above
  /// @param jpeg,jpegCapacity  the caller's memory, and its bytes
  /// @param jpegSize  bytes of the JPEG, or those needed; otherwise untouched on failure
  /// @return 1, or 0 after a line
  int EncodeYUYV(unsigned char* frame, unsigned int frameSize, int width, int height,
                 unsigned char* jpeg, unsigned int jpegCapacity, unsigned int& jpegSize) override;

  /// B, G, R, A bytes to JPEG in a new array of capacity |width| x |height| x 4; see IJPEGEncoder.
  /// @param frame,frameSize,width,height,jpeg,jpegSize  as for the first `EncodeYUYV`
  /// @return 1, or 0 after a line
  int EncodeRGB32(unsigned char* frame, unsigned int frameSize, int width, int height,
                  unsigned char** jpeg, unsigned int& jpegSize) override;

  /// B, G, R, A bytes to JPEG in the caller's memory; see IJPEGEncoder.
  /// @param frame,frameSize,width,height,jpeg,jpegCapacity,jpegSize  as for the second `EncodeYUYV`
  /// @return 1, or 0 after a line
  int EncodeRGB32(unsigned char* frame, unsigned int frameSize, int width, int height,
                  unsigned char* jpeg, unsigned int jpegCapacity, unsigned int& jpegSize) override;

  /// RGB to JPEG in the caller's memory, like `EncodeYUYV`. Sizes below 1 fail.
  /// @param bitsPerPixel  all words little endian. 16: red in bits 15..11, green 10..5, blue 4..0;
  ///                      24: red in bits 22..15, green 14..7, blue 6..0 (format 24bitARGB1887);
  ///                      32: bytes B, G, R, A (A ignored). Others fail
  /// @param frame,frameSize,width,height,jpeg,jpegCapacity,jpegSize  as for `EncodeYUYV`
  /// @return 1 when a complete JPEG was produced, else 0
  int EncodeRGB(unsigned char* frame, unsigned int frameSize, unsigned int bitsPerPixel, int width,
                int height, unsigned char* jpeg, unsigned int jpegCapacity, unsigned int& jpegSize);

  /// Runs one cycle of the component for one picture; the operations above all call it.
  /// @param colorFormat,bitsPerPixel  of the frame, as OpenMAX IL names them, 8 bits a pixel or
  ///                                  more
  /// @param frame,frameSize,width,height,jpeg,jpegCapacity,jpegSize  as for `EncodeYUYV`
  /// @return 1 when a complete JPEG was produced, else 0
  int Encode(unsigned char* frame, unsigned int frameSize, OMX_COLOR_FORMATTYPE colorFormat,
             int bitsPerPixel, int width, int height, unsigned char* jpeg,
             unsigned int jpegCapacity, unsigned int& jpegSize);

  // The steps that these are made of.

  /// Obtains the component and disables its ports. Runs in the constructor.
  /// @return 1, or 0 after a line
  int InitializeHardware();
  /// Sets the input port to raw pictures of that size.
  /// @param colorFormat,bitsPerPixel  as for `Encode`
  /// @param width,height  the padded size
  /// @return 1, or 0 after a line
  int SetupInputPort(OMX_COLOR_FORMATTYPE colorFormat, int bitsPerPixel, int width, int height);
  /// Sets the output port to JPEG.
  /// @param width,height  the padded size
  /// @param quality       5 to 100; anything else counts as 75
  /// @return 1, or 0 after a line; 1 also after the line of a refused quality
  int SetupOutputPort(int width, int height, unsigned int quality);
  /// Has the component allocate the input port's one buffer, unless it is there.
  /// @return 1, or 0 after a line
  int AllocateOmxInputBuffer();
  /// The same for the output port.
  /// @return 1, or 0 after a line
  int AllocateOmxOutputBuffer();
  /// Frees the buffers that are there.
  /// @return 1 when there was one
  int ReleaseBuffers();
  /// Gives buffers, component, core and semaphores back. Runs in the destructor.
  /// @return 1
  int ReleaseHardware();

  // Waits for an answer of the component, within the limits above.
  bool WaitForStateChange();         ///< @return whether it came
  bool WaitForPortEnableDisable();   ///< @return whether it came
  bool WaitForFlush();               ///< @return whether it came
  bool WaitForOutputBufferFilled();  ///< @return whether it came

  // What the callbacks report.
  void SignalStateChanged();         ///< ends WaitForStateChange()
  void SignalPortEnabledDisabled();  ///< ends WaitForPortEnableDisable()
  void SignalFlushed();              ///< ends WaitForFlush()
  void SignalOutputBufferFill();     ///< ends WaitForOutputBufferFilled()
  /// An error event: ends no wait, but leaves the one under way one more second.
  void SignalComponentError();

  /// What the operations are made of; defined inside the library.
  struct TESSERA_HIDDEN Steps;

 private:
  friend struct TesseraTestAccess;

  sem_t semStateChanged{};
  sem_t semPortEnableDisable{};
  sem_t semFlushed{};
  sem_t semOutputFilled{};
  OMX_HANDLETYPE hEncoder = nullptr;
  OMX_BUFFERHEADERTYPE* pInputBuffer = nullptr;
  OMX_BUFFERHEADERTYPE* pOutputBuffer = nullptr;
  OMX_U32 nInputPort = 0;
  OMX_U32 nOutputPort = 0;
  std::atomic<bool> bComponentError{false};
  bool bStarted = false;     // OMX_Init and the semaphores are to be undone
  bool bAnswerOwed = false;  // a request was given up; the component may yet answer it
};

/// The component's event callback: passes answers on, prints errors and events that answer nothing.
/// @param component,data2,eventData  not read
/// @param appData      the encoder; null: a line
/// @param event,data1  what happened, and the command or the error that it tells of
/// @return OMX_ErrorNone
TESSERA_API OMX_ERRORTYPE OmxEventsHandler(OMX_HANDLETYPE component, OMX_PTR appData,
                                           OMX_EVENTTYPE event, OMX_U32 data1, OMX_U32 data2,
                                           OMX_PTR eventData);
/// The callback of a returned input buffer: nothing waits for it.
/// @param component,buffer  not read
/// @param appData           the encoder; null: a line
/// @return OMX_ErrorNone
TESSERA_API OMX_ERRORTYPE OmxEmptyInputBufferHandler(OMX_HANDLETYPE component, OMX_PTR appData,
                                                     OMX_BUFFERHEADERTYPE* buffer);
/// The callback of the filled output buffer: ends the wait for it.
/// @param component,buffer  not read
/// @param appData           the encoder; null: a line
/// @return OMX_ErrorNone
TESSERA_API OMX_ERRORTYPE OmxFillOutputBufferHandler(OMX_HANDLETYPE component, OMX_PTR appData,
                                                     OMX_BUFFERHEADERTYPE* buffer);

#endif  // TESSERA_COMXJPEGENCODER_H
