#ifndef TESSERA_PLATFORM_CODECS_H
#define TESSERA_PLATFORM_CODECS_H

/// What the software platform codes with: the CPU, or the kernel's memory-to-memory devices.
/// TESSERA_CODECS in the environment decides: "auto" (also when it is not set), "cpu", "kernel".

#ifdef __cplusplus
extern "C" {
#endif

/// Looks at the devices of this system, which takes some milliseconds.
/// @return JSON in UTF-8, for the caller to free(); null when there is no memory:
///         "choice"    what TESSERA_CODECS says
///         "services"  for each of the four: "service", "coder" ("kernel", "cpu", "none"),
///                     "device", "largest" (width and height, 0 where the device does not tell),
///                     "passed_over" (a line for each device that is not taken)
///         "devices"   "path", "card", "driver", "takes", "gives" (formats), "controls",
///                     "not_taken" (settings of an encoder that the device lacks or refuses),
///                     "ten_bits" (whether it decodes H.264 of ten bits a sample, as eight),
///                     "passed_over" (why it is of no use at all, else empty)
__attribute__((visibility("default"))) char* tessera_platform_codecs(void);

#ifdef __cplusplus
}
#endif

#endif  // TESSERA_PLATFORM_CODECS_H
