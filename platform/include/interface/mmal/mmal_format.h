#ifndef MMAL_FORMAT_H
#define MMAL_FORMAT_H

#include "interface/mmal/mmal_encodings.h"
#include "interface/mmal/mmal_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/// Kind of an elementary stream.
typedef enum {
  MMAL_ES_TYPE_UNKNOWN = 0,
  MMAL_ES_TYPE_CONTROL = 1,
  MMAL_ES_TYPE_AUDIO = 2,
  MMAL_ES_TYPE_VIDEO = 3,
  MMAL_ES_TYPE_SUBPICTURE = 4
} MMAL_ES_TYPE_T;

/// Video and still pictures. width and height are the padded size that rows and planes are laid
/// out in (the stride in pixels and the slice height); crop is the picture within it. An empty
/// crop stands for the whole.
typedef struct {
  uint32_t width;
  uint32_t height;
  MMAL_RECT_T crop;
  MMAL_RATIONAL_T frame_rate;  ///< frames a second; 0/1 when unknown
  MMAL_RATIONAL_T par;         ///< pixel aspect ratio; 0/0 counts as 1/1
  MMAL_FOURCC_T color_space;
} MMAL_VIDEO_FORMAT_T;

typedef struct MMAL_AUDIO_FORMAT_T {
  uint32_t channels;
  uint32_t sample_rate;
  uint32_t bits_per_sample;
  uint32_t block_align;
} MMAL_AUDIO_FORMAT_T;

typedef struct {
  uint32_t x_offset;
  uint32_t y_offset;
} MMAL_SUBPICTURE_FORMAT_T;

typedef union {
  MMAL_AUDIO_FORMAT_T audio;
  MMAL_VIDEO_FORMAT_T video;
  MMAL_SUBPICTURE_FORMAT_T subpicture;
} MMAL_ES_SPECIFIC_FORMAT_T;

/// Every buffer of the stream ends where a frame ends, or says so with its frame flags.
#define MMAL_ES_FORMAT_FLAG_FRAMED 0x1

/// An elementary stream's format. `es` and the memory of `extradata` belong to the format.
typedef struct MMAL_ES_FORMAT_T {
  MMAL_ES_TYPE_T type;
  MMAL_FOURCC_T encoding;
  MMAL_FOURCC_T encoding_variant;
  MMAL_ES_SPECIFIC_FORMAT_T* es;
  uint32_t bitrate;  ///< bits a second; 0 when unknown
  uint32_t flags;    ///< MMAL_ES_FORMAT_FLAG_*
  uint32_t extradata_size;
  uint8_t* extradata;  ///< codec data: the parameter sets of H.264
} MMAL_ES_FORMAT_T;

/// A new empty format, or null when there is no memory. Free it with mmal_format_free().
MMAL_API MMAL_ES_FORMAT_T* mmal_format_alloc(void);

/// Frees a format made by mmal_format_alloc(), extradata included. Null is allowed. Not for the
/// format of a port.
MMAL_API void mmal_format_free(MMAL_ES_FORMAT_T* format);

/// Makes room for at least `size` bytes of extradata; extradata_size stays for the caller to set.
/// @return MMAL_ENOMEM without memory (the format keeps what it had)
MMAL_API MMAL_STATUS_T mmal_format_extradata_alloc(MMAL_ES_FORMAT_T* format, unsigned int size);

/// Copies everything but the extradata: the destination's size of it becomes 0.
MMAL_API void mmal_format_copy(MMAL_ES_FORMAT_T* destination, MMAL_ES_FORMAT_T* source);

/// Copies everything, extradata included.
/// @return MMAL_ENOMEM when there is no memory for the extradata
MMAL_API MMAL_STATUS_T mmal_format_full_copy(MMAL_ES_FORMAT_T* destination,
                                             MMAL_ES_FORMAT_T* source);

#ifdef __cplusplus
}
#endif

#endif  // MMAL_FORMAT_H
