// Decoder handle: creation, procedure table, exported entry points.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "decoder/kivod_int.h"

namespace {

int32_t family_platform_init(void *ctx, const void *) {
    return kivod_platform_init(static_cast<kivod_ctx *>(ctx));
}
int32_t family_ready(void *ctx) {
    kivod_ctx *c = static_cast<kivod_ctx *>(ctx);
    return c->proc.ready ? c->proc.ready(c) : 0;
}
void family_flush(void *ctx) {
    kivod_ctx *c = static_cast<kivod_ctx *>(ctx);
    if (c->proc.flush) c->proc.flush(c);
}
void family_finish(void *ctx) {
    kivod_ctx *c = static_cast<kivod_ctx *>(ctx);
    kivod_release_frame_buffers(c);
    for (int16_t *&p : c->coef_spare) {
        std::free(p);
        p = nullptr;
    }
    kivod_bs_deinit(&c->main_bs);
}

const kivo::Family kDecoderFamily = {
    kivo::kMagicDecoder,      sizeof(kivod_ctx),     offsetof(kivod_ctx, tpool),
    offsetof(kivod_ctx, threads), offsetof(kivod_ctx, proc), sizeof(kivod_proc),
    family_platform_init,     family_ready,          family_flush,
    family_finish,
};

kivod_ctx *checked(kivod_ctx *ctx) {
    return static_cast<kivod_ctx *>(kivo::handle_check(ctx, kivo::kMagicDecoder));
}

}  // namespace

extern "C" {

KIVO_API void kivod_set_ppi(kivod_ctx *ctx) {
    ctx->proc.ready = kivod_ready;
    ctx->proc.flush = kivod_flush;
    ctx->proc.dec = kivod_dec;
    ctx->proc.pic_job = kivod_dec_slice;
    ctx->proc.pull_frm = kivod_pull_frm;
    ctx->proc.clone_frm = kivod_clone_frm;
}

KIVO_API int32_t kivod_platform_init(kivod_ctx *ctx) {
    kivod_set_ppi(ctx);
    kivod_dsp_init(&ctx->dsp, kivo_cpu_flags());
    return KIVO_OK;
}

KIVO_API void kivod_platform_deinit(kivod_ctx *ctx) {
    ctx->proc.ready = nullptr;
    ctx->proc.flush = nullptr;
    ctx->proc.dec = nullptr;
}

KIVO_API int32_t kivod_ready(kivod_ctx *ctx) {
    if (!ctx) return KIVO_ERR_THREAD;
    int n = kivo::thread_limit(ctx->tpool);
    for (int t = 0; t < n; ++t) {
        ctx->work[t] = static_cast<kivod_work *>(xelo_malloc_fast_align32(sizeof(kivod_work)));
        if (!ctx->work[t]) {
            for (int i = 0; i < kivo::kMaxThreads; ++i) {
                if (ctx->work[i]) xelo_mfree_fast_align32(ctx->work[i]);
                ctx->work[i] = nullptr;
            }
            return KIVO_ERR_OUT_OF_MEMORY;
        }
        xelo_mset_x64a(ctx->work[t], 0, sizeof(kivod_work));
        ctx->work[t]->ctx = ctx;
    }
    return KIVO_OK;
}

KIVO_API void kivod_flush(kivod_ctx *ctx) {
    for (int i = 0; i < kivo::kMaxThreads; ++i) {
        if (ctx->work[i]) xelo_mfree_fast_align32(ctx->work[i]);
        ctx->work[i] = nullptr;
    }
    kivod_release_app_list(ctx);
}

KIVO_API void kivod_prepare(kivod_ctx *ctx) {
    ctx->n_dqt = 0;
    ctx->n_dht = 0;
    ctx->dri.length = 0;
    ctx->dri.interval = 0;
    kivod_release_app_list(ctx);
}

KIVO_API kivod_ctx *kivod_create(const kivod_create_param *param, int32_t *status) {
    return static_cast<kivod_ctx *>(kivo::handle_create(
        kDecoderFamily, param, param ? param->tpool : nullptr, status));
}

KIVO_API void kivod_delete(kivod_ctx *ctx) { kivo::handle_delete(kDecoderFamily, ctx); }

KIVO_API int32_t kivod_decode(kivod_ctx *ctx, const kivod_input *input, kivod_frame_info *info) {
    kivod_ctx *c = checked(ctx);
    if (!c) return KIVO_ERR_INVALID_ARG;
    if (!c->proc.dec) return KIVO_ERR_UNAVAILABLE;
    if (!input || !info) return KIVO_ERR_INVALID_ARG;
    return c->proc.dec(c, input, info);
}

KIVO_API int32_t kivod_clone(kivod_ctx *ctx, xelo_imgb *imgb) {
    kivod_ctx *c = checked(ctx);
    if (!c) return KIVO_ERR_INVALID_ARG;
    if (!c->proc.clone_frm) return KIVO_ERR_UNAVAILABLE;
    if (!imgb) return KIVO_ERR_INVALID_ARG;
    return c->proc.clone_frm(c, imgb);
}

KIVO_API int32_t kivod_pull(kivod_ctx *ctx, void *frame) {
    kivod_ctx *c = checked(ctx);
    if (!c) return KIVO_ERR_INVALID_ARG;
    if (!c->proc.pull_frm) return KIVO_ERR_UNAVAILABLE;
    return c->proc.pull_frm(c, frame);
}

KIVO_API int32_t kivod_info(void) { return KIVO_ERR_UNSUPPORTED; }

KIVO_API int32_t kivod_get_stats(kivod_ctx *ctx, kivod_stats *stats) {
    kivod_ctx *c = checked(ctx);
    if (!c || !stats) return KIVO_ERR_INVALID_ARG;
    stats->mean_level = c->mean_level;
    std::memcpy(stats->stat_luma, c->stat_luma, sizeof(stats->stat_luma));
    std::memcpy(stats->stat_chroma, c->stat_chroma, sizeof(stats->stat_chroma));
    stats->n_luma = c->n_luma;
    stats->n_chroma = c->n_chroma;
    for (int t = 0; t < 4; ++t) {
        std::memcpy(stats->dc_count[t], c->dc_tbl[t].dc_count, sizeof(stats->dc_count[t]));
        std::memcpy(stats->ac_count[t], c->ac_tbl[t].ac_count, sizeof(stats->ac_count[t]));
    }
    return KIVO_OK;
}

KIVO_API int32_t kivod_set_reduction(kivod_ctx *ctx, int32_t denom) {
    kivod_ctx *c = checked(ctx);
    if (!c || (denom != 0 && denom != 1 && denom != 2 && denom != 4 && denom != 8)) return KIVO_ERR_INVALID_ARG;
    c->reduction = denom;
    return KIVO_OK;
}

KIVO_API int32_t kivod_set_stats(kivod_ctx *ctx, int32_t on) {
    kivod_ctx *c = checked(ctx);
    if (!c || (on != 0 && on != 1)) return KIVO_ERR_INVALID_ARG;
    c->stats_wanted = on;
    return KIVO_OK;
}

KIVO_API int32_t kivod_set_limits(kivod_ctx *ctx, const kivod_limits *limits) {
    kivod_ctx *c = checked(ctx);
    if (!c || !limits || limits->max_pixels < 0 || limits->max_scans < 0 || limits->max_memory < 0 ||
        limits->max_app_bytes < 0)
        return KIVO_ERR_INVALID_ARG;
    c->limits = *limits;
    return KIVO_OK;
}

KIVO_API int32_t kivod_get_progress(kivod_ctx *ctx, kivod_progress *progress) {
    kivod_ctx *c = checked(ctx);
    if (!c || !progress) return KIVO_ERR_INVALID_ARG;
    progress->complete = kivod_picture_complete(c) ? 1 : 0;
    progress->mcu_rows = kivod_mcu_rows_done(c);
    progress->mcu_rows_total = kivod_mcu_rows_total(c);
    return KIVO_OK;
}

}  // extern "C"

