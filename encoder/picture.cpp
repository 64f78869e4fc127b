// The picture loop: geometry and segment plan, the statistics pass, the
// segments encoded on lent threads and joined behind the header.
#include <climits>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "common/block.h"
#include "encoder/kivoe_int.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace {

// Widens the 8 x 8 samples at src into blk.
inline void load_inside(const uint8_t *src, int32_t stride, int16_t *blk) {
#if defined(__ARM_NEON) && !defined(__aarch64__)
    // Rows into d16, d18, ..., d30, widened in place, stored four rows at a
    // time (the compiler otherwise forms every store's address).
    asm volatile("vld1.8 {d16}, [%[s]], %[st]\n\t" "vld1.8 {d18}, [%[s]], %[st]\n\t" "vld1.8 {d20}, [%[s]], %[st]\n\t"
                 "vld1.8 {d22}, [%[s]], %[st]\n\t" "vld1.8 {d24}, [%[s]], %[st]\n\t" "vld1.8 {d26}, [%[s]], %[st]\n\t"
                 "vld1.8 {d28}, [%[s]], %[st]\n\t" "vld1.8 {d30}, [%[s]]\n\t"
                 "vmovl.u8 q8, d16\n\t" "vmovl.u8 q9, d18\n\t" "vmovl.u8 q10, d20\n\t" "vmovl.u8 q11, d22\n\t"
                 "vmovl.u8 q12, d24\n\t" "vmovl.u8 q13, d26\n\t" "vmovl.u8 q14, d28\n\t" "vmovl.u8 q15, d30\n\t"
                 "vst1.16 {d16-d19}, [%[b]]!\n\t" "vst1.16 {d20-d23}, [%[b]]!\n\t" "vst1.16 {d24-d27}, [%[b]]!\n\t"
                 "vst1.16 {d28-d31}, [%[b]]\n\t"
                 : [s] "+r"(src), [b] "+r"(blk)
                 : [st] "r"(stride)
                 : "memory", "d16", "d17", "d18", "d19", "d20", "d21", "d22", "d23", "d24", "d25", "d26", "d27", "d28",
                   "d29", "d30", "d31");
#else
    for (int r = 0; r < 8; ++r, src += stride) {
#if defined(__SSE2__)
        const __m128i v = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(src));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(blk + 8 * r), _mm_unpacklo_epi8(v, _mm_setzero_si128()));
#elif defined(__ARM_NEON)
        vst1q_s16(blk + 8 * r, vreinterpretq_s16_u16(vmovl_u8(vld1_u8(src))));
#else
        for (int c = 0; c < 8; ++c) blk[8 * r + c] = src[c];
#endif
    }
#endif
}

// Loads the 8x8 block at (8 bcol, 8 brow) of a plane into 8 x 8 bytes,
// repeating the last column and row where the block crosses the plane's
// edge.
void load_block_u8(const uint8_t *plane, int32_t stride, int32_t ws, int32_t hs, int32_t bcol, int32_t brow,
                   uint8_t *blk) {
    int32_t x = 8 * bcol, y = 8 * brow;
    if (x > ws - 1) x = ws - 1;
    if (y > hs - 1) y = hs - 1;
    const int32_t cols = ws - x < 8 ? ws - x : 8, rows = hs - y < 8 ? hs - y : 8;
    const uint8_t *src = plane + static_cast<ptrdiff_t>(y) * stride + x;
    for (int r = 0; r < rows; ++r, src += stride) {
        std::memcpy(blk + 8 * r, src, static_cast<size_t>(cols));
        std::memset(blk + 8 * r + cols, src[cols - 1], static_cast<size_t>(8 - cols));
    }
    for (int r = rows; r < 8; ++r) std::memcpy(blk + 8 * r, blk + 8 * (r - 1), 8);
}

// The same as 16-bit samples.
void load_block(const uint8_t *plane, int32_t stride, int32_t ws, int32_t hs, int32_t bcol, int32_t brow,
                int16_t *blk) {
    if (8 * bcol + 8 <= ws && 8 * brow + 8 <= hs) {
        load_inside(plane + static_cast<ptrdiff_t>(8 * brow) * stride + 8 * bcol, stride, blk);
        return;
    }
    uint8_t edge[64];
    load_block_u8(plane, stride, ws, hs, bcol, brow, edge);
    load_inside(edge, 8, blk);
}

// The mask a quantizer returned, as the block coder takes it: all ones
// (not known, the coder checks the levels) when a level has no category.
inline uint64_t coder_mask(uint64_t quant_mask) { return quant_mask & 1 ? ~uint64_t(0) : quant_mask; }

// Asks for the cache lines at column x of rows y to y + n - 1 of a plane of
// hs rows. The blocks are read eight or sixteen rows at a time across the
// picture, more streams at once than the processor follows by itself: each
// 64-byte line is asked for two lines ahead of the block that starts it. A
// prefetch past the end of a row or plane does not fault; the addresses are
// worked out as integers, since they may lie outside the plane (or a plane
// that is not there).
inline void prefetch_rows(const uint8_t *plane, int32_t stride, int32_t hs, int32_t x, int32_t y, int32_t n) {
    if (!plane) return;
    if (n > hs - y) n = hs - y;
    uintptr_t a = reinterpret_cast<uintptr_t>(plane) + static_cast<uintptr_t>(static_cast<ptrdiff_t>(y) * stride + x);
    for (int32_t r = 0; r < n; ++r, a += static_cast<uintptr_t>(static_cast<ptrdiff_t>(stride)))
        __builtin_prefetch(reinterpret_cast<const void *>(a));
}

// Memory a segment coded into a writer of its own starts with.
constexpr int32_t kFirstRoom = 256 << 10;

// Appends n bytes to a writer, never past its end.
void append_bytes(xelo_bsw *bs, const uint8_t *src, size_t n) {
    const size_t room = static_cast<size_t>(bs->end_ptr - bs->write_ptr);
    if (n > room) {
        n = room;
        bs->overflow = 1;
    }
    if (!n) return;
    std::memcpy(bs->write_ptr, src, n);
    bs->write_ptr += n;
}

}  // namespace

