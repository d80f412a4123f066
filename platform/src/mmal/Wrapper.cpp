#include "mmal/Wrapper.h"

#include <chrono>
#include <cstring>
#include <new>

#include "interface/mmal/mmal_events.h"
#include "mmal/Call.h"
#include "mmal/Factory.h"

namespace mmal {

namespace {

/// Adds the microseconds of its scope to one of the wrapper's figures.
class Stopwatch {
 public:
  explicit Stopwatch(std::int64_t& total) : total_(total) {}
  ~Stopwatch() {
    total_ += std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start_).count();
  }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  using Clock = std::chrono::steady_clock;
  std::int64_t& total_;
  const Clock::time_point start_ = Clock::now();
};

}  // namespace

Wrapper::Wrapper(Component& itsComponent) : MMAL_WRAPPER_T{}, component_(itsComponent) {
  component = &itsComponent;
  control = itsComponent.control;
  input_num = itsComponent.input_num;
  input = itsComponent.input;
  input_pool = inPools_;
  output_num = itsComponent.output_num;
  output = itsComponent.output;
  output_pool = outPools_;
  output_queue = outQueues_;
  for (std::uint32_t i = 0; i < component->port_num; ++i) portOf(component->port[i]).wrapper = this;
  component_.enablePort(portOf(control), onBuffer);
  component_.enable();
}

Wrapper::~Wrapper() {
  for (std::uint32_t i = 0; i < component->port_num; ++i) {
    Port& port = portOf(component->port[i]);
    if (port.is_enabled != 0) disablePort(port);
    port.wrapper = nullptr;
  }
  component_.disable();
  component_.release();
}

void Wrapper::publishPools() {
  inPools_[0] = inPool_.get();
  outPools_[0] = outPool_.get();
}

MMAL_STATUS_T Wrapper::enablePort(Port& port, std::uint32_t flags) {
  const Stopwatch watch(time_enable);
  if (port.is_enabled != 0) return MMAL_EINVAL;
  const std::uint32_t size =
      (flags & MMAL_WRAPPER_FLAG_PAYLOAD_ALLOCATE) != 0 ? port.buffer_size : 0;
  auto pool = Pool::create(port.buffer_num, size);
  if (pool == nullptr) return MMAL_ENOMEM;
  poolOf(port) = std::move(pool);
  publishPools();
  const MMAL_STATUS_T result = component_.enablePort(port, onBuffer);
  if (result != MMAL_SUCCESS) {
    poolOf(port).reset();
    publishPools();
  }
  return result;
}

MMAL_STATUS_T Wrapper::disablePort(Port& port) {
  const Stopwatch watch(time_disable);
  const MMAL_STATUS_T result = component_.disablePort(port);
  if (result != MMAL_SUCCESS || port.type == MMAL_PORT_TYPE_CONTROL) return result;
  if (port.isOutput()) {
    while (Header* const buffer = filled_.get()) buffer->release();
  }
  poolOf(port).reset();
  publishPools();
  return MMAL_SUCCESS;
}

MMAL_STATUS_T Wrapper::getEmpty(Port& port, MMAL_BUFFER_HEADER_T*& buffer, bool waiting) {
  buffer = nullptr;
  Pool* const pool = poolOf(port).get();
  if (port.is_enabled == 0 || pool == nullptr) return MMAL_EINVAL;
  return get(queueOf(pool->queue), buffer, waiting);
}

MMAL_STATUS_T Wrapper::getFull(Port& port, MMAL_BUFFER_HEADER_T*& buffer, bool waiting) {
  buffer = nullptr;
  if (port.is_enabled == 0 || !port.isOutput()) return MMAL_EINVAL;
  return get(filled_, buffer, waiting);
}

// Buffers come back through take(), or from the client's own thread, which is then not in here: so
// only take() needs to end a wait.
MMAL_STATUS_T Wrapper::get(Queue& queue, MMAL_BUFFER_HEADER_T*& buffer, bool waiting) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (status != MMAL_SUCCESS) return status;
    buffer = queue.get();
    if (buffer != nullptr) return MMAL_SUCCESS;
    if (!waiting) return MMAL_EAGAIN;
    changed_.wait(lock);
  }
}

void Wrapper::onBuffer(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  Port& from = portOf(port);
  Wrapper& wrapper = *from.wrapper;
  wrapper.take(from, *headerOf(buffer));
  if (wrapper.callback != nullptr) wrapper.callback(&wrapper);
}

void Wrapper::take(Port& port, Header& header) {
  const std::lock_guard<std::mutex> lock(mutex_);
  // What a flush gives back unused is empty and bears no mark.
  const bool filled = port.isOutput() && (header.length != 0 || header.flags != 0);
  if (header.cmd == MMAL_EVENT_ERROR) std::memcpy(&status, header.data, sizeof(status));
  if (header.cmd == 0 && filled)
    filled_.put(header);
  else
    header.release();
  changed_.notify_all();
}

