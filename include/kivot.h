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
 * that exceeds one is refused with the decoder's status. The picture the
 * pipeline decodes into and encodes again counts against max_memory with
 * the decoder's frame buffers (-102 before it is allocated). */
KIVO_API int32_t kivot_set_limits(kivot_ctx *ctx, const kivod_limits *limits);
/* Transcodes the input into the output memory; stores the new stream's
 * size (trailing bytes of the source included) through written. */
KIVO_API int32_t kivot_txcode(kivot_ctx *ctx, const kivod_input *input, const kivoe_output *output,
                              int32_t *written);

/* ---- extensions ------------------------------------------------------------ */

/* How far the source that the handle's last transcoding call read decoded,
 * as kivod_get_progress tells of a decoder. A source that ends early
 * transcodes with status 0, as it decodes, the rows its data do not reach
 * mid-grey: complete 0 says so (a source whose data end inside a
 * progressive scan, or in a restart interval's last MCU before its marker,
 * fails with
 * KIVO_ERR_MALFORMED, as its decoding does). Returns 0, or -105 for a bad handle or a
 * null progress. */
KIVO_API int32_t kivot_get_progress(kivot_ctx *ctx, kivod_progress *progress);

/* The source's APPn segments that every output of the handle carries: all
 * (the default), none, or only the ICC profile (APP2 segments named
 * "ICC_PROFILE"). The segments that say how the samples are to be read,
 * JFIF's APP0 and Adobe's APP14, are always kept; the source's trailing
 * bytes (after its end of image) only with all. */
#define KIVOT_COPY_ALL 0
#define KIVOT_COPY_NONE 1
#define KIVOT_COPY_ICC 2
/* Returns 0, or -105 for a bad handle or an unknown choice. */
KIVO_API int32_t kivot_set_copy(kivot_ctx *ctx, int32_t copy);

/* Lossless re-encoding: the source's quantized coefficients coded again,
 * without any transform, with its quantization tables, APPn segments and
 * trailing bytes (as kivot_set_copy says): baseline with Huffman tables
 * optimised for them, or progressive. Decoding the output gives exactly the
 * source's pixels. Any sampling layout of one, three or four components is
 * taken, also one the decoder does not reconstruct (kivot_txcode then
 * refuses it, -103 or -211, and the smallest-of call leaves the pipeline
 * out). A source that
 * does not decode whole is refused with the decoder's status (or -202). */
#define KIVOT_LOSSLESS_BASELINE 0
#define KIVOT_LOSSLESS_PROGRESSIVE 1
KIVO_API int32_t kivot_txcode_lossless(kivot_ctx *ctx, const kivod_input *input, const kivoe_output *output,
                                       int32_t *written, int32_t coding);

/* The smallest of: kivot_txcode's output with the handle's settings, the
 * lossless re-encoding (progressive or baseline) and the source unchanged;
 * *chosen (when not null) says which. Never more bytes than the source,
 * except on a handle set to another size or colour format, whose outputs
 * are always kivot_txcode's (the others are not that picture). An output
 * memory too small for the chosen stream gives -105. */
#define KIVOT_CHOSEN_PIPELINE 1
#define KIVOT_CHOSEN_LOSSLESS 2     /* baseline */
#define KIVOT_CHOSEN_PROGRESSIVE 3  /* lossless, progressive */
#define KIVOT_CHOSEN_SOURCE 4
KIVO_API int32_t kivot_txcode_smallest(kivot_ctx *ctx, const kivod_input *input, const kivoe_output *output,
                                       int32_t *written, int32_t *chosen);
/* A short name of a KIVOT_CHOSEN_ value for reports ("pipeline",
 * "lossless", "progressive", "source"; "?" for others). */
KIVO_API const char *kivot_chosen_name(int32_t chosen);

#ifdef __cplusplus
}
#endif

#endif