int32_t kivoe_pic_init(kivoe_ctx *ctx) {
    const int32_t f = ctx->color_format;
    if (!ctx->pic_cur) return KIVO_ERR_UNAVAILABLE;  // nothing pushed
    const kivo::Layout *layout = kivo::layout_of(f);
    if (!layout || layout->n_comp == 0) return KIVO_ERR_COLOR_FORMAT;
    // The frame header holds 16-bit sizes; larger pictures are refused
    // rather than cut.
    if (ctx->width < 1 || ctx->height < 1 || ctx->width > 65535 || ctx->height > 65535) return KIVO_ERR_INVALID_ARG;
    kivoe_init_fh(&ctx->fh, ctx->width, ctx->height, f);
    kivoe_init_sh(&ctx->sh, ctx->width, ctx->height, f);
    const int32_t x = ctx->fh.width, y = ctx->fh.height;
    const int nc = ctx->fh.n_comp;
    std::memset(ctx->blk_w, 0, sizeof(ctx->blk_w));
    std::memset(ctx->blk_h, 0, sizeof(ctx->blk_h));
    std::memset(ctx->smp_w, 0, sizeof(ctx->smp_w));
    std::memset(ctx->smp_h, 0, sizeof(ctx->smp_h));
    for (int c = 0; c < nc; ++c) {
        const bool chroma = c == 1 || c == 2;
        const int32_t w = chroma ? kivo::chroma_width(*layout, x) : x;
        const int32_t h = chroma ? kivo::chroma_height(*layout, y) : y;
        ctx->smp_w[c] = w;
        ctx->smp_h[c] = h;
        const int hf = ctx->fh.h[c], vf = ctx->fh.v[c];
        int32_t bw = (w + 7) / 8, bh = (h + 7) / 8;
        bw = hf ? (bw + hf - 1) / hf * hf : 0;
        bh = vf ? (bh + vf - 1) / vf * vf : 0;
        ctx->blk_w[c] = bw;
        ctx->blk_h[c] = bh;
    }

    // Segments of whole restart intervals, one per thread. Every segment
    // holds at least one MCU: the count is lowered for small pictures and
    // the last segment takes what is left.
    const int32_t across = ctx->blk_w[0] / ctx->fh.h[0];
    const int32_t total = across * (ctx->blk_h[0] / ctx->fh.v[0]);
    int32_t n = kivo::thread_limit(ctx->tpool);
    if (n > total) n = total;
    // A progressive encode plans its segments as for the most threads and
    // gives each thread a run of them; adaptive rounding restarts where
    // those segments start, so the levels do not depend on the thread count.
    const int32_t plan_n = ctx->progressive ? (total < kivo::kMaxThreads ? total : kivo::kMaxThreads) : n;
    int32_t ri = (total + plan_n / 2) / plan_n, k = 1;
    while (ri > 65535) {
        ri /= 2;
        k *= 2;
    }
    int32_t len = k * ri;
    int32_t fit = (total + len - 1) / len;
    if (ctx->progressive) {
        ctx->prog_chunk = len;
        int32_t chunks = fit;
        if (chunks > kivo::kMaxThreads) chunks = kivo::kMaxThreads;  // the last one takes the rest
        // Runs of whole planned segments: the last run ends with the last
        // segment, however long, so that no run starts inside it.
        const int32_t per_run = (chunks + n - 1) / n;
        len *= per_run;
        fit = (chunks + per_run - 1) / per_run;
    }
    if (n > fit) n = fit;
    if (n == 1 || ctx->progressive) ri = 0;
    ctx->rst_interval = ri;
    ctx->n_segments = n;

    for (int i = 0; i < n; ++i) {
        kivoe_job *job = ctx->job[i];
        // Room for the chunks other jobs make ahead in a shared segment;
        // without it the segment is not shared, and nothing else changes.
        if (n > 1 && !ctx->progressive && !job->share.levels) {
            constexpr size_t kBlocks = kShareSlots * kShareMcus * kMaxMcuBlocks;
            void *room = xelo_malloc_fast_align32(kBlocks * (64 * sizeof(int16_t) + sizeof(kivoe_block_code)));
            job->share.levels = static_cast<int16_t *>(room);
            job->share.code = room ? reinterpret_cast<kivoe_block_code *>(job->share.levels + kBlocks * 64) : nullptr;
        }
        const int32_t s = i * len;
        job->n_mcu = i == n - 1 ? total - (n - 1) * len : len;
        for (int c = 0; c < nc; ++c) {
            job->start_col[c] = (s % across) * ctx->fh.h[c];
            job->start_row[c] = (s / across) * ctx->fh.v[c];
        }
        job->first_marker = static_cast<uint8_t>(0xD0 + (i * k) % 8);
        if (i == 0) {
            job->writer = &ctx->bs;
            continue;
        }
        if (ctx->progressive) {
            // The segments only keep levels: their writers stay empty.
            job->writer = job->own_writer;
            xelo_bsw_init(job->writer, nullptr, 0, nullptr);
            continue;
        }
        // The segment's bytes go to memory of the job's own, which grows
        // with them (grow_writer); it starts at the first room or at the
        // output's size if smaller.
        const int32_t size = ctx->bs.size < kFirstRoom ? ctx->bs.size : kFirstRoom;
        if (!job->own_buf) job->own_buf = static_cast<uint8_t *>(std::malloc(static_cast<size_t>(size)));
        if (!job->own_buf) {
            for (int j = 1; j < kivo::kMaxThreads; ++j) {
                if (!ctx->job[j]) continue;
                std::free(ctx->job[j]->own_buf);
                ctx->job[j]->own_buf = nullptr;
            }
            return KIVO_ERR_OUT_OF_MEMORY;
        }
        job->writer = job->own_writer;
        xelo_bsw_init(job->writer, job->own_buf, size, nullptr);
    }
    return KIVO_OK;
}

void kivoe_pic_deinit(kivoe_ctx *ctx) {
    xelo_bsw_sink(&ctx->bs);
    for (int i = 0; i < kivo::kMaxThreads; ++i) {
        if (!ctx->job[i]) continue;
        std::free(ctx->job[i]->own_buf);
        ctx->job[i]->own_buf = nullptr;
        std::free(ctx->job[i]->levels);
        ctx->job[i]->levels = nullptr;
        ctx->job[i]->masks = nullptr;
        ctx->job[i]->levels_kept = false;
    }
    if (ctx->pic_owned) {
        ctx->pic_req.free(ctx->pic_owned);
        ctx->pic_owned = nullptr;
    }
    // An encode uses up the pushed picture, whichever path took it: the
    // caller's planes need only live until the encode returns.
    ctx->pic_cur = nullptr;
    ctx->app_list = nullptr;
}

int32_t kivoe_enc(kivoe_ctx *ctx, const kivoe_output *out, int32_t *written) {
    if (written) *written = 0;
    if (!out || !out->bitb || !out->bitb->addr || out->bitb->ssize <= 0) return KIVO_ERR_INVALID_ARG;
    xelo_bsw_init(&ctx->bs, out->bitb->addr, out->bitb->ssize, kivoe_bs_flush);
    int32_t ret = kivoe_pic_init(ctx);
    if (ret < 0) return ret;
    kivoe_proc &p = ctx->proc;
    if (!p.analysis || !p.header || !p.pic || !p.vlc_footer) {
        kivoe_pic_deinit(ctx);
        return KIVO_ERR_UNAVAILABLE;
    }
    // The analysis changes the handle's Huffman tables (and, optimising,
    // adds this picture's symbol counts to its own): an encode that fails,
    // memory too small for the stream included, puts them back, so that the
    // handle's next pictures come out as if it had not been tried.
    kivoe_huff_spec spec_before[4];
    uint64_t counts_before[2][4][257];
    static_assert(sizeof(spec_before) == sizeof(ctx->huff_spec) &&
                      sizeof(counts_before[0][0]) == sizeof(ctx->dc_tbl[0].counter) &&
                      sizeof(counts_before[1][0]) == sizeof(ctx->ac_tbl[0].counter),
                  "the saved state matches the handle's");
    if (!ctx->progressive) {
        std::memcpy(spec_before, ctx->huff_spec, sizeof(spec_before));
        for (int t = 0; t < 4 && ctx->opt_huffman; ++t) {
            std::memcpy(counts_before[0][t], ctx->dc_tbl[t].counter, sizeof(counts_before[0][t]));
            std::memcpy(counts_before[1][t], ctx->ac_tbl[t].counter, sizeof(counts_before[1][t]));
        }
    }
    if (ctx->progressive) {
        ret = kivoe_enc_progressive(ctx);
    } else {
        ret = p.analysis(ctx);
        if (ret >= 0) {
            p.header(ctx);
            ret = p.pic(ctx);
        }
        if (ret >= 0) p.vlc_footer(ctx);
    }
    kivoe_pic_deinit(ctx);
    if (!ctx->progressive && (ret < 0 || ctx->bs.overflow)) {
        std::memcpy(ctx->huff_spec, spec_before, sizeof(spec_before));
        for (int t = 0; t < 4 && ctx->opt_huffman; ++t) {
            std::memcpy(ctx->dc_tbl[t].counter, counts_before[0][t], sizeof(counts_before[0][t]));
            std::memcpy(ctx->ac_tbl[t].counter, counts_before[1][t], sizeof(counts_before[1][t]));
        }
        kivoe_gen_code_tbl(ctx);
    }
    if (ret < 0) return ret;
    // A stream that does not fit the caller's memory is not handed out:
    // nothing was written past its end, but the stream is incomplete.
    if (ctx->bs.overflow) return KIVO_ERR_INVALID_ARG;
    if (written) *written = static_cast<int32_t>(ctx->bs.write_ptr - ctx->bs.start_ptr);
    return KIVO_OK;
}

