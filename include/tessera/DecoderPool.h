#ifndef TESSERA_DECODERPOOL_H
#define TESSERA_DECODERPOOL_H

/// @file
/// JPEG to planar 4:2:0, and the functions that make and release a pool.

#include <IL/OMX_Component.h>
#include <semaphore.h>
#include <tessera/Export.h>

#include <cstdint>

struct TesseraTestAccess;

/// Decodes JPEG pictures to planar 4:2:0, one after another, on one OpenMAX IL component
/// ("OMX.broadcom.image_decode") that stays in Executing from construction to destruction.
///
/// @code
///   DecoderPool* pool = GetDecoderPool();
///   while (camera.grab(jpeg)) {
///     int width = 0, height = 0;
///     const unsigned char* picture = pool->DecodeJpeg(jpeg.data(), jpeg.size(), width, height);
///     if (picture == nullptr) continue;  // a line on standard output said why
///     show(picture, width, height);      // the next call overwrites it
///   }
///   ReleaseDecoderPool(pool);
/// @endcode
///
/// **Setup** runs in the constructor. Normally it takes a few milliseconds; it waits for the
/// component's answers without a limit. When a step fails it prints one line and ends there; every
/// `DecodeJpeg` then prints a line and gives null. Nothing repairs such a pool: release it and get
/// another.
///
/// **An error event of the component ends the process** by `_Exit(1)` after a line on standard
/// output, which it flushes. No other stream is flushed, and no handler of `atexit` and no
/// destructor runs. Damaged pictures raise no such event: they come out as far as they go, or as
/// null.
///
/// **Lines.** docs/lines.md lists them all but these, on standard output:
/// - `no memory for the input buffers` or `unusable number of input buffers: %u`: setup ended;
///   release the pool
/// - `DecoderPool::DecodeJpeg - no data` or `DecoderPool::DecodeJpeg - the pool's setup failed`:
///   null, nothing was sent
/// - `DecoderPool::DecodeJpeg - the picture cannot be decoded`: null, go on with the next picture
/// - `DecoderPool::DecodeJpeg - no answer to %s`, `DecoderPool::DecodeJpeg - the ports cannot be %s`
///   or `DecoderPool::DecodeJpeg - the input buffers do not come back`: null, and the next call
///   puts the component in order first
/// - `DecoderPool::PassJpegToDecoder - no data` or
///   `DecoderPool::PassJpegToDecoder - no input buffers`: false, nothing was sent
///
/// **Threads.** One thread at a time per pool; pools share nothing.
class TESSERA_API DecoderPool {
 public:
  /// Sets the component up, see above; `GetDecoderPool` calls it. Never fails to the caller.
  DecoderPool();

  /// Decodes one picture.
  ///
  /// The planes lie in the pool's own buffer: with S = width rounded up to a multiple of 32 and
  /// H = height rounded up to a multiple of 16, luma at offset 0 with stride S, U at S * H and V at
  /// S * H * 5 / 4, both with stride S / 2; S * H * 3 / 2 bytes. 100 x 75 takes 128 * 80 * 3 / 2 =
  /// 15,360. 4:2:2, 4:4:4 and grey pictures come out like any other.
  ///
  /// The picture stays valid until the next `DecodeJpeg` on this pool or its release. Pictures of
  /// one size share one buffer, so the pointer stays the same; another size takes another buffer.
  ///
  /// Blocks until the picture is there, normally for a few milliseconds. All its waits together end
  /// within 10 seconds, by a steady clock; then it prints a line and gives null. The next call puts
  /// the component in order first and goes on.
  ///
  /// @param jpeg    one complete picture, from its start-of-image marker on; read during the call
  /// @param size    its length in bytes; 0 gives null
  /// @param width,height  receive the picture's size. **Pass zeros**: what is passed in stands for
  ///                the size when no baseline header is found, which is how a progressive picture
  ///                is decoded (a size other than its own costs time, but does no harm)
  /// @return the luma plane, or null after a line that told why (no line where neither a baseline
  ///         header nor a size is there). After null the pool stays usable, and width and height
  ///         may have changed
  virtual unsigned char* DecodeJpeg(char* jpeg, unsigned int size, int& width, int& height);

