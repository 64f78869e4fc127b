// ARMv7 NEON inverse DCTs, bit-exact to the plain kernels in idct.cpp.
//
// Each pass works on four rows (or columns) in the 32-bit lanes of a q
// register. vmull/vmlal give the exact products of 16-bit inputs; adds and
// vmulq wrap modulo 2^32 as the plain kernel does; vshrn keeps the low 16
// bits of the shifted value, which is the plain kernel's narrowing.
#include <arm_neon.h>

#include <cstring>

#include "decoder/idct_simd.h"
#include "decoder/kivod_int.h"

namespace {

using namespace kivo::idct;

constexpr int16_t w1 = kW1, w2 = kW2, w3 = kW3, w5 = kW5, w6 = kW6, w7 = kW7;

// (181 * x + 128) >> 8. The rounding add is separate from the shift because
// the product may wrap and the plain kernel adds 128 after the wrap.
inline int32x4_t rot(int32x4_t x) {
    return vshrq_n_s32(vaddq_s32(vmulq_n_s32(x, static_cast<int32_t>(kC)), vdupq_n_s32(128)), 8);
}

// Coefficient or intermediate inputs of four rows/columns, one per lane.
struct Vec8 {
    int16x4_t x[8];
};

// Horizontal pass: products unrounded, results (>> 8) narrowed to 16 bits.
// Zero inputs are passed as constant zero vectors; their arithmetic folds.
inline void row_pass(const Vec8 &in, int16x4_t out[8]) {
    const int32x4_t bias = vdupq_n_s32(128);
    const int32x4_t x0 = vaddq_s32(vshll_n_s16(in.x[0], 11), bias);
    const int32x4_t x1 = vshll_n_s16(in.x[4], 11);
    const int32x4_t a = vmlal_n_s16(vmull_n_s16(in.x[1], w1), in.x[7], w7);
    const int32x4_t b = vmlsl_n_s16(vmull_n_s16(in.x[1], w7), in.x[7], w1);
    const int32x4_t c = vmlal_n_s16(vmull_n_s16(in.x[3], w3), in.x[5], w5);
    const int32x4_t d = vmlsl_n_s16(vmull_n_s16(in.x[5], w3), in.x[3], w5);
    const int32x4_t e = vmlal_n_s16(vmull_n_s16(in.x[2], w2), in.x[6], w6);
    const int32x4_t f = vmlsl_n_s16(vmull_n_s16(in.x[2], w6), in.x[6], w2);
    const int32x4_t s1 = vaddq_s32(a, c), s4 = vsubq_s32(a, c);
    const int32x4_t s6 = vaddq_s32(b, d), s5 = vsubq_s32(b, d);
    const int32x4_t p = vaddq_s32(x0, x1), q = vsubq_s32(x0, x1);
    const int32x4_t t7 = vaddq_s32(p, e), t8 = vsubq_s32(p, e);
    const int32x4_t t3 = vaddq_s32(q, f), t0 = vsubq_s32(q, f);
    const int32x4_t g2 = rot(vaddq_s32(s4, s5)), g4 = rot(vsubq_s32(s4, s5));
    out[0] = vshrn_n_s32(vaddq_s32(t7, s1), 8);
    out[1] = vshrn_n_s32(vaddq_s32(t3, g2), 8);
    out[2] = vshrn_n_s32(vaddq_s32(t0, g4), 8);
    out[3] = vshrn_n_s32(vaddq_s32(t8, s6), 8);
    out[4] = vshrn_n_s32(vsubq_s32(t8, s6), 8);
    out[5] = vshrn_n_s32(vsubq_s32(t0, g4), 8);
    out[6] = vshrn_n_s32(vsubq_s32(t3, g2), 8);
    out[7] = vshrn_n_s32(vsubq_s32(t7, s1), 8);
}

// Vertical pass: each product pair rounded to 8 fraction bits, results
// (>> 14) narrowed to 16 bits. A product pair of 16-bit inputs stays below
// 2^27, so the rounding shift vrshr equals the plain (x + 4) >> 3.
inline void col_pass(const Vec8 &in, int16x4_t out[8]) {
    const int32x4_t x0 = vaddq_s32(vshll_n_s16(in.x[0], 8), vdupq_n_s32(8192));
    const int32x4_t x1 = vshll_n_s16(in.x[4], 8);
    const int32x4_t a = vrshrq_n_s32(vmlal_n_s16(vmull_n_s16(in.x[1], w1), in.x[7], w7), 3);
    const int32x4_t b = vrshrq_n_s32(vmlsl_n_s16(vmull_n_s16(in.x[1], w7), in.x[7], w1), 3);
    const int32x4_t c = vrshrq_n_s32(vmlal_n_s16(vmull_n_s16(in.x[3], w3), in.x[5], w5), 3);
    const int32x4_t d = vrshrq_n_s32(vmlsl_n_s16(vmull_n_s16(in.x[5], w3), in.x[3], w5), 3);
    const int32x4_t e = vrshrq_n_s32(vmlal_n_s16(vmull_n_s16(in.x[2], w2), in.x[6], w6), 3);
    const int32x4_t f = vrshrq_n_s32(vmlsl_n_s16(vmull_n_s16(in.x[2], w6), in.x[6], w2), 3);
    const int32x4_t s1 = vaddq_s32(a, c), s4 = vsubq_s32(a, c);
    const int32x4_t s6 = vaddq_s32(b, d), s5 = vsubq_s32(b, d);
    const int32x4_t p = vaddq_s32(x0, x1), q = vsubq_s32(x0, x1);
    const int32x4_t t7 = vaddq_s32(p, e), t8 = vsubq_s32(p, e);
    const int32x4_t t3 = vaddq_s32(q, f), t0 = vsubq_s32(q, f);
    const int32x4_t g2 = rot(vaddq_s32(s4, s5)), g4 = rot(vsubq_s32(s4, s5));
    out[0] = vshrn_n_s32(vaddq_s32(t7, s1), 14);
    out[1] = vshrn_n_s32(vaddq_s32(t3, g2), 14);
    out[2] = vshrn_n_s32(vaddq_s32(t0, g4), 14);
    out[3] = vshrn_n_s32(vaddq_s32(t8, s6), 14);
    out[4] = vshrn_n_s32(vsubq_s32(t8, s6), 14);
    out[5] = vshrn_n_s32(vsubq_s32(t0, g4), 14);
    out[6] = vshrn_n_s32(vsubq_s32(t3, g2), 14);
    out[7] = vshrn_n_s32(vsubq_s32(t7, s1), 14);
}

// 8x8 transposition of 16-bit lanes: lo[k] holds element k of in[0..3],
// hi[k] element k of in[4..7].
inline void transpose8(const int16x8_t in[8], int16x4_t lo[8], int16x4_t hi[8]) {
    const int16x8x2_t a01 = vtrnq_s16(in[0], in[1]), a23 = vtrnq_s16(in[2], in[3]);
    const int16x8x2_t a45 = vtrnq_s16(in[4], in[5]), a67 = vtrnq_s16(in[6], in[7]);
    // [element 0 | element 4] of vectors 0-3, [2 | 6], [1 | 5], [3 | 7].
    const int32x4x2_t b0 = vtrnq_s32(vreinterpretq_s32_s16(a01.val[0]), vreinterpretq_s32_s16(a23.val[0]));
    const int32x4x2_t b1 = vtrnq_s32(vreinterpretq_s32_s16(a01.val[1]), vreinterpretq_s32_s16(a23.val[1]));
    const int32x4x2_t c0 = vtrnq_s32(vreinterpretq_s32_s16(a45.val[0]), vreinterpretq_s32_s16(a67.val[0]));
    const int32x4x2_t c1 = vtrnq_s32(vreinterpretq_s32_s16(a45.val[1]), vreinterpretq_s32_s16(a67.val[1]));
    const int16x8_t e04 = vreinterpretq_s16_s32(b0.val[0]), e26 = vreinterpretq_s16_s32(b0.val[1]);
    const int16x8_t e15 = vreinterpretq_s16_s32(b1.val[0]), e37 = vreinterpretq_s16_s32(b1.val[1]);
    const int16x8_t f04 = vreinterpretq_s16_s32(c0.val[0]), f26 = vreinterpretq_s16_s32(c0.val[1]);
    const int16x8_t f15 = vreinterpretq_s16_s32(c1.val[0]), f37 = vreinterpretq_s16_s32(c1.val[1]);
    lo[0] = vget_low_s16(e04), lo[4] = vget_high_s16(e04);
    lo[1] = vget_low_s16(e15), lo[5] = vget_high_s16(e15);
    lo[2] = vget_low_s16(e26), lo[6] = vget_high_s16(e26);
    lo[3] = vget_low_s16(e37), lo[7] = vget_high_s16(e37);
    hi[0] = vget_low_s16(f04), hi[4] = vget_high_s16(f04);
    hi[1] = vget_low_s16(f15), hi[5] = vget_high_s16(f15);
    hi[2] = vget_low_s16(f26), hi[6] = vget_high_s16(f26);
    hi[3] = vget_low_s16(f37), hi[7] = vget_high_s16(f37);
}

// 4x4 transposition of 16-bit lanes.
inline void transpose4(int16x4_t &a, int16x4_t &b, int16x4_t &c, int16x4_t &d) {
    const int16x4x2_t ab = vtrn_s16(a, b), cd = vtrn_s16(c, d);
    const int32x2x2_t x = vtrn_s32(vreinterpret_s32_s16(ab.val[0]), vreinterpret_s32_s16(cd.val[0]));
    const int32x2x2_t y = vtrn_s32(vreinterpret_s32_s16(ab.val[1]), vreinterpret_s32_s16(cd.val[1]));
    a = vreinterpret_s16_s32(x.val[0]);
    b = vreinterpret_s16_s32(y.val[0]);
    c = vreinterpret_s16_s32(x.val[1]);
    d = vreinterpret_s16_s32(y.val[1]);
}

// Level shift with 16-bit saturation, then clamp to 0..255.
inline uint8x8_t to_pixels(int16x4_t lo, int16x4_t hi) {
    return vqmovun_s16(vqaddq_s16(vcombine_s16(lo, hi), vdupq_n_s16(128)));
}

inline void store4(uint8_t *dst, uint8x8_t v, int lane) {
    const uint32_t x = vget_lane_u32(vreinterpret_u32_u8(v), 0);
    const uint32_t y = vget_lane_u32(vreinterpret_u32_u8(v), 1);
    std::memcpy(dst, lane ? &y : &x, 4);
}

// Blocks whose coefficient rows 4-7 are all zero, common in photographs:
// the horizontal pass gives zeros for those rows, so only rows 0-3 are
// transformed, and the vertical pass gets constant zeros for rows 4-7.
inline void idct8_upper(const int16_t *coef, int32_t stride, uint8_t *dst) {
    const int16x4_t zero = vdup_n_s16(0);
    Vec8 v;
    for (int r = 0; r < 4; r++) {
        v.x[r] = vld1_s16(coef + 8 * r);
        v.x[r + 4] = vld1_s16(coef + 8 * r + 4);
    }
    transpose4(v.x[0], v.x[1], v.x[2], v.x[3]);  // coefficient k of rows 0-3
    transpose4(v.x[4], v.x[5], v.x[6], v.x[7]);
    int16x4_t h[8];
    row_pass(v, h);  // column k of rows 0-3
    Vec8 a, b;
    a.x[0] = h[0], a.x[1] = h[1], a.x[2] = h[2], a.x[3] = h[3];
    b.x[0] = h[4], b.x[1] = h[5], b.x[2] = h[6], b.x[3] = h[7];
    transpose4(a.x[0], a.x[1], a.x[2], a.x[3]);  // row r of columns 0-3
    transpose4(b.x[0], b.x[1], b.x[2], b.x[3]);  // row r of columns 4-7
    a.x[4] = a.x[5] = a.x[6] = a.x[7] = zero;
    b.x[4] = b.x[5] = b.x[6] = b.x[7] = zero;
    int16x4_t ol[8], oh[8];
    col_pass(a, ol);
    col_pass(b, oh);
    const ptrdiff_t ls = stride;
    for (int r = 0; r < 8; r++) vst1_u8(dst + r * ls, to_pixels(ol[r], oh[r]));
}

}  // namespace