namespace {

// Runs the picture slot with the statistics twins in the coder slots: each
// job counts the symbols of its segment into tables of its own (only their
// counters are used), so the counts do not depend on timing.
int32_t count_symbols(kivoe_ctx *ctx) {
    kivoe_proc &p = ctx->proc;
    if (!p.pic) return KIVO_ERR_UNAVAILABLE;
    const int n = ctx->n_segments;
    for (int i = 0; i < n; ++i) {
        kivoe_job *job = ctx->job[i];
        if (!job->stat_dc) job->stat_dc = static_cast<kivoe_dc_tbl *>(std::calloc(4, sizeof(kivoe_dc_tbl)));
        if (!job->stat_ac) job->stat_ac = static_cast<kivoe_ac_tbl *>(std::calloc(8, sizeof(kivoe_ac_tbl)));
        if (!job->stat_dc || !job->stat_ac) return KIVO_ERR_OUT_OF_MEMORY;
        for (int t = 0; t < 4; ++t) {
            std::memset(job->stat_dc[t].counter, 0, sizeof(job->stat_dc[t].counter));
            std::memset(job->stat_ac[t].counter, 0, sizeof(job->stat_ac[t].counter));
            std::memset(job->stat_ac[t + 4].counter, 0, sizeof(job->stat_ac[t + 4].counter));
        }
    }
    // The levels are kept up to 64 MiB for the whole picture (a 4:2:0
    // picture of some 22 million pixels), each block's mask after them;
    // larger pictures, or a failed allocation, have the coding pass
    // transform and quantize again.
    int32_t per_mcu = 0;
    for (int c = 0; c < ctx->fh.n_comp; ++c) per_mcu += ctx->fh.h[c] * ctx->fh.v[c];
    // In 64 bits: a large picture's size would wrap a 32-bit size_t.
    uint64_t total = 0;
    for (int i = 0; i < n; ++i) total += static_cast<uint64_t>(ctx->job[i]->n_mcu) * per_mcu * 64 * sizeof(int16_t);
    for (int i = 0; i < n && total <= (uint64_t(64) << 20); ++i) {
        kivoe_job *job = ctx->job[i];
        std::free(job->levels);
        const size_t blocks = static_cast<size_t>(job->n_mcu) * per_mcu;
        static_assert(64 * sizeof(int16_t) % alignof(uint64_t) == 0, "the masks follow the levels aligned");
        job->levels = static_cast<int16_t *>(std::malloc(blocks * (64 * sizeof(int16_t) + sizeof(uint64_t))));
        job->masks = job->levels ? reinterpret_cast<uint64_t *>(job->levels + blocks * 64) : nullptr;
    }
    for (int i = 0; i < n; ++i) ctx->job[i]->counting = true;
    p.vlc_dc = kivoe_vlc_dc_stat;
    p.vlc_ac = kivoe_vlc_ac_stat;
    p.vlc_dri_marker = kivoe_vlc_null;
    p.vlc_footer = kivoe_vlc_footer_stat;
    const int32_t ret = p.pic(ctx);
    p.vlc_dc = kivoe_vlc_dc;
    p.vlc_ac = kivoe_vlc_ac;
    p.vlc_dri_marker = kivoe_vlc_dri_marker;
    p.vlc_footer = kivoe_vlc_footer;
    for (int i = 0; i < n; ++i) ctx->job[i]->counting = false;
    return ret;
}

// True when table id of class cls is selected by a component of the frame.
bool table_used(const kivoe_ctx *ctx, int32_t cls, int32_t id) {
    for (int c = 0; c < ctx->fh.n_comp; ++c)
        if (((cls ? ctx->sh.ta[c] : ctx->sh.td[c]) & 3) == id) return true;
    return false;
}

// True when the code table of specification i codes every symbol that
// 8-bit baseline data can hold (DC categories 0 to 11; EOB, ZRL and every
// run with sizes 1 to 10), as the typical tables do.
bool codes_every_symbol(const kivoe_ctx *ctx, int32_t i) {
    const kivoe_huff_spec &s = ctx->huff_spec[i];
    if (s.cls == 0) {
        for (int k = 0; k <= 11; ++k)
            if (!ctx->dc_tbl[s.id & 3].code[k].len) return false;
        return true;
    }
    const kivoe_code *by = ctx->ac_tbl[s.id & 3].by_symbol;
    if (!by[0x00].len || !by[0xF0].len) return false;
    for (int run = 0; run < 16; ++run)
        for (int size = 1; size <= 10; ++size)
            if (!by[run * 16 + size].len) return false;
    return true;
}

// True when some job counted a symbol that specification i has no code for.
bool lacks_a_code(const kivoe_ctx *ctx, int32_t i) {
    const kivoe_huff_spec &s = ctx->huff_spec[i];
    const int32_t id = s.id & 3;
    for (int j = 0; j < ctx->n_segments; ++j) {
        const kivoe_job *job = ctx->job[j];
        for (int v = 0; v < 256; ++v) {
            const bool counted = s.cls ? job->stat_ac[id].counter[v] || job->stat_ac[id + 4].counter[v]
                                       : v < 16 && job->stat_dc[id].counter[v];
            const uint8_t len = s.cls ? ctx->ac_tbl[id].by_symbol[v].len : ctx->dc_tbl[id].code[v].len;
            if (counted && !len) return true;
        }
    }
    return false;
}

}  // namespace

// With the optimised-Huffman flag the symbols are counted, added to the
// handle's counters and the tables rebuilt from them. Without it the tables
// in force are kept, but never at the cost of a symbol without a code:
// tables left by an earlier optimisation are checked against this
// picture's symbols, and each one that lacks a code for one of them is
// replaced by its typical table, which codes every symbol.
int32_t kivoe_analysis(kivoe_ctx *ctx) {
    if (ctx->opt_huffman) {
        const int32_t ret = count_symbols(ctx);
        if (ret < 0) return ret;
        for (int i = 0; i < ctx->n_segments; ++i) {
            const kivoe_job *job = ctx->job[i];
            for (int t = 0; t < 4; ++t)
                for (int s = 0; s < 257; ++s) {
                    ctx->dc_tbl[t].counter[s] += job->stat_dc[t].counter[s];
                    ctx->ac_tbl[t].counter[s] += job->stat_ac[t].counter[s] + job->stat_ac[t + 4].counter[s];
                }
        }
        const int32_t opt = kivoe_opt_huff_tbl(ctx);
        return opt < 0 ? opt : KIVO_OK;
    }
    bool complete = true;
    for (int i = 0; i < 4; ++i)
        if (table_used(ctx, ctx->huff_spec[i].cls, ctx->huff_spec[i].id & 3) && !codes_every_symbol(ctx, i))
            complete = false;
    if (complete) return KIVO_OK;
    const int32_t ret = count_symbols(ctx);
    if (ret < 0) return ret;
    bool replaced = false;
    for (int i = 0; i < 4; ++i) {
        if (!lacks_a_code(ctx, i)) continue;
        kivoe_default_huff_spec(ctx, i);
        replaced = true;
    }
    if (replaced) kivoe_gen_code_tbl(ctx);
    return KIVO_OK;
}

namespace {

// Levels kept for a progressive stream, at most 1 GiB (some 350 million
// pixels in 4:2:0); larger pictures are refused with
// KIVO_ERR_OUT_OF_MEMORY.
constexpr uint64_t kMaxProgressiveBytes = uint64_t(1) << 30;

// The progressive stream of the levels: its scans shared by two threads
// where the handle lends them (the same bytes), else on this one.
int32_t write_progressive(kivoe_ctx *ctx, const kivoe_coef_pic *pic) {
    xelo_bsw *bs = &ctx->bs;
    if (kivo::thread_limit(ctx->tpool) >= 2) {
        xelo_bsw_sink(bs);
        const int64_t room = bs->end_ptr - bs->write_ptr;
        uint8_t *const dst[1] = {bs->write_ptr};
        const int32_t cap[1] = {static_cast<int32_t>(room < INT32_MAX ? room : INT32_MAX)};
        const int32_t coding[1] = {KIVOE_CODING_PROGRESSIVE};
        int32_t size[1];
        const int32_t r = kivoe_write_coef_pics(&ctx->tpool, ctx->threads, 1, &pic, coding, dst, cap, size);
        if (r == KIVO_ERR_OUT_OF_MEMORY) return r;
        if (r == KIVO_OK) {
            if (size[0] < 0) return size[0];
            if (size[0] == 0) bs->overflow = 1;
            bs->write_ptr += size[0];
            return KIVO_OK;
        }
    }
    return kivoe_write_coef_pic(pic, KIVOE_CODING_PROGRESSIVE, bs);
}

}  // namespace

int32_t kivoe_enc_progressive(kivoe_ctx *ctx) {
    const kivoe_fh &fh = ctx->fh;
    uint64_t bytes = 0;
    for (int c = 0; c < fh.n_comp; ++c) {
        // Format 40 declares chroma components without samples, which no
        // scan can hold.
        if (!fh.h[c] || !fh.v[c]) return KIVO_ERR_UNSUPPORTED;
        bytes += uint64_t(ctx->blk_w[c]) * ctx->blk_h[c] * 64 * sizeof(int16_t);
    }
    if (bytes > kMaxProgressiveBytes) return KIVO_ERR_OUT_OF_MEMORY;
    kivoe_coef_pic pic{};
    pic.width = fh.width;
    pic.height = fh.height;
    pic.n_comp = fh.n_comp;
    int32_t ret = KIVO_OK;
    for (int c = 0; c < fh.n_comp; ++c) {
        const size_t n = static_cast<size_t>(ctx->blk_w[c]) * ctx->blk_h[c] * 64;
        ctx->prog_levels[c] = static_cast<int16_t *>(std::malloc(n * sizeof(int16_t)));
        if (!ctx->prog_levels[c]) ret = KIVO_ERR_OUT_OF_MEMORY;
        pic.id[c] = fh.comp_id[c];
        pic.h[c] = fh.h[c];
        pic.v[c] = fh.v[c];
        pic.tq[c] = fh.tq[c];
        pic.blk_w[c] = ctx->blk_w[c];
        pic.blk_h[c] = ctx->blk_h[c];
        pic.coef[c] = ctx->prog_levels[c];
    }
    for (int t = 0; t < 2; ++t) std::memcpy(pic.qt[t], ctx->qtbl[t].q, sizeof(pic.qt[t]));
    pic.app_list = ctx->app_list;
    if (ret == KIVO_OK) ret = ctx->proc.pic(ctx);
    if (ret >= 0) ret = write_progressive(ctx, &pic);
    for (int16_t *&levels : ctx->prog_levels) {
        std::free(levels);
        levels = nullptr;
    }
    return ret;
}

