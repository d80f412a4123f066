#include "common/MmalVideoDriver.h"

#include <cstdint>
#include <cstdio>

#include "common/Geometry.h"
#include "common/Waits.h"

namespace common {
namespace {

/// A component that works gives an input buffer back within a frame or two. After a second it most
/// likely waits for its output to be fetched.
constexpr unsigned int inputLimitMs = 1000;
/// Longer than a frame takes, and short enough for a thread that feeds and drains in turn.
constexpr unsigned int outputLimitMs = 100;
/// What the line of a failed wait prints, whatever failed: the platform's VCOS_EINVAL.
constexpr unsigned int waitFailed = 4;

CodecStatus Await(sem_t& semaphore, unsigned int limitMs, const char* operation, bool timeOutTold) {
  switch (TimedWait(semaphore, limitMs)) {
    case WaitResult::Done:
      return CodecOk;
    case WaitResult::TimedOut:
      if (timeOutTold) std::printf("%s - timeout\n", operation);
      return CodecTimeout;
    default:
      std::printf("%s - wait failed [0x%x]\n", operation, waitFailed);
      return CodecWaitFailed;
  }
}

}  // namespace

/// Enables a port, and makes its pool. @return null after a line
PoolOwner MmalVideoDriver::OpenPort(MMAL_PORT_T* port, const char* which,
                                    MMAL_PORT_BH_CB_T callback, void* object) const {
  port->userdata = static_cast<MMAL_PORT_USERDATA_T*>(object);
  const MMAL_STATUS_T status = mmal_port_enable(port, callback);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr, "%s::Create - enable %s port failed. Error code [0x%x]\n", user_.className,
                 which, static_cast<unsigned int>(status));
    return nullptr;
  }
  PoolOwner pool(mmal_pool_create(port->buffer_num, port->buffer_size));
  if (!pool)
    std::fprintf(stderr, "%s::Create - creating pool for %s port failed. Params(%d, %d)\n",
                 user_.className, which, static_cast<int>(port->buffer_num),
                 static_cast<int>(port->buffer_size));
  return pool;
}

bool MmalVideoDriver::Start(void* object) {
  MMAL_COMPONENT_T* const component = fields_.pComponent;
  PoolOwner forInput = OpenPort(component->input[0], "input", user_.onInput, object);
  if (!forInput) return false;
  PoolOwner forOutput = OpenPort(component->output[0], "output", user_.onOutput, object);
  if (!forOutput) return false;
  const MMAL_STATUS_T status = mmal_component_enable(component);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr, "%s::Create - enabling %s failed. Error code [0x%x]\n", user_.className,
                 user_.role, static_cast<unsigned int>(status));
    return false;
  }
  fields_.pInputPool = forInput.release();
  fields_.pOutputPool = forOutput.release();
  SendFreeBuffers(fields_.pOutputPool, component->output[0]);
  sem_post(&fields_.semInput);
  return true;
}

void MmalVideoDriver::Close() {
  if (MMAL_COMPONENT_T* const component = fields_.pComponent) {
    MMAL_PORT_T* input = FirstPort(component->input, component->input_num);
    if (input != nullptr && input->is_enabled) mmal_port_disable(input);
    MMAL_PORT_T* output = FirstPort(component->output, component->output_num);
    if (output != nullptr) {
      mmal_port_flush(output);
      if (output->is_enabled) mmal_port_disable(output);
    }
    mmal_component_disable(component);
    mmal_component_destroy(component);
  }
  if (fields_.pQueue != nullptr) mmal_queue_destroy(fields_.pQueue);
  if (fields_.pInputPool != nullptr) mmal_pool_destroy(fields_.pInputPool);
  if (fields_.pOutputPool != nullptr) mmal_pool_destroy(fields_.pOutputPool);
  DestroySemaphores(fields_.semInput, fields_.semOutput);
}

CodecStatus MmalVideoDriver::TakeInputCredit(const char* operation) {
  return Await(fields_.semInput, inputLimitMs, operation, true);
}

CodecStatus MmalVideoDriver::AwaitOutput(const char* operation, bool timeOutTold) {
  return Await(fields_.semOutput, outputLimitMs, operation, timeOutTold);
}

void MmalVideoDriver::SignalOutput(MMAL_BUFFER_HEADER_T* buffer) {
  // The queue changes only while the port is disabled, so it needs no lock here.
  if (fields_.pQueue != nullptr)
    mmal_queue_put(fields_.pQueue, buffer);
  else
    mmal_buffer_header_release(buffer);
  sem_post(&fields_.semOutput);
}

CodecStatus CopyOut(const MMAL_BUFFER_HEADER_T& buffer, OutputMemory& memory, unsigned int& size) {
  const CodecStatus status = memory.Take(buffer.data, buffer.length);
  if (!memory.Exhausted()) size = buffer.length;
  return status;
}

MMAL_STATUS_T RefuseArguments(const char* operation, const char* what, int first, int second) {
  std::fprintf(stderr, "%s - %s not supported %dx%d\n", operation, what, first, second);
  return MMAL_EINVAL;
}

void TellUnlessDisabled(const char* operation, MMAL_STATUS_T status) {
  if (status != MMAL_SUCCESS)
    std::fprintf(stderr, "%s - failed to disable input port. Error code [0x%x]\n", operation,
                 static_cast<unsigned int>(status));
}

void DeclarePicture(MMAL_ES_FORMAT_T* format, int width, int height) {
  format->type = MMAL_ES_TYPE_VIDEO;
  MMAL_VIDEO_FORMAT_T& video = format->es->video;
  video.width = PaddedWidth(Magnitude(width));
  video.height = PaddedHeight(Magnitude(height));
  video.crop = {0, 0, static_cast<std::int32_t>(Magnitude(width)),
                static_cast<std::int32_t>(Magnitude(height))};
}

MMAL_STATUS_T CommitFormat(MMAL_PORT_T* port, const char* operation) {
  const MMAL_STATUS_T status = mmal_port_format_commit(port);
  if (status != MMAL_SUCCESS)
    std::fprintf(stderr, "%s - failed to set format for input port[0x%x]\n", operation,
                 static_cast<unsigned int>(status));
  return status;
}

}  // namespace common