void kivod_idct8_neon(const int16_t *coef, int32_t stride, uint8_t *dst) {
    int16x8_t rows[8];
    for (int i = 0; i < 8; i++) rows[i] = vld1q_s16(coef + 8 * i);
    const int16x8_t low = vorrq_s16(vorrq_s16(rows[4], rows[5]), vorrq_s16(rows[6], rows[7]));
    const uint32x2_t any = vreinterpret_u32_s16(vorr_s16(vget_low_s16(low), vget_high_s16(low)));
    if ((vget_lane_u32(any, 0) | vget_lane_u32(any, 1)) == 0) {
        idct8_upper(coef, stride, dst);
        return;
    }
    Vec8 lo, hi;
    transpose8(rows, lo.x, hi.x);  // coefficient k of rows 0-3 and of rows 4-7
    int16x4_t hl[8], hh[8];
    row_pass(lo, hl);
    row_pass(hi, hh);
    int16x8_t cols[8];
    for (int k = 0; k < 8; k++) cols[k] = vcombine_s16(hl[k], hh[k]);
    transpose8(cols, lo.x, hi.x);  // row r of columns 0-3 and of columns 4-7
    int16x4_t ol[8], oh[8];
    col_pass(lo, ol);
    col_pass(hi, oh);
    const ptrdiff_t ls = stride;
    for (int r = 0; r < 8; r++) vst1_u8(dst + r * ls, to_pixels(ol[r], oh[r]));
}

