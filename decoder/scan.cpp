// Sequential scans: the scan header, the rules that take a scan from one MCU
// to the next (followed alike by the skim and by the slices), and the slice
// job that decodes blocks, reconstructs them and writes them out.
#include <cstring>

#include "common/block.h"
#include "decoder/bs_inline.h"
#include "decoder/out.h"
#include "xelo/xelo_int.h"

namespace {

// Geometry of one scan component inside the slice job.
struct ScanComp {
    int c;             // frame component
    int h, v;          // blocks per MCU across and down (1 x 1 in a one-component scan)
    int32_t row_w;     // blocks per MCU row
    int32_t col, row;  // block position of the current MCU
    kivod_blk_tbls t;
    int fill;          // reduced lines written into the strip
    int32_t src_line;  // next source line handed to the resizer
    xelo_irsz_t *rsz;
};

const kivod_qtbl &unit_qtbl() {
    static const kivod_qtbl unit = [] {
        kivod_qtbl q{};
        for (uint16_t &v : q.q) v = 1;
        return q;
    }();
    return unit;
}

// The scan components' geometry, tables and counters (null: not counted).
void setup_comps(const kivod_ctx *ctx, ScanComp sc[4], uint64_t (*dc_count)[12], uint64_t (*ac_count)[256]) {
    const kivod_sh &sh = ctx->sh;
    const kivod_fh &fh = ctx->fh;
    const int ns = sh.n_comp;
    std::memset(sc, 0, 4 * sizeof(ScanComp));
    for (int k = 0; k < ns; ++k) {
        ScanComp &s = sc[k];
        s.c = sh.comp_idx[k];
        s.h = ns > 1 ? fh.h[s.c] : 1;
        s.v = ns > 1 ? fh.v[s.c] : 1;
        s.row_w = ctx->blk_w[s.c];
        s.t.dc = &ctx->dc_tbl[sh.td[s.c]];
        s.t.ac = &ctx->ac_tbl[sh.ta[s.c]];
        // Levels are decoded with quantizers of 1.
        s.t.q = ctx->levels_only ? &unit_qtbl() : &ctx->qtbl[fh.tq[s.c]];
        s.t.q0 = static_cast<int16_t>(s.t.q->q[0]);
        s.t.dc_count = dc_count ? dc_count[sh.td[s.c]] : nullptr;
        // AC symbols are counted for re-encoding with new quantizers, so
        // only when the quantization record carries them.
        bool requant = false;
        for (int i = 0; i < 64; ++i) requant |= s.t.q->rq_mul[i] != 0;
        s.t.ac_count = ac_count && requant ? ac_count[sh.ta[s.c]] : nullptr;
    }
}

inline int32_t restart_interval(const kivod_ctx *ctx) { return ctx->dri.length ? ctx->dri.interval : 0; }

// The skim's look-ups of the scan's AC tables, made again where a table
// has changed since. A table never built (serial 0) gets a look-up of its
// own too: an entry of zeros would take no bits.
void skim_tables(kivod_ctx *ctx) {
    for (int k = 0; k < ctx->sh.n_comp; ++k) {
        const int ta = ctx->sh.ta[ctx->sh.comp_idx[k]] & 3;
        if (ctx->skim_serial[ta] != ctx->ac_tbl[ta].serial || ctx->skim_serial[ta] == 0) {
            kivod_build_skim(&ctx->ac_tbl[ta], ctx->skim_tbl[ta], ctx->skim_scratch);
            ctx->skim_serial[ta] = ctx->ac_tbl[ta].serial;
        }
    }
}

// ---- the rules of the walk from MCU to MCU ----------------------------------------
// The skim and the slices call these and nothing else to move through a scan,
// so both reach every MCU in the same reader state.

// One block's DC and AC codes, unless a failure is held for the rest of the
// restart interval; a failing block holds its status and is reconstructed
// from the predictor alone. Returns false where decoding stops at once:
// without restart markers nothing after a failure can be found again.
inline bool decode_block(kivod_bs *bs, kivod_win *win, const ScanComp &s, kivod_vld_blk_fn fn, bool restarts,
                         int32_t *held, int16_t *blk, int16_t *diff, int16_t *dc_only) {
    // A block decoder that succeeds sets both *diff and *dc_only.
    if (*held) {
        *diff = 0;
        *dc_only = 1;
        return true;
    }
    const int32_t st = fn(bs, win, &s.t, blk, diff, dc_only);
    if (st == KIVO_OK) return true;
    *held = st;
    *diff = 0;
    *dc_only = 1;
    if (blk) {
        if (s.t.mag)
            for (int i = 0; i < 64; ++i) s.t.mag[i] -= static_cast<uint32_t>(blk[i] < 0 ? -blk[i] : blk[i]);
        kivo::clear_block(blk);
    }
    return restarts;
}

// The restart interval's count after an MCU and, at its end, the search for
// the next marker, which clears a held failure. Nothing follows the scan's
// last MCU. Returns false where no marker comes before the end of the data:
// decoding stops with -202 held.
inline bool restart_after(kivod_bs *bs, int32_t interval, bool last_of_scan, int16_t pred[4], int32_t *run,
                          int32_t *held) {
    ++*run;
    if (!interval || *run != interval || last_of_scan) return true;
    const int32_t r = kivod_bs_sync_restart(bs, pred, run);
    *held = r;
    return r == KIVO_OK;
}

// Decoding stops once the data is used up.
inline bool data_left(const kivod_bs *bs) { return !(kivod_bs_input_done(bs) && bs->bits < 1); }



// Sets the per-component block geometry of the scan: one block per MCU in a
// one-component scan, whole MCUs of the frame's factors otherwise.
void scan_geometry(kivod_ctx *ctx) {
    const kivod_sh &sh = ctx->sh;
    for (int k = 0; k < sh.n_comp; ++k) {
        const int c = sh.comp_idx[k];
        int32_t bw = (ctx->comp_w[c] + 7) >> 3, bh = (ctx->comp_h[c] + 7) >> 3;
        if (sh.n_comp > 1) {
            const int hf = ctx->fh.h[c], vf = ctx->fh.v[c];
            bw = (bw + hf - 1) / hf * hf;
            bh = (bh + vf - 1) / vf * vf;
            ctx->mcu_lines[c] = static_cast<uint8_t>(vf * 8);
        } else {
            ctx->mcu_lines[c] = 8;
        }
        ctx->blk_w[c] = bw;
        ctx->blk_h[c] = bh;
    }
}

// Checks what the scan header names before anything is indexed with it.
int32_t check_scan(const kivod_ctx *ctx) {
    const kivod_sh &sh = ctx->sh;
    if (sh.n_comp < 1) return KIVO_ERR_MALFORMED;
    int blocks = 0;
    for (int k = 0; k < sh.n_comp; ++k) {
        const int c = sh.comp_idx[k];
        if (c >= ctx->fh.n_comp) return KIVO_ERR_MALFORMED;
        for (int j = 0; j < k; ++j)
            if (sh.comp_idx[j] == c) return KIVO_ERR_MALFORMED;
        const int td = sh.td[c], ta = sh.ta[c], tq = ctx->fh.tq[c];
        if (td > 3 || ta > 3 || tq > 3) return KIVO_ERR_MALFORMED;
        // Tables the scan uses must have been defined.
        if (ctx->dc_tbl[td].count == 0 || ctx->ac_tbl[ta].count <= 1 || ctx->qtbl[tq].length == 0)
            return KIVO_ERR_MALFORMED;
        blocks += sh.n_comp > 1 ? ctx->fh.h[c] * ctx->fh.v[c] : 1;
    }
    return blocks > 10 ? KIVO_ERR_MALFORMED : KIVO_OK;
}


// Coefficient magnitudes are summed per block in 32-bit lanes (one block
// adds at most 32768 per lane) and moved to the 64-bit statistics before
// they could overflow.
constexpr int32_t kMagFlush = 65535;

// One slice job: its components, kernels, output and resizers.
struct Slice {
    kivod_ctx *ctx;
    kivod_work *w;
    xelo_imgb *img;
    int32_t mode;
    int ns;
    int nblk;  // output samples per block side
    int32_t interval;
    int32_t scan_mcus;
    kivod_vld_blk_fn vld_blk;
    kivod_idct_fn idct, idct_dc;
    ScanComp sc[4];
    bool stats;  // the MCUs decoded count towards the statistics
    int32_t mag_blocks;
    alignas(16) uint32_t mag[2][64];  // coefficient magnitudes, luma and chroma
    uint32_t qz[4][64];               // each scan component's quantizers with raster positions
    // Levels output: each scan component's own quantizers in raster order,
    // for statistics of the coefficients the levels stand for.
    uint16_t level_q[4][64];
    uint32_t mag_unkept[64];          // magnitudes of rows that count for no statistics
    // Levels output: each scan component whose levels an earlier scan
    // already decoded; its blocks are cleared before this scan's go in.
    bool clear_levels[4];
    // 1/8 without statistics: the DC values alone, each block's tables for
    // the skim's walk.
    bool dc_only;
    const kivod_blk_tbls *skim_blocks[10];
    alignas(16) uint8_t mcu_buf[4][32 * 32];
    // The MCU's blocks in coding order, walked by one flat loop (a loop
    // whose trip count changed from component to component mispredicted
    // at the end of every block row).
    struct McuBlock {
        uint8_t k, v, h;
    } blocks[10];
    int n_blocks;
    // Band output: where the slice stands for the sink, the ring line of
    // each scan component's current MCU row.
    kivod_band band;
    uint8_t *band_row[4];
    // The scan component of luma, which band and packed output hold (0 in a
    // scan without it).
    int luma_k;
    // Direct output: each scan component's plane and the block columns and
    // rows that lie wholly inside it (the others go through kivod_out_block).
    uint8_t *plane[4];
    int32_t full_cols[4], full_rows[4];
    // A block decoded whose inverse DCT runs after the next block's
    // decoding. Run at once, its first loads would wait for the decoder's
    // stores to the block to retire (they cannot be forwarded to wider
    // loads); one block later they come from the cache.
    struct {
        kivod_idct_fn fn;
        int16_t *blk;  // null: none waits
        uint8_t *dst;
        int32_t stride;
    } waiting;
    // The same for the statistics of a block of levels, whose magnitudes
    // are summed one block later.
    struct {
        const int16_t *blk;  // null: none waits
        const uint16_t *q;
        uint32_t *mag;
    } levels_waiting;
};

// On x86-64 a block's inverse DCT waits for the next block's decoding (see
// Slice::waiting); ARMv7 runs it at once, where waiting costs more
// instructions than it saves.
#if defined(KIVO_ARCH_x86)
constexpr bool kDeferIdct = true;
#else
constexpr bool kDeferIdct = false;
#endif

// The block waiting for its inverse DCT, if any.
inline void run_waiting(Slice &j) {
    if (!j.waiting.blk) return;
    j.waiting.fn(j.waiting.blk, j.waiting.stride, j.waiting.dst);
    kivo::clear_block(j.waiting.blk);
    j.waiting.blk = nullptr;
}

// Adds the magnitudes of the coefficients that the waiting levels stand
// for, every position without a branch (the compiler's vectors); position
// 0's sum is not used.
inline void add_waiting_levels(Slice &j) {
    const int16_t *blk = j.levels_waiting.blk;
    if (!blk) return;
    const uint16_t *lq = j.levels_waiting.q;
    uint32_t *mag = j.levels_waiting.mag;
    for (int i = 0; i < 64; ++i) {
        const int32_t c = low16(static_cast<uint32_t>(blk[i]) * lq[i]);
        mag[i] += static_cast<uint32_t>(c < 0 ? -c : c);
    }
    j.levels_waiting.blk = nullptr;
}

// Band output: the ring lines of the current MCU row of every scan component.
void set_band_rows(Slice &j) {
    for (int k = 0; k < j.ns; ++k) {
        const ScanComp &s = j.sc[k];
        const int32_t line = (s.row * 8) % j.band.ring[s.c];
        j.band_row[k] = const_cast<uint8_t *>(j.band.plane[s.c]) + static_cast<ptrdiff_t>(line) * j.band.stride[s.c];
    }
}

// Band output: the slice's ring, its lines and the scan's.
void open_band(Slice &j) {
    kivod_ctx *ctx = j.ctx;
    int slice = 0;
    while (ctx->work[slice] != j.w) ++slice;
    uint8_t *base = ctx->band_buf + ctx->band_bytes * static_cast<size_t>(slice);
    kivod_band &b = j.band;
    for (int c = 0; c < 3; ++c) {
        const bool used = c < ctx->fh.n_comp;
        b.plane[c] = used ? base + ctx->band_offset[c] : nullptr;
        b.stride[c] = used ? ctx->line_w[c] : 0;
        b.ring[c] = used ? ctx->band_ring[c] : 0;
    }
    kivod_band_span(ctx, slice, &b);
    set_band_rows(j);
}

}  // namespace

