#ifndef TESSERA_SRC_COMMON_OMXENCODERDRIVER_H
#define TESSERA_SRC_COMMON_OMXENCODERDRIVER_H

#include <IL/OMX_Component.h>
#include <semaphore.h>

#include <atomic>
#include <cstdio>

namespace common {

/// How a request ended that the component has to answer.
enum class Answer {
  Done,
  Refused,     ///< nothing will come; a line told
  Unanswered,  ///< not in time, so that the answer is still owed; a line told
};

/// Each encoder has a PrintOmxError of its own.
using OmxErrorPrinter = void (*)(const char* label, OMX_ERRORTYPE error);

/// A component's parameters and buffers. A refusal is printed under the label that came with it.
class OmxPorts {
 public:
  OmxPorts(OMX_HANDLETYPE component, OmxErrorPrinter print)
      : component_(component), print_(print) {}

  OMX_ERRORTYPE Get(OMX_INDEXTYPE index, OMX_PTR structure, const char* label) const;
  OMX_ERRORTYPE Set(OMX_INDEXTYPE index, OMX_PTR structure, const char* label) const;

  /// Reads a port's definition into a cleared structure.
  OMX_ERRORTYPE Read(OMX_U32 port, OMX_PARAM_PORTDEFINITIONTYPE& definition,
                     const char* label) const;

  struct AllocateLabels {
    const char* read;
    const char* allocate;
  };
  /// Has the component allocate one buffer of the size that the port's definition asks for, unless
  /// `buffer` is set already. A failure leaves it null.
  OMX_ERRORTYPE AllocateBuffer(OMX_U32 port, OMX_BUFFERHEADERTYPE*& buffer,
                               const AllocateLabels& labels) const;

  /// Frees the buffer, if there is one, and sets it to null whatever the component answers.
  /// @return whether there was one
  bool FreeBuffer(OMX_U32 port, OMX_BUFFERHEADERTYPE*& buffer, const char* label) const;

 private:
  OMX_ERRORTYPE Told(OMX_ERRORTYPE error, const char* label) const;

  OMX_HANDLETYPE component_;
  OmxErrorPrinter print_;
};

/// The fields that both OpenMAX IL encoders have.
struct OmxEncoderFields {
  sem_t& semStateChanged;
  sem_t& semPortEnableDisable;
  sem_t& semFlushed;
  sem_t& semOutputFilled;
  sem_t* semInputReturned;  // where the encoder has one
  OMX_HANDLETYPE& hEncoder;
  OMX_BUFFERHEADERTYPE*& pInputBuffer;
  OMX_BUFFERHEADERTYPE*& pOutputBuffer;
  OMX_U32& nInputPort;
  OMX_U32& nOutputPort;
  std::atomic<bool>& bComponentError;
  bool& bStarted;
};

/// Drives an encoder's component: obtains it, sends it requests and waits for their answers, gives
/// it back. Refers to the encoder's own fields, so it may be made for each operation.
class OmxEncoderDriver {
 public:
  /// The labels of refused calls.
  struct Labels {
    const char* init;
    const char* getHandle;
    const char* portDisable;
    const char* freeInput;
    const char* freeOutput;
    const char* freeHandle;
  };

  /// @param stream     where the line of a missing answer goes
  /// @param operation  named in that line
  OmxEncoderDriver(const OmxEncoderFields& fields, const Labels& labels, OmxErrorPrinter print,
                   std::FILE* stream, const char* operation)
      : fields_(fields), labels_(labels), print_(print), stream_(stream), operation_(operation) {}

  OmxPorts Ports() const { return {fields_.hEncoder, print_}; }

  /// Brings the platform up and obtains the component. @return false after a line
  bool Open(char* componentName, OMX_PTR encoder, OMX_CALLBACKTYPE& callbacks);
  /// Disables every port that the component has. A refused one is passed over.
  Answer DisablePorts();
  /// Frees the buffers that are there. @return whether there was one
  bool ReleaseBuffers();
  /// Gives buffers, component, core and semaphores back.
  void Close();

  // Requests, and their answers.

  Answer SetState(OMX_STATETYPE state, const char* label);
  Answer FlushPort(OMX_U32 port, const char* label);
  Answer DisablePort(OMX_U32 port, OMX_BUFFERHEADERTYPE*& buffer, const char* label);

  /// @param allocate  gives the port its buffer, without which the component does not complete the
  ///                  command. When it answers false, that answer stays owed
  template <typename Allocate>
  Answer EnablePort(OMX_U32 port, const char* label, Allocate allocate) {
    if (!Send(OMX_CommandPortEnable, port, fields_.semPortEnableDisable, label))
      return Answer::Refused;
    if (!allocate()) return Answer::Unanswered;
    return Await(fields_.semPortEnableDisable, "OMX_CommandPortEnable");
  }

  /// Sends a command that `answer` will be posted for. @return false after a line
  bool Send(OMX_COMMANDTYPE command, OMX_U32 parameter, sem_t& answer, const char* label);
  Answer Await(sem_t& answer, const char* request);
  /// Before a request: forgets earlier posts and errors, so that none is taken for its answer.
  void Expect(sem_t& answer);

 private:
  OmxEncoderFields fields_;
  const Labels& labels_;
  OmxErrorPrinter print_;
  std::FILE* stream_;
  const char* operation_;
};

/// Prints an event that answers nothing.
void PrintOtherOmxEvent(OMX_EVENTTYPE event);

/// Passes an event on to the encoder's signal operations. An error event other than same-state
/// answers nothing; it only cuts the wait short that is under way.
template <typename Encoder>
void PassOmxEvent(Encoder& encoder, OMX_EVENTTYPE event, OMX_U32 data, OmxErrorPrinter print) {
  if (event == OMX_EventCmdComplete) {
    if (data == OMX_CommandStateSet)
      encoder.SignalStateChanged();
    else if (data == OMX_CommandFlush)
      encoder.SignalFlushed();
    else if (data == OMX_CommandPortDisable || data == OMX_CommandPortEnable)
      encoder.SignalPortEnabledDisabled();
  } else if (event == OMX_EventError) {
    const auto error = static_cast<OMX_ERRORTYPE>(static_cast<OMX_S32>(data));
    if (error == OMX_ErrorSameState) {
      encoder.SignalStateChanged();
    } else {
      encoder.SignalComponentError();
      print("OmxEventsHandler", error);
    }
  } else {
    PrintOtherOmxEvent(event);
  }
}

}  // namespace common

#endif  // TESSERA_SRC_COMMON_OMXENCODERDRIVER_H
