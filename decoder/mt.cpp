// Slices of whole MCU rows, the serial skim that finds where each slice
// starts, and the threads that decode them.
//
// The skim and the slices overlap: slice i starts on its thread as soon as
// the skim has found its entry state, and the calling thread, once the skim
// reaches the last slice, decodes that one. The skim walks every MCU by the
// slices' own rules (restart markers included: on damaged data only that
// finds where a slice's synchronisation would resume), so the picture and
// the status are those of one thread.
#include <cstring>

#include "decoder/kivod_int.h"
#include "xelo/xelo_int.h"

namespace {

// First line of an output plane of dst_h lines, resized from src_h rows,
// whose first source row is at or below row `row`.
int32_t first_line_from(int32_t src_h, int32_t dst_h, int32_t row) {
    int32_t lo = 0, hi = dst_h;
    while (lo < hi) {
        const int32_t mid = lo + (hi - lo) / 2;
        int32_t first, count;
        xelo::irsz_taps(src_h, dst_h, mid, &first, &count);
        if (first >= row) hi = mid;
        else lo = mid + 1;
    }
    return lo;
}

// Output lines and the extra MCU rows below it that slice w needs when the
// next slice starts at MCU row next_row (rows: the scan's MCU rows).
void plan_resize(const kivod_ctx *ctx, kivod_work *w, int32_t next_row, int32_t rows, int32_t unit) {
    const kivod_sh &sh = ctx->sh;
    const int ns = sh.n_comp;
    const int d = kivod_denom(ctx->scale);
    const int32_t nblk = 8 / d;
    int32_t extra_rows = 0;
    for (int k = 0; k < ns; ++k) {
        const int c = sh.comp_idx[k];
        const int32_t vk = ns > 1 ? ctx->fh.v[c] : 1;
        const int32_t src_h = (ctx->comp_h[c] + d - 1) / d;
        const int32_t dst_h = ctx->out_h[c];
        const int32_t row0 = w->start_row[k] * nblk;
        const int32_t first = w->start_row[k] == 0 ? 0 : first_line_from(src_h, dst_h, row0);
        const int32_t end = next_row >= rows ? dst_h : first_line_from(src_h, dst_h, next_row * vk * nblk);
        w->out_first[k] = first;
        w->out_lines[k] = end - first;
        if (end <= first || next_row >= rows) continue;
        // The slice's last line may read rows of the next slice.
        int32_t tap, count;
        xelo::irsz_taps(src_h, dst_h, end - 1, &tap, &count);
        const int32_t beyond = tap + count - next_row * vk * nblk;
        const int32_t per_row = vk * nblk;
        if (beyond > 0 && (beyond + per_row - 1) / per_row > extra_rows) extra_rows = (beyond + per_row - 1) / per_row;
    }
    // Whole strips, so that the strips handed on are those of one resizer
    // over the plane.
    extra_rows = (extra_rows + unit - 1) / unit * unit;
    if (extra_rows > rows - next_row) extra_rows = rows - next_row;
    w->extra_mcu = extra_rows;
}

}  // namespace

