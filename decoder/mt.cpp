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
#include "decoder/out.h"
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

// The scan's MCU rows, MCUs a row, and the rows a slice starts on a
// multiple of: resized output hands strips of d MCU rows to the resizers,
// and slices start on strip boundaries, so every strip holds the same rows
// whatever the split.
struct Grid {
    int32_t cols = 1, rows, unit, units;
    explicit Grid(const kivod_ctx *ctx) {
        const int32_t mcus = kivod_scan_mcus(ctx, &cols);
        rows = mcus / cols;
        unit = ctx->scale != 0 ? kivod_denom(ctx->scale) : 1;
        units = (rows + unit - 1) / unit;
    }
};

}  // namespace

void kivod_split_rows(kivod_ctx *ctx, int n, const int32_t *first_rows) {
    const kivod_sh &sh = ctx->sh;
    const kivod_fh &fh = ctx->fh;
    const int ns = sh.n_comp;
    const Grid g(ctx);
    const int32_t cols = g.cols, rows = g.rows;
    ctx->n_threads = n;
    for (int i = 0; i < n; ++i) {
        kivod_work *w = ctx->work[i];
        xelo_mset_x64a(w, 0, sizeof(kivod_work));
        w->ctx = ctx;
        const int32_t first_row = first_rows[i];
        const int32_t next_row = i == n - 1 ? rows : first_rows[i + 1];
        const int32_t slice_rows = next_row - first_row;
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
        if (ctx->scale != 0) plan_resize(ctx, w, next_row, rows, g.unit);
        // Band output: rows at the slice's bottom may need the next MCU row.
        if (ctx->bands && i < n - 1) w->extra_mcu = ctx->bands->context_rows;
        w->extra_mcu *= cols;
    }
}

int kivod_slice_limit(const kivod_ctx *ctx) {
    const int32_t units = Grid(ctx).units;
    // A file input is one stream position shared by every copy of its
    // reader, so it is decoded on one thread.
    int n = ctx->scan_bs.type == KIVOD_INPUT_MFAL ? 1 : kivo::thread_limit(ctx->tpool);
    if (n > units) n = units;
    return n < 1 ? 1 : n;
}

void kivod_split_slices(kivod_ctx *ctx) {
    const int n = kivod_slice_limit(ctx);
    const Grid g(ctx);
    const int32_t unit = g.unit, units = g.units;
    // Slice i starts once the skim has walked slices 0 .. i-1, which costs
    // s of decoding them (about 3/8), so later slices get less: shares in
    // proportion to 4096 * (1 - s)^i, every slice at least one unit, the
    // last one whatever is left.
    int32_t first_rows[kivo::kMaxThreads];
    int64_t total = 0, weight[kivo::kMaxThreads];
    for (int i = 0; i < n; ++i) total += weight[i] = i ? weight[i - 1] * 5 / 8 : 4096;
    int32_t left = units, first = 0;
    for (int i = 0; i < n; ++i) {
        int32_t r = static_cast<int32_t>((weight[i] * units + total / 2) / total);
        const int32_t reserve = n - 1 - i;  // units the later slices need
        if (r < 1) r = 1;
        if (r > left - reserve) r = left - reserve;
        if (i == n - 1) r = left;
        first_rows[i] = first * unit;
        first += r;
        left -= r;
    }
    kivod_split_rows(ctx, n, first_rows);
}

