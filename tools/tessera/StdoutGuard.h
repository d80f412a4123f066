#ifndef TESSERA_TOOLS_STDOUTGUARD_H
#define TESSERA_TOOLS_STDOUTGUARD_H

namespace tool {

/// Keeps standard output for data alone: from install() on, descriptor 1 leads to standard error,
/// so that the lines which the library prints end up there, and the real standard output is known
/// to this class only.
class StdoutGuard {
 public:
  /// Call once, before any other thread exists. Also opens /dev/null for any of the three standard
  /// descriptors that the caller closed, so that no file opened later gets its number.
  static void install();

  /// Descriptor of the real standard output.
  static int descriptor();
};

}  // namespace tool

#endif  // TESSERA_TOOLS_STDOUTGUARD_H
