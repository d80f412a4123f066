#ifndef TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGERROR_H
#define TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGERROR_H

#include <csetjmp>
#include <cstddef>
#include <cstdio>
// jpeglib.h takes size_t and FILE for granted.
#include <jpeglib.h>

namespace codec {

/// libjpeg's error manager, silent, with a way out of its calls by longjmp. The jump is only ever
/// taken across libjpeg's frames and functions without C++ objects to destroy:
///
///   if (setjmp(errors.jump) != 0) return false;  // errors.text tells
///   jpeg_...(&cinfo);
///
/// Must be the object that cinfo.err points to (install()).
struct JpegError {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
  char text[JMSG_LENGTH_MAX];
  /// Warnings seen since the last reset: the data was damaged, the library went on.
  bool warned;

  jpeg_error_mgr* install();
  void reset();

  /// Leaves libjpeg from one of its callbacks.
  [[noreturn]] static void fail(j_common_ptr cinfo, const char* why);
};

}  // namespace codec

#endif  // TESSERA_PLATFORM_SRC_CODEC_CPU_JPEGERROR_H
