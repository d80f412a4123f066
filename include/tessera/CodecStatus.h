#ifndef TESSERA_CODECSTATUS_H
#define TESSERA_CODECSTATUS_H

/// @file
/// The results of the H.264 operations.

/// Result of the H.264 `ProcessInput` and `ProcessOutput` operations. The values are part of the
/// binary interface and are the same in all three H.264 classes.
///
/// What has become of the data, and what to do next, depends on the operation and the class: the
/// table is in docs/errors-and-limits.md. `tessera::StatusText()` of Basics.h has a text for each.
enum CodecStatus : int {
  CodecOk = 0,                    ///< Done.
  CodecNoBuffer = -1,             ///< No platform buffer was free, or none was finished.
  CodecSendFailed = 0x1000,       ///< The platform refused a buffer that was handed to it.
  CodecInvalidArgument = 0x1002,  ///< A required pointer or size is missing.
  CodecInvalidState = 0x1003,     ///< No component, queue or buffer: `Create` not done or failed.
  CodecWaitFailed = 0x1004,       ///< Reading the clock or waiting on a semaphore failed.
  CodecTimeout = 0x1005,          ///< The platform did not answer within the time limit.
  CodecBufferTooSmall = 0x1006,   ///< The caller's buffer is too small; the size needed is set.
  CodecStreamMismatch = 0x1009,   ///< Decoder input of another size than given to `Create`.
};

#endif  // TESSERA_CODECSTATUS_H