namespace {
void help_segments(kivoe_ctx *ctx, const kivoe_job *self);
}  // namespace

int32_t kivoe_segment_job(void *arg) {
    kivoe_job *job = static_cast<kivoe_job *>(arg);
    const int32_t ret = kivoe_enc_dri(job->ctx, job);
    if (ret >= 0) help_segments(job->ctx, job);
    return ret < 0 ? ret : KIVO_OK;
}

int32_t kivoe_enc_pic(kivoe_ctx *ctx) {
    const int n = ctx->n_segments < kivo::thread_limit(ctx->tpool) ? ctx->n_segments : kivo::thread_limit(ctx->tpool);
    if (n < 2) return kivoe_enc_dri(ctx, ctx->job[0]);
    void *args[kivo::kMaxThreads];
    for (int i = 0; i < n; ++i) args[i] = ctx->job[i];
    const int32_t ret = kivo::fork_join(ctx->tpool, ctx->threads, n, kivoe_segment_job, args);
    if (ret < 0) return ret;
    for (int i = 1; i < n; ++i) {
        const xelo_bsw *w = ctx->job[i]->writer;
        if (w->overflow) ctx->bs.overflow = 1;
        append_bytes(&ctx->bs, w->start_ptr, static_cast<size_t>(w->write_ptr - w->start_ptr));
    }
    return KIVO_OK;
}

namespace {

// A component's tables, plane and place in a segment.
struct Comp {
    const kivoe_qtbl *q;
    kivoe_dc_tbl *dc;
    kivoe_ac_tbl *ac;
    uint64_t *ac_odd;  // the statistics pass's second AC counters, else null
    const uint16_t *offset;
    uint16_t *adapt;
    const uint8_t *plane;
    int32_t stride;
    int32_t col, row;
};

// Whether block (bcol, brow) of component c is filtered. The JND filter
// reads two lines above and below the block: only luma blocks a whole block
// away from every edge of the picture are filtered.
inline bool filtered(const kivoe_ctx *ctx, bool jnd_filter, int c, int32_t bcol, int32_t brow) {
    return jnd_filter && c == 0 && bcol >= 1 && brow >= 1 && 8 * bcol + 16 <= ctx->smp_w[0] &&
           8 * brow + 16 <= ctx->smp_h[0];
}

// Where a block's samples come from.
enum class Source : uint8_t {
    kPlane,     // straight from the plane
    kFiltered,  // through the JND filter
    kEdge,      // copied with the plane's last column and line repeated
};

inline Source block_source(const kivoe_ctx *ctx, bool jnd_filter, int c, int32_t bcol, int32_t brow) {
    if (filtered(ctx, jnd_filter, c, bcol, brow)) return Source::kFiltered;
    return 8 * bcol + 8 <= ctx->smp_w[c] && 8 * brow + 8 <= ctx->smp_h[c] ? Source::kPlane : Source::kEdge;
}

// Whether the MCU's blocks of component c all lie inside the plane, none
// filtered, so that they are read straight from it; *src: the plane's
// sample at the top left of the MCU's first block of c.
inline bool mcu_inside(const kivoe_ctx *ctx, bool jnd_filter, int c, const Comp &cc, const uint8_t **src) {
    *src = cc.plane + static_cast<ptrdiff_t>(8 * cc.row) * cc.stride + 8 * cc.col;
    return !(jnd_filter && c == 0) && 8 * (cc.col + ctx->fh.h[c]) <= ctx->smp_w[c] &&
           8 * (cc.row + ctx->fh.v[c]) <= ctx->smp_h[c];
}

// Calls f(c, cc, h, v, b, at, inside) for the MCU's blocks in coding order
// (b counts them): at is the block's first sample in its plane, inside
// what mcu_inside says of the component's blocks.
template <class F>
inline void mcu_blocks(const kivoe_ctx *ctx, const Comp *comp, bool jnd_filter, F &&f) {
    const kivoe_fh &fh = ctx->fh;
    for (int c = 0, b = 0; c < fh.n_comp; ++c) {
        const Comp &cc = comp[c];
        const uint8_t *src;
        const bool inside = mcu_inside(ctx, jnd_filter, c, cc, &src);
        for (int v = 0; v < fh.v[c]; ++v)
            for (int h = 0; h < fh.h[c]; ++h, ++b)
                f(c, cc, h, v, b, src + static_cast<ptrdiff_t>(8 * v) * cc.stride + 8 * h, inside);
    }
}

// Loads block (bcol, brow) of component c into dst, filtered or not.
inline void load_at(const kivoe_ctx *ctx, bool jnd_filter, int c, const Comp &cc, int32_t bcol, int32_t brow,
                    int16_t *dst) {
    if (filtered(ctx, jnd_filter, c, bcol, brow)) {
        ctx->proc.jndfilt(cc.plane + static_cast<ptrdiff_t>(8 * brow) * cc.stride + 8 * bcol, cc.stride, dst);
    } else {
        load_block(cc.plane, cc.stride, ctx->smp_w[c], ctx->smp_h[c], bcol, brow, dst);
    }
}

// Transformed coefficients at blk to levels with JND suppression, adaptive
// rounding or both (coef: room for the unquantized coefficients). Apart
// from the plain block loop, whose registers it would otherwise share.
__attribute__((noinline)) void quantize_kept(const kivoe_ctx *ctx, const Comp &cc, int16_t *blk, int16_t *coef) {
    const kivoe_proc &p = ctx->proc;
    const uint8_t *thr = ctx->jnd_suppress ? kivoe_jnd_threshold_row(blk[0]) : nullptr;
    if (p.quant_kept) {
        p.quant_kept(blk, cc.q->q, cc.q->recip, cc.q->half, ctx->adaptive_rounding ? cc.adapt : nullptr, thr);
        return;
    }
    kivo::copy_block(coef, blk);
    if (ctx->adaptive_rounding) p.quant_rdoq(blk, cc.q->recip, cc.offset);
    else p.quant(blk, cc.q->recip, cc.offset);
    // All-zero thresholds suppress nothing.
    if (thr) p.jnd_suppress(blk, coef, cc.q->q, cc.q->recip, thr);
    if (ctx->adaptive_rounding) p.update_offset(blk, coef, cc.q->q, cc.q->recip, cc.adapt);
}

// Whether comp is laid out as 4:2:0 for the short ways below: 2 x 2 luma
// blocks, Cb and Cr of one block each on planes with the same stride and
// quantized with the same table.
bool layout420(const kivoe_ctx *ctx, const Comp *comp) {
    const kivoe_fh &fh = ctx->fh;
    return fh.n_comp == 3 && fh.h[0] == 2 && fh.v[0] == 2 && fh.h[1] == 1 && fh.v[1] == 1 && fh.h[2] == 1 &&
           fh.v[2] == 1 && comp[1].q == comp[2].q && comp[1].stride == comp[2].stride;
}

// The same, and the kept levels' group kernels there for it.
bool mcu420_kernels(const kivoe_ctx *ctx, const Comp *comp) {
    const kivoe_proc &p = ctx->proc;
    return layout420(ctx, comp) && p.fdct_quant_kept2 && (!ctx->jnd_filter || p.jnd_fdct_quant_kept4);
}

// Whether the 4:2:0 MCU where comp stands lies inside the planes, its luma
// blocks all filtered where the filter is on.
inline bool interior420(const kivoe_ctx *ctx, const Comp *comp, bool filter) {
    const Comp &y = comp[0], &cb = comp[1];
    if (filter ? !(filtered(ctx, true, 0, y.col, y.row) && filtered(ctx, true, 0, y.col + 1, y.row + 1))
               : 8 * y.col + 16 > ctx->smp_w[0] || 8 * y.row + 16 > ctx->smp_h[0])
        return false;
    // Cr's plane has Cb's size.
    return 8 * cb.col + 8 <= ctx->smp_w[1] && 8 * cb.row + 8 <= ctx->smp_h[1];
}

// A 4:2:0 MCU's blocks: the first samples of the 2 x 2 luma blocks and of
// Cb and Cr, where the six blocks' levels go, and their code records.
struct Mcu420 {
    const uint8_t *luma[4], *chroma[2];
    int16_t *out[6];

