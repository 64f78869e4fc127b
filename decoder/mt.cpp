// Slices of whole MCU rows, the serial skim that finds where each slice
// starts, and the threads that decode them.
//
// The skim and the slices overlap: slice i starts on its thread as soon as
// the skim has found its entry state, and the calling thread, once the skim
// reaches the last slice, decodes that one. Slices that start later are made
// shorter, so that all of them end at about the same time: with the skim
// costing a fraction s of a full decode, slice i gets a share proportional
// to (1 - s)^i. With restart markers the skim jumps between markers instead
// of decoding, and the slices are equal.
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
    // bounded by the rows, each slice takes at least one row and the last
    // one whatever is left.
    // A file input is one stream position shared by every copy of its
    // reader, so it is decoded on one thread.
    int n = ctx->scan_bs.type == KIVOD_INPUT_MFAL ? 1 : kivo::thread_limit(ctx->tpool);
    if (n > rows) n = rows;
    if (n < 1) n = 1;
    int32_t share[kivo::kMaxThreads];
    {
        // Shares in 1/4096: weight 4096 * (1 - s)^i with s = 1/2. With
        // restart markers in memory the skim jumps from marker to marker
        // and costs next to nothing: equal shares.
        const bool cheap_skim = ctx->dri.length && ctx->dri.interval && ctx->scan_bs.type == KIVOD_INPUT_BITB;
        int64_t total = 0, weight[kivo::kMaxThreads];
        for (int i = 0; i < n; ++i) total += weight[i] = cheap_skim ? 4096 : int64_t(4096) >> i;
        int32_t left = rows;
        for (int i = 0; i < n; ++i) {
            int32_t r = static_cast<int32_t>((weight[i] * rows + total / 2) / total);
            const int32_t reserve = n - 1 - i;  // rows the later slices need
            if (r < 1) r = 1;
            if (r > left - reserve) r = left - reserve;
            if (i == n - 1) r = left;
            share[i] = r;
            left -= r;
        }
    }
    ctx->n_threads = n;
    const int d = ctx->scale <= 1 ? 1 : ctx->scale;

    int32_t first_row = 0;
    for (int i = 0; i < n; ++i) {
        kivod_work *w = ctx->work[i];
        xelo_mset_x64a(w, 0, sizeof(kivod_work));
        w->ctx = ctx;
        const int32_t slice_rows = share[i];
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

namespace {

// Starts slice i on worker i + 1. Returns the run status.
int32_t start_slice(kivod_ctx *ctx, int i) {
    return ctx->tpool.run(ctx->threads[i + 1], kivod_thread_job, ctx->work[i]);
}

// The skim's position in the scan: a reader, the DC predictors and restart
// counter, and the index of the next MCU.
struct Skim {
    kivod_bs bs;
    int16_t pred[4];
    int32_t run;
    int32_t mcu;
    bool failed;  // a block failed; the rest of its restart interval is skipped
};

// Walks one MCU: DC differences decoded, AC codes skipped. Returns 0, 1 when
// the scan is damaged and has no restart markers to recover at, or the
// negative status of a restart synchronisation that found no marker.
int32_t skim_mcu(const kivod_ctx *ctx, Skim *sk) {
    const kivod_sh &sh = ctx->sh;
    const kivod_fh &fh = ctx->fh;
    const int32_t interval = ctx->dri.length ? ctx->dri.interval : 0;
    for (int k = 0; k < sh.n_comp && !sk->failed; ++k) {
        const int c = sh.comp_idx[k];
        const int blocks = sh.n_comp > 1 ? fh.h[c] * fh.v[c] : 1;
        const kivod_dc_tbl *dc = &ctx->dc_tbl[sh.td[c]];
        const kivod_ac_tbl *ac = &ctx->ac_tbl[sh.ta[c]];
        const int16_t q0 = static_cast<int16_t>(ctx->qtbl[fh.tq[c]].q[0]);
        for (int b = 0; b < blocks; ++b) {
            int16_t diff = 0, dc_only = 0;
            if (kivod_vld_dc(&sk->bs, q0, dc, nullptr, &diff) != 0 ||
                kivod_vld_ac1(&sk->bs, nullptr, ac, nullptr, nullptr, &dc_only) != 0) {
                sk->failed = true;
                break;
            }
            sk->pred[k] = static_cast<int16_t>(static_cast<uint16_t>(sk->pred[k]) + static_cast<uint16_t>(diff));
        }
    }
    if (sk->failed && !interval) return 1;
    ++sk->mcu;
    if (interval && ++sk->run == interval) {
        const int32_t ret = kivod_bs_sync_restart(&sk->bs, sk->pred, &sk->run);
        if (ret < 0) return ret;
        sk->failed = false;
    }
    return 0;
}

// With restart markers in memory input, the skim jumps: RST markers never
// occur inside entropy-coded data, so the interval holding MCU `target`
// starts after the right number of markers counted from a known one. `raw`
// is a byte position right after a marker (or the scan's start) where MCU
// `raw_mcu` begins. Returns false when the markers are not where they should
// be; the caller then walks instead.
bool skim_jump(const kivod_ctx *ctx, Skim *sk, int32_t target, const uint8_t **raw, int32_t *raw_mcu) {
    const int32_t interval = ctx->dri.interval;
    const int32_t want = target / interval;
    if (want <= sk->mcu / interval) return true;  // already in that interval
    int32_t skip = want - *raw_mcu / interval;
    const uint8_t *p = *raw, *end = sk->bs.end;
    while (skip > 0) {
        const uint8_t *ff = static_cast<const uint8_t *>(std::memchr(p, 0xFF, static_cast<size_t>(end - p + 1)));
        if (!ff || ff == end) return false;
        const uint8_t m = ff[1];
        if (m >= 0xD0 && m <= 0xD7) {
            --skip;
            p = ff + 2;
        } else if (m == 0x00 || m == 0xFF) {
            p = ff + 1;  // stuffing, or fill before a marker
        } else {
            return false;  // another marker: the scan ended early
        }
        if (p > end + 1) return false;
    }
    *raw = p;
    *raw_mcu = want * interval;
    kivod_bs &bs = sk->bs;
    bs.cur = p;
    bs.cache = 0;
    bs.bits = 0;
    bs.not_ff = 1;
    for (int16_t &v : sk->pred) v = 0;
    sk->run = 0;
    sk->mcu = *raw_mcu;
    sk->failed = false;
    return true;
}

}  // namespace

int32_t kivod_skim_and_run(kivod_ctx *ctx) {
    const int n = ctx->n_threads;
    ctx->work[0]->bs = ctx->scan_bs;
    if (n == 1) return kivod_thread_job(ctx->work[0]);

    int32_t status = start_slice(ctx, 0);
    if (status < 0) return status;
    int started = 1;  // slices running on workers: 0 .. started-1

    Skim sk;
    sk.bs = ctx->scan_bs;
    for (int16_t &v : sk.pred) v = 0;
    sk.run = 0;
    sk.mcu = 0;
    sk.failed = false;
    const bool can_jump = ctx->dri.length && ctx->dri.interval && sk.bs.type == KIVOD_INPUT_BITB &&
                          sk.bs.bits == 0 && sk.bs.cur <= sk.bs.end;
    const uint8_t *raw = can_jump ? sk.bs.cur : nullptr;
    int32_t raw_mcu = 0;

    bool last_ready = false;
    int32_t target = 0;
    for (int slice = 1; slice < n && status == KIVO_OK; ++slice) {
        target += ctx->work[slice - 1]->n_mcu;
        if (raw && !skim_jump(ctx, &sk, target, &raw, &raw_mcu)) raw = nullptr;
        bool damaged = false;
        while (sk.mcu < target) {
            const int32_t ret = skim_mcu(ctx, &sk);
            if (ret < 0) status = ret;
            damaged = ret != 0;
            if (damaged) break;
        }
        // Slices after damage without restart markers cannot be found: the
        // scan is decoded up to it only.
        if (damaged) break;
        kivod_work *w = ctx->work[slice];
        w->bs = sk.bs;
        std::memcpy(w->dc_pred, sk.pred, sizeof(sk.pred));
        w->rst_count = sk.run;
        if (slice == n - 1) {
            last_ready = true;
            break;
        }
        status = start_slice(ctx, slice);
        if (status == KIVO_OK) started = slice + 1;
    }
    // The calling thread decodes the last slice when the skim reached it.
    ctx->n_threads = last_ready ? n : started;
    if (last_ready) {
        const int32_t ret = kivod_thread_job(ctx->work[n - 1]);
        if (ret < 0) status = ret;
    }
    for (int i = 0; i < started; ++i) {
        int32_t job = KIVO_OK;
        ctx->tpool.wait(ctx->threads[i + 1], &job);
        // A refused run or a failed skim is reported before the slices' own
        // statuses.
        if (job < 0 && status == KIVO_OK) status = job;
    }
    return status;
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
