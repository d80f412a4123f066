#ifndef TESSERA_TESTS_SUPPORT_CAPTURE_H
#define TESSERA_TESTS_SUPPORT_CAPTURE_H

#include <string>

namespace support {

/// Takes standard output and standard error of the process away for as long as it lives, at the
/// level of the descriptors, so that C streams, C++ streams and other threads are all seen.
class Capture {
 public:
  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  /// What was printed so far.
  std::string out();
  std::string err();

 private:
  struct Stream {
    int target;
    int saved;
    int file;
  };
  static Stream redirect(int target);
  static void restore(const Stream& stream);

  Stream out_;
  Stream err_;
};

/// How many there are in a folder.
int entries(const char* folder);
/// All that a file holds.
std::string contents(int file);
/// What the process has printed, first on standard output and then on standard error, where these
/// are files.
std::string printedText();

}  // namespace support

#endif  // TESSERA_TESTS_SUPPORT_CAPTURE_H
