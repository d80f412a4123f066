#include "interface/mmal/util/mmal_util_params.h"
#include "mmal/PortCall.h"
#include "mmal/Text.h"

// Parameters of one plain value: the published calls for each type.

namespace {

/// All of them look like this.
template <typename Value>
struct Plain {
  MMAL_PARAMETER_HEADER_T hdr;
  Value value;
};
static_assert(sizeof(Plain<uint32_t>) == sizeof(MMAL_PARAMETER_UINT32_T), "layout");
static_assert(sizeof(Plain<MMAL_BOOL_T>) == sizeof(MMAL_PARAMETER_BOOLEAN_T), "layout");

template <typename Value>
MMAL_STATUS_T set(const char* entry, MMAL_PORT_T* port, uint32_t id, Value value) {
  Plain<Value> parameter{{id, sizeof(parameter)}, value};
  return mmal::onPort(
      entry, port,
      [&](mmal::Component& c, mmal::Port& p) { return c.setParameter(p, parameter.hdr); },
      [&] { return mmal::nameOf(port) + ", " + mmal::text::parameter(parameter.hdr); });
}

template <typename Value>
MMAL_STATUS_T get(const char* entry, MMAL_PORT_T* port, uint32_t id, Value* value) {
  Plain<Value> parameter{{id, sizeof(parameter)}, {}};
  return mmal::onPort(
      entry, port,
      [&](mmal::Component& c, mmal::Port& p) {
        if (value == nullptr) return MMAL_EINVAL;
        const MMAL_STATUS_T status = c.getParameter(p, parameter.hdr);
        if (status == MMAL_SUCCESS) *value = parameter.value;
        return status;
      },
      [&] { return mmal::nameOf(port) + ", " + mmal::text::parameter(parameter.hdr); });
}

}  // namespace

MMAL_STATUS_T mmal_port_parameter_set_boolean(MMAL_PORT_T* port, uint32_t id, MMAL_BOOL_T value) {
  return set("mmal_port_parameter_set_boolean", port, id, value);
}
MMAL_STATUS_T mmal_port_parameter_get_boolean(MMAL_PORT_T* port, uint32_t id, MMAL_BOOL_T* value) {
  return get("mmal_port_parameter_get_boolean", port, id, value);
}
MMAL_STATUS_T mmal_port_parameter_set_uint32(MMAL_PORT_T* port, uint32_t id, uint32_t value) {
  return set("mmal_port_parameter_set_uint32", port, id, value);
}
MMAL_STATUS_T mmal_port_parameter_get_uint32(MMAL_PORT_T* port, uint32_t id, uint32_t* value) {
  return get("mmal_port_parameter_get_uint32", port, id, value);
}
