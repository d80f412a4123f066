#ifndef TESSERA_SRC_COMMON_MMALVIDEODRIVER_H
#define TESSERA_SRC_COMMON_MMALVIDEODRIVER_H

#include <interface/mmal/mmal.h>
#include <semaphore.h>
#include <tessera/CodecStatus.h>

#include "common/MmalGuards.h"
#include "common/OutputMemory.h"

namespace common {

/// The fields that both MMAL video classes have.
struct MmalVideoFields {
  MMAL_COMPONENT_T*& pComponent;
  MMAL_QUEUE_T*& pQueue;
  MMAL_POOL_T*& pInputPool;
  MMAL_POOL_T*& pOutputPool;
  sem_t& semInput;   ///< credits: how many input buffers may be sent
  sem_t& semOutput;  ///< how many buffers have come to the queue
};

/// What the classes differ in.
struct MmalVideoUser {
  const char* className;
  const char* role;  ///< "encoder" or "decoder", for the lines
  MMAL_PORT_BH_CB_T onInput;
  MMAL_PORT_BH_CB_T onOutput;
};

/// Drives a video component: starts it, waits for it, takes what it delivers, gives it back.
/// Refers to the class's own fields, so it may be made for each operation.
class MmalVideoDriver {
 public:
  MmalVideoDriver(const MmalVideoFields& fields, const MmalVideoUser& user)
      : fields_(fields), user_(user) {}

  /// Enables both ports and the component, makes the pools that the ports ask for, gives the
  /// component its output buffers and one credit to the input.
  /// @param object  the ports' user data
  /// @return false after a line, with no pool set
  bool Start(void* object);

  /// Gives back everything that there is.
  void Close();

  // The way of the frames. Lines name `operation`.

  CodecStatus TakeInputCredit(const char* operation);
  /// @param timeOutTold  whether a time-out prints a line; the decoder's does not
  CodecStatus AwaitOutput(const char* operation, bool timeOutTold);

  // What the ports' callbacks do.

  void SignalInputReturned() { sem_post(&fields_.semInput); }
  void SignalOutput(MMAL_BUFFER_HEADER_T* buffer);

 private:
  PoolOwner OpenPort(MMAL_PORT_T* port, const char* which, MMAL_PORT_BH_CB_T callback,
                     void* object) const;

  MmalVideoFields fields_;
  const MmalVideoUser& user_;
};

/// Copies what a buffer holds out. @param size  its bytes, unless memory for an array was short
CodecStatus CopyOut(const MMAL_BUFFER_HEADER_T& buffer, OutputMemory& memory, unsigned int& size);

// Steps of setting a port's format. Lines name `operation`.

/// @return MMAL_EINVAL, after a line
MMAL_STATUS_T RefuseArguments(const char* operation, const char* what, int first, int second);
void TellUnlessDisabled(const char* operation, MMAL_STATUS_T status);
/// Declares a picture: padded size, and the crop to the size given.
void DeclarePicture(MMAL_ES_FORMAT_T* format, int width, int height);
MMAL_STATUS_T CommitFormat(MMAL_PORT_T* port, const char* operation);

}  // namespace common

#endif  // TESSERA_SRC_COMMON_MMALVIDEODRIVER_H
