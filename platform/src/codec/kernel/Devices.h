#ifndef TESSERA_PLATFORM_SRC_CODEC_KERNEL_DEVICES_H
#define TESSERA_PLATFORM_SRC_CODEC_KERNEL_DEVICES_H

#include <cstdint>
#include <string>
#include <vector>

namespace codec::kernel {

/// A video node of this system, as it answered.
struct Node {
  std::string path;
  std::string card;
  std::string driver;
  std::string passedOver;          ///< why it is of no use, empty for one that is
  std::vector<std::uint32_t> in;   ///< formats that it takes
  std::vector<std::uint32_t> out;  ///< formats that it gives
};

/// All video nodes, in the order of their numbers. Cameras and the like are opened once only.
std::vector<Node> nodes();

/// What is to be coded.
struct Work {
  bool encode = false;
  std::vector<std::uint32_t> coded;  ///< formats that will do, the best first
  unsigned width = 0;                ///< 0: not known
  unsigned height = 0;
};

/// A device for a piece of work.
struct Offer {
  std::string path;
  std::uint32_t coded = 0;
  unsigned width = 0;  ///< of the largest picture, 0 where the device does not tell
  unsigned height = 0;
};

/// Devices that can do it, found by what they say they can. `reasons` gets a line for every node
/// that cannot.
std::vector<Offer> offersFor(const Work& work, std::vector<std::string>& reasons);

}  // namespace codec::kernel

#endif  // TESSERA_PLATFORM_SRC_CODEC_KERNEL_DEVICES_H