    Mcu420(const Comp *comp, int16_t *levels) {
        const Comp &y = comp[0], &cb = comp[1], &cr = comp[2];
        const uint8_t *at = y.plane + static_cast<ptrdiff_t>(8 * y.row) * y.stride + 8 * y.col;
        const ptrdiff_t down = static_cast<ptrdiff_t>(8) * y.stride;
        luma[0] = at, luma[1] = at + 8, luma[2] = at + down, luma[3] = at + down + 8;
        const ptrdiff_t c = static_cast<ptrdiff_t>(8 * cb.row) * cb.stride + 8 * cb.col;
        chroma[0] = cb.plane + c, chroma[1] = cr.plane + c;
        for (int i = 0; i < 6; ++i) out[i] = levels + 64 * i;
    }

    // Each block's tables, levels and coder mask m.
    void records(const Comp *comp, const uint64_t m[6], kivoe_block_code *code) const {
        for (int i = 0; i < 6; ++i) {
            const Comp &c = comp[i < 4 ? 0 : i - 3];
            code[i] = {c.dc, c.ac, out[i], m[i], 0};
        }
    }
};

// The plain block loop's levels of such an MCU, as quantize_mcu420 below
// for the kept ones: the four filtered luma blocks in one call, or each
// block straight from its plane. False, with nothing done, at an edge.
// Only x86 variants take plain blocks in pairs (fdct_quant_samples2);
// elsewhere the plain loop does not even test for them.
#if defined(KIVO_ARCH_x86)
constexpr bool kPlainPairs = true;
#else
constexpr bool kPlainPairs = false;
#endif

template <bool kPairs>
inline bool plain_mcu420(const kivoe_ctx *ctx, const Comp *comp, bool filter, kivoe_quant_samples_fn fdct_quant_samples,
                         kivoe_kept_pair_fn pair, int16_t *levels, kivoe_block_code *code) {
    if (!interior420(ctx, comp, filter)) return false;
    const Comp &y = comp[0], &cb = comp[1], &cr = comp[2];
    const Mcu420 b(comp, levels);
    uint64_t m[6];
    if (filter) {
        ctx->proc.jnd_fdct_quant_kept4(b.luma, y.stride, b.out, y.q->q, y.q->recip, y.offset, nullptr, 0, m);
    } else if (kPairs) {
        pair(b.luma, y.stride, b.out, y.q->q, y.q->recip, y.offset, nullptr, 0, m);
        pair(b.luma + 2, y.stride, b.out + 2, y.q->q, y.q->recip, y.offset, nullptr, 0, m + 2);
    } else {
        for (int i = 0; i < 4; ++i) m[i] = fdct_quant_samples(b.luma[i], y.stride, b.out[i], y.q->recip, y.offset);
    }
    if (kPairs) {
        // Cb and Cr share their table, and the plain loop's offsets are the
        // table's (no adaptive rounding), so that one pair takes both.
        pair(b.chroma, cb.stride, b.out + 4, cb.q->q, cb.q->recip, cb.offset, nullptr, 0, m + 4);
    } else {
        m[4] = fdct_quant_samples(b.chroma[0], cb.stride, b.out[4], cb.q->recip, cb.offset);
        m[5] = fdct_quant_samples(b.chroma[1], cr.stride, b.out[5], cr.q->recip, cr.offset);
    }
    for (uint64_t &mask : m) mask = coder_mask(mask);
    b.records(comp, m, code);
    return true;
}

// The plain block loop's levels of one MCU in coding order, into out and
// code (the DC differences are left to the caller). kFilter: with the JND
// filter.
template <bool kFilter>
struct PlainMcu {
    const kivoe_ctx *ctx;
    kivoe_quant_samples_fn fdct_quant_samples;
    kivoe_quant_mask_fn fdct_quant_mask;
    kivoe_kept_samples_fn filter_kept;  // null without the filter's kernels
    kivoe_kept_pair_fn filter_pair;
    kivoe_kept_pair_fn pairs;  // plain_mcu420's pairs of blocks, or null
    bool short420;  // plain_mcu420 may take an MCU

    PlainMcu(const kivoe_ctx *c, const Comp *comp)
        : ctx(c), fdct_quant_samples(c->proc.fdct_quant_samples), fdct_quant_mask(c->proc.fdct_quant_mask),
          filter_kept(kFilter ? c->proc.jnd_fdct_quant_kept : nullptr),
          filter_pair(kFilter ? c->proc.jnd_fdct_quant_kept2 : nullptr),
          pairs(c->proc.fdct_quant_samples2),
          short420(fdct_quant_samples && layout420(c, comp) && (!kFilter || c->proc.jnd_fdct_quant_kept4)) {}