void kivod_band_span(const kivod_ctx *ctx, int slice, kivod_band *b) {
    const kivod_work *w = ctx->work[slice];
    int32_t per_row = 1;
    const int32_t mcus = kivod_scan_mcus(ctx, &per_row);
    const int32_t lines = ctx->mcu_lines[0];  // luma lines per MCU row
    b->total = mcus / per_row * lines;
    b->first = w->first_mcu / per_row * lines;
    b->end = b->first + w->n_mcu / per_row * lines;
    b->done = b->first;
    b->slice = slice;
}

namespace {

void list_blocks(Slice &j) {
    j.n_blocks = 0;
    for (int k = 0; k < j.ns; ++k)
        for (int v = 0; v < j.sc[k].v; ++v)
            for (int h = 0; h < j.sc[k].h; ++h) j.blocks[j.n_blocks++] = {uint8_t(k), uint8_t(v), uint8_t(h)};
}

void flush_magnitudes(Slice &j) {
    kivod_work *w = j.w;
    for (int i = 1; i < 64; ++i) {
        w->stat_luma[i] += j.mag[0][i];
        w->stat_chroma[i] += j.mag[1][i];
    }
    std::memset(j.mag, 0, sizeof(j.mag));
    j.mag_blocks = 0;
}

// flush: every row of the last strip is decoded (rows below the plane
// included); otherwise the rows of the MCU rows decoded whole go on, so that
// a picture whose data stop early shows as many rows as one thread gives.
void end_resizers(Slice &j, bool flush) {
    for (int k = 0; k < j.ns; ++k) {
        ScanComp &s = j.sc[k];
        if (!s.rsz) continue;
        if (j.sc[0].fill != 0) xelo_irsz(s.rsz, j.w->strip[k], s.src_line, flush ? j.ctx->mcu_lines[s.c] : s.fill);
        xelo_irsz_delete(s.rsz);
        s.rsz = nullptr;
    }
}

// One resizer per scan component over the whole plane, writing the slice's
// own output lines and fed from the slice's first source row on.
int32_t open_resizers(Slice &j) {
    kivod_ctx *ctx = j.ctx;
    kivod_work *w = j.w;
    const int d = kivod_denom(ctx->scale);
    for (int k = 0; k < j.ns; ++k) {
        ScanComp &s = j.sc[k];
        s.src_line = w->start_row[k] * j.nblk;
        if (w->out_lines[k] < 1) continue;  // this slice adds no output line
        xelo_irsz_desc desc;
        desc.kind = 20;
        desc.mode = 11;
        desc.src_w = (ctx->comp_w[s.c] + d - 1) / d;
        desc.src_h = (ctx->comp_h[s.c] + d - 1) / d;
        desc.src_stride = ctx->line_w[s.c];
        desc.strip_h = ctx->mcu_lines[s.c];
        desc.dst_w = ctx->out_w[s.c];
        desc.dst_h = ctx->out_h[s.c];
        desc.dst_stride = j.img->stride[s.c];
        desc.dst = j.img->plane[s.c];
        s.rsz = xelo::irsz_create_window(&desc, desc.src_stride, desc.src_h, w->out_first[k], w->out_lines[k],
                                         s.src_line);
        if (!s.rsz) {
            end_resizers(j, false);
            return KIVO_ERR_OUT_OF_MEMORY;
        }
    }
    return KIVO_OK;
}

// 1/8: the one pixel of block (h, v) of scan component k in the MCU, its DC's.
inline void put_dc_pixel(Slice &j, int k, int v, int h, int16_t dc) {
    const ScanComp &s = j.sc[k];
    j.w->strip[k][static_cast<ptrdiff_t>(v + s.fill) * j.ctx->line_w[s.c] + s.col + h] = kivod_dc_value(dc);
}

// 1/8 without statistics: an MCU's DC values alone, its AC codes skipped
// several at a time by the skim's walk, with decode_block's rules (nothing
// read while a failure is held; a failing block holds its status and is
// made from the predictor; without restart markers decoding stops there).
// Returns false where decoding stops inside the MCU.
bool dc_mcu(Slice &j, kivod_bs *bs, int32_t *held) {
    kivod_work *w = j.w;
    kivod_ctx *ctx = j.ctx;
    int16_t diff[10];
    int32_t walked = 0, status = KIVO_OK;
    if (!*held) {
        walked = ctx->dsp.skim_mcu(bs, j.skim_blocks, j.n_blocks, diff, &status);
        if (walked < j.n_blocks) *held = status;
    }
    const bool stop = walked < j.n_blocks && status != KIVO_OK && j.interval == 0;
    const int n = stop ? walked : j.n_blocks;
    for (int b = 0; b < n; ++b) {
        const int k = j.blocks[b].k, v = j.blocks[b].v, h = j.blocks[b].h;
        if (b < walked) w->dc_pred[k] = add16(w->dc_pred[k], diff[b]);
        put_dc_pixel(j, k, v, h, w->dc_pred[k]);
    }
    if (stop) return false;
    for (int k = 0; k < j.ns; ++k) j.sc[k].col += j.sc[k].h;
    return true;
}

// Decodes, reconstructs and writes one MCU. Returns false where decoding
// stops inside it.
bool decode_mcu(Slice &j, kivod_bs *bs, int32_t *held) {
    if (j.dc_only) return dc_mcu(j, bs, held);
    kivod_work *w = j.w;
    kivod_ctx *ctx = j.ctx;
    const bool restarts = j.interval != 0;
    kivod_win win{};
    for (int b = 0; b < j.n_blocks; ++b) {
        const int k = j.blocks[b].k, v = j.blocks[b].v, h = j.blocks[b].h;
        ScanComp &s = j.sc[k];
        int16_t *blk = w->blk[kDeferIdct && j.waiting.blk == w->blk[0] ? 1 : 0];
        // Levels are decoded in place into their zeroed buffer: the block
        // decoder stores only the non-zero ones, and nothing is copied. A
        // padding block beyond the buffer goes to the work block.
        bool in_place = false;
        if (j.mode == KIVOD_OUT_LEVELS) {
            const int32_t row = s.row + v, col = s.col + h;
            if (row < ctx->prog_blk_h[s.c] && col < ctx->prog_blk_w[s.c]) {
                blk = ctx->coef_buf[s.c] + (size_t(row) * ctx->prog_blk_w[s.c] + col) * 64;
                in_place = true;
                if (j.clear_levels[k]) kivo::clear_block(blk);
            }
        }
        int16_t diff, dc_only;
        if (!decode_block(bs, &win, s, j.vld_blk, restarts, held, blk, &diff, &dc_only)) {
            kivod_win_close(&win, bs);
            return false;
        }
        w->dc_pred[k] = add16(w->dc_pred[k], diff);
        blk[0] = w->dc_pred[k];
        if (j.stats) {
            // Levels count as the coefficients they stand for, as a decode
            // to pixels counts them.
            const bool levels = j.mode == KIVOD_OUT_LEVELS;
            const uint16_t *lq = j.level_q[k];
            if (levels) {
                add_waiting_levels(j);
                j.levels_waiting = {blk, lq, j.mag[s.c == 0 ? 0 : 1]};
                if (!in_place) add_waiting_levels(j);  // the work block is cleared below
            }
            const int32_t dc = levels ? low16(static_cast<uint32_t>(blk[0]) * lq[0]) : blk[0];
            const int32_t level = (dc + 1024) >> 3;
            if (s.c == 0) {
                w->dc_level_sum += level;
                w->stat_luma[0] += level;
                ++w->n_luma;
            } else {
                w->stat_chroma[0] += level;
                ++w->n_chroma;
            }
            // The block decoder has added the AC magnitudes (of pixels).
            if (!dc_only && ++j.mag_blocks == kMagFlush) flush_magnitudes(j);
        }
        const kivod_idct_fn fn = dc_only ? j.idct_dc : j.idct;
        // Where the block's samples go, when its inverse DCT can wait.
        uint8_t *dst = nullptr;
        int32_t stride = 0;
        if (j.mode == KIVOD_OUT_DIRECT) {
            const int32_t bx = s.col + h, by = s.row + v;
            if (bx < j.full_cols[k] && by < j.full_rows[k]) {
                stride = j.img->stride[s.c];
                dst = j.plane[k] + static_cast<ptrdiff_t>(by) * 8 * stride + bx * 8;
            } else {
                kivod_out_block(j.img, s.c, bx, by, fn, blk);
            }
        } else if (j.mode == KIVOD_OUT_LEVELS) {
            if (!in_place) kivo::clear_block(blk);
            continue;
        } else if (j.mode == KIVOD_OUT_BANDS) {
            stride = j.band.stride[s.c];
            dst = j.band_row[k] + static_cast<ptrdiff_t>(8 * v) * stride + (s.col + h) * 8;
        } else if (j.mode == KIVOD_OUT_PACKED) {
            // By frame component: a scan may name its components in
            // another order.
            stride = 32;
            dst = j.mcu_buf[s.c] + 32 * 8 * v + 8 * h;
        } else if (j.nblk == 1) {
            // 1/8: a block's one pixel is its DC's, and its decoder wrote no
            // other coefficient (a failed block was cleared whole).
            put_dc_pixel(j, k, v, h, blk[0]);
            blk[0] = 0;
            continue;
        } else {
            stride = ctx->line_w[s.c];
            dst = w->strip[k] + static_cast<ptrdiff_t>(v * j.nblk + s.fill) * stride + (s.col + h) * j.nblk;
        }
        if (dst && kDeferIdct) {
            run_waiting(j);
            j.waiting = {fn, blk, dst, stride};
            continue;
        }
        if (dst) fn(blk, stride, dst);
        kivo::clear_block(blk);
    }
    kivod_win_close(&win, bs);
    if (j.mode == KIVOD_OUT_PACKED) {
        run_waiting(j);
        // The MCU's place from the luma blocks.
        kivod_out_pack_mcu(ctx, j.mcu_buf, j.sc[j.luma_k].col * 8, j.sc[j.luma_k].row * 8);
    }
    for (int k = 0; k < j.ns; ++k) j.sc[k].col += j.sc[k].h;
    return true;
}

// At the end of an MCU row: the next row, and a full strip to the resizers.
void next_row(Slice &j) {
    if (j.sc[0].col < j.sc[0].row_w) return;
    run_waiting(j);  // the row is whole before it is handed on
    for (int k = 0; k < j.ns; ++k) {
        j.sc[k].row += j.sc[k].v;
        j.sc[k].col = 0;
    }
    if (j.mode == KIVOD_OUT_BANDS) {
        j.band.done = j.sc[j.luma_k].row * 8;
        j.ctx->bands->rows_done(j.ctx->bands->user, &j.band);
        set_band_rows(j);
        return;
    }
    if (j.mode != KIVOD_OUT_RESIZED) return;
    for (int k = 0; k < j.ns; ++k) j.sc[k].fill += j.sc[k].v * j.nblk;
    if (j.sc[0].fill < j.ctx->mcu_lines[j.sc[0].c]) return;
    for (int k = 0; k < j.ns; ++k) {
        ScanComp &s = j.sc[k];
        const int lines = j.ctx->mcu_lines[s.c];
        if (s.rsz) xelo_irsz(s.rsz, j.w->strip[k], s.src_line, lines);
        s.src_line += lines;
        s.fill = 0;
    }
}

// Decodes MCUs first .. first + count - 1 of the scan with reader bs.
// Returns how many were completed; *stopped tells whether decoding stopped.
int32_t run_mcus(Slice &j, kivod_bs *bs, int32_t first, int32_t count, int32_t *held, bool *stopped) {
    kivod_work *w = j.w;
    *stopped = false;
    int32_t m = 0;
    while (m < count) {
        if (!decode_mcu(j, bs, held)) {
            *stopped = true;
            break;
        }
        ++m;
        // The MCU counts as decoded whatever follows it, so a row it ends
        // is handed on even when no restart marker comes after it.
        next_row(j);
        const bool last = first + m == j.scan_mcus;
        if (!restart_after(bs, j.interval, last, w->dc_pred, &w->rst_count, held) || !data_left(bs)) {
            *stopped = true;
            break;
        }
    }
    run_waiting(j);
    add_waiting_levels(j);
    return m;
}

}  // namespace

