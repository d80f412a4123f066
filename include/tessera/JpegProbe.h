#ifndef TESSERA_JPEGPROBE_H
#define TESSERA_JPEGPROBE_H

/// @file
/// A JPEG picture's size from its header.

#include <tessera/Export.h>

/// Reads the size of a JPEG picture from its header, without decoding anything.
///
/// Walks over the segments (Exif, tables, comments, however many) to the first baseline frame
/// header (SOF0). Other kinds of frame are not recognised: a progressive picture, an extended,
/// lossless or arithmetic-coded one gives false, and so does a picture with fill bytes between its
/// segments. The first two bytes are not looked at.
///
/// @param width,height  receive the size, each 0 to 65,535, when the result is true; else both keep
///                      what they held. A height of 0 means that the file gives it later
/// @param data          the compressed picture; only read, never beyond `size`
/// @param size          its length in bytes; up to 9 the result is false
/// @return whether a baseline frame header was found. False says nothing about whether the picture
///         decodes: `DecoderPool::DecodeJpeg` takes progressive ones when it is told their size
TESSERA_API bool GetJpegWidthAndHeight(int& width, int& height, char* data, unsigned int size);

#endif  // TESSERA_JPEGPROBE_H
