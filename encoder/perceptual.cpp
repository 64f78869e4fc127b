// Perceptual quantizer selection: the pushed picture is sampled in 8x8
// analysis blocks, its mean brightness and per-frequency magnitudes choose
// the quantizers.
#include <cstring>

#include "encoder/kivoe_int.h"

void kivoe_box2(const uint8_t *src, int32_t stride, int16_t *blk) {
    for (int j = 0; j < 8; ++j) {
        const uint8_t *a = src + static_cast<ptrdiff_t>(2 * j) * stride, *b = a + stride;
        for (int k = 0; k < 8; ++k) blk[8 * j + k] = static_cast<int16_t>((a[2 * k] + a[2 * k + 1] + b[2 * k] + b[2 * k + 1]) >> 2);
    }
}

void kivoe_abs_acc(const int16_t *blk, uint32_t *acc) {
    for (int i = 0; i < 64; ++i) acc[i] += static_cast<uint32_t>(blk[i] < 0 ? -blk[i] : blk[i]);
}

void kivoe_box2_strip(const uint8_t *src, int32_t stride, int32_t n, uint32_t *acc) {
    for (int32_t b = 0; b < n; ++b) {
        int16_t blk[64];
        kivoe_box2(src + 16 * b, stride, blk);
        kivoe_fdct8(blk);
        acc[0] += static_cast<uint32_t>((blk[0] + 1024) >> 3);
        for (int i = 1; i < 64; ++i) acc[i] += static_cast<uint32_t>(blk[i] < 0 ? -blk[i] : blk[i]);
    }
}

namespace {

struct Stats {
    uint64_t sum[64];
    uint32_t blocks;
    // Magnitudes of the blocks since the last fold into sum: 32768 at most
    // a block, so 65536 blocks fit.
    uint32_t part[64];
    uint32_t pending;
};

// Folds the partial sums into the totals.
void fold(Stats *st) {
    for (int i = 1; i < 64; ++i) st->sum[i] += st->part[i];
    std::memset(st->part, 0, sizeof(st->part));
    st->pending = 0;
}

// sum / blocks, in 32 bits where the sum fits them (below 131072 blocks it
// always does): 32-bit processors divide 64 bits in a long library call.
inline uint32_t mean_of(uint64_t sum, uint32_t blocks) {
    return static_cast<uint32_t>(sum >> 32 ? sum / blocks : static_cast<uint32_t>(sum) / blocks);
}

// The statistics of one sampled block.
void add_block(const kivoe_ctx *ctx, int16_t *blk, Stats *st) {
    ctx->proc.fdct8(blk);
    const int32_t mean = (blk[0] + 1024) >> 3;
    st->sum[0] += static_cast<uint64_t>(mean < 0 ? 0 : mean);
    ctx->proc.abs_acc(blk, st->part);  // entry 0 unused
    ++st->blocks;
    if (++st->pending == 65536) fold(st);
}

// One analysis block: 8x8 cells of s x s samples, each the mean of its four
// corners, starting at `p`; samples are `step` bytes apart in a line.
void sample_block(const kivoe_ctx *ctx, const uint8_t *p, int32_t stride, int32_t step, int32_t s, Stats *st) {
    alignas(16) int16_t blk[64];
    if (s == 2 && step == 1) {
        ctx->proc.box2(p, stride, blk);
    } else {
        for (int j = 0; j < 8; ++j) {
            for (int k = 0; k < 8; ++k) {
                const uint8_t *cell = p + static_cast<ptrdiff_t>(j * s) * stride + static_cast<ptrdiff_t>(k * s) * step;
                const ptrdiff_t right = static_cast<ptrdiff_t>(s - 1) * step, down = static_cast<ptrdiff_t>(s - 1) * stride;
                blk[8 * j + k] = static_cast<int16_t>((cell[0] + cell[right] + cell[down] + cell[down + right]) >> 2);
            }
        }
    }
    add_block(ctx, blk, st);
}

// Every whole analysis block of a plane of w x h samples, row by row.
void sample_plane(const kivoe_ctx *ctx, const uint8_t *p, int32_t stride, int32_t step, int32_t w, int32_t h,
                  int32_t level, Stats *st) {
    const int32_t s = 1 << level, span = 8 * s;
    if (s == 2 && step == 1 && ctx->proc.box2_strip) {
        // A strip of blocks at a time; its sums (at most 1024 a block and
        // 4095 blocks) fit 32 bits.
        for (int32_t by = 0; by < (h >> 4); ++by) {
            uint32_t acc[64] = {};
            const int32_t n = w >> 4;
            ctx->proc.box2_strip(p + static_cast<ptrdiff_t>(by) * 16 * stride, stride, n, acc);
            for (int i = 0; i < 64; ++i) st->sum[i] += acc[i];
            st->blocks += static_cast<uint32_t>(n);
        }
        return;
    }
    for (int32_t by = 0; by < (h >> (level + 3)); ++by)
        for (int32_t bx = 0; bx < (w >> (level + 3)); ++bx) {
            const uint8_t *at = p + static_cast<ptrdiff_t>(by) * span * stride + static_cast<ptrdiff_t>(bx) * span * step;
            // The block reads span rows at once, more streams than the
            // processor follows by itself: each 64-byte line is asked for a
            // few blocks ahead (a prefetch past the plane does not fault;
            // the address is formed as an integer).
            if (s == 2 && step == 1 && (bx & 3) == 0)
                for (int32_t r = 0; r < span; ++r)
                    __builtin_prefetch(reinterpret_cast<const void *>(reinterpret_cast<uintptr_t>(at) +
                                                                      static_cast<uintptr_t>(static_cast<ptrdiff_t>(r) * stride + 128)));
            sample_block(ctx, at, stride, step, s, st);
        }
}

}  // namespace

