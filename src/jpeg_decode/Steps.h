#ifndef TESSERA_SRC_JPEG_DECODE_STEPS_H
#define TESSERA_SRC_JPEG_DECODE_STEPS_H

#include <tessera/DecoderPool.h>

#include <cstdint>

#include "common/Geometry.h"

/// What the pool's operations are made of.
struct DecoderPool::Steps {
  explicit Steps(DecoderPool& of) : pool(of) {}

  // What the callbacks report.
  void SignalCommandDone() { sem_post(&pool.semCommandDone); }
  void SignalLoaded() { sem_post(&pool.semLoaded); }
  void SignalFillDone() { sem_post(&pool.semFillDone); }
  void SignalPortSettingsChanged() { sem_post(&pool.semPortSettingsChanged); }

  // Setup, in the order in which it happens.
  bool OpenComponent();
  bool RequestIdle();
  bool SetUpInputPort();
  bool AllocateInputBuffers();
  bool SetUpOutputPort();
  bool StartExecuting();

  // Teardown, likewise.
  bool TakeDownComponent();
  void SettleAnswers();
  void FlushOutputPort();
  void ReleaseInputBuffers();
  void ReleaseOutputBuffer();
  bool LeaveState();
  bool ReleaseLeftBuffers();
  bool KeptFromIdle() const;
  std::int32_t StuckCommands() const;
  void AwaitCommands();

  // Commands and parameters.
  OMX_ERRORTYPE Send(OMX_COMMANDTYPE command, OMX_U32 parameter);
  bool SendAndAwait(OMX_COMMANDTYPE command, OMX_U32 parameter);
  void AwaitCommand();
  OMX_ERRORTYPE SetImageFormat(OMX_U32 port, OMX_IMAGE_CODINGTYPE coding,
                               OMX_COLOR_FORMATTYPE color);
  OMX_ERRORTYPE ReadPort(OMX_U32 port);

  // The decode cycle.
  unsigned char* Decode(const char* jpeg, OMX_U32 size, common::PictureSize& pictureSize);
  bool CatchUp();
  bool Feed(const char* jpeg, OMX_U32 size);
  OMX_BUFFERHEADERTYPE* NextFreeInput();
  bool TakeNewSize(common::PictureSize& pictureSize);
  common::PictureSize CurrentSize() const;
  bool ReadOutputSize(const common::PictureSize& expected);
  bool RebuildOutputBuffer();
  bool ReleaseOldBuffer();
  unsigned char* FetchPicture(common::PictureSize& pictureSize);
  bool RequestFill();
  bool CommandsAnswered(const char* command);
  bool Answered(sem_t& answer, const char* request);
  bool Unanswered(const char* request);
  bool PortsFailed(const char* what);

  DecoderPool& pool;
};

#endif  // TESSERA_SRC_JPEG_DECODE_STEPS_H