namespace {

void free_app_nodes(kivod_app_node *node, bool owned) {
    while (node) {
        kivod_app_node *next = node->next;
        if (owned) std::free(node->data);
        std::free(node);
        node = next;
    }
}

}  // namespace

void kivod_release_app_list(kivod_ctx *ctx) {
    free_app_nodes(ctx->app_list, ctx->app_owned);
    ctx->app_list = nullptr;
    ctx->app_last = nullptr;
    ctx->app_owned = 0;
    // The nodes may point into the copy of a file read whole.
    std::free(ctx->file_copy);
    ctx->file_copy = nullptr;
}

kivod_kept::~kivod_kept() {
    for (int16_t *p : coef) std::free(p);
    free_app_nodes(apps, app_owned);
    std::free(file_copy);
}

void kivod_kept::take(kivod_ctx *ctx) {
    for (int c = 0; c < 4; ++c) {
        std::free(coef[c]);
        coef[c] = ctx->coef_buf[c];
        bytes[c] = ctx->coef_bytes[c];
        ctx->coef_buf[c] = nullptr;
    }
    free_app_nodes(apps, app_owned);
    std::free(file_copy);
    apps = ctx->app_list;
    app_owned = ctx->app_owned;
    file_copy = ctx->file_copy;
    ctx->app_list = nullptr;
    ctx->app_last = nullptr;
    ctx->app_owned = 0;
    ctx->file_copy = nullptr;
}

void kivod_kept::spare(kivod_ctx *ctx) {
    for (int c = 0; c < 4; ++c) {
        if (!coef[c]) continue;
        std::free(ctx->coef_spare[c]);
        ctx->coef_spare[c] = coef[c];
        ctx->spare_bytes[c] = bytes[c];
        coef[c] = nullptr;
    }
}

void kivod_release_frame_buffers(kivod_ctx *ctx) {
    for (int c = 0; c < 4; ++c) {
        std::free(ctx->sample_buf[c]);
        ctx->sample_buf[c] = nullptr;
        std::free(ctx->coef_buf[c]);
        ctx->coef_buf[c] = nullptr;
    }
}
