#include "codec/cpu/JpegError.h"

namespace codec {

namespace {

JpegError* errorOf(j_common_ptr cinfo) {
  // The manager is the first member of a standard-layout struct.
  return reinterpret_cast<JpegError*>(cinfo->err);
}

void onError(j_common_ptr cinfo) {
  JpegError* error = errorOf(cinfo);
  error->manager.format_message(cinfo, error->text);
  std::longjmp(error->jump, 1);
}

void onMessage(j_common_ptr cinfo, int level) {
  JpegError* error = errorOf(cinfo);
  if (level >= 0) return;
  // The first warning is the cause, later ones follow from it.
  if (!error->warned) error->manager.format_message(cinfo, error->text);
  error->warned = true;
  ++error->manager.num_warnings;
}

void onOutput(j_common_ptr) {}

}  // namespace

jpeg_error_mgr* JpegError::install() {
  jpeg_std_error(&manager);
  manager.error_exit = onError;
  manager.emit_message = onMessage;
  manager.output_message = onOutput;
  reset();
  return &manager;
}

void JpegError::reset() {
  warned = false;
  text[0] = '\0';
  manager.num_warnings = 0;
}

void JpegError::fail(j_common_ptr cinfo, const char* why) {
  JpegError* error = errorOf(cinfo);
  std::snprintf(error->text, sizeof error->text, "%s", why);
  std::longjmp(error->jump, 1);
}

}  // namespace codec