namespace {

// Starts slice i on worker i + 1. Returns the run status.
int32_t start_slice(kivod_ctx *ctx, int i) {
    return ctx->tpool.run(ctx->threads[i + 1], kivod_thread_job, ctx->work[i]);
}

// Slices that start right after a restart marker (found by looking for
// markers, not by decoding), as they would if the data hold exactly one
// restart marker between restart intervals. Slice i starts at the marker
// ending an MCU row (a strip, resized) where the part of the work above
// comes nearest to i / n, the work of the rows above counted as half their
// share of the rows and half their share of the coded bytes. False when
// the markers leave a slice without a start.
bool split_at_markers(kivod_ctx *ctx, const uint8_t *entry[kivo::kMaxThreads]) {
    const int32_t interval = ctx->dri.length ? ctx->dri.interval : 0;
    const int n = kivod_slice_limit(ctx);
    if (!interval || n < 2) return false;
    const Grid g(ctx);
    const int32_t cols = g.cols, rows = g.rows, unit = g.unit;
    const uint8_t *const start = kivod_bs_position(ctx->scan_bs), *end = ctx->scan_bs.end;  // end: the last byte
    const int64_t bytes = end - start + 1;
    // Work above a marker, scaled so that the whole picture's is 2 bytes rows n.
    const auto work = [&](const uint8_t *at, int64_t row) { return ((at - start) * rows + row * bytes) * n; };
    const auto target = [&](int i) { return int64_t(2) * i * bytes * rows; };
    int32_t first_rows[kivo::kMaxThreads] = {0};
    struct Marker {
        const uint8_t *at = nullptr;  // null: none
        int64_t row = 0;
    } prev;  // the last marker ending a row that no slice starts at
    int i = 1;
    const uint8_t *p = start;
    int64_t mcus = 0;  // MCUs before the marker found
    while (i < n && (p = kivod_next_marker(p, end + 1))) {
        if (p[1] == 0xFF) {
            p += 1;
            continue;
        }
        if (p[1] < 0xD0 || p[1] > 0xD7) break;
        p += 2;
        mcus += interval;
        if (mcus % cols || (mcus / cols) % unit || mcus / cols >= rows) continue;
        const Marker here{p, mcus / cols};
        bool used = false;
        while (!used && i < n && work(here.at, here.row) >= target(i)) {
            // This marker or the one before, whichever is nearer.
            const bool take_prev = prev.at && target(i) - work(prev.at, prev.row) < work(here.at, here.row) - target(i);
            const Marker m = take_prev ? prev : here;
            first_rows[i] = static_cast<int32_t>(m.row);
            entry[i++] = m.at;
            prev = Marker{};
            used = !take_prev;
        }
        if (!used) prev = here;
    }
    // Data or markers end: the last slice may still start at the last one.
    if (i == n - 1 && prev.at) {
        first_rows[i] = static_cast<int32_t>(prev.row);
        entry[i++] = prev.at;
    }
    if (i < n) return false;
    kivod_split_rows(ctx, n, first_rows);
    return true;
}

// A slice started ahead of the skim, and the output lines it may write,
// saved before it writes them so that they can be put back: by the slice
// itself for planes, by the sink for band output.
struct Ahead {
    kivod_work *w;
    int slice;
    const kivod_band_sink *sink;  // band output, else null
    uint8_t *save;                // planes: where its lines are saved
    uint8_t *from[4];             // per scan component: the first byte it may write
    size_t bytes[4];              // and how many bytes from there
    bool saved;
};

int32_t ahead_job(void *arg) {
    Ahead *a = static_cast<Ahead *>(arg);
    if (a->slice > 0) {
        if (a->sink) {
            kivod_band band{};
            kivod_band_span(a->w->ctx, a->slice, &band);
            if (!a->sink->keep(a->sink->user, &band)) return KIVO_ERR_OUT_OF_MEMORY;
        } else {
            uint8_t *to = a->save;
            for (int k = 0; k < 4; ++k) {
                if (a->bytes[k]) std::memcpy(to, a->from[k], a->bytes[k]);
                to += a->bytes[k];
            }
        }
        a->saved = true;
    }
    return kivod_thread_job(a->w);
}

void put_back(const Ahead &a) {
    if (!a.saved || a.sink) return;
    const uint8_t *from = a.save;
    for (int k = 0; k < 4; ++k) {
        if (a.bytes[k]) std::memcpy(a.from[k], from, a.bytes[k]);
        from += a.bytes[k];
    }
}

// The output lines of scan component k that slice i may write (planes at
// full size or resized): a byte range of the caller's plane.
void lines_written(const kivod_ctx *ctx, int i, int k, int32_t mode, uint8_t **from, size_t *bytes) {
    const xelo_imgb *img = ctx->out_imgb;
    const kivod_work *w = ctx->work[i];
    const int c = ctx->sh.comp_idx[k];
    const ptrdiff_t stride = img->stride[c];
    int32_t first, end, width;
    if (mode == KIVOD_OUT_DIRECT) {
        // Whole blocks, up to the line's end where a block crosses it.
        first = w->start_row[k] * 8;
        end = i + 1 < ctx->n_threads ? ctx->work[i + 1]->start_row[k] * 8 : img->lines[c];
        if (end > img->lines[c]) end = img->lines[c];
        width = img->stride[c];
    } else {
        first = w->out_first[k];
        end = first + w->out_lines[k];
        width = ctx->out_w[c];
    }
    *from = img->plane[c] + first * stride;
    *bytes = end > first ? static_cast<size_t>(end - first - 1) * stride + width : 0;
}

// Every slice started at once, those after the first from the restart
// markers' positions, their output lines saved first. Kept only when each
// slice ended, whole and after the restart marker that ends it, exactly
// where the next one started, as the skim would have started it (the reader
// does not stop at markers, so damaged data can make the decode and the
// markers disagree). Otherwise the saved lines are put back, so that the
// caller's buffer is as before and the skim's slices decide what is written.
// False when the result is not kept or the slices were not started so.
bool run_from_markers(kivod_ctx *ctx) {
    const kivod_band_sink *sink = ctx->bands;
    const int32_t mode = kivod_out_mode_for(ctx, ctx->out_imgb);
    const bool bands = mode == KIVOD_OUT_BANDS && sink->keep && sink->put_back;
    if (mode != KIVOD_OUT_DIRECT && mode != KIVOD_OUT_RESIZED && !bands) return false;
    const uint8_t *entry[kivo::kMaxThreads];
    if (!split_at_markers(ctx, entry)) return false;
    const int n = ctx->n_threads;
    Ahead ahead[kivo::kMaxThreads] = {};
    size_t total = 0;
    for (int i = 0; i < n; ++i) {
        ahead[i].w = ctx->work[i];
        ahead[i].slice = i;
        ahead[i].sink = bands ? sink : nullptr;
        for (int k = 0; i > 0 && !bands && k < ctx->sh.n_comp; ++k) {
            lines_written(ctx, i, k, mode, &ahead[i].from[k], &ahead[i].bytes[k]);
            total += ahead[i].bytes[k];
        }
    }
    // Lines not worth the memory: the skim runs instead.
    if (!kivod_may_save(ctx, total)) return false;
    uint8_t *save = nullptr;
    if (total) {
        save = static_cast<uint8_t *>(xelo_malloc_fast_align32(total));
        if (!save) return false;
    }
    uint8_t *at = save;
    for (int i = 1; i < n; ++i) {
        ahead[i].save = at;
        for (int k = 0; k < 4; ++k) at += ahead[i].bytes[k];
        kivod_work *w = ctx->work[i];
        w->bs = ctx->scan_bs;
        w->bs.cur = entry[i];
        w->bs.cache = 0;
        w->bs.bits = 0;
        w->bs.not_ff = 1;
        std::memset(w->dc_pred, 0, sizeof(w->dc_pred));
        w->rst_count = 0;
        w->held = KIVO_OK;
    }
    ctx->work[0]->bs = ctx->scan_bs;
    void *args[kivo::kMaxThreads];
    for (int i = 0; i < n; ++i) args[i] = &ahead[i];
    bool kept = kivo::fork_join(ctx->tpool, ctx->threads, n, ahead_job, args) == KIVO_OK;
    for (int i = 0; kept && i + 1 < n; ++i) {
        const kivod_work *w = ctx->work[i];
        kept = !w->stopped && w->mcu_done == w->n_mcu && kivod_bs_position(w->bs) == entry[i + 1];
    }
    if (bands) {
        sink->put_back(sink->user, kept);
    } else if (!kept) {
        for (int i = 1; i < n; ++i) put_back(ahead[i]);
    }
    xelo_mfree_fast_align32(save);
    return kept;
}

}  // namespace

