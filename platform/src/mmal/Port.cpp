#include "mmal/Port.h"

#include <utility>

namespace mmal {

Port::Port(Component& owner, MMAL_PORT_TYPE_T portType, std::uint16_t itsIndex,
           std::uint16_t indexAll, std::string itsName)
    : MMAL_PORT_T{}, owner_(owner), name_(std::move(itsName)) {
  name = name_.c_str();
  type = portType;
  index = itsIndex;
  index_all = indexAll;
  format = &format_;
  format_.type = committed.type =
      portType == MMAL_PORT_TYPE_CONTROL ? MMAL_ES_TYPE_CONTROL : MMAL_ES_TYPE_VIDEO;
  capabilities = MMAL_PORT_CAPABILITY_SUPPORTS_EVENT_FORMAT_CHANGE;
}

void Port::require(std::uint32_t num, std::uint32_t size, std::uint32_t sizeMin) {
  buffer_num_min = 1;
  buffer_num_recommended = num;
  buffer_size_min = sizeMin;
  buffer_size_recommended = size;
  buffer_alignment_min = 1;
}

bool Port::remove(Header& header) {
  for (HeaderList* list : {&pending, &finished, &withheld, &returning})
    if (list->remove(header)) return true;
  return false;
}

}  // namespace mmal
