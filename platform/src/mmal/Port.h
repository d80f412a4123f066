#ifndef TESSERA_PLATFORM_SRC_MMAL_PORT_H
#define TESSERA_PLATFORM_SRC_MMAL_PORT_H

#include <string>

#include "interface/mmal/mmal_port.h"
#include "mmal/Format.h"
#include "mmal/Header.h"

namespace mmal {

class Component;
class Wrapper;

/// A port and the buffers it holds. Everything in it is guarded by its component's lock; the
/// component does the work.
class Port final : public MMAL_PORT_T {
 public:
  Port(Component& owner, MMAL_PORT_TYPE_T type, std::uint16_t index, std::uint16_t indexAll,
       std::string name);
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;

  Component& owner() const { return owner_; }
  bool isInput() const { return type == MMAL_PORT_TYPE_INPUT; }
  bool isOutput() const { return type == MMAL_PORT_TYPE_OUTPUT; }
  /// Buffers may be worked on: enabled, and not about to go back.
  bool open() const { return is_enabled != 0 && !recalled(); }
  /// Takes a header out of whichever list it is in. @return false when it is in none
  bool remove(Header& header);
  /// The client waits for all its buffers.
  bool recalled() const { return recalls != recallsServed; }
  void require(std::uint32_t num, std::uint32_t size, std::uint32_t sizeMin);

  Format committed;  ///< what the codec works with; `format` is the client's to scribble on
  MMAL_PORT_BH_CB_T callback = nullptr;
  Wrapper* wrapper = nullptr;  ///< whose port this is, if any

  HeaderList pending;    ///< sent by the client, oldest first
  HeaderList finished;   ///< callback is due later
  HeaderList withheld;   ///< callback is held back by a fault
  HeaderList returning;  ///< on their way back unused

  // How often the client has asked for all its buffers, and how often it has got them.
  unsigned recalls = 0;
  unsigned recallsServed = 0;

 private:
  Component& owner_;
  std::string name_;
  Format format_;
};

inline Port& portOf(MMAL_PORT_T* port) {
  return *static_cast<Port*>(port);
}

}  // namespace mmal

#endif  // TESSERA_PLATFORM_SRC_MMAL_PORT_H
