/* libkivo encoder: baseline or progressive JPEG from planar pictures
 * (formats 10, 11, 12, 13, 18, 22 and 40 to 44; the interleaved NV12, NV21
 * and YUYV feed the perceptual table choice only), with quality, caller or
 * perceptual quantization tables, JND filtering and suppression, adaptive
 * rounding, optimised Huffman tables and segments encoded on lent threads. */
#ifndef KIVOE_H
#define KIVOE_H

#include "kivod.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kivoe_ctx kivoe_ctx;

typedef struct kivoe_create_param {
    int32_t platform;      /* must be 1 */
    int32_t width;         /* replaced by every pushed picture */
    int32_t height;
    int32_t quality;       /* 0 to 100; 0 selects the default (as 90) */
    int32_t color_format;  /* replaced by every pushed picture */
    kivo_tpool *tpool;     /* worker threads, or null for the calling thread only */
} kivoe_create_param;

/* The output record has the decoder input's shape; only bitb is used: its
 * addr and ssize give the memory that receives the stream. */
typedef kivod_input kivoe_output;

/* Configuration identifiers: value points at the setting, size at its size. */
#define KIVOE_CFG_JND_FILTER 21000        /* 4 bytes, flag */
#define KIVOE_CFG_OPT_HUFFMAN 21001       /* 4 bytes, flag: tables from the symbol counts of
                                             every picture the handle has encoded with it, this
                                             one included (a new handle: this picture's alone) */
#define KIVOE_CFG_JND_SUPPRESS 21002      /* 4 bytes, flag */
#define KIVOE_CFG_ADAPTIVE_ROUNDING 21003 /* 4 bytes, flag */
#define KIVOE_CFG_QUALITY 21005           /* 4 bytes, 0 to 100 */
#define KIVOE_CFG_QTBL 21006              /* 128 bytes: luma then chroma quantizers, raster order */

KIVO_API kivoe_ctx *kivoe_create(const kivoe_create_param *param, int32_t *status);
KIVO_API void kivoe_delete(kivoe_ctx *ctx);
KIVO_API int32_t kivoe_config(kivoe_ctx *ctx, int32_t id, const void *value, const int32_t *size);
/* Progressive output (on: 1) or baseline (0, the default) for the next
 * encodes; other values are refused (-105) and change nothing. A
 * progressive stream has the levels of the baseline one of the same
 * settings on eight threads (so its pixels), coded in ten scans (three components;
 * six for grey, eighteen for four) with Huffman tables optimised per scan,
 * whatever KIVOE_CFG_OPT_HUFFMAN says, and no restart markers; it is
 * usually a few percent smaller. It costs memory for every level of the
 * picture: 128 bytes per 8x8 block (3 bytes a pixel in 4:2:0, 6 in 4:4:4),
 * at most 1 GiB, beyond which kivoe_encode returns KIVO_ERR_OUT_OF_MEMORY
 * (-102); and a second walk over the levels per scan. Format 40 has no
 * progressive form (-103 at kivoe_encode). Threads still share the
 * transform and quantization, and any thread count gives the same stream. */
KIVO_API int32_t kivoe_set_progressive(kivoe_ctx *ctx, int32_t on);
/* Takes the next picture; planes are used in place when stride[0] and
 * lines[0] are multiples of 16, stride[1] equals stride[2] (separate chroma
 * planes) and stride[3] equals stride[0] (four planes); the buffer must then
 * stay unchanged until kivoe_encode returns. Other buffers are copied.
 * NV12, NV21 and YUYV pictures are taken for kivoe_get_qtbl, and
 * kivoe_encode refuses them (KIVO_ERR_COLOR_FORMAT). Every plane of the colour format
 * must hold its samples: a line distance below the plane's width in bytes
 * (negative ones included) or fewer lines than its height gives
 * KIVO_ERR_IMGB. A refused push changes nothing. */
KIVO_API int32_t kivoe_push(kivoe_ctx *ctx, xelo_imgb *imgb);
/* Encodes the pushed picture (none: KIVO_ERR_UNAVAILABLE); stores the
 * stream's size through written (null: KIVO_ERR_INVALID_ARG, and the
 * picture stays pushed). No size short of the worst case always holds the
 * stream (noise at quality 100 may pass 6 bytes a sample): 420 bytes for
 * every block of whole MCUs, plus the headers, always do. Output
 * memory too small for the stream gives KIVO_ERR_INVALID_ARG with nothing
 * written past its end; like every encode that gets past its argument checks, it uses up the picture (in-place planes need only live
 * until the call returns), so push it again before encoding into more
 * memory. */
KIVO_API int32_t kivoe_encode(kivoe_ctx *ctx, const kivoe_output *out, int32_t *written);
/* Chooses and installs quantization tables from the pushed picture, sampled
 * at level (each analysis sample stands for 2^level x 2^level samples);
 * returns them in the form KIVOE_CFG_QTBL takes. A picture without chroma
 * keeps its chroma table. A negative level gives KIVO_ERR_INVALID_ARG; no
 * pushed picture, a level above 12, or a luma (or present chroma) plane
 * without a whole 8 x 8 block of analysis samples gives KIVO_ERR_UNAVAILABLE
 * and changes no table. The picture stays pushed. */
KIVO_API int32_t kivoe_get_qtbl(kivoe_ctx *ctx, int32_t level, uint8_t table[128]);

/* Perceptual quantization table from a base quantizer and per-frequency
 * statistics (raster order; entry 0 not read). */
KIVO_API void kivo_gen_qtbl(int16_t *q_out, uint16_t *recip_out, uint16_t *half_out,
                            const uint32_t *coef_stat, int32_t base_scale);

KIVO_API extern const uint8_t tbl_thr[256];
KIVO_API extern const int16_t tbl_inv_mtf[64];
KIVO_API extern const uint8_t kivo_tbl_suppr_thr[512];
KIVO_API extern const uint8_t tbl_pblur_coeff[5];
KIVO_API extern const uint8_t tbl_pblur_max[256];
KIVO_API extern const uint8_t tbl_pblur_min[256];

#ifdef __cplusplus
}
#endif

#endif