int32_t kivod_scan_mcus(const kivod_ctx *ctx, int32_t *per_row) {
    const kivod_sh &sh = ctx->sh;
    const int c0 = sh.comp_idx[0];
    int32_t cols = ctx->blk_w[c0], rows = ctx->blk_h[c0];
    if (sh.n_comp > 1) {
        cols /= ctx->fh.h[c0];
        rows /= ctx->fh.v[c0];
    }
    if (per_row) *per_row = cols;
    return cols * rows;
}

void kivod_note_rows(kivod_ctx *ctx, int c, int32_t rows) {
    int32_t &r = ctx->comp_rows[c];
    // A later sequential scan of a component may complete it; every
    // progressive scan adds to all of its rows.
    if (r < 0 || (ctx->progressive ? rows < r : rows > r)) r = rows;
}

int32_t kivod_skim_to(kivod_ctx *ctx, kivod_skim *sk, int32_t target) {
    ScanComp sc[4];
    setup_comps(ctx, sc, nullptr, nullptr);
    const int ns = ctx->sh.n_comp;
    skim_tables(ctx);
    for (int k = 0; k < ns; ++k) sc[k].t.skim = ctx->skim_tbl[ctx->sh.ta[sc[k].c] & 3];
    const int32_t interval = restart_interval(ctx);
    const int32_t total = kivod_scan_mcus(ctx, nullptr);
    // The MCU's blocks in coding order (check_scan allows ten).
    const kivod_blk_tbls *blocks[10];
    int comp[10], n = 0;
    for (int k = 0; k < ns; ++k)
        for (int b = 0; b < sc[k].h * sc[k].v; ++b) {
            blocks[n] = &sc[k].t;
            comp[n++] = k;
        }
    while (sk->mcu < target) {
        // As decode_block takes them: nothing is read while a failure is
        // held; a failing block holds its status, and without restart
        // markers decoding stops there.
        if (!sk->held) {
            int16_t diff[10];
            int32_t status = KIVO_OK;
            const int32_t walked = ctx->dsp.skim_mcu(&sk->bs, blocks, n, diff, &status);
            for (int b = 0; b < walked; ++b) sk->pred[comp[b]] = add16(sk->pred[comp[b]], diff[b]);
            if (walked < n) {
                sk->held = status;
                if (interval == 0) return 1;
            }
        }
        ++sk->mcu;
        if (!restart_after(&sk->bs, interval, sk->mcu == total, sk->pred, &sk->run, &sk->held)) return 1;
        if (!data_left(&sk->bs)) return 1;
    }
    return 0;
}

