#include "mmal/Component.h"

#include <algorithm>
#include <cstring>
#include <system_error>

#include "interface/mmal/mmal_events.h"
#include "mmal/Parameter.h"

namespace mmal {

using tessera_platform::hooks::Kind;

namespace {
constexpr char namePrefix[] = "vc.ril.";
constexpr std::size_t namePrefixLength = sizeof(namePrefix) - 1;
}  // namespace

Component::Component(std::string itsName)
    : MMAL_COMPONENT_T{},
      name_(std::move(itsName)),
      controlPort_(std::make_unique<Port>(*this, MMAL_PORT_TYPE_CONTROL, 0, 0, name_ + ":ctr:0")),
      inputPort_(std::make_unique<Port>(*this, MMAL_PORT_TYPE_INPUT, 0, 1, name_ + ":in:0")),
      outputPort_(std::make_unique<Port>(*this, MMAL_PORT_TYPE_OUTPUT, 0, 2, name_ + ":out:0")),
      ports_{controlPort_.get(), inputPort_.get(), outputPort_.get()},
      inputs_{inputPort_.get()},
      outputs_{outputPort_.get()},
      all_{controlPort_.get(), inputPort_.get(), outputPort_.get()} {
  name = name_.c_str();
  control = controlPort_.get();
  input_num = output_num = 1;
  input = inputs_;
  output = outputs_;
  port_num = 3;
  port = all_;
  for (Port* each : ports_) each->component = this;
}

/// All components that live. Never destroyed: a pool may be destroyed while the process ends.
struct Component::Registry {
  std::mutex mutex;
  std::vector<Component*> components;
};

Component::Registry& Component::registry() {
  static Registry* const instance = new Registry;
  return *instance;
}

Component::~Component() {
  tessera_platform::hooks::forget(this);
  Registry& all = registry();
  const std::lock_guard<std::mutex> lock(all.mutex);
  all.components.erase(std::remove(all.components.begin(), all.components.end(), this),
                       all.components.end());
}

void Component::awaitDelivery(const Header& header) {
  Registry& all = registry();
  const std::lock_guard<std::mutex> lock(all.mutex);
  for (Component* const each : all.components) {
    Lock held(each->mutex_);
    if (!each->onOwnWorker())
      each->changed_.wait(held, [&] { return each->delivering_ != &header; });
  }
}

// The defaults are in place before the worker may look at them.
void Component::start() {
  setRequirements();
  // Where there is no memory, an error event must still find its buffer.
  Header* const event = eventHeader(MMAL_EVENT_ERROR);
  if (event == nullptr) throw std::bad_alloc();
  event->release();
  for (Port* each : {inputPort_.get(), outputPort_.get()}) {
    each->format->encoding = each->committed.encoding;
    each->buffer_num = each->buffer_num_recommended;
    each->buffer_size = each->buffer_size_recommended;
  }
  {
    Registry& all = registry();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.components.push_back(this);
  }
  worker_ = std::thread([this] { run(); });
}

std::string Component::journalName() const {
  return tessera_platform::hooks::nameOf(this, name_.c_str() + namePrefixLength);
}

std::string nameOf(MMAL_COMPONENT_T* component) {
  return component != nullptr ? componentOf(component).journalName() : "null";
}

std::string nameOf(MMAL_PORT_T* port) {
  if (port == nullptr) return "null";
  const Port& known = portOf(port);
  const char* const direction = known.isInput() ? ":in" : known.isOutput() ? ":out" : ":ctr";
  return known.owner().journalName() + direction + std::to_string(known.index);
}

void Component::acquire() {
  ++references_;
}

void Component::release() {
  if (--references_ == 0) takeDown();
}

void Component::takeDown() {
  Lock held(mutex_);
  for (Port* each : ports_) {
    if (each->is_enabled == 0) continue;
    each->is_enabled = 0;
    ++each->recalls;
    tessera_platform::hooks::count(Kind::EnabledPort, -1);
  }
  stopping_ = true;
  orphaned_ = onOwnWorker();
  const bool mine = !orphaned_;
  bell_.ring(held);
  if (!mine) return;
  worker_.join();
  delete this;
}

MMAL_STATUS_T Component::enable() {
  Lock held(mutex_);
  is_enabled = 1;
  workDue_ = true;
  bell_.ring(held);
  return MMAL_SUCCESS;
}

MMAL_STATUS_T Component::disable() {
  Lock held(mutex_);
  is_enabled = 0;
  if (!onOwnWorker()) changed_.wait(held, [this] { return !working_; });
  return MMAL_SUCCESS;
}

MMAL_STATUS_T Component::commitFormat(Port& target) {
  const Lock held(mutex_);
  if (target.type == MMAL_PORT_TYPE_CONTROL || target.is_enabled != 0) return MMAL_EINVAL;
  if (target.format->type != MMAL_ES_TYPE_VIDEO) return MMAL_EINVAL;
  MMAL_STATUS_T status = checkFormat(target, *target.format);
  if (status == MMAL_SUCCESS) status = target.committed.copyAll(*target.format);
  if (status == MMAL_SUCCESS) setRequirements();
  return status;
}

MMAL_STATUS_T Component::enablePort(Port& target, MMAL_PORT_BH_CB_T callback) {
  Lock held(mutex_);
  // A disable from inside a callback may still have buffers on their way back.
  if (onOwnWorker() && target.recalled()) return MMAL_ENOTREADY;
  changed_.wait(held, [&] { return !target.recalled(); });
  if (target.is_enabled != 0 || callback == nullptr) return MMAL_EINVAL;
  if (target.buffer_num < target.buffer_num_min || target.buffer_size < target.buffer_size_min)
    return MMAL_EINVAL;
  target.callback = callback;
  target.is_enabled = 1;
  tessera_platform::hooks::count(Kind::EnabledPort, 1);
  workDue_ = true;
  bell_.ring(held);
  return MMAL_SUCCESS;
}

MMAL_STATUS_T Component::disablePort(Port& target) {
  Lock held(mutex_);
  if (target.is_enabled == 0) return MMAL_EINVAL;
  target.is_enabled = 0;
  tessera_platform::hooks::count(Kind::EnabledPort, -1);
  recall(held, target);
  return MMAL_SUCCESS;
}

MMAL_STATUS_T Component::flushPort(Port& target) {
  Lock held(mutex_);
  if (target.is_enabled != 0) recall(held, target);
  return MMAL_SUCCESS;
}

MMAL_STATUS_T Component::sendBuffer(Port& target, Header& header) {
  Lock held(mutex_);
  if (target.is_enabled == 0 || target.type == MMAL_PORT_TYPE_CONTROL) return MMAL_EINVAL;
  if (header.cmd != 0 || header.data == nullptr) return MMAL_EINVAL;
  if (header.alloc_size < target.buffer_size_min) return MMAL_EINVAL;
  if (target.isInput() && std::uint64_t{header.offset} + header.length > header.alloc_size)
    return MMAL_EINVAL;
  if (!header.move(Place::Client, Place::Port)) return MMAL_EINVAL;
  if (target.isOutput()) header.reset();
  header.judged = false;
  header.holder = this;
  target.pending.pushBack(header);
  if (bell_.asleep() && !awaits(target)) return MMAL_SUCCESS;
  workDue_ = true;
  bell_.ring(held);
  return MMAL_SUCCESS;
}

MMAL_STATUS_T Component::setParameter(Port& target, const MMAL_PARAMETER_HEADER_T& parameter) {
  const Lock held(mutex_);
  if (parameter.size < sizeof(parameter)) return MMAL_EINVAL;
  if (parameter.id == MMAL_PARAMETER_ZERO_COPY)
    return parameter.size >= sizeof(MMAL_PARAMETER_BOOLEAN_T) ? MMAL_SUCCESS : MMAL_EINVAL;
  return setOwnParameter(target, parameter);
}

MMAL_STATUS_T Component::getParameter(Port& target, MMAL_PARAMETER_HEADER_T& parameter) {
  const Lock held(mutex_);
  if (parameter.id == MMAL_PARAMETER_BUFFER_REQUIREMENTS) {
    return fill(parameter, MMAL_PARAMETER_BUFFER_REQUIREMENTS_T{{},
                                                                target.buffer_num_min,
                                                                target.buffer_size_min,
                                                                target.buffer_alignment_min,
                                                                target.buffer_num_recommended,
                                                                target.buffer_size_recommended});
  }
  if (parameter.id != MMAL_PARAMETER_SUPPORTED_ENCODINGS) return getOwnParameter(target, parameter);
  const std::vector<MMAL_FOURCC_T> codes = encodings(target);
  const auto bytes = static_cast<std::uint32_t>(codes.size() * sizeof(MMAL_FOURCC_T));
  const bool fits = parameter.size >= sizeof(parameter) + bytes;
  parameter.size = static_cast<std::uint32_t>(sizeof(parameter) + bytes);
  if (!fits) return MMAL_ENOSPC;
  std::memcpy(&parameter + 1, codes.data(), bytes);
  return MMAL_SUCCESS;
}

MMAL_STATUS_T Component::setOwnParameter(Port&, const MMAL_PARAMETER_HEADER_T&) {
  return MMAL_ENOSYS;
}

MMAL_STATUS_T Component::getOwnParameter(Port&, MMAL_PARAMETER_HEADER_T&) {
  return MMAL_ENOSYS;
}

}  // namespace mmal