void kivod_idct4_neon(const int16_t *coef, int32_t stride, uint8_t *dst) {
    const int16x4_t zero = vdup_n_s16(0);
    Vec8 v;
    v.x[0] = vld1_s16(coef);
    v.x[1] = vld1_s16(coef + 8);
    v.x[2] = vld1_s16(coef + 16);
    v.x[3] = vld1_s16(coef + 24);
    transpose4(v.x[0], v.x[1], v.x[2], v.x[3]);  // coefficient k of rows 0-3
    v.x[4] = v.x[5] = v.x[6] = v.x[7] = zero;
    int16x4_t h[8];
    row_pass(v, h);
    // Columns 0, 2, 4, 6 of rows 0-3.
    v.x[0] = h[0], v.x[1] = h[2], v.x[2] = h[4], v.x[3] = h[6];
    transpose4(v.x[0], v.x[1], v.x[2], v.x[3]);  // row r of those columns
    int16x4_t o[8];
    col_pass(v, o);
    const ptrdiff_t ls = stride;
    const uint8x8_t p01 = to_pixels(o[0], o[2]);
    const uint8x8_t p23 = to_pixels(o[4], o[6]);
    store4(dst, p01, 0);
    store4(dst + ls, p01, 1);
    store4(dst + 2 * ls, p23, 0);
    store4(dst + 3 * ls, p23, 1);
}