int32_t dec_scan(kivod_ctx *ctx, int32_t *done) {
    int32_t ret = kivod_vld_sh(ctx, &ctx->scan_bs, &ctx->sh);
    if (ret != 0) return ret;
    if (ctx->progressive) return kivod_dec_scan_prog(ctx, done);
    ret = check_scan(ctx);
    if (ret != 0) return ret;
    scan_geometry(ctx);
    // At 1/8 the slices walk the AC codes as the skim does.
    if (ctx->scale == 8) skim_tables(ctx);

    kivod_split_slices(ctx);
    const int32_t status = kivod_skim_and_run(ctx);
    kivod_collect_stats(ctx);

    // How far the scan got: to the end of the first slice that stopped (one
    // that could not start, for want of memory, stops before its first MCU).
    const kivod_work *last = ctx->work[ctx->n_threads - 1];
    int32_t per_row = 1;
    const int32_t total = kivod_scan_mcus(ctx, &per_row);
    int32_t reached = total;
    for (int i = 0; i < ctx->n_threads; ++i) {
        const kivod_work *w = ctx->work[i];
        if (w->stopped) {
            reached = w->first_mcu + w->mcu_done;
            break;
        }
    }
    for (int k = 0; k < ctx->sh.n_comp; ++k) {
        const int c = ctx->sh.comp_idx[k];
        const int32_t v = ctx->sh.n_comp > 1 ? ctx->fh.v[c] : 1;
        kivod_note_rows(ctx, c, reached == total ? ctx->blk_h[c] : reached / per_row * v);
    }

    // The scan ends where the last slice's reader stopped.
    ctx->scan_bs = last->bs;
    ret = kivod_bs_rewind_cache(&ctx->scan_bs, 0);
    if (ret != 0) return ret;
    if (ctx->sh.n_comp > 1) *done = 1;
    return status;
}