    __attribute__((always_inline)) void operator()(const Comp *comp, int16_t *out, kivoe_block_code *code) const {
        constexpr bool jnd_filter = kFilter;
        if (short420 && (kPlainPairs && pairs ? plain_mcu420<true>(ctx, comp, jnd_filter, fdct_quant_samples, pairs, out, code)
                               : plain_mcu420<false>(ctx, comp, jnd_filter, fdct_quant_samples, nullptr, out, code)))
            return;
        auto one = [&](int c, const Comp &cc, int h, int v, int b, const uint8_t *at, bool inside) {
            int16_t *lv = out + 64 * b;
            uint64_t mask;
            // Luma blocks outside the filter's area are read straight from
            // the plane too where they lie inside it.
            if (fdct_quant_samples &&
                (inside || (jnd_filter && block_source(ctx, jnd_filter, c, cc.col + h, cc.row + v) == Source::kPlane))) {
                mask = fdct_quant_samples(at, cc.stride, lv, cc.q->recip, cc.offset);
            } else if (inside || !filter_kept || !filtered(ctx, jnd_filter, c, cc.col + h, cc.row + v)) {
                if (inside) load_inside(at, cc.stride, lv);
                else load_at(ctx, jnd_filter, c, cc, cc.col + h, cc.row + v, lv);
                mask = fdct_quant_mask(lv, cc.q->recip, cc.offset);
            } else {
                // Filtered in registers on the way to the transform.
                mask = filter_kept(at, cc.stride, lv, cc.q->q, cc.q->recip, cc.offset, nullptr, 0);
            }
            code[b] = {cc.dc, cc.ac, lv, coder_mask(mask), 0};
        };
        if (!jnd_filter || !filter_pair) {
            mcu_blocks(ctx, comp, jnd_filter, one);
            return;
        }
        bool paired = false;  // this block went with the one before
        mcu_blocks(ctx, comp, jnd_filter, [&](int c, const Comp &cc, int h, int v, int b, const uint8_t *at, bool inside) {
            if (paired) {
                paired = false;
                return;
            }
            if (!inside && h + 1 < ctx->fh.h[c] && filtered(ctx, jnd_filter, c, cc.col + h, cc.row + v) &&
                filtered(ctx, jnd_filter, c, cc.col + h + 1, cc.row + v)) {
                // Two filtered blocks side by side, their steps overlapped.
                int16_t *lv = out + 64 * b;
                const uint8_t *const src[2] = {at, at + 8};
                int16_t *const pair[2] = {lv, lv + 64};
                uint64_t m[2];
                filter_pair(src, cc.stride, pair, cc.q->q, cc.q->recip, cc.offset, nullptr, 0, m);
                code[b] = {cc.dc, cc.ac, lv, coder_mask(m[0]), 0};
                code[b + 1] = {cc.dc, cc.ac, lv + 64, coder_mask(m[1]), 0};
                paired = true;
                return;
            }
            one(c, cc, h, v, b, at, inside);
        });
    }
};

// quantize_mcu_kept for a 4:2:0 MCU away from the picture's edges, the
// common case, without the general way's tests block by block: the four
// luma blocks filtered in one call (or two pairs straight from the plane),
// Cb and Cr in one. False, with nothing done, for an MCU at an edge.
inline bool quantize_mcu420(const kivoe_ctx *ctx, const Comp *comp, int16_t *levels, kivoe_block_code *code) {
    const bool filter = ctx->jnd_filter;
    if (!interior420(ctx, comp, filter)) return false;
    const kivoe_proc &p = ctx->proc;
    const Comp &y = comp[0], &cb = comp[1];
    const int32_t suppress = ctx->jnd_suppress;
    const bool adaptive = ctx->adaptive_rounding;
    const kivoe_qtbl &ty = *y.q, &tc = *cb.q;
    uint16_t *adapt = adaptive ? y.adapt : nullptr;
    const Mcu420 b(comp, levels);
    uint64_t m[6];
    if (filter) {
        p.jnd_fdct_quant_kept4(b.luma, y.stride, b.out, ty.q, ty.recip, ty.half, adapt, suppress, m);
    } else {
        p.fdct_quant_kept2(b.luma, y.stride, b.out, ty.q, ty.recip, ty.half, adapt, suppress, m);
        p.fdct_quant_kept2(b.luma + 2, y.stride, b.out + 2, ty.q, ty.recip, ty.half, adapt, suppress, m + 2);
    }
    p.fdct_quant_kept2(b.chroma, cb.stride, b.out + 4, tc.q, tc.recip, tc.half, adaptive ? cb.adapt : nullptr,
                       suppress, m + 4);
    b.records(comp, m, code);
    return true;
}

// The levels of an MCU's blocks with JND suppression or adaptive rounding,
// in coding order, into levels and code (each block's tables, levels and
// mask; the DC differences are left to the caller): from the samples to the
// levels by the fused kernels where the CPU has them, else all blocks
// transformed first, so that the transforms overlap, then quantized block
// by block, as adaptive rounding needs.
__attribute__((noinline)) void quantize_mcu_kept(const kivoe_ctx *ctx, Comp *comp, int16_t *levels,
                                                 kivoe_block_code *code, bool mcu420) {
    if (mcu420 && quantize_mcu420(ctx, comp, levels, code)) return;
    alignas(16) int16_t coef[64];
    const kivoe_fh &fh = ctx->fh;
    const bool jnd_filter = ctx->jnd_filter;
    const kivoe_kept_samples_fn kept = ctx->proc.fdct_quant_kept_samples;
    if (kept) {
        const kivoe_proc &p = ctx->proc;
        const int32_t suppress = ctx->jnd_suppress;
        // Two blocks through a kernel that overlaps their steps and
        // quantizes them in coding order: blocks b and b + 1, of components
        // c0 and c1.
        auto two = [&](kivoe_kept_pair_fn fn, const uint8_t *a0, const uint8_t *a1, const Comp &c0, const Comp &c1,
                       int b) {
            const kivoe_qtbl &t = *c0.q;
            int16_t *const out[2] = {levels + 64 * b, levels + 64 * (b + 1)};
            const uint8_t *const src[2] = {a0, a1};
            uint64_t m[2];
            fn(src, c0.stride, out, t.q, t.recip, t.half,
               ctx->adaptive_rounding ? c0.adapt : nullptr, suppress, m);
            code[b] = {c0.dc, c0.ac, out[0], m[0], 0};
            code[b + 1] = {c1.dc, c1.ac, out[1], m[1], 0};
        };
        bool joined = false;  // the component's block went with the one before
        for (int c = 0, b = 0; c < fh.n_comp; ++c) {
            const Comp &cc = comp[c];
            const int H = fh.h[c], V = fh.v[c];
            if (joined) {
                joined = false;
                b += H * V;
                continue;
            }
            const kivoe_qtbl &t = *cc.q;
            uint16_t *adapt = ctx->adaptive_rounding ? cc.adapt : nullptr;
            const uint8_t *base = cc.plane + static_cast<ptrdiff_t>(8 * cc.row) * cc.stride + 8 * cc.col;
            // The 2 x 2 luma blocks, all filtered (the filter's area is a
            // rectangle: its two corners tell), together.
            if (p.jnd_fdct_quant_kept4 && H == 2 && V == 2 && filtered(ctx, jnd_filter, c, cc.col, cc.row) &&
                filtered(ctx, jnd_filter, c, cc.col + 1, cc.row + 1)) {
                const ptrdiff_t down = static_cast<ptrdiff_t>(8) * cc.stride;
                const uint8_t *const src[4] = {base, base + 8, base + down, base + down + 8};
                int16_t *const out[4] = {levels + 64 * b, levels + 64 * (b + 1), levels + 64 * (b + 2),
                                         levels + 64 * (b + 3)};
                uint64_t m[4];
                p.jnd_fdct_quant_kept4(src, cc.stride, out, t.q, t.recip, t.half, adapt, suppress, m);
                for (int i = 0; i < 4; ++i) code[b + i] = {cc.dc, cc.ac, out[i], m[i], 0};
                b += 4;
                continue;
            }
            for (int v = 0; v < V; ++v)
                for (int h = 0; h < H; ++h, ++b) {
                    const uint8_t *at = base + static_cast<ptrdiff_t>(8 * v) * cc.stride + 8 * h;
                    const Source s = block_source(ctx, jnd_filter, c, cc.col + h, cc.row + v);
                    // Two blocks side by side from the same source.
                    const kivoe_kept_pair_fn both = s == Source::kPlane      ? p.fdct_quant_kept2
                                                    : s == Source::kFiltered ? p.jnd_fdct_quant_kept2
                                                                             : nullptr;
                    if (both && h + 1 < H && block_source(ctx, jnd_filter, c, cc.col + h + 1, cc.row + v) == s) {
                        two(both, at, at + 8, cc, cc, b);
                        ++h, ++b;
                        continue;
                    }
                    // A component of one block an MCU and the next one alike
                    // (Cb and Cr), both straight from planes with the same
                    // stride and quantized with the same table.
                    if (s == Source::kPlane && p.fdct_quant_kept2 && H * V == 1 && c + 1 < fh.n_comp) {
                        const Comp &cn = comp[c + 1];
                        if (fh.h[c + 1] * fh.v[c + 1] == 1 && cn.q == cc.q && cn.stride == cc.stride &&
                            block_source(ctx, jnd_filter, c + 1, cn.col, cn.row) == Source::kPlane) {
                            two(p.fdct_quant_kept2, at,
                                cn.plane + static_cast<ptrdiff_t>(8 * cn.row) * cn.stride + 8 * cn.col, cc, cn, b);
                            joined = true;
                            continue;
                        }
                    }
                    int16_t *lv = levels + 64 * b;
                    uint64_t mask;
                    if (s == Source::kPlane) {
                        mask = kept(at, cc.stride, lv, t.q, t.recip, t.half, adapt, suppress);
                    } else if (s == Source::kFiltered && p.jnd_fdct_quant_kept) {
                        mask = p.jnd_fdct_quant_kept(at, cc.stride, lv, t.q, t.recip, t.half, adapt, suppress);
                    } else {
                        alignas(16) uint8_t e[64];
                        if (s == Source::kFiltered) p.jndfilt_u8(at, cc.stride, e);
                        else load_block_u8(cc.plane, cc.stride, ctx->smp_w[c], ctx->smp_h[c], cc.col + h, cc.row + v, e);
                        mask = kept(e, 8, lv, t.q, t.recip, t.half, adapt, suppress);
                    }
                    code[b] = {cc.dc, cc.ac, lv, mask, 0};
                }
        }
        return;
    }
    mcu_blocks(ctx, comp, jnd_filter, [&](int c, const Comp &cc, int h, int v, int b, const uint8_t *at, bool inside) {
        int16_t *lv = levels + 64 * b;
        if (inside) load_inside(at, cc.stride, lv);
        else load_at(ctx, jnd_filter, c, cc, cc.col + h, cc.row + v, lv);
        ctx->proc.fdct8(lv);
    });
    for (int c = 0, b = 0; c < fh.n_comp; ++c)
        for (int i = fh.h[c] * fh.v[c]; i > 0; --i, ++b) {
            int16_t *lv = levels + 64 * b;
            quantize_kept(ctx, comp[c], lv, coef);
            code[b] = {comp[c].dc, comp[c].ac, lv, ctx->proc.levels_mask(lv), 0};
        }
}

// The components' tables, planes and places where a job's segment starts.
void segment_comps(kivoe_ctx *ctx, kivoe_job *job, Comp *comp) {
    const kivoe_fh &fh = ctx->fh;
    const kivo_picbuf *pic = ctx->pic_cur;
    for (int c = 0; c < fh.n_comp; ++c) {
        Comp &cc = comp[c];
        const int tq = fh.tq[c] & 1;
        cc.q = &ctx->qtbl[tq];
        const int td = ctx->sh.td[c] & 3, ta = ctx->sh.ta[c] & 3;
        cc.dc = job->counting ? &job->stat_dc[td] : &ctx->dc_tbl[td];
        cc.ac = job->counting ? &job->stat_ac[ta] : &ctx->ac_tbl[ta];
        cc.ac_odd = job->counting ? job->stat_ac[4 + ta].counter : nullptr;
        cc.adapt = job->offset[tq];
        cc.offset = ctx->adaptive_rounding ? cc.adapt : cc.q->half;
        cc.plane = c == 3 ? pic->plane_alt[2] : pic->plane[c];
        cc.stride = (c == 1 || c == 2) ? pic->stride_c : pic->stride_y;
        cc.col = job->start_col[c];
        cc.row = job->start_row[c];
    }
}

// Places comp at MCU `at` of the picture.
inline void move_to_mcu(const kivoe_ctx *ctx, Comp *comp, int32_t at) {
    const kivoe_fh &fh = ctx->fh;
    const int32_t across = ctx->blk_w[0] / fh.h[0];
    for (int c = 0; c < fh.n_comp; ++c) {
        comp[c].col = at % across * fh.h[c];
        comp[c].row = at / across * fh.v[c];
    }
}

// A job's first MCU in the picture.
inline int32_t first_mcu_of(const kivoe_ctx *ctx, const kivoe_job *job) {
    const kivoe_fh &fh = ctx->fh;
    return job->start_row[0] / fh.v[0] * (ctx->blk_w[0] / fh.h[0]) + job->start_col[0] / fh.h[0];
}

// Waits, with a pause and soon a yield, until done() says so.
template <class F>
inline void spin_until(F &&done) {
    for (int spins = 0; !done(); ++spins) {
        if (spins > 64) std::this_thread::yield();
#if defined(__SSE2__)
        else _mm_pause();
#endif
    }
}

// Gives a segment's own writer room for `need` more bytes: its memory at
// least doubles, up to `cap` (the output's size, which the joined stream
// cannot pass: a segment that needs more overflows as it would there).
// False when the memory cannot be had.
bool grow_writer(xelo_bsw *bs, uint8_t **buf, size_t need, size_t cap) {
    const size_t used = static_cast<size_t>(bs->write_ptr - bs->start_ptr);
    const size_t size = static_cast<size_t>(bs->end_ptr - bs->start_ptr);
    if (size - used >= need || size >= cap) return true;
    size_t want = used + need > 2 * size ? used + need : 2 * size;
    if (want > cap) want = cap;
    uint8_t *p = static_cast<uint8_t *>(std::realloc(*buf, want));
    if (!p) return false;
    *buf = p;
    bs->start_ptr = p;
    bs->write_ptr = p + used;
    bs->end_ptr = p + want;
    bs->size = static_cast<int32_t>(want);
    return true;
}

// One segment; kKeep: with JND suppression or adaptive rounding, kFilter:
// with the JND filter, whose code the plain loop then leaves out; kShare:
// other jobs may make levels of its plain loop.
template <bool kKeep, bool kFilter, bool kShare>
int32_t enc_segment(kivoe_ctx *ctx, kivoe_job *job) {
    xelo_bsw *bs = job->writer;
    xelo_bsw_sink(bs);
    bs->flush = kivoe_bs_flush_data_seg;
    int32_t marker = job->first_marker;
    const kivoe_proc &p = ctx->proc;
    const kivoe_fh &fh = ctx->fh;
    const int nc = fh.n_comp;

    Comp comp[4];
    segment_comps(ctx, job, comp);
    for (int c = 0; c < nc; ++c) {
        if (ctx->adaptive_rounding)
            for (int i = 0; i < 64; ++i) comp[c].adapt[i] = 8192;
        job->dc_pred[c] = 0;
    }

    int16_t *blk = job->block;
    // Progressive output: the levels go to the picture's level planes, and
    // adaptive rounding restarts where each planned segment starts.
    const bool prog = ctx->prog_levels[0] != nullptr;
    const int32_t first_mcu = first_mcu_of(ctx, job);
    // The statistics pass stores each block's levels where there is room;
    // the coding pass after it codes them as stored.
    const bool reuse = !job->counting && job->levels_kept;
    int16_t *kept = job->counting || reuse ? job->levels : nullptr;
    uint64_t *kept_mask = kept ? job->masks : nullptr;
    alignas(16) int16_t coef[64];
    // Switches and kernels in locals: the calls through the table would
    // otherwise have them read again for every block.
    constexpr bool jnd_filter = kFilter;
    const kivoe_fdct_fn fdct8 = p.fdct8;
    const kivoe_quant_mask_fn quant_mask = p.quant_mask;
    constexpr bool keep = kKeep;
    // With the writers in the coder slots, a block's codes go out together.
    const bool fused = p.vlc_dc == kivoe_vlc_dc && p.vlc_ac == kivoe_vlc_ac;
    // The same with the statistics twins: the symbols are counted.
    const bool stat = p.vlc_dc == kivoe_vlc_dc_stat && p.vlc_ac == kivoe_vlc_ac_stat;
    // Blocks coded or counted straight after the plain quantizer take its
    // mask of non-zero levels.
    const bool masked = (fused || stat) && !prog && !keep;
    // Coded blocks are transformed and quantized a whole MCU at a time
    // before any is coded: the blocks' transforms do not wait for one
    // another, nor for the coder's loops, and overlap. Adaptive rounding
    // still quantizes the blocks in coding order, each with the offsets the
    // one before left.
    int32_t per_mcu = 0;
    for (int c = 0; c < nc; ++c) per_mcu += fh.h[c] * fh.v[c];
    const bool mcu_sized = !reuse && per_mcu > 1 && per_mcu <= kMaxMcuBlocks;
    const bool by_mcu_plain = masked && mcu_sized, by_mcu_kept = (fused || stat) && !prog && keep && mcu_sized;
    const bool mcu420 = by_mcu_kept && mcu420_kernels(ctx, comp);
    const PlainMcu<kFilter> plain(ctx, comp);
    // Kept levels are coded an MCU at a time with their kept masks.
    const bool by_mcu_reuse = reuse && fused && !prog && per_mcu <= kMaxMcuBlocks;
    const bool by_mcu = by_mcu_plain || by_mcu_kept || by_mcu_reuse;
    alignas(32) int16_t mcu_levels[kMaxMcuBlocks * 64];
    kivoe_block_code mcu_code[kMaxMcuBlocks];
    // Plain levels coded as they come may be made by other jobs: the
    // segment is opened to them in chunks.
    kivoe_share &share = job->share;
    const bool shared = kShare && by_mcu_plain && fused && !kept;
    if (shared) {
        share.chunks = (job->n_mcu + kShareMcus - 1) / kShareMcus;
        share.next.store(0, std::memory_order_relaxed);
        share.coded.store(0, std::memory_order_relaxed);
        for (std::atomic<int32_t> &r : share.ready) r.store(0, std::memory_order_relaxed);
        share.open.store(1, std::memory_order_release);
    }
    kivoe_block_code *helped = nullptr;  // the chunk's records where another job made its levels
    // A job's own writer is given room for a whole MCU and a restart marker
    // before each MCU.
    const bool grows = bs == job->own_writer && bs->start_ptr && !job->counting && !prog;
    const size_t mcu_room = static_cast<size_t>(per_mcu) * kBlockMargin + 16;
    int32_t counter = 0;
    for (int32_t m = 0; m < job->n_mcu; ++m) {
        const int32_t at = first_mcu + m;
        if (grows && !grow_writer(bs, &job->own_buf, mcu_room, static_cast<size_t>(ctx->bs.size))) {
            if (shared) share.open.store(0, std::memory_order_release);
            return KIVO_ERR_OUT_OF_MEMORY;
        }
        if (shared && m % kShareMcus == 0) {
            // The chunk is this job's unless a helper took it first.
            const int32_t j = m / kShareMcus, slot = j % kShareSlots;
            share.coded.store(j, std::memory_order_release);
            int32_t expect = j;
            helped = nullptr;
            if (!share.next.compare_exchange_strong(expect, j + 1, std::memory_order_acq_rel)) {
                spin_until([&] { return share.ready[slot].load(std::memory_order_acquire) == j + 1; });
                helped = share.code + slot * kShareMcus * kMaxMcuBlocks;
            }
        }
        kivoe_block_code *const codes = helped ? helped + m % kShareMcus * kMaxMcuBlocks : mcu_code;
        if (prog && ctx->adaptive_rounding && m && at % ctx->prog_chunk == 0 && at / ctx->prog_chunk < kivo::kMaxThreads)
            for (int c = 0; c < nc; ++c)
                for (int i = 0; i < 64; ++i) comp[c].adapt[i] = 8192;
        for (int c = 0; c < nc && !reuse && !helped; ++c) {
            const Comp &cc = comp[c];
            // The filter reads two rows below the MCU's.
            if ((cc.col & 7) == 0)
                prefetch_rows(cc.plane, cc.stride, ctx->smp_h[c], 8 * cc.col + 128, 8 * cc.row,
                              8 * fh.v[c] + (jnd_filter && c == 0 ? 2 : 0));
        }
        if (by_mcu_kept) quantize_mcu_kept(ctx, comp, kept ? kept : mcu_levels, mcu_code, mcu420);
        for (int c = 0, b = 0; c < nc && by_mcu_reuse; ++c)
            for (int i = fh.h[c] * fh.v[c]; i > 0; --i, ++b)
                mcu_code[b] = {comp[c].dc, comp[c].ac, kept + 64 * b, kept_mask[b], 0};
        // The statistics pass quantizes straight into the kept levels.
        int16_t *const mcu_out = by_mcu_plain && kept ? kept : mcu_levels;
        if (by_mcu_plain && !helped) plain(comp, mcu_out, mcu_code);
        if (by_mcu) {
            for (int c = 0, b = 0; c < nc; ++c)
                for (int i = fh.h[c] * fh.v[c]; i > 0; --i, ++b) {
                    codes[b].diff = codes[b].blk[0] - job->dc_pred[c];
                    job->dc_pred[c] = codes[b].blk[0];
                }
            if (stat) {
                for (int c = 0, b = 0; c < nc; ++c)
                    for (int i = fh.h[c] * fh.v[c]; i > 0; --i, ++b) {
                        const kivoe_block_code &k = codes[b];
                        kivoe_vlc_block_stat(k.dc, k.ac, comp[c].ac_odd, k.diff, k.blk, k.mask);
                        if (kept_mask) kept_mask[b] = k.mask;
                    }
            } else {
                kivoe_vlc_blocks(bs, codes, per_mcu);
            }
            if (kept) {
                kept += 64 * per_mcu;
                kept_mask += per_mcu;
            }
        }
        for (int c = 0; c < nc && !by_mcu; ++c) {
            Comp &cc = comp[c];
            const int hf = fh.h[c], vf = fh.v[c];
            for (int v = 0; v < vf; ++v) {
                for (int h = 0; h < hf; ++h) {
                    const int16_t *lv = blk;
                    uint64_t mask = ~uint64_t(0);  // not known
                    if (reuse) {
                        lv = kept;
                        kept += 64;
                        mask = *kept_mask++;
                    } else {
                        const int32_t bcol = cc.col + h, brow = cc.row + v;
                        load_at(ctx, jnd_filter, c, cc, bcol, brow, blk);
                        fdct8(blk);
                        if (masked) mask = coder_mask(quant_mask(blk, cc.q->recip, cc.offset));
                        else if (keep) quantize_kept(ctx, cc, blk, coef);
                        else p.quant(blk, cc.q->recip, cc.offset);
                        if (kept) {
                            kivo::copy_block(kept, blk);
                            kept += 64;
                            *kept_mask++ = mask;
                        }
                        if (prog) {
                            kivo::copy_block(ctx->prog_levels[c] + (static_cast<size_t>(brow) * ctx->blk_w[c] + bcol) * 64,
                                             blk);
                            continue;
                        }
                    }
                    const int32_t d = lv[0] - job->dc_pred[c];
                    job->dc_pred[c] = lv[0];
                    if (fused) {
                        kivoe_vlc_block_mask(bs, cc.dc, cc.ac, d, lv, mask);
                    } else if (stat) {
                        kivoe_vlc_block_stat(cc.dc, cc.ac, cc.ac_odd, d, lv, mask);
                    } else {
                        p.vlc_dc(bs, cc.dc, d);
                        p.vlc_ac(bs, cc.ac, lv);
                    }
                }
            }
        }
        ++counter;
        if (ctx->rst_interval && counter == ctx->rst_interval) {
            for (int c = 0; c < nc; ++c) job->dc_pred[c] = 0;
            xelo_bsw_sink(bs);
            bs->flush = kivoe_bs_flush;
            p.vlc_dri_marker(bs, marker);
            xelo_bsw_sink(bs);
            bs->flush = kivoe_bs_flush_data_seg;
            marker = marker == 0xD7 ? 0xD0 : marker + 1;
            counter = 0;
        }
        for (int c = 0; c < nc; ++c) comp[c].col += fh.h[c];
        if (comp[0].col >= ctx->blk_w[0]) {
            for (int c = 0; c < nc; ++c) {
                comp[c].row += fh.v[c];
                comp[c].col = 0;
            }
        }
    }
    if (shared) share.open.store(0, std::memory_order_release);
    job->levels_kept = job->counting && job->levels;
    xelo_bsw_sink(bs);
    bs->flush = kivoe_bs_flush;
    return KIVO_OK;
}

// Makes the levels of the chunks of job's segment just ahead of its own
// job while any is left and the segment is open: each taken, made into
// its slot once that job has coded the chunk the slot held, then marked
// ready.
template <bool kFilter>
void help_segment(kivoe_ctx *ctx, kivoe_job *job) {
    kivoe_share &share = job->share;
    Comp comp[4];
    segment_comps(ctx, job, comp);
    const PlainMcu<kFilter> plain(ctx, comp);
    const int32_t first = first_mcu_of(ctx, job);
    for (;;) {
        int32_t j = share.next.load(std::memory_order_acquire);
        if (j >= share.chunks || !share.open.load(std::memory_order_acquire)) return;
        if (j >= share.coded.load(std::memory_order_acquire) + kShareSlots) {
            spin_until([&] {
                return share.coded.load(std::memory_order_acquire) + kShareSlots > j ||
                       share.next.load(std::memory_order_relaxed) != j || !share.open.load(std::memory_order_relaxed);
            });
            continue;
        }
        if (!share.next.compare_exchange_weak(j, j + 1, std::memory_order_acq_rel)) continue;
        const int32_t slot = j % kShareSlots;
        int16_t *levels = share.levels + slot * kShareMcus * kMaxMcuBlocks * 64;
        kivoe_block_code *code = share.code + slot * kShareMcus * kMaxMcuBlocks;
        const int32_t end = job->n_mcu < (j + 1) * kShareMcus ? job->n_mcu : (j + 1) * kShareMcus;
        for (int32_t m = j * kShareMcus, i = 0; m < end; ++m, ++i) {
            move_to_mcu(ctx, comp, first + m);
            plain(comp, levels + i * kMaxMcuBlocks * 64, code + i * kMaxMcuBlocks);
        }
        share.ready[slot].store(j + 1, std::memory_order_release);
    }
}

// A job done with its segment helps the open one with the most chunks not
// taken, then the next, until none has two left.
void help_segments(kivoe_ctx *ctx, const kivoe_job *self) {
    for (;;) {
        kivoe_job *most = nullptr;
        int32_t left = 1;
        for (int i = 0; i < ctx->n_segments; ++i) {
            kivoe_job *job = ctx->job[i];
            if (job == self || !job->share.open.load(std::memory_order_acquire)) continue;
            const int32_t l = job->share.chunks - job->share.next.load(std::memory_order_relaxed);
            if (l > left) {
                left = l;
                most = job;
            }
        }
        if (!most) return;
        if (ctx->jnd_filter) help_segment<true>(ctx, most);
        else help_segment<false>(ctx, most);
    }
}

}  // namespace

int32_t kivoe_enc_dri(kivoe_ctx *ctx, kivoe_job *job) {
    const bool keep = ctx->jnd_suppress || ctx->adaptive_rounding;
    // The loop that other jobs may help is a copy of its own, so that one
    // segment alone does not pay for its checks.
    const bool share = !keep && ctx->n_segments > 1 && job->share.levels;
    if (ctx->jnd_filter) {
        if (keep) return enc_segment<true, true, false>(ctx, job);
        return share ? enc_segment<false, true, true>(ctx, job) : enc_segment<false, true, false>(ctx, job);
    }
    if (keep) return enc_segment<true, false, false>(ctx, job);
    return share ? enc_segment<false, false, true>(ctx, job) : enc_segment<false, false, false>(ctx, job);
}
