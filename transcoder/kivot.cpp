// The transcoder's handle: one decoder and one encoder, the settings, and
// the entry point.
#include <cstddef>
#include <cstring>

#include "transcoder/kivot_int.h"

// Row 0: tbl_inv_mtf / 4096 rounded down; row 1 by the frequency's zig-zag
// position p: 1 up to 3, 2 up to 9, 4 up to 14, 6 up to 60, 7 beyond.
const int16_t tbl_trc_weight[2][64] = {
    {
     1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
     1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 2,
     1, 1, 1, 1, 1, 2, 2, 2, 1, 1, 1, 1, 2, 2, 3, 4,
     1, 1, 1, 1, 2, 3, 4, 5, 1, 1, 1, 2, 2, 4, 5, 7,
    },
    {
     1, 1, 2, 2, 4, 6, 6, 6, 1, 2, 2, 4, 6, 6, 6, 6,
     1, 2, 4, 6, 6, 6, 6, 6, 2, 4, 6, 6, 6, 6, 6, 6,
     4, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6,
     6, 6, 6, 6, 6, 6, 6, 7, 6, 6, 6, 6, 6, 6, 7, 7,
    },
};

namespace {

kivot_ctx *checked(kivot_ctx *ctx) {
    return static_cast<kivot_ctx *>(kivo::handle_check(ctx, kivo::Kind::Transcoder));
}

void release_picture(kivot_ctx *t) {
    if (t->pic) kivo_picbuf_free(t->pic);
    t->pic = nullptr;
}

void destroy(kivot_ctx *t) {
    kivot_platform_deinit(t);
    kivoe_delete(t->enc);
    kivod_delete(t->dec);
    release_picture(t);
    kivoe_coef_store_free(&t->coef_store);
    xelo_mfree_align32(t);
}

int32_t read_int(const void *value, const int32_t *size, int32_t *out) {
    if (!value || !size || *size != 4) return KIVO_ERR_INVALID_ARG;
    std::memcpy(out, value, 4);
    return KIVO_OK;
}

}  // namespace