// Returns 0, or -105 for a negative level, or -104 (tables and `out` left
// as they were) when there is no pushed picture or when the luma plane, or
// the chroma planes of a picture that has them, hold no whole analysis
// block. A picture without chroma planes gets its luma table chosen and
// keeps its chroma table, whose quantizers `out` then carries.
int32_t kivoe_get_qt(kivoe_ctx *ctx, int32_t level, uint8_t *out) {
    if (level < 0) return KIVO_ERR_INVALID_ARG;
    const kivo_picbuf *pic = ctx->pic_cur;
    if (!pic || !ctx->proc.fdct8) return KIVO_ERR_UNAVAILABLE;
    // An analysis block at level 13 spans 65536 samples, more than a JPEG
    // frame can hold (this also keeps the shifts below in range).
    if (level > 12) return KIVO_ERR_UNAVAILABLE;
    Stats luma{}, chroma{};
    const int32_t f = ctx->color_format, w = pic->width, h = pic->height;
    const int32_t s = 1 << level, span = 8 * s;
    bool has_chroma = true;
    if (f == XELO_CS_YUYV) {
        const uint8_t *p = pic->plane[0];
        sample_plane(ctx, p, pic->stride_y, 2, w, h, level, &luma);
        // Cb at byte 1 and Cr at byte 3 of each quadruple, block by block.
        for (int32_t by = 0; by < (h >> (level + 3)); ++by)
            for (int32_t bx = 0; bx < (w >> (level + 4)); ++bx) {
                const uint8_t *q = p + static_cast<ptrdiff_t>(by) * span * pic->stride_y + static_cast<ptrdiff_t>(bx) * span * 4;
                sample_block(ctx, q + 1, pic->stride_y, 4, s, &chroma);
                sample_block(ctx, q + 3, pic->stride_y, 4, s, &chroma);
            }
    } else {
        sample_plane(ctx, pic->plane[0], pic->stride_y, 1, w, h, level, &luma);
        // NV12 and NV21: one chroma plane of pairs, two bytes per sample.
        const kivo::Layout *l = kivo::layout_of(f);
        const int32_t step = l && l->kind == kivo::Layout::Pairs ? 2 : 1;
        const int32_t stride = pic->stride_c;
        has_chroma = l && l->chroma && pic->plane[1] && pic->plane[2];
        if (has_chroma && level == 1 && step == 1 && ctx->proc.box2_strip) {
            // Each plane strip by strip: the sums do not depend on the order.
            sample_plane(ctx, pic->plane[1], stride, 1, pic->width_c, pic->height_c, level, &chroma);
            sample_plane(ctx, pic->plane[2], stride, 1, pic->width_c, pic->height_c, level, &chroma);
        } else if (has_chroma) {
            for (int32_t by = 0; by < (pic->height_c >> (level + 3)); ++by)
                for (int32_t bx = 0; bx < (pic->width_c >> (level + 3)); ++bx) {
                    const ptrdiff_t off = static_cast<ptrdiff_t>(by) * span * stride + static_cast<ptrdiff_t>(bx) * span * step;
                    sample_block(ctx, pic->plane[1] + off, stride, step, s, &chroma);
                    sample_block(ctx, pic->plane[2] + off, stride, step, s, &chroma);
                }
        }
    }
    fold(&luma);
    fold(&chroma);
    if (luma.blocks == 0 || (has_chroma && chroma.blocks == 0)) return KIVO_ERR_UNAVAILABLE;
    // Sums are 64-bit so that no picture size can overflow them; the means
    // fit 32 bits (0..255 for the level, at most 1024 for a magnitude).
    uint32_t mean[2][64];
    for (int i = 0; i < 64; ++i) {
        mean[0][i] = mean_of(luma.sum[i], luma.blocks);
        mean[1][i] = has_chroma ? mean_of(chroma.sum[i], chroma.blocks) : 0;
    }
    const int32_t base = tbl_thr[mean[0][0] > 255 ? 255 : mean[0][0]];
    for (int t = 0; t < 2; ++t) {
        kivoe_qtbl &q = ctx->qtbl[t];
        if (t == 0 || has_chroma) kivo_gen_qtbl(reinterpret_cast<int16_t *>(q.q), q.recip, q.half, mean[t], base);
        for (int i = 0; i < 64; ++i) out[64 * t + i] = static_cast<uint8_t>(q.q[i]);
    }
    return KIVO_OK;
}