// Horizontal outputs 0 and 4 of rows 0 and 1, then vertical outputs 0 and 4
// of columns 0 and 4, in the lanes of one vector each.
void kivod_idct2_neon(const int16_t *coef, int32_t stride, uint8_t *dst) {
    int32_t row0, row1;
    std::memcpy(&row0, coef, 4);
    std::memcpy(&row1, coef + 8, 4);
    const int16x4_t c = vreinterpret_s16_s32(vset_lane_s32(row1, vdup_n_s32(row0), 1));
    const int16x4x2_t cc = vtrn_s16(c, c);  // [c00 c00 c10 c10], [c01 c01 c11 c11]
    // out0 = (2048 c0 + W1 c1 + 128) >> 8, out4 = (2048 c0 - W7 c1 + 128) >> 8.
    const int16_t kh[4] = {w1, static_cast<int16_t>(-w7), w1, static_cast<int16_t>(-w7)};
    const int32x4_t hx = vmlal_s16(vaddq_s32(vshll_n_s16(cc.val[0], 11), vdupq_n_s32(128)),
                                   cc.val[1], vld1_s16(kh));
    const int32x2_t h = vreinterpret_s32_s16(vshrn_n_s32(hx, 8));  // [(M00 M04) (M10 M14)]
    const int16x4_t y0 = vreinterpret_s16_s32(vdup_lane_s32(h, 0));
    const int16x4_t y1 = vreinterpret_s16_s32(vdup_lane_s32(h, 1));
    // Row 0: x0 + ((W1 y1 + 4) >> 3); row 4: x0 - ((W7 y1 + 4) >> 3).
    const int16_t kv[4] = {w1, w1, w7, w7};
    const int32x4_t x0 = vaddq_s32(vshll_n_s16(y0, 8), vdupq_n_s32(8192));
    const int32x4_t odd = vrshrq_n_s32(vmull_s16(y1, vld1_s16(kv)), 3);
    const int32x4_t out = vcombine_s32(vget_low_s32(vaddq_s32(x0, odd)), vget_high_s32(vsubq_s32(x0, odd)));
    const int16x4_t o = vshrn_n_s32(out, 14);
    const uint8x8_t px = to_pixels(o, o);
    const uint16_t r0 = vget_lane_u16(vreinterpret_u16_u8(px), 0);
    const uint16_t r4 = vget_lane_u16(vreinterpret_u16_u8(px), 1);
    std::memcpy(dst, &r0, 2);
    std::memcpy(dst + static_cast<ptrdiff_t>(stride), &r4, 2);
}
