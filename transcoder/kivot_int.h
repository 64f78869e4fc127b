// Transcoder records: the handle owns one decoder and one encoder.
#ifndef KIVO_TRANSCODER_INT_H
#define KIVO_TRANSCODER_INT_H

#include "decoder/kivod_int.h"
#include "encoder/kivoe_int.h"
#include "kivot.h"

struct kivot_ctx;

struct kivot_proc {
    int32_t (*ready)(kivot_ctx *ctx);
    int32_t (*trc)(kivot_ctx *ctx, const kivod_input *in, const kivoe_output *out, int32_t *written);
    void (*flush)(kivot_ctx *ctx);
};

struct kivot_ctx {
    uint32_t magic;
    void *self;
    kivo::Kind kind;
    kivoe_ctx *enc;
    kivod_ctx *dec;
    int32_t width;
    int32_t height;
    int32_t color_format;
    int32_t quality;
    int32_t opt_huffman;
    int32_t jnd_filter;
    int32_t adaptive_rounding;
    int32_t jnd_suppress;
    int32_t skip_encode;
    int32_t platform;
    int32_t nthreads;
    kivo_picbuf_param pic_req;
    kivo_picbuf *pic;
    kivot_proc proc;
    int32_t reserved;
};

extern "C" {
KIVO_API int32_t kivot_set_ppi(kivot_ctx *ctx);
KIVO_API int32_t kivot_platform_init(kivot_ctx *ctx);
KIVO_API void kivot_platform_deinit(kivot_ctx *ctx);
KIVO_API int32_t kivot_ready(kivot_ctx *ctx);
KIVO_API void kivot_flush(kivot_ctx *ctx);
}
int32_t kivot_trc(kivot_ctx *ctx, const kivod_input *in, const kivoe_output *out, int32_t *written);
// Weights that raise the source's table shape, per frequency (raster order).
extern const int16_t tbl_trc_weight[2][64];

#endif