namespace {

MMAL_STATUS_T createWrapper(const char* name, MMAL_WRAPPER_T*& wrapper) {
  std::int64_t setup = 0;
  {
    const Stopwatch watch(setup);
    Component* component = nullptr;
    const MMAL_STATUS_T status = makeComponent(name, component);
    if (status != MMAL_SUCCESS) return status;
    wrapper = new (std::nothrow) Wrapper(*component);
    if (wrapper == nullptr) {
      component->release();
      return MMAL_ENOMEM;
    }
  }
  wrapper->time_setup = setup;
  return MMAL_SUCCESS;
}

/// Both ways to take a buffer through the wrapper.
MMAL_STATUS_T getBuffer(const char* entry,
                        MMAL_STATUS_T (Wrapper::*get)(Port&, MMAL_BUFFER_HEADER_T*&, bool),
                        MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T** buffer, uint32_t flags) {
  Call call(entry);
  const auto args = [&] { return nameOf(port); };
  if (buffer != nullptr) *buffer = nullptr;
  if (call.stopped()) return call.refuse(args);
  if (port == nullptr || buffer == nullptr || portOf(port).wrapper == nullptr)
    return call.leave(MMAL_EINVAL, args);
  const bool waiting = (flags & MMAL_WRAPPER_FLAG_WAIT) != 0;
  return call.leave((portOf(port).wrapper->*get)(portOf(port), *buffer, waiting), args);
}

}  // namespace
}  // namespace mmal

using mmal::Call;
using mmal::nameOf;
using mmal::portOf;
using mmal::Wrapper;

MMAL_STATUS_T mmal_wrapper_create(MMAL_WRAPPER_T** wrapper, const char* name) {
  Call call("mmal_wrapper_create");
  const auto args = [&] { return std::string(name != nullptr ? name : "null"); };
  if (wrapper != nullptr) *wrapper = nullptr;
  if (call.stopped()) return call.refuse(args);
  if (wrapper == nullptr || name == nullptr) return call.leave(MMAL_EINVAL, args);
  return call.leave(mmal::createWrapper(name, *wrapper), args);
}

MMAL_STATUS_T mmal_wrapper_destroy(MMAL_WRAPPER_T* wrapper) {
  Call call("mmal_wrapper_destroy");
  std::string name;
  const auto args = [&] { return name; };
  if (tessera_platform::hooks::recording && wrapper != nullptr) name = nameOf(wrapper->component);
  if (call.stopped()) return call.refuse(args);
  if (wrapper == nullptr) return call.leave(MMAL_EINVAL, args);
  delete static_cast<Wrapper*>(wrapper);
  return call.leave(MMAL_SUCCESS, args);
}

MMAL_STATUS_T mmal_wrapper_port_enable(MMAL_PORT_T* port, uint32_t flags) {
  Call call("mmal_wrapper_port_enable");
  const auto args = [&] {
    return nameOf(port) + ", " + std::to_string(port->buffer_num) + " x " +
           std::to_string(port->buffer_size) + ", flags " + std::to_string(flags);
  };
  if (port == nullptr) return MMAL_EINVAL;
  if (call.stopped()) return call.refuse(args);
  Wrapper* const wrapper = portOf(port).wrapper;
  if (wrapper == nullptr || port == wrapper->control) return call.leave(MMAL_EINVAL, args);
  const MMAL_STATUS_T status = wrapper->enablePort(portOf(port), flags);
  if (call.finishFirst()) portOf(port).owner().settle();
  return call.leave(status, args);
}

MMAL_STATUS_T mmal_wrapper_port_disable(MMAL_PORT_T* port) {
  Call call("mmal_wrapper_port_disable");
  const auto args = [&] { return nameOf(port); };
  if (call.stopped()) return call.refuse(args);
  if (port == nullptr) return call.leave(MMAL_EINVAL, args);
  Wrapper* const wrapper = portOf(port).wrapper;
  const MMAL_STATUS_T status = wrapper != nullptr ? wrapper->disablePort(portOf(port))
                                                  : portOf(port).owner().disablePort(portOf(port));
  if (call.finishFirst()) portOf(port).owner().settle();
  return call.leave(status, args);
}

MMAL_STATUS_T mmal_wrapper_buffer_get_empty(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T** buffer,
                                            uint32_t flags) {
  return mmal::getBuffer("mmal_wrapper_buffer_get_empty", &Wrapper::getEmpty, port, buffer, flags);
}

MMAL_STATUS_T mmal_wrapper_buffer_get_full(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T** buffer,
                                           uint32_t flags) {
  return mmal::getBuffer("mmal_wrapper_buffer_get_full", &Wrapper::getFull, port, buffer, flags);
}
