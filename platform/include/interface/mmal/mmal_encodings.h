#ifndef MMAL_ENCODINGS_H
#define MMAL_ENCODINGS_H

#include "interface/mmal/mmal_common.h"

#define MMAL_ENCODING_UNKNOWN 0
#define MMAL_ENCODING_VARIANT_DEFAULT 0

// Compressed.
#define MMAL_ENCODING_H264 MMAL_FOURCC('H', '2', '6', '4')
#define MMAL_ENCODING_JPEG MMAL_FOURCC('J', 'P', 'E', 'G')

// Planar 4:2:0: all of Y, then U, then V at half the luma stride and half the luma rows.
#define MMAL_ENCODING_I420 MMAL_FOURCC('I', '4', '2', '0')

// Packed, named by their bytes in memory: a pixel pair is Y0 U Y1 V, a pixel R G B or R G B A.
#define MMAL_ENCODING_YUYV MMAL_FOURCC('Y', 'U', 'Y', 'V')
#define MMAL_ENCODING_RGB24 MMAL_FOURCC('R', 'G', 'B', '3')
#define MMAL_ENCODING_RGBA MMAL_FOURCC('R', 'G', 'B', 'A')
// 16-bit little-endian words, red in bits 15..11, green in 10..5, blue in 4..0.
#define MMAL_ENCODING_RGB16 MMAL_FOURCC('R', 'G', 'B', '2')

// Encoding variants of H.264 streams: Annex B start codes (the default) or avcC length fields.
#define MMAL_ENCODING_VARIANT_H264_DEFAULT 0
#define MMAL_ENCODING_VARIANT_H264_AVC1 MMAL_FOURCC('A', 'V', 'C', '1')

#endif  // MMAL_ENCODINGS_H
