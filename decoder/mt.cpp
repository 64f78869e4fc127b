// Slices of whole MCU rows, the serial skim that finds where each slice
// starts, and the fork-join that runs them on the lent threads.
#include <cstring>

#include "decoder/kivod_int.h"

void kivod_split_slices(kivod_ctx *ctx) {
    const kivod_sh &sh = ctx->sh;
    const kivod_fh &fh = ctx->fh;
    const int ns = sh.n_comp;
    const int c0 = sh.comp_idx[0];
    int32_t cols = ctx->blk_w[c0], rows = ctx->blk_h[c0];
    if (ns > 1) {
        cols /= fh.h[c0];
        rows /= fh.v[c0];
    }
    // Every slice gets at least one MCU row and lies inside the picture: n is
    // bounded by the rows, and the rows are shared as evenly as they go.
    int n = kivo::thread_limit(ctx->tpool);
    if (n > rows) n = rows;
    if (n < 1) n = 1;
    ctx->n_threads = n;
    const int d = ctx->scale <= 1 ? 1 : ctx->scale;

    int32_t first_row = 0;
    for (int i = 0; i < n; ++i) {
        kivod_work *w = ctx->work[i];
        xelo_mset_x64a(w, 0, sizeof(kivod_work));
        w->ctx = ctx;
        const int32_t slice_rows = rows / n + (i < rows % n ? 1 : 0);
        w->n_mcu = slice_rows * cols;
        for (int k = 0; k < ns; ++k) {
            const int c = sh.comp_idx[k];
            const int vk = ns > 1 ? fh.v[c] : 1;
            const int32_t start_line = first_row * vk * 8;
            w->start_row[k] = first_row * vk;
            w->lines[k] = i == n - 1 ? ctx->comp_h[c] - start_line : slice_rows * vk * 8;
            if (w->lines[k] < 1) w->lines[k] = 1;
            if (ctx->scale != 0) {
                // Output lines follow the reduced source lines in proportion,
                // so that a resize by a whole factor maps slice on slice.
                const int64_t src_total = (ctx->comp_h[c] + d - 1) / d;
                const int64_t out_h = ctx->out_h[c];
                const int64_t src_first = start_line / d;
                const int64_t src_next = (start_line + slice_rows * vk * 8) / d;
                const int32_t out_first = static_cast<int32_t>((src_first * out_h + src_total / 2) / src_total);
                const int32_t out_next = i == n - 1 ? static_cast<int32_t>(out_h)
                    : static_cast<int32_t>((src_next * out_h + src_total / 2) / src_total);
                w->out_first[k] = out_first;
                w->out_lines[k] = out_next - out_first;
            }
            w->strip[k] = ctx->sample_buf[c] + static_cast<ptrdiff_t>(ctx->mcu_lines[c]) * i * ctx->line_w[c];
        }
        first_row += slice_rows;
    }
}

int32_t kivod_skim(kivod_ctx *ctx) {
    kivod_bs bs = ctx->scan_bs;
    ctx->work[0]->bs = ctx->scan_bs;
    const int n = ctx->n_threads;
    if (n == 1) return KIVO_OK;

    const kivod_sh &sh = ctx->sh;
    const kivod_fh &fh = ctx->fh;
    const int ns = sh.n_comp;
    const int32_t interval = ctx->dri.length ? ctx->dri.interval : 0;
    int16_t pred[4] = {0, 0, 0, 0};
    int32_t run = 0;
    int slice = 0;
    int32_t walked = 0;
    bool failed = false;
    for (;;) {
        if (walked == ctx->work[slice]->n_mcu) {
            ++slice;
            walked = 0;
            kivod_work *w = ctx->work[slice];
            w->bs = bs;
            std::memcpy(w->dc_pred, pred, sizeof(pred));
            w->rst_count = run;
            if (slice == n - 1) break;
        }
        for (int k = 0; k < ns && !failed; ++k) {
            const int c = sh.comp_idx[k];
            const int blocks = ns > 1 ? fh.h[c] * fh.v[c] : 1;
            const kivod_dc_tbl *dc = &ctx->dc_tbl[sh.td[c]];
            const kivod_ac_tbl *ac = &ctx->ac_tbl[sh.ta[c]];
            const int16_t q0 = static_cast<int16_t>(ctx->qtbl[fh.tq[c]].q[0]);
            for (int b = 0; b < blocks; ++b) {
                int16_t diff = 0, dc_only = 0;
                if (kivod_vld_dc(&bs, q0, dc, nullptr, &diff) != 0 ||
                    kivod_vld_ac1(&bs, nullptr, ac, nullptr, nullptr, &dc_only) != 0) {
                    failed = true;
                    break;
                }
                pred[k] = static_cast<int16_t>(static_cast<uint16_t>(pred[k]) + static_cast<uint16_t>(diff));
            }
        }
        if (failed && !interval) {
            // Slices after the damage cannot be found: decode up to it only.
            ctx->n_threads = slice + 1;
            return KIVO_OK;
        }
        ++walked;
        ++run;
        if (interval && run == interval) {
            const int32_t r = kivod_bs_sync_restart(&bs, pred, &run);
            if (r < 0) return r;
            failed = false;
        }
    }
    return KIVO_OK;
}

int32_t kivod_thread_job(void *arg) {
    kivod_work *w = static_cast<kivod_work *>(arg);
    const int32_t ret = w->ctx->proc.pic_job(w->ctx, w);
    return ret < 0 ? ret : KIVO_OK;
}

int32_t dec_mt(kivod_ctx *ctx) {
    void *args[kivo::kMaxThreads];
    for (int i = 0; i < ctx->n_threads; ++i) args[i] = ctx->work[i];
    return kivo::fork_join(ctx->tpool, ctx->threads, ctx->n_threads, kivod_thread_job, args);
}

void kivod_collect_stats(kivod_ctx *ctx) {
    for (int i = 0; i < ctx->n_threads; ++i) {
        const kivod_work *w = ctx->work[i];
        for (int j = 0; j < 64; ++j) {
            ctx->stat_luma[j] += w->stat_luma[j];
            ctx->stat_chroma[j] += w->stat_chroma[j];
        }
        ctx->n_luma += w->n_luma;
        ctx->n_chroma += w->n_chroma;
        ctx->dc_level_total += w->dc_level_sum;
        for (int t = 0; t < 4; ++t) {
            for (int j = 0; j < 12; ++j) ctx->dc_tbl[t].dc_count[j] += w->dc_count[t][j];
            for (int j = 0; j < 256; ++j) ctx->ac_tbl[t].ac_count[j] += w->ac_count[t][j];
        }
    }
}
