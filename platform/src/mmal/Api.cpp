#include "interface/mmal/mmal.h"
#include "mmal/Factory.h"
#include "mmal/PortCall.h"
#include "mmal/Text.h"

// The published entry points of components and ports.

using mmal::Call;
using mmal::Component;
using mmal::componentOf;
using mmal::nameOf;
using mmal::onPort;
using mmal::Port;
using mmal::portOf;

namespace {

template <typename Work>
MMAL_STATUS_T onComponent(const char* entry, MMAL_COMPONENT_T* component, Work&& work) {
  Call call(entry);
  const auto args = [&] { return nameOf(component); };
  if (call.stopped()) return call.refuse(args);
  if (component == nullptr) return call.leave(MMAL_EINVAL, args);
  const MMAL_STATUS_T status = work(componentOf(component));
  if (call.finishFirst()) componentOf(component).settle();
  return call.leave(status, args);
}

// The component may be gone before the call is journaled.
MMAL_STATUS_T releaseReference(const char* entry, MMAL_COMPONENT_T* component) {
  Call call(entry);
  std::string name;
  const auto args = [&] { return name; };
  if (tessera_platform::hooks::recording) name = nameOf(component);
  if (call.stopped()) return call.refuse(args);
  if (component == nullptr) return call.leave(MMAL_EINVAL, args);
  componentOf(component).release();
  return call.leave(MMAL_SUCCESS, args);
}

template <typename Parameter>
MMAL_STATUS_T onParameter(const char* entry, MMAL_PORT_T* port, Parameter* parameter,
                          MMAL_STATUS_T (Component::*work)(Port&, Parameter&)) {
  return onPort(
      entry, port,
      [&](Component& c, Port& p) {
        return parameter != nullptr ? (c.*work)(p, *parameter) : MMAL_EINVAL;
      },
      [&] {
        return nameOf(port) +
               (parameter != nullptr ? ", " + mmal::text::parameter(*parameter) : "");
      });
}

}  // namespace

MMAL_STATUS_T mmal_component_create(const char* name, MMAL_COMPONENT_T** component) {
  Call call("mmal_component_create");
  const auto args = [&] { return std::string(name != nullptr ? name : "null"); };
  if (component != nullptr) *component = nullptr;
  if (call.stopped()) return call.refuse(args);
  if (name == nullptr || component == nullptr) return call.leave(MMAL_EINVAL, args);
  Component* made = nullptr;
  const MMAL_STATUS_T status = mmal::makeComponent(name, made);
  *component = made;
  return call.leave(status, args);
}

void mmal_component_acquire(MMAL_COMPONENT_T* component) {
  Call call("mmal_component_acquire");
  if (!call.stopped() && component != nullptr) componentOf(component).acquire();
  call.done([&] { return nameOf(component); });
}

MMAL_STATUS_T mmal_component_release(MMAL_COMPONENT_T* component) {
  return releaseReference("mmal_component_release", component);
}

MMAL_STATUS_T mmal_component_destroy(MMAL_COMPONENT_T* component) {
  return releaseReference("mmal_component_destroy", component);
}

MMAL_STATUS_T mmal_component_enable(MMAL_COMPONENT_T* component) {
  return onComponent("mmal_component_enable", component, [](Component& c) { return c.enable(); });
}

MMAL_STATUS_T mmal_component_disable(MMAL_COMPONENT_T* component) {
  return onComponent("mmal_component_disable", component, [](Component& c) { return c.disable(); });
}

MMAL_STATUS_T mmal_port_format_commit(MMAL_PORT_T* port) {
  return onPort(
      "mmal_port_format_commit", port, [](Component& c, Port& p) { return c.commitFormat(p); },
      [&] {
        return nameOf(port) + (port != nullptr ? ", " + mmal::text::format(*port->format) : "");
      });
}

MMAL_STATUS_T mmal_port_enable(MMAL_PORT_T* port, MMAL_PORT_BH_CB_T cb) {
  return onPort(
      "mmal_port_enable", port, [cb](Component& c, Port& p) { return c.enablePort(p, cb); },
      [&] {
        if (port == nullptr) return nameOf(port);
        return nameOf(port) + ", " + std::to_string(port->buffer_num) + " x " +
               std::to_string(port->buffer_size) +
               (port->userdata == nullptr ? ", no user data" : "");
      });
}

MMAL_STATUS_T mmal_port_disable(MMAL_PORT_T* port) {
  return onPort(
      "mmal_port_disable", port, [](Component& c, Port& p) { return c.disablePort(p); },
      [&] { return nameOf(port); });
}

MMAL_STATUS_T mmal_port_flush(MMAL_PORT_T* port) {
  return onPort(
      "mmal_port_flush", port, [](Component& c, Port& p) { return c.flushPort(p); },
      [&] { return nameOf(port); });
}

MMAL_STATUS_T mmal_port_parameter_set(MMAL_PORT_T* port, const MMAL_PARAMETER_HEADER_T* param) {
  return onParameter(__func__, port, param, &Component::setParameter);
}

MMAL_STATUS_T mmal_port_parameter_get(MMAL_PORT_T* port, MMAL_PARAMETER_HEADER_T* param) {
  return onParameter(__func__, port, param, &Component::getParameter);
}

MMAL_STATUS_T mmal_port_send_buffer(MMAL_PORT_T* port, MMAL_BUFFER_HEADER_T* buffer) {
  // What is sent is told as it was before the component had it.
  std::string payload;
  if (tessera_platform::hooks::recording && buffer != nullptr)
    payload = port != nullptr && portOf(port).isOutput() ? "empty" : mmal::text::payload(*buffer);
  return onPort(
      "mmal_port_send_buffer", port,
      [buffer](Component& c, Port& p) {
        return buffer != nullptr ? c.sendBuffer(p, *mmal::headerOf(buffer)) : MMAL_EINVAL;
      },
      [&] { return nameOf(port) + ", " + payload; });
}
