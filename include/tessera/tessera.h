#ifndef TESSERA_TESSERA_H
#define TESSERA_TESSERA_H

/// Everything that libtessera.so offers:
/// - JPEG to planar 4:2:0: DecoderPool, from GetDecoderPool (OpenMAX IL).
/// - Raw frames to JPEG: IJPEGEncoder, from CreateEncoderJPEG (CMmalJpegEncoder, MMAL) or the
///   constructor of COmxJpegEncoder (OpenMAX IL).
/// - Raw video to H.264: IH264Encoder, from CreateEncoderH264 (CMmalH264Encoder, MMAL) or the
///   constructor of COmxH264Encoder (OpenMAX IL).
/// - H.264 to planar 4:2:0: IH264Decoder, from CreateH264Decoder (CMmalH264Decoder, MMAL).
///
/// Objects are independent of one another. The library starts no threads, reads no files and has no
/// configuration; its diagnostics are lines of text on standard output and standard error.
///
/// All names are global. Beside the classes and the eight functions that make and release objects:
/// CopyYVYU, CopyI420, YUYVToNV12, GetJpegWidthAndHeight, EventHandler, videodeccallbacks,
/// OmxErrorDescription, PrintOmxError, printState, DumpPortDefs, MMALEncoderCallback,
/// InputCallback, OutputCallback, InputDecH264Callback, OutputDecH264Callback, OmxEventsHandler,
/// OmxEmptyInputBufferHandler, OmxFillOutputBufferHandler, OmxH264EventsHandler,
/// OmxH264EmptyInputBufferHandler and OmxH264FillOutputBufferHandler. An application that has
/// functions of its own by these names includes the headers that it needs instead of this one: the
/// library calls its own in any case.

#include <tessera/CMmalH264Decoder.h>
#include <tessera/CMmalH264Encoder.h>
#include <tessera/CMmalJpegEncoder.h>
#include <tessera/COmxH264Encoder.h>
#include <tessera/COmxJpegEncoder.h>
#include <tessera/CodecStatus.h>
#include <tessera/DecoderPool.h>
#include <tessera/Diagnostics.h>
#include <tessera/FrameConversion.h>
#include <tessera/IH264Decoder.h>
#include <tessera/IH264Encoder.h>
#include <tessera/IJPEGEncoder.h>
#include <tessera/JpegProbe.h>

#endif  // TESSERA_TESSERA_H