void kivod_slice_not_run(kivod_work *w) {
    w->stopped = 1;
    w->mcu_done = 0;
    std::memset(w->stat_luma, 0, sizeof(w->stat_luma));
    std::memset(w->stat_chroma, 0, sizeof(w->stat_chroma));
    w->n_luma = w->n_chroma = 0;
    w->dc_level_sum = 0;
    std::memset(w->dc_count, 0, sizeof(w->dc_count));
    std::memset(w->ac_count, 0, sizeof(w->ac_count));
}

int32_t kivod_dec_slice(kivod_ctx *ctx, kivod_work *w) {
    // Until its MCUs run, the slice counts as stopped before its first.
    kivod_slice_not_run(w);
    Slice j;
    j.ctx = ctx;
    j.w = w;
    j.waiting.blk = nullptr;
    j.levels_waiting.blk = nullptr;
    j.img = ctx->out_imgb;
    j.mode = kivod_out_mode_for(ctx, j.img);
    if (j.mode < 0) return j.mode;
    j.ns = ctx->sh.n_comp;
    // Packed pairs need every component of the MCU at hand.
    if (j.mode == KIVOD_OUT_PACKED && ctx->fh.n_comp > 1 && j.ns != ctx->fh.n_comp) return KIVO_ERR_UNSUPPORTED;
    const int scale = ctx->scale;
    // Levels are decoded with quantizers of 1: their statistics are made
    // below from the frame's quantizers, not by the block decoder.
    const bool magnitudes = ctx->stats_wanted != 0 && j.mode != KIVOD_OUT_LEVELS;
    j.vld_blk = magnitudes ? kivod_vld_blk_for(scale, true) : ctx->dsp.vld_blk[scale];
    j.idct = ctx->dsp.idct[scale];
    j.idct_dc = ctx->dsp.idct_dc[scale];
    j.nblk = 1 << tbl_blk_shift[scale];
    j.interval = restart_interval(ctx);
    j.scan_mcus = kivod_scan_mcus(ctx, nullptr);
    // Statistics only for a handle that asks for them (the transcoder's).
    j.stats = ctx->stats_wanted != 0;
    j.mag_blocks = 0;
    std::memset(j.mag, 0, sizeof(j.mag));
    setup_comps(ctx, j.sc, j.stats ? w->dc_count : nullptr, j.stats ? w->ac_count : nullptr);
    list_blocks(j);
    j.luma_k = 0;
    for (int k = 0; k < j.ns; ++k) {
        if (j.sc[k].c == 0) j.luma_k = k;
        j.sc[k].row = w->start_row[k];
        // Rows a scan reached are noted once all its slices are done.
        j.clear_levels[k] = j.mode == KIVOD_OUT_LEVELS && ctx->comp_rows[j.sc[k].c] >= 0;
        j.sc[k].t.mag = j.stats && j.mode != KIVOD_OUT_LEVELS ? j.mag[j.sc[k].c == 0 ? 0 : 1] : nullptr;
        if (j.stats && j.mode == KIVOD_OUT_LEVELS) {
            const kivod_qtbl &lq = ctx->qtbl[ctx->fh.tq[j.sc[k].c] & 3];
            for (int r = 0; r < 64; ++r) j.level_q[k][r] = lq.q[kivo_tbl_ras_to_zig[r]];
        }
        kivod_make_qz(j.sc[k].t.q, j.qz[k]);
        j.sc[k].t.qz = j.qz[k];
        if (j.mode == KIVOD_OUT_DIRECT) {
            const int c = j.sc[k].c;
            j.plane[k] = j.img->plane[c];
            j.full_cols[k] = j.img->stride[c] / 8;
            j.full_rows[k] = j.img->lines[c] / 8;
        }
    }
    j.dc_only = j.nblk == 1 && !j.stats;
    for (int b = 0; j.dc_only && b < j.n_blocks; ++b) {
        ScanComp &sc = j.sc[j.blocks[b].k];
        sc.t.skim = ctx->skim_tbl[ctx->sh.ta[sc.c] & 3];
        j.skim_blocks[b] = &sc.t;
    }
    if (j.mode == KIVOD_OUT_BANDS) open_band(j);
    if (j.mode == KIVOD_OUT_RESIZED) {
        const int32_t r = open_resizers(j);
        if (r != 0) return r;
    }

    int32_t held = w->held;
    bool stopped = false;
    w->mcu_done = run_mcus(j, &w->bs, w->first_mcu, w->n_mcu, &held, &stopped);
    w->stopped = stopped;
    flush_magnitudes(j);
    // The last strip goes to the resizers once every row it holds is
    // decoded, even when the data end right after them.
    bool whole = w->mcu_done == w->n_mcu && (!stopped || w->extra_mcu == 0);
    if (!stopped && w->extra_mcu > 0) {
        // Rows below the slice that its resizers still read, decoded from
        // where the next slice starts: the same bits give the same rows.
        // They count for no statistics and write nothing but the strips.
        for (int k = 0; k < j.ns; ++k) {
            j.sc[k].t.dc_count = j.sc[k].t.ac_count = nullptr;
            if (j.sc[k].t.mag) j.sc[k].t.mag = j.mag_unkept;
        }
        j.stats = false;
        kivod_bs bs = w->bs;
        int32_t extra_held = held;
        whole = run_mcus(j, &bs, w->first_mcu + w->n_mcu, w->extra_mcu, &extra_held, &stopped) == w->extra_mcu;
    }
    if (!w->stopped) kivod_bs_read_stuffing(&w->bs);
    end_resizers(j, whole);
    if (w->stopped) return held;
    // A failure held at the slice's end belongs to the next slice's first
    // restart interval, which starts holding it; only the scan's last slice
    // reports one.
    return w->first_mcu + w->n_mcu == j.scan_mcus ? held : KIVO_OK;
}