extern "C" {

KIVO_API int32_t kivot_set_ppi(kivot_ctx *ctx) {
    ctx->proc.ready = kivot_ready;
    ctx->proc.trc = kivot_trc;
    ctx->proc.flush = kivot_flush;
    return KIVO_OK;
}

KIVO_API int32_t kivot_platform_init(kivot_ctx *ctx) {
    if (ctx->platform != 1) return KIVO_ERR_UNSUPPORTED;
    kivot_set_ppi(ctx);
    ctx->reserved = 0;
    return KIVO_OK;
}

KIVO_API void kivot_platform_deinit(kivot_ctx *ctx) { std::memset(&ctx->proc, 0, sizeof(ctx->proc)); }

KIVO_API int32_t kivot_ready(kivot_ctx *ctx) {
    if (!ctx) return KIVO_ERR_THREAD;
    ctx->pic_req.alloc = kivo_picbuf_alloc;
    ctx->pic_req.free = kivo_picbuf_free;
    return KIVO_OK;
}

KIVO_API void kivot_flush(kivot_ctx *) {}

KIVO_API kivot_ctx *kivot_create(const kivoe_create_param *param, int32_t *status) {
    if (!param) {
        if (status) *status = KIVO_ERR_INVALID_ARG;
        return nullptr;
    }
    kivot_ctx *t = static_cast<kivot_ctx *>(xelo_malloc_align32(sizeof(kivot_ctx)));
    if (!t) {
        if (status) *status = KIVO_ERR_OUT_OF_MEMORY;
        return nullptr;
    }
    xelo_mset_x64a(t, 0, sizeof(kivot_ctx));
    t->platform = param->platform;
    t->width = param->width;
    t->height = param->height;
    t->color_format = param->color_format;
    t->quality = param->quality;
    t->nthreads = param->tpool ? param->tpool->count : 1;
    int32_t ret = kivot_platform_init(t);
    if (ret == KIVO_OK && t->proc.ready) ret = t->proc.ready(t);
    if (ret == KIVO_OK && (t->quality < 0 || t->quality > 100)) ret = KIVO_ERR_INVALID_ARG;
    if (ret == KIVO_OK) {
        // The encoder's own tables are replaced at every transcoding; its
        // creation quality only has to be valid.
        kivoe_create_param ep{param->platform, 0, 0, t->quality, 0, param->tpool};
        t->enc = kivoe_create(&ep, &ret);
    }
    if (ret == KIVO_OK) {
        kivod_create_param dp{param->platform, param->tpool};
        t->dec = kivod_create(&dp, &ret);
        // The new tables are chosen from the source's statistics.
        if (t->dec) t->dec->stats_wanted = 1;
    }
    if (ret != KIVO_OK) {
        destroy(t);
        if (status) *status = ret;
        return nullptr;
    }
    t->kind = kivo::Kind::Transcoder;
    t->magic = kivo::kMagicEncoder;
    t->self = t;
    if (status) *status = KIVO_OK;
    return t;
}

KIVO_API void kivot_delete(kivot_ctx *ctx) {
    kivot_ctx *t = checked(ctx);
    if (t) destroy(t);
}

KIVO_API int32_t kivot_set_limits(kivot_ctx *ctx, const kivod_limits *limits) {
    kivot_ctx *t = checked(ctx);
    if (!t) return KIVO_ERR_INVALID_ARG;
    return kivod_set_limits(t->dec, limits);
}

KIVO_API int32_t kivot_config(kivot_ctx *ctx, int32_t id, void *value, const int32_t *size) {
    kivot_ctx *t = checked(ctx);
    if (!t) return KIVO_ERR_INVALID_ARG;
    int32_t v = 0;
    switch (id) {
    case KIVOT_CFG_GET_PICTURE: {
        if (!value || !size || *size != static_cast<int32_t>(sizeof(void *))) return KIVO_ERR_INVALID_ARG;
        xelo_imgb *img = t->dec->out_imgb;
        std::memcpy(value, &img, sizeof(img));
        if (img && img->proc) img->proc(img);
        return KIVO_OK;
    }
    case KIVOT_CFG_GET_QTBL: {
        if (!value || !size || *size != 128) return KIVO_ERR_INVALID_ARG;
        uint8_t *out = static_cast<uint8_t *>(value);
        for (int q = 0; q < 2; ++q)
            for (int i = 0; i < 64; ++i) out[64 * q + i] = static_cast<uint8_t>(t->enc->qtbl[q].q[i]);
        return KIVO_OK;
    }
    case KIVOT_CFG_QUALITY: {
        const int32_t r = read_int(value, size, &v);
        if (r != KIVO_OK) return r;
        if (v < 0 || v > 100) return KIVO_ERR_INVALID_ARG;
        t->quality = v;
        return KIVO_OK;
    }
    case KIVOT_CFG_JND_FILTER: return read_int(value, size, &t->jnd_filter);
    case KIVOT_CFG_OPT_HUFFMAN: return read_int(value, size, &t->opt_huffman);
    case KIVOT_CFG_JND_SUPPRESS: return read_int(value, size, &t->jnd_suppress);
    case KIVOT_CFG_ADAPTIVE_ROUNDING: return read_int(value, size, &t->adaptive_rounding);
    case KIVOT_CFG_SKIP_ENCODE: return read_int(value, size, &t->skip_encode);
    case KIVOT_CFG_COLOR_FORMAT: return read_int(value, size, &t->color_format);
    default: return KIVO_ERR_UNSUPPORTED;
    }
}

KIVO_API int32_t kivot_set_copy(kivot_ctx *ctx, int32_t copy) {
    kivot_ctx *t = checked(ctx);
    if (!t || (copy != KIVOT_COPY_ALL && copy != KIVOT_COPY_NONE && copy != KIVOT_COPY_ICC))
        return KIVO_ERR_INVALID_ARG;
    t->copy = copy;
    return KIVO_OK;
}

KIVO_API int32_t kivot_get_progress(kivot_ctx *ctx, kivod_progress *progress) {
    kivot_ctx *t = checked(ctx);
    if (!t) return KIVO_ERR_INVALID_ARG;
    return kivod_get_progress(t->dec, progress);
}

KIVO_API int32_t kivot_txcode(kivot_ctx *ctx, const kivod_input *input, const kivoe_output *output,
                              int32_t *written) {
    kivot_ctx *t = checked(ctx);
    if (!t) return KIVO_ERR_INVALID_ARG;
    if (!t->proc.trc) return KIVO_ERR_UNAVAILABLE;
    if (!input || !written) return KIVO_ERR_INVALID_ARG;
    return t->proc.trc(t, input, output, written);
}

}  // extern "C"
