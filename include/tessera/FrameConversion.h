#ifndef TESSERA_FRAMECONVERSION_H
#define TESSERA_FRAMECONVERSION_H

#include <tessera/Export.h>

/// @file
/// Frame copies and conversions. Free-standing: they need no codec object and no platform, allocate
/// nothing, block on nothing, print nothing and cannot fail. Any number of threads may call them at
/// once on different destinations. Source and destination must not overlap; neither needs any
/// alignment. Which vector instructions carry them is decided once, when the library is loaded.
///
/// **Packed 4:2:2 ('YUYV').** Two neighbouring pixels share a group of four bytes: luma of the even
/// pixel, U, luma of the odd pixel, V. A row of `CopyYVYU`'s source has `ceil(width / 2)` groups,
/// and rows follow one another without padding.
///
/// **Padded I420**, what the H.264 encoders take. With S = width rounded up to a multiple of 32 and
/// H = height rounded up to a multiple of 16:
///
///     plane   offset             stride   rows
///     Y       0                  S        H
///     U       S * H              S / 2    H / 2
///     V       S * H * 5 / 4      S / 2    H / 2
///
/// `S * H * 3 / 2` bytes together. 1920 x 1080: S = 1920, H = 1088, U at 2,088,960, V at 2,611,200,
/// 3,133,440 bytes.
///
/// **NV12** here has no padding: `height` luma rows of `width` bytes, then one chroma row of
/// `width` bytes (U and V in turn, U first) for every two picture rows.
///
/// Chroma of 4:2:0 is taken from the even rows (0, 2, 4, ...) as it stands; the chroma of odd rows
/// is dropped. Nothing is averaged, so a copy of a copy loses nothing more.

/// Lays a packed 4:2:2 picture out as padded I420.
///
/// Bytes of the destination that belong to no pixel (padding columns, rows below the picture) keep
/// what they held. With an odd width the last group of each row still gives two luma bytes, the
/// second of them into the padding, and chroma rows hold `(width + 1) / 2` samples.
///
/// Clipped at both ends: a source that ends early gives as many whole groups as it holds, a
/// destination below the padded size gets every byte whose place lies inside it. Neither buffer is
/// touched beyond its size, whatever the width and height say.
///
/// @param source      rows of `ceil(width / 2) * 4` bytes; only read. May be null if `sourceSize`
///                    is 0
/// @param sourceSize  its length in bytes
/// @param width       in pixels; 0: nothing is read or written
/// @param height      in rows; 0: nothing is read or written
/// @param destination where the planes go; stays the caller's
/// @param capacity    bytes at `destination`
/// @param outSize     always receives `capacity`: the length to declare for the encoder's buffer,
///                    not the bytes written. To learn whether all of the picture arrived, compare
///                    the sizes with the formulas above before the call
TESSERA_API void CopyYVYU(unsigned char* source, unsigned int sourceSize, unsigned int width,
                          unsigned int height, unsigned char* destination, unsigned int capacity,
                          unsigned int& outSize);

/// Copies a picture that is already laid out as its reader wants it (for the encoders: padded
/// I420). Same signature as `CopyYVYU`, so that an encoder can hold either behind one pointer.
///
/// @param source      the picture; only read. May be null if `sourceSize` is 0
/// @param sourceSize  its length in bytes
/// @param width,height  not read
/// @param destination where the bytes go; stays the caller's
/// @param capacity    bytes at `destination`
/// @param outSize     receives the bytes copied: the smaller of `sourceSize` and `capacity`
TESSERA_API void CopyI420(unsigned char* source, unsigned int sourceSize, unsigned int width,
                          unsigned int height, unsigned char* destination, unsigned int capacity,
                          unsigned int& outSize);

/// Converts a packed 4:2:2 picture to NV12.
///
/// Unlike `CopyYVYU` a row of the source is exactly `2 * width` bytes, also for an odd width, and
/// each NV12 row is exactly `width` bytes: an odd width splits a group at the end of every row, so
/// choose an even one where colours matter. With an odd height the last row gives luma only; the
/// chroma plane then has `height / 2` rows, rounded down.
///
/// @param source       `2 * width * height` bytes; only read
/// @param destination  at least `width * height` + `width * (height / 2)` bytes, the division
///                     rounded down: there is no capacity to check against. Exactly these bytes are
///                     written
/// @param width        in pixels; below 1 the call does nothing and touches neither buffer
/// @param height       in rows; below 1 likewise
TESSERA_API void YUYVToNV12(void const* source, void* destination, int width, int height);

#endif  // TESSERA_FRAMECONVERSION_H