  /// Takes the component down, to Loaded from wherever it got to, and prints what it does on
  /// standard output. Waits for the component without a limit, but not for answers that
  /// `DecodeJpeg` has given up. No `DecodeJpeg` may be running.
  virtual ~DecoderPool();

  DecoderPool(const DecoderPool&) = delete;
  DecoderPool& operator=(const DecoderPool&) = delete;

  /// Hands one picture's bytes to the component, in as many of its input buffers as it takes; a
  /// step of `DecodeJpeg`. Prints while it waits for a buffer, for at most 10 seconds.
  /// @param jpeg,size  the picture, and its bytes; 0: nothing happens
  /// @return true, also when the component refused a piece or a buffer did not come free (a line
  ///         tells); false for null with a size, or when the pool has no input buffers
  bool PassJpegToDecoder(char* jpeg, int size);

  /// What the operations are made of; defined inside the library.
  struct TESSERA_HIDDEN Steps;

 private:
  friend struct TesseraTestAccess;

  /// How far setup got on the way to Idle.
  enum class Idle {
    NotAsked,
    Asked,    ///< on its way until every enabled port has its buffers
    Certain,  ///< every enabled port had them
  };

  /// Where a rebuild of the output buffer stands.
  enum class OutputPort {
    Ready,      ///< enabled, with its buffer; during setup not yet with it
    Outdated,   ///< likewise, but the buffer is of another size
    Disabling,  ///< asked to be disabled; the buffer is to be freed, or is
    Enabling,   ///< asked to be enabled; the buffer is to be allocated, or is
  };

  sem_t semCommandDone{};
  sem_t semFillDone{};
  sem_t semPortSettingsChanged{};
  OMX_HANDLETYPE hDecoder = nullptr;
  OMX_PORT_PARAM_TYPE portParam{};
  OMX_ERRORTYPE lastError = OMX_ErrorNone;
  OMX_PARAM_PORTDEFINITIONTYPE portDef{};
  OMX_BUFFERHEADERTYPE* pOutputBuffer = nullptr;
  std::int32_t nInputBuffers = 0;
  OMX_BUFFERHEADERTYPE** ppInputBuffers = nullptr;
  OMX_U32 nInputPort = 0;
  OMX_U32 nOutputPort = 0;
  std::int32_t nCurrentWidth = 0;
  std::int32_t nCurrentHeight = 0;
  std::int32_t nNextInputBuffer = 0;

  sem_t semLoaded{};              // posted once Loaded is reached, whatever else was answered
  std::int64_t nWaitsEnd = -1;    // when the waits of a DecodeJpeg end, by CLOCK_MONOTONIC
  std::int32_t nAnswersOwed = 0;  // commands accepted and not yet waited for
  OutputPort eOutputPort = OutputPort::Ready;
  Idle eIdle = Idle::NotAsked;
  bool bInputEnabled = true;
  bool bStarted = false;       // OMX_Init and the semaphores are to be undone
  bool bReady = false;         // setup ran to its end
  bool bFillOwed = false;      // the component has the output buffer
  bool bOutOfStep = false;     // an answer was given up: flush before anything else
  bool bWaitedInVain = false;  // for the answers owed
};

extern "C" {

/// Makes a decoder pool. Waits for the component without a limit.
/// @return the pool, never null, also when its setup failed (a line tells); it belongs to the
///         caller until `ReleaseDecoderPool`
/// @throws std::bad_alloc when memory is short
TESSERA_API DecoderPool* GetDecoderPool();

/// Destroys a pool and gives back all it holds. Waits for the component without a limit.
/// @param pool  the object, or null
/// @return 0 for null (nothing happens), else 1
TESSERA_API int ReleaseDecoderPool(DecoderPool* pool);
}

#endif  // TESSERA_DECODERPOOL_H
