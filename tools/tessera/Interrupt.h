#ifndef TESSERA_TOOLS_INTERRUPT_H
#define TESSERA_TOOLS_INTERRUPT_H

namespace tool {

/// SIGINT, SIGTERM and SIGHUP end the input where it stands, so that what has been made of it is
/// finished and kept. A second one ends the process at once.
class Interrupt {
 public:
  /// Call once, at the start.
  static void install();

  /// The signal that came, 0 before.
  static int signal();

  /// Readable from then on; for poll().
  static int descriptor();
};

}  // namespace tool

#endif  // TESSERA_TOOLS_INTERRUPT_H
