// NEON forward DCT: the block as an 8x8 matrix of 32-bit values in pairs of
// 4-lane vectors, transposed between the passes; bit-exact to the plain one.
#include <arm_neon.h>

#include "encoder/enc_simd.h"

namespace {

// m[i][h]: line i, elements 4h .. 4h + 3.
struct Mat {
    int32x4_t m[8][2];
};

inline void transpose4(int32x4_t &a, int32x4_t &b, int32x4_t &c, int32x4_t &d) {
    const int32x4x2_t t0 = vtrnq_s32(a, b), t1 = vtrnq_s32(c, d);
    a = vcombine_s32(vget_low_s32(t0.val[0]), vget_low_s32(t1.val[0]));
    b = vcombine_s32(vget_low_s32(t0.val[1]), vget_low_s32(t1.val[1]));
    c = vcombine_s32(vget_high_s32(t0.val[0]), vget_high_s32(t1.val[0]));
    d = vcombine_s32(vget_high_s32(t0.val[1]), vget_high_s32(t1.val[1]));
}

inline void transpose8(Mat &x) {
    for (int bi = 0; bi < 2; ++bi)
        for (int bj = 0; bj < 2; ++bj)
            transpose4(x.m[4 * bi][bj], x.m[4 * bi + 1][bj], x.m[4 * bi + 2][bj], x.m[4 * bi + 3][bj]);
    for (int i = 0; i < 4; ++i) {
        const int32x4_t t = x.m[i][1];
        x.m[i][1] = x.m[4 + i][0];
        x.m[4 + i][0] = t;
    }
}

inline int32x4_t mul(int32x4_t v, int32_t k) { return vmulq_n_s32(v, k); }

struct Parts {
    int32x4_t e0, e1, a, b, g, h, g2, h2;
};

// The butterflies of one half (four lines) of both passes.
inline Parts butterflies(const Mat &x, int half) {
    const int32x4_t x0 = x.m[0][half], x1 = x.m[1][half], x2 = x.m[2][half], x3 = x.m[3][half];
    const int32x4_t x4 = x.m[4][half], x5 = x.m[5][half], x6 = x.m[6][half], x7 = x.m[7][half];
    const int32x4_t s07 = vaddq_s32(x0, x7), s16 = vaddq_s32(x1, x6), s25 = vaddq_s32(x2, x5), s34 = vaddq_s32(x3, x4);
    const int32x4_t d07 = vsubq_s32(x0, x7), d16 = vsubq_s32(x1, x6), d25 = vsubq_s32(x2, x5), d34 = vsubq_s32(x3, x4);
    const int32x4_t r512 = vdupq_n_s32(512);
    const int32x4_t m1 = vshrq_n_s32(vaddq_s32(mul(vsubq_s32(d16, d25), 724), r512), 10);
    const int32x4_t m2 = vshrq_n_s32(vaddq_s32(mul(vaddq_s32(d16, d25), 724), r512), 10);
    Parts p;
    p.e0 = vaddq_s32(s07, s34);
    p.e1 = vaddq_s32(s16, s25);
    p.a = vsubq_s32(s07, s34);
    p.b = vsubq_s32(s16, s25);
    p.g = vaddq_s32(d07, m2);
    p.h = vaddq_s32(d34, m1);
    p.g2 = vsubq_s32(d07, m2);
    p.h2 = vsubq_s32(d34, m1);
    return p;
}

}  // namespace

void kivoe_fdct8_neon(int16_t *blk) {
    Mat x;
    const int32x4_t shift = vdupq_n_s32(128);
    for (int r = 0; r < 8; ++r) {
        const int16x8_t row = vld1q_s16(blk + 8 * r);
        x.m[r][0] = vsubq_s32(vmovl_s16(vget_low_s16(row)), shift);
        x.m[r][1] = vsubq_s32(vmovl_s16(vget_high_s16(row)), shift);
    }
    transpose8(x);  // line k: column k of the block, over the rows
    Mat t;
    for (int half = 0; half < 2; ++half) {
        const Parts p = butterflies(x, half);
        t.m[0][half] = vshlq_n_s32(vaddq_s32(p.e0, p.e1), 9);
        t.m[4][half] = vshlq_n_s32(vsubq_s32(p.e0, p.e1), 9);
        t.m[2][half] = vaddq_s32(mul(p.a, 669), mul(p.b, 277));
        t.m[6][half] = vsubq_s32(mul(p.a, 277), mul(p.b, 669));
        t.m[1][half] = vaddq_s32(mul(p.g, 710), mul(p.h, 141));
        t.m[7][half] = vsubq_s32(mul(p.g, 141), mul(p.h, 710));
        t.m[3][half] = vsubq_s32(mul(p.g2, 602), mul(p.h2, 402));
        t.m[5][half] = vaddq_s32(mul(p.h2, 602), mul(p.g2, 402));
    }
    transpose8(t);  // line r: row r's frequencies, over the columns
    int32x4_t f[8][2];
    const int32x4_t r2048 = vdupq_n_s32(2048), r20 = vdupq_n_s32(1 << 20);
    for (int half = 0; half < 2; ++half) {
        const Parts q = butterflies(t, half);
        f[0][half] = vshrq_n_s32(vaddq_s32(vaddq_s32(q.e0, q.e1), r2048), 12);
        f[4][half] = vshrq_n_s32(vaddq_s32(vsubq_s32(q.e0, q.e1), r2048), 12);
        f[2][half] = vshrq_n_s32(vaddq_s32(vaddq_s32(mul(q.a, 669), mul(q.b, 277)), r20), 21);
        f[6][half] = vshrq_n_s32(vaddq_s32(vsubq_s32(mul(q.a, 277), mul(q.b, 669)), r20), 21);
        f[1][half] = vshrq_n_s32(vaddq_s32(vaddq_s32(mul(q.g, 710), mul(q.h, 141)), r20), 21);
        f[7][half] = vshrq_n_s32(vaddq_s32(vsubq_s32(mul(q.g, 141), mul(q.h, 710)), r20), 21);
        f[3][half] = vshrq_n_s32(vaddq_s32(vsubq_s32(mul(q.g2, 602), mul(q.h2, 402)), r20), 21);
        f[5][half] = vshrq_n_s32(vaddq_s32(vaddq_s32(mul(q.h2, 602), mul(q.g2, 402)), r20), 21);
    }
    // The low 16 bits of each result (vmovn truncates).
    for (int v = 0; v < 8; ++v) vst1q_s16(blk + 8 * v, vcombine_s16(vmovn_s32(f[v][0]), vmovn_s32(f[v][1])));
}
