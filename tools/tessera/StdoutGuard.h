#ifndef TESSERA_TOOLS_STDOUTGUARD_H
#define TESSERA_TOOLS_STDOUTGUARD_H

#include <cstdio>

namespace tool {

/// Keeps the three things apart that a process has two descriptors for: data, the tool's messages,
/// and the lines that the library prints. From install() on the first two have descriptors that
/// only this class knows; 1 and 2 take the library's lines, which are of interest where something
/// fails.
class StdoutGuard {
 public:
  /// Call once, before any other thread exists. Also opens /dev/null for any of the three standard
  /// descriptors that the caller closed, so that no file opened later gets its number.
  static void install();

  /// Descriptor of the real standard output; -1 where the caller closed it.
  static int descriptor();

  /// The real standard error.
  static std::FILE* messages();

  /// What the library printed is kept for later unless this says that it is wanted at once.
  static void setVerbose(bool verbose);

  /// Takes in what the library has printed. To be called now and then: the room for it is limited.
  static void collect();

  /// Shows what was kept (the end of it, where it is much), or drops it.
  static void showKept();
  static void dropKept();
};

}  // namespace tool

#endif  // TESSERA_TOOLS_STDOUTGUARD_H
