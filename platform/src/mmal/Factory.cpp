#include "mmal/Factory.h"

#include <cstring>
#include <new>
#include <system_error>

#include "mmal/ImageEncode.h"
#include "mmal/VideoDecode.h"
#include "mmal/VideoEncode.h"

namespace mmal {

namespace {

struct Maker {
  const char* name;
  std::unique_ptr<Component> (*make)();
};

template <typename Derived>
std::unique_ptr<Component> make() {
  return std::make_unique<Derived>();
}

constexpr Maker makers[] = {
    {ImageEncode::publishedName, make<ImageEncode>},
    {VideoEncode::publishedName, make<VideoEncode>},
    {VideoDecode::publishedName, make<VideoDecode>},
};

}  // namespace

MMAL_STATUS_T makeComponent(const char* name, Component*& component) try {
  for (const Maker& maker : makers) {
    if (std::strcmp(maker.name, name) != 0) continue;
    std::unique_ptr<Component> made = maker.make();
    made->start();
    component = made.release();
    return MMAL_SUCCESS;
  }
  return MMAL_ENOSYS;
} catch (const std::bad_alloc&) {
  return MMAL_ENOMEM;
} catch (const std::system_error&) {
  return MMAL_ENOMEM;
}

}  // namespace mmal
