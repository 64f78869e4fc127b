// Encoder handle: creation, procedure table, configuration, exported entry
// points.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "encoder/kivoe_int.h"

namespace {

int32_t family_platform_init(void *ctx, const void *param) {
    kivoe_ctx *c = static_cast<kivoe_ctx *>(ctx);
    const kivoe_create_param *p = static_cast<const kivoe_create_param *>(param);
    if (!p) return KIVO_ERR_INVALID_ARG;
    c->kind = kivo::Kind::Encoder;
    c->platform = p->platform;
    c->width = p->width;
    c->height = p->height;
    c->quality = p->quality;
    c->color_format = p->color_format;
    return kivoe_platform_init(c);
}
int32_t family_ready(void *ctx) {
    kivoe_ctx *c = static_cast<kivoe_ctx *>(ctx);
    return c->proc.ready ? c->proc.ready(c) : 0;
}
void family_flush(void *ctx) {
    kivoe_ctx *c = static_cast<kivoe_ctx *>(ctx);
    if (c->proc.flush) c->proc.flush(c);
}
void family_finish(void *ctx) {
    kivoe_ctx *c = static_cast<kivoe_ctx *>(ctx);
    if (c->pic_owned) {
        kivo_picbuf_free(c->pic_owned);
        c->pic_owned = nullptr;
    }
}

const kivo::Family kEncoderFamily = {
    kivo::kMagicEncoder,      sizeof(kivoe_ctx),     offsetof(kivoe_ctx, tpool),
    offsetof(kivoe_ctx, threads), offsetof(kivoe_ctx, proc), sizeof(kivoe_proc),
    family_platform_init,     family_ready,          family_flush,
    family_finish,
};

kivoe_ctx *checked(kivoe_ctx *ctx) {
    return static_cast<kivoe_ctx *>(kivo::handle_check(ctx, kivo::Kind::Encoder));
}

int32_t read_flag(const void *value, const int32_t *size, int32_t *flag) {
    if (!value || !size || *size != 4) return KIVO_ERR_INVALID_ARG;
    int32_t v;
    std::memcpy(&v, value, 4);
    *flag = v != 0;
    return KIVO_OK;
}

}  // namespace

