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
    int32_t copy;  // KIVOT_COPY_*: the source's APPn segments the outputs carry
    kivoe_coef_store coef_store;  // the lossless codings' memory, kept between calls
};

extern "C" {
KIVO_API int32_t kivot_set_ppi(kivot_ctx *ctx);
KIVO_API int32_t kivot_platform_init(kivot_ctx *ctx);
KIVO_API void kivot_platform_deinit(kivot_ctx *ctx);
KIVO_API int32_t kivot_ready(kivot_ctx *ctx);
KIVO_API void kivot_flush(kivot_ctx *ctx);
}
int32_t kivot_trc(kivot_ctx *ctx, const kivod_input *in, const kivoe_output *out, int32_t *written);
// kivot_trc in two steps: the source decoded and the new tables chosen
// (the decoded picture in ctx->pic), then the picture encoded.
int32_t kivot_trc_decode(kivot_ctx *ctx, const kivod_input *in);
// What the output carries of the source: its APPn list (before the copy
// setting's choice) and the bytes after its end of image. Null: the
// decoder's, from the source it decoded last.
struct kivot_extras {
    kivod_app_node *apps;
    const uint8_t *trailer;
    size_t trailer_size;
};
int32_t kivot_trc_encode(kivot_ctx *ctx, const kivoe_output *out, int32_t *written,
                         const kivot_extras *extras = nullptr);
// Instead of kivot_trc_decode, for a source whose levels kivod_dec_levels
// read: the picture made from them, without decoding the source again, and
// the new tables chosen.
int32_t kivot_trc_from_levels(kivot_ctx *ctx, int16_t *const coef[4], const uint16_t *const q[4]);
// The new tables from the decoder's statistics and mean level and the
// source's tables: kivot_trc_decode's last step, also valid after
// kivod_dec_levels of a sequential source, which gathers the same.
void kivot_choose_tables(kivot_ctx *ctx);
// True when the tables kivot_trc_decode chose differ from the source's for
// some component (with the same tables the pipeline only adds loss).
bool kivot_tables_changed(const kivot_ctx *ctx);

// True when the copy setting keeps an APPn segment (marker 0xE0..0xEF,
// size bytes of data).
bool kivot_keeps_app(int32_t copy, uint32_t marker, const uint8_t *data, uint32_t size);

// The APPn segments of list that the copy setting keeps: the list itself,
// or nodes linked anew in storage the view owns.
struct kivot_app_view {
    kivod_app_node *head = nullptr;
    kivod_app_node *nodes = nullptr;
    kivot_app_view() = default;
    kivot_app_view(const kivot_app_view &) = delete;
    kivot_app_view &operator=(const kivot_app_view &) = delete;
    ~kivot_app_view();
    // 0, or -102 when the nodes cannot be had.
    int32_t select(int32_t copy, kivod_app_node *list);
};

// The bytes after the source's end of image (found from the decoder's scan
// reader): in the caller's memory, or read from a file into storage the
// record owns.
struct kivot_trailer {
    const uint8_t *data = nullptr;
    size_t size = 0;
    uint8_t *owned = nullptr;
    kivot_trailer() = default;
    kivot_trailer(const kivot_trailer &) = delete;
    kivot_trailer &operator=(const kivot_trailer &) = delete;
    ~kivot_trailer();
    // Nothing under the icc and none copy choices: the trailing bytes go
    // with the metadata. 0, -102 or -109.
    int32_t take(kivod_ctx *dec, int32_t copy);
};

// Lossless re-encoding (lossless.cpp). kivot_read_levels decodes the
// source's levels into the decoder and describes them in pic (APPn list and
// trailer are the caller's to set; pic's size is set as soon as the headers
// are read, even when the levels then fail); kivot_write_levels codes them into
// dst (with the coder's memory from store): 0, or -105 when cap bytes do not
// hold the stream. `statistics`: whether the decoder gathers the statistics
// that choose the pipeline's tables.
int32_t kivot_read_levels(kivot_ctx *ctx, const kivod_input *in, kivoe_coef_pic *pic, bool statistics);
int32_t kivot_write_levels(const kivoe_coef_pic *pic, int32_t coding, uint8_t *dst, int32_t cap, int32_t *written,
                           kivoe_coef_store *store);
// Weights that raise the source's table shape, per frequency (raster order).
extern const int16_t tbl_trc_weight[2][64];

#endif
