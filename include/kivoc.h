/* kivoc: colour conversion helpers beside the codec families.
 *
 * Planar YCbCr in an xelo_imgb (the layouts the decoder writes and the
 * encoder reads) to and from packed pixels in a caller buffer. The matrix is
 * JFIF's full-range BT.601 one in 14-bit fixed point (docs/colour.md gives
 * the exact integer arithmetic). The codecs never call these helpers. */
#ifndef KIVOC_H
#define KIVOC_H

#include <stddef.h>
#include <stdint.h>

#include "kivo.h"
#include "kivod.h"
#include "xelo.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Packed pixel formats. On input the alpha byte is ignored; on output it is
 * 255. Grey is one byte per pixel: the luma (Y) sample itself. */
#define KIVOC_RGB 1  /* R, G, B */
#define KIVOC_RGBA 2 /* R, G, B, A */
#define KIVOC_BGRA 3 /* B, G, R, A */
#define KIVOC_GREY 4 /* Y */

/* Flags of kivoc_to_packed. Chroma is upsampled by triangular (3/4, 1/4)
 * interpolation unless KIVOC_NEAREST asks for plain sample repetition. */
#define KIVOC_NEAREST 1u

/* Bytes per pixel of a packed format, or KIVO_ERR_COLOR_FORMAT. */
KIVO_API int32_t kivoc_pixel_size(int32_t format);

/* Converts the whole picture in src (width x height of its first plane;
 * colour formats XELO_CS_YCBCR400, 420, 422, 444, 440 and 411) to packed
 * pixels of dst_format. Row y starts at dst + y * dst_stride; dst_size is the
 * number of bytes the caller's buffer holds from dst.
 * With tpool (may be null) the rows are split over up to tpool->count
 * threads: workers are made for the call and released before it returns.
 * The result does not depend on the thread count or on the CPU features.
 * Returns 0; KIVO_ERR_INVALID_ARG for a null pointer, a missing plane or
 * unknown flags; KIVO_ERR_COLOR_FORMAT for a format not listed;
 * KIVO_ERR_IMGB when a plane's line distance or line count or the packed
 * buffer's line distance or size is too small for the picture;
 * KIVO_ERR_OUT_OF_MEMORY; KIVO_ERR_THREAD when the pool refuses a worker.
 * Nothing is written to dst before the arguments have been checked. */
KIVO_API int32_t kivoc_to_packed(const xelo_imgb *src, uint8_t *dst, int32_t dst_stride,
                                 size_t dst_size, int32_t dst_format, uint32_t flags,
                                 const kivo_tpool *tpool);

/* Decodes the picture whose headers kivod_decode read, in place of
 * kivod_clone, straight to packed pixels of dst_format: the same bytes as
 * kivod_clone into planes of the frame's layout followed by kivoc_to_packed
 * with the same flags, without the planes of the whole picture. The picture
 * is the frame's size, or ceil(width / d) x ceil(height / d) with the
 * handle's reduction d of 2, 4 or 8 (kivod_set_reduction). At full size
 * from memory input (or a file read whole) the picture is converted band by
 * band, each band of MCU rows as soon as the decoder has reconstructed it,
 * on the decoder's threads (a sequential frame whose first scan carries
 * every component, or a progressive frame); other pictures are decoded
 * whole and then converted. Threads: the handle's pool.
 * Returns kivod_clone's status; KIVO_ERR_INVALID_ARG for a null handle or
 * buffer or unknown flags; KIVO_ERR_UNAVAILABLE without a picture to decode;
 * KIVO_ERR_COLOR_FORMAT for a packed format not listed or a frame layout
 * kivoc_to_packed does not convert; KIVO_ERR_IMGB when the buffer's line
 * distance or size is too small. Nothing is decoded or written before the
 * arguments have been checked. Rows the data do not reach keep what the
 * buffer held when converted band by band and are mid-grey when the picture
 * is decoded whole; after a negative status other than these every row
 * holds unspecified pixels. */
KIVO_API int32_t kivoc_decode_packed(kivod_ctx *dec, uint8_t *dst, int32_t dst_stride, size_t dst_size,
                                     int32_t dst_format, uint32_t flags);

/* Converts packed pixels of src_format into the planes of dst, whose width,
 * height and colour format (XELO_CS_YCBCR400, 420, 422, 444, 440 or 411)
 * give the picture's size and layout. Chroma is reduced by averaging each
 * 2x2, 2x1, 1x2 or 4x1 group, rounded half up; at an odd right or bottom
 * edge the last column or row stands in for the missing one. Grey input
 * gives Cb = Cr = 128. Statuses as for kivoc_to_packed. */
KIVO_API int32_t kivoc_from_packed(const uint8_t *src, int32_t src_stride, size_t src_size,
                                   int32_t src_format, xelo_imgb *dst, const kivo_tpool *tpool);

#ifdef __cplusplus
}
#endif

#endif
