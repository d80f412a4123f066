#include "common/VideoComponent.h"

#include <cstdio>

#include "common/MmalGuards.h"

namespace common {
namespace {

/// Enables a port, and makes its pool. @return null after a line
PoolOwner OpenPort(MMAL_PORT_T* port, const char* which, MMAL_PORT_BH_CB_T callback,
                   const VideoComponentUser& user) {
  port->userdata = static_cast<MMAL_PORT_USERDATA_T*>(user.object);
  const MMAL_STATUS_T status = mmal_port_enable(port, callback);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr, "%s::Create - enable %s port failed. Error code [0x%x]\n", user.className,
                 which, static_cast<unsigned int>(status));
    return nullptr;
  }
  PoolOwner pool(mmal_pool_create(port->buffer_num, port->buffer_size));
  if (!pool)
    std::fprintf(stderr, "%s::Create - creating pool for %s port failed. Params(%d, %d)\n",
                 user.className, which, static_cast<int>(port->buffer_num),
                 static_cast<int>(port->buffer_size));
  return pool;
}

}  // namespace

bool StartVideoComponent(MMAL_COMPONENT_T* component, const VideoComponentUser& user,
                         MMAL_POOL_T*& inputPool, MMAL_POOL_T*& outputPool) {
  MMAL_PORT_T* output = component->output[0];
  PoolOwner forInput = OpenPort(component->input[0], "input", user.onInput, user);
  if (!forInput) return false;
  PoolOwner forOutput = OpenPort(output, "output", user.onOutput, user);
  if (!forOutput) return false;
  const MMAL_STATUS_T status = mmal_component_enable(component);
  if (status != MMAL_SUCCESS) {
    std::fprintf(stderr, "%s::Create - enabling %s failed. Error code [0x%x]\n", user.className,
                 user.role, static_cast<unsigned int>(status));
    return false;
  }
  inputPool = forInput.release();
  outputPool = forOutput.release();
  SendFreeBuffers(outputPool, output);
  return true;
}

void ReleaseVideoComponent(MMAL_COMPONENT_T* component) {
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

}  // namespace common