extern "C" {

KIVO_API int32_t kivoe_set_ppi(kivoe_ctx *ctx) {
    kivoe_proc &p = ctx->proc;
    p.ready = kivoe_ready;
    p.push = kivoe_push_frm;
    p.enc = kivoe_enc;
    p.get_qt = kivoe_get_qt;
    p.analysis = kivoe_analysis;
    p.header = kivoe_enc_header;
    p.pic = kivoe_enc_pic;
    p.flush = kivoe_flush;
    p.vlc_dc = kivoe_vlc_dc;
    p.vlc_ac = kivoe_vlc_ac;
    p.vlc_dri_marker = kivoe_vlc_dri_marker;
    p.vlc_footer = kivoe_vlc_footer;
    kivoe_dsp_init(&p, kivo_cpu_flags());
    return KIVO_OK;
}

KIVO_API int32_t kivoe_platform_init(kivoe_ctx *ctx) {
    if (ctx->platform != 1) return KIVO_ERR_UNSUPPORTED;
    kivoe_set_ppi(ctx);
    ctx->reserved = 0;
    return KIVO_OK;
}

KIVO_API void kivoe_platform_deinit(kivoe_ctx *ctx) { std::memset(&ctx->proc, 0, sizeof(ctx->proc)); }

KIVO_API int32_t kivoe_ready(kivoe_ctx *ctx) {
    if (!ctx) return KIVO_ERR_THREAD;
    const int n = kivo::thread_limit(ctx->tpool);
    for (int i = 0; i < n; ++i) {
        kivoe_job *job = static_cast<kivoe_job *>(xelo_malloc_fast_align32(sizeof(kivoe_job)));
        ctx->job[i] = job;
        if (!job) {
            kivoe_flush(ctx);
            return KIVO_ERR_OUT_OF_MEMORY;
        }
        xelo_mset_x64a(job, 0, sizeof(kivoe_job));
        job->ctx = ctx;
        if (i >= 1) {
            job->own_writer = static_cast<xelo_bsw *>(std::calloc(1, sizeof(xelo_bsw)));
            if (!job->own_writer) {
                kivoe_flush(ctx);
                return KIVO_ERR_OUT_OF_MEMORY;
            }
        }
    }
    if (ctx->quality < 0 || ctx->quality > 100) return KIVO_ERR_INVALID_ARG;
    const int32_t ret = kivoe_init_q_tbl(ctx, static_cast<uint32_t>(ctx->quality));
    if (ret < 0) return ret;
    kivoe_init_huff_tbl(ctx);
    ctx->pic_req.alloc = kivo_picbuf_alloc;
    ctx->pic_req.free = kivo_picbuf_free;
    return KIVO_OK;
}

KIVO_API void kivoe_flush(kivoe_ctx *ctx) {
    for (int i = 0; i < kivo::kMaxThreads; ++i) {
        kivoe_job *job = ctx->job[i];
        if (!job) continue;
        std::free(job->own_writer);
        std::free(job->own_buf);
        std::free(job->stat_dc);
        std::free(job->stat_ac);
        std::free(job->levels);
        xelo_mfree_fast_align32(job->share.levels);
        xelo_mfree_fast_align32(job);
        ctx->job[i] = nullptr;
    }
}

KIVO_API kivoe_ctx *kivoe_create(const kivoe_create_param *param, int32_t *status) {
    if (!param) {
        if (status) *status = KIVO_ERR_INVALID_ARG;
        return nullptr;
    }
    return static_cast<kivoe_ctx *>(kivo::handle_create(kEncoderFamily, param, param->tpool, status));
}

KIVO_API void kivoe_delete(kivoe_ctx *ctx) {
    if (checked(ctx)) kivo::handle_delete(kEncoderFamily, ctx);
}

KIVO_API int32_t kivoe_config(kivoe_ctx *ctx, int32_t id, const void *value, const int32_t *size) {
    kivoe_ctx *c = checked(ctx);
    if (!c) return KIVO_ERR_INVALID_ARG;
    switch (id) {
    case KIVOE_CFG_JND_FILTER: return read_flag(value, size, &c->jnd_filter);
    case KIVOE_CFG_OPT_HUFFMAN: return read_flag(value, size, &c->opt_huffman);
    case KIVOE_CFG_JND_SUPPRESS: return read_flag(value, size, &c->jnd_suppress);
    case KIVOE_CFG_ADAPTIVE_ROUNDING: return read_flag(value, size, &c->adaptive_rounding);
    case KIVOE_CFG_QUALITY: {
        if (!value || !size || *size != 4) return KIVO_ERR_INVALID_ARG;
        int32_t q;
        std::memcpy(&q, value, 4);
        if (q < 0 || q > 100) return KIVO_ERR_INVALID_ARG;
        const int32_t ret = kivoe_init_q_tbl(c, static_cast<uint32_t>(q));
        if (ret == KIVO_OK) c->quality = q;
        return ret;
    }
    case KIVOE_CFG_QTBL: {
        if (!value || !size || *size != 128) return KIVO_ERR_INVALID_ARG;
        const uint8_t *bytes = static_cast<const uint8_t *>(value);
        // A quantizer byte of 0 would divide by zero and cannot stand in a
        // DQT segment: it becomes 1.
        for (int t = 0; t < 2; ++t)
            for (int i = 0; i < 64; ++i) kivoe_qtbl_set(&c->qtbl[t], i, bytes[64 * t + i]);
        return KIVO_OK;
    }
    default: return KIVO_ERR_UNSUPPORTED;
    }
}

KIVO_API int32_t kivoe_set_progressive(kivoe_ctx *ctx, int32_t on) {
    kivoe_ctx *c = checked(ctx);
    if (!c || (on != 0 && on != 1)) return KIVO_ERR_INVALID_ARG;
    c->progressive = on;
    return KIVO_OK;
}

KIVO_API int32_t kivoe_push(kivoe_ctx *ctx, xelo_imgb *imgb) {
    kivoe_ctx *c = checked(ctx);
    if (!c) return KIVO_ERR_INVALID_ARG;
    if (!c->proc.push) return KIVO_ERR_UNAVAILABLE;
    if (!imgb) return KIVO_ERR_INVALID_ARG;
    return c->proc.push(c, imgb);
}

KIVO_API int32_t kivoe_encode(kivoe_ctx *ctx, const kivoe_output *out, int32_t *written) {
    kivoe_ctx *c = checked(ctx);
    if (!c) return KIVO_ERR_INVALID_ARG;
    if (!c->proc.enc) return KIVO_ERR_UNAVAILABLE;
    // Without a place for its size the stream could not be used: refused
    // before the encode, which would use up the picture.
    if (!written) return KIVO_ERR_INVALID_ARG;
    return c->proc.enc(c, out, written);
}

KIVO_API int32_t kivoe_get_qtbl(kivoe_ctx *ctx, int32_t level, uint8_t table[128]) {
    kivoe_ctx *c = checked(ctx);
    if (!c) return KIVO_ERR_INVALID_ARG;
    if (!c->proc.get_qt) return KIVO_ERR_UNAVAILABLE;
    if (!table) return KIVO_ERR_INVALID_ARG;
    return c->proc.get_qt(c, level, table);
}

}  // extern "C"
