/* libkivo transcoder: shrinks a JPEG stream by decoding it, choosing
 * quantization tables never finer than the source's, and encoding again,
 * keeping the source's APPn segments and the bytes after its end. */
#ifndef KIVOT_H
#define KIVOT_H

#include "kivoe.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kivot_ctx kivot_ctx;

#define KIVOT_CFG_GET_PICTURE 203          /* value: xelo_imgb *, size sizeof(void *) */
#define KIVOT_CFG_GET_QTBL 20500           /* value: 128 bytes (luma then chroma, raster order) */
#define KIVOT_CFG_JND_FILTER 21000         /* 4 bytes, flag */
#define KIVOT_CFG_OPT_HUFFMAN 21001        /* 4 bytes, flag */
#define KIVOT_CFG_JND_SUPPRESS 21002       /* 4 bytes, flag */
#define KIVOT_CFG_ADAPTIVE_ROUNDING 21003  /* 4 bytes, flag */
#define KIVOT_CFG_QUALITY 21005            /* 4 bytes, 0 to 100 (0: from the picture) */
#define KIVOT_CFG_SKIP_ENCODE 21007        /* 4 bytes, flag: decode only */
#define KIVOT_CFG_COLOR_FORMAT 21008       /* 4 bytes, output colour format (0: as decoded) */

/* param: platform 1; width and height of the output (0: as coded); quality
 * (0: chosen from the picture); colour format (0: as decoded); tpool. */
KIVO_API kivot_ctx *kivot_create(const kivoe_create_param *param, int32_t *status);
KIVO_API void kivot_delete(kivot_ctx *ctx);
KIVO_API int32_t kivot_config(kivot_ctx *ctx, int32_t id, void *value, const int32_t *size);
/* The limits of the transcoder's decoder (see kivod_set_limits); a source
 * that exceeds one is refused with the decoder's status. */
KIVO_API int32_t kivot_set_limits(kivot_ctx *ctx, const kivod_limits *limits);
/* Transcodes the input into the output memory; stores the new stream's
 * size (trailing bytes of the source included) through written. */
KIVO_API int32_t kivot_txcode(kivot_ctx *ctx, const kivod_input *input, const kivoe_output *output,
                              int32_t *written);

#ifdef __cplusplus
}
#endif

#endif
