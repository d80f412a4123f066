#ifndef TESSERA_PLATFORM_SRC_MMAL_PARAMETER_H
#define TESSERA_PLATFORM_SRC_MMAL_PARAMETER_H

#include <cstring>

#include "interface/mmal/mmal_parameters.h"

namespace mmal {

/// Reads a parameter as its type. @return false when it is shorter than that
template <typename Parameter>
bool read(const MMAL_PARAMETER_HEADER_T& source, Parameter& parameter) {
  if (source.size < sizeof(Parameter)) return false;
  std::memcpy(&parameter, &source, sizeof(Parameter));
  return true;
}

/// Answers a get with a parameter of the type it is.
template <typename Parameter>
MMAL_STATUS_T fill(MMAL_PARAMETER_HEADER_T& destination, Parameter parameter) {
  const bool fits = destination.size >= sizeof(Parameter);
  destination.size = sizeof(Parameter);
  if (!fits) return MMAL_ENOSPC;
  parameter.hdr = destination;
  std::memcpy(&destination, &parameter, sizeof(Parameter));
  return MMAL_SUCCESS;
}

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_PARAMETER_H