void kivod_split_slices(kivod_ctx *ctx) {
    const kivod_sh &sh = ctx->sh;
    const kivod_fh &fh = ctx->fh;
    const int ns = sh.n_comp;
    int32_t cols = 1;
    const int32_t mcus = kivod_scan_mcus(ctx, &cols);
    const int32_t rows = mcus / cols;
    // Resized output hands strips of d MCU rows to the resizers; slices
    // start on strip boundaries, so every strip holds the same rows
    // whatever the split.
    const int d = kivod_denom(ctx->scale);
    const int32_t unit = ctx->scale != 0 ? d : 1;
    const int32_t units = (rows + unit - 1) / unit;
    // A file input is one stream position shared by every copy of its
    // reader, so it is decoded on one thread.
    int n = ctx->scan_bs.type == KIVOD_INPUT_MFAL ? 1 : kivo::thread_limit(ctx->tpool);
    if (n > units) n = units;
    if (n < 1) n = 1;
    // Slice i starts once the skim has walked slices 0 .. i-1, which costs
    // s of decoding them (about 3/8), so later slices get less: shares in
    // proportion to 4096 * (1 - s)^i, every slice at least one unit, the
    // last one whatever is left.
    int32_t share[kivo::kMaxThreads];
    {
        int64_t total = 0, weight[kivo::kMaxThreads];
        for (int i = 0; i < n; ++i) total += weight[i] = i ? weight[i - 1] * 5 / 8 : 4096;
        int32_t left = units;
        for (int i = 0; i < n; ++i) {
            int32_t r = static_cast<int32_t>((weight[i] * units + total / 2) / total);
            const int32_t reserve = n - 1 - i;  // units the later slices need
            if (r < 1) r = 1;
            if (r > left - reserve) r = left - reserve;
            if (i == n - 1) r = left;
            share[i] = r;
            left -= r;
        }
    }
    ctx->n_threads = n;

    int32_t first_row = 0;
    for (int i = 0; i < n; ++i) {
        kivod_work *w = ctx->work[i];
        xelo_mset_x64a(w, 0, sizeof(kivod_work));
        w->ctx = ctx;
        const int32_t slice_rows = i == n - 1 ? rows - first_row : share[i] * unit;
        w->first_mcu = first_row * cols;
        w->n_mcu = slice_rows * cols;
        for (int k = 0; k < ns; ++k) {
            const int c = sh.comp_idx[k];
            const int vk = ns > 1 ? fh.v[c] : 1;
            const int32_t start_line = first_row * vk * 8;
            w->start_row[k] = first_row * vk;
            w->lines[k] = i == n - 1 ? ctx->comp_h[c] - start_line : slice_rows * vk * 8;
            if (w->lines[k] < 1) w->lines[k] = 1;
            w->strip[k] = ctx->sample_buf[c] + static_cast<ptrdiff_t>(ctx->mcu_lines[c]) * i * ctx->line_w[c];
        }
        if (ctx->scale != 0) plan_resize(ctx, w, first_row + slice_rows, rows, unit);
        // Band output: rows at the slice's bottom may need the next MCU row.
        if (ctx->bands && i < n - 1) w->extra_mcu = ctx->bands->context_rows;
        w->extra_mcu *= cols;
        first_row += slice_rows;
    }
}

namespace {

// Starts slice i on worker i + 1. Returns the run status.
int32_t start_slice(kivod_ctx *ctx, int i) {
    return ctx->tpool.run(ctx->threads[i + 1], kivod_thread_job, ctx->work[i]);
}

}  // namespace

int32_t kivod_skim_and_run(kivod_ctx *ctx) {
    const int n = ctx->n_threads;
    ctx->work[0]->bs = ctx->scan_bs;
    if (n == 1) return kivod_thread_job(ctx->work[0]);

    // Each slice's status; the scan reports that of the first slice, in
    // picture order, that failed. Decoding got no further than that slice,
    // so what a later one met (a failed allocation, or damage the data
    // hold past the stop) must not change the outcome.
    int32_t status[kivo::kMaxThreads] = {};
    status[0] = start_slice(ctx, 0);
    if (status[0] < 0) {
        ctx->n_threads = 1;
        return status[0];
    }
    int started = 1;  // slices running on workers: 0 .. started-1

    kivod_skim sk;
    sk.bs = ctx->scan_bs;
    for (int16_t &v : sk.pred) v = 0;
    sk.run = 0;
    sk.held = KIVO_OK;
    sk.mcu = 0;
    bool last_ready = false;
    for (int slice = 1; slice < n; ++slice) {
        kivod_work *w = ctx->work[slice];
        // Where decoding the scan stops, the slices after it do not run.
        if (kivod_skim_to(ctx, &sk, w->first_mcu) != 0) break;
        w->bs = sk.bs;
        std::memcpy(w->dc_pred, sk.pred, sizeof(sk.pred));
        w->rst_count = sk.run;
        w->held = sk.held;
        if (slice == n - 1) {
            last_ready = true;
            break;
        }
        status[slice] = start_slice(ctx, slice);
        if (status[slice] != KIVO_OK) break;
        started = slice + 1;
    }
    // The calling thread decodes the last slice when the skim reached it.
    ctx->n_threads = last_ready ? n : started;
    if (last_ready) status[n - 1] = kivod_thread_job(ctx->work[n - 1]);
    for (int i = 0; i < started; ++i) ctx->tpool.wait(ctx->threads[i + 1], &status[i]);
    for (int i = 0; i < n; ++i)
        if (status[i] < 0) return status[i];
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