int32_t kivod_skim_and_run(kivod_ctx *ctx) {
    ctx->work[0]->bs = ctx->scan_bs;
    if (ctx->n_threads == 1) return kivod_thread_job(ctx->work[0]);
    // Restart streams in memory: first every slice at once from the markers.
    if (ctx->dri.length && ctx->dri.interval && ctx->scan_bs.type == KIVOD_INPUT_BITB) {
        if (run_from_markers(ctx)) return KIVO_OK;
        kivod_split_slices(ctx);
        ctx->work[0]->bs = ctx->scan_bs;
    }
    const int n = ctx->n_threads;

    // Each slice's status; the scan reports that of the first slice, in
    // picture order, that failed. Decoding got no further than that slice,
    // so what a later one met (a failed allocation, or damage the data
    // hold past the stop) must not change the outcome.
    // A slice whose run the pool refuses (a caller's pool with a full
    // queue) counts as stopped before its first MCU, so the picture is not
    // taken for whole: its job never cleared what an earlier picture left.
    int32_t status[kivo::kMaxThreads] = {};
    status[0] = start_slice(ctx, 0);
    if (status[0] < 0) {
        kivod_slice_not_run(ctx->work[0]);
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
        if (status[slice] != KIVO_OK) {
            kivod_slice_not_run(w);
            break;
        }
        started = slice + 1;
    }
    // The calling thread decodes the last slice when the skim reached it;
    // a refused one is counted, as stopped.
    ctx->n_threads = last_ready ? n : status[started] < 0 ? started + 1 : started;
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
