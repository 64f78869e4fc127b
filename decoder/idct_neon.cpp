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

// The multipliers in the lanes of two d registers, loaded once per block:
// vmull/vmlal by lane take them from there.
struct Consts {
    int16x4_t k0, k1, k2;  // W1 W7 W3 W5, W2 W6 -W5 -, - 256 - -
    int32x2_t rot;         // kC
};
inline Consts consts() {
    static const int16_t k[12] = {w1, w7, w3, w5, w2, w6, -w5, 0, 0, 256, 0, 0};
    return {vld1_s16(k), vld1_s16(k + 4), vld1_s16(k + 8), vdup_n_s32(static_cast<int32_t>(kC))};
}

// The six product pairs of a pass, exact in 32 bits. kHalf: inputs 4-7 are
// zero and drop out.
template <bool kHalf>
struct Products {
    int32x4_t a, b, c, d, e, f;
    Products(const int16x4_t in[8], const Consts &k) {
        a = vmull_lane_s16(in[1], k.k0, 0);  // W1 x1 + W7 x7
        b = vmull_lane_s16(in[1], k.k0, 1);  // W7 x1 - W1 x7
        e = vmull_lane_s16(in[2], k.k1, 0);  // W2 x2 + W6 x6
        f = vmull_lane_s16(in[2], k.k1, 1);  // W6 x2 - W2 x6
        if (kHalf) {
            c = vmull_lane_s16(in[3], k.k0, 2);  // W3 x3
            d = vmull_lane_s16(in[3], k.k1, 2);  // -W5 x3
            return;
        }
        a = vmlal_lane_s16(a, in[7], k.k0, 1);
        b = vmlsl_lane_s16(b, in[7], k.k0, 0);
        e = vmlal_lane_s16(e, in[6], k.k1, 1);
        f = vmlsl_lane_s16(f, in[6], k.k1, 0);
        c = vmlal_lane_s16(vmull_lane_s16(in[3], k.k0, 2), in[5], k.k0, 3);  // W3 x3 + W5 x5
        d = vmlsl_lane_s16(vmull_lane_s16(in[5], k.k0, 2), in[3], k.k0, 3);  // W3 x5 - W5 x3
    }
};

// Horizontal pass over four rows: in[k] holds coefficient k of each row,
// out[k] gets output k. kHalf: coefficients 4-7 of the rows are zero.
//
// Only bits 8..23 of each 32-bit sum reach the output, so any change by a
// multiple of 2^24 is invisible: the rounding 128 of the outputs goes into
// vrshrn instead of the DC term, and the rotation may round with vrshr,
// whose exact sum differs from the wrapped one by 2^24 at most.
template <bool kHalf>
inline void row_pass(const int16x4_t in[8], int16x4_t out[8], const Consts &k) {
    const Products<kHalf> m(in, k);
    const int32x4_t s1 = vaddq_s32(m.a, m.c), s4 = vsubq_s32(m.a, m.c);
    const int32x4_t s6 = vaddq_s32(m.b, m.d), s5 = vsubq_s32(m.b, m.d);
    const int32x4_t g2 = vrshrq_n_s32(vmulq_lane_s32(vaddq_s32(s4, s5), k.rot, 0), 8);
    const int32x4_t g4 = vrshrq_n_s32(vmulq_lane_s32(vsubq_s32(s4, s5), k.rot, 0), 8);
    const int32x4_t e = m.e, f = m.f;
    int32x4_t p = vshll_n_s16(in[0], 11), q = p;
    if (!kHalf) {
        const int32x4_t x1 = vshll_n_s16(in[4], 11);
        p = vaddq_s32(p, x1);
        q = vsubq_s32(q, x1);
    }
    const int32x4_t t7 = vaddq_s32(p, e), t8 = vsubq_s32(p, e), t3 = vaddq_s32(q, f), t0 = vsubq_s32(q, f);
    out[0] = vrshrn_n_s32(vaddq_s32(t7, s1), 8);
    out[7] = vrshrn_n_s32(vsubq_s32(t7, s1), 8);
    out[3] = vrshrn_n_s32(vaddq_s32(t8, s6), 8);
    out[4] = vrshrn_n_s32(vsubq_s32(t8, s6), 8);
    out[1] = vrshrn_n_s32(vaddq_s32(t3, g2), 8);
    out[6] = vrshrn_n_s32(vsubq_s32(t3, g2), 8);
    out[2] = vrshrn_n_s32(vaddq_s32(t0, g4), 8);
    out[5] = vrshrn_n_s32(vsubq_s32(t0, g4), 8);
}

// Vertical pass over four columns, in[i] holding row i of each column, up to
// its last butterfly: pixel row r is pixels(t + u) or pixels(t - u) of a pair
// below. kHalf: rows 4-7 are zero.
//
// Product pairs stay below 2^27, so vrshr #3 is the exact (x + 4) >> 3. The
// rotation's 32-bit product wraps and must round as the wrapped value does,
// hence the plain multiply-add and shift. Every output sum stays below 2^26
// in magnitude: with the level shift (128 << 14) folded into the DC term,
// vqrshrun gives the rounded, shifted, level-shifted value clamped at 0 and
// vqmovn clamps it at 255.
struct ColSums {
    int32x4_t t7, s1, t8, s6, t3, g2, t0, g4;  // rows 0/7, 3/4, 1/6, 2/5
};
template <bool kHalf>
inline ColSums col_pass(const int16x4_t in[8], const Consts &k) {
    const Products<kHalf> m(in, k);
    const int32x4_t e = vrshrq_n_s32(m.e, 3), f = vrshrq_n_s32(m.f, 3);
    int32x4_t p = vmlal_lane_s16(vdupq_n_s32(128 << 14), in[0], k.k2, 1), q = p;
    if (!kHalf) {
        const int32x4_t x1 = vshll_n_s16(in[4], 8);
        p = vaddq_s32(p, x1);
        q = vsubq_s32(q, x1);
    }
    const int32x4_t t7 = vaddq_s32(p, e), t8 = vsubq_s32(p, e), t3 = vaddq_s32(q, f), t0 = vsubq_s32(q, f);
    const int32x4_t a = vrshrq_n_s32(m.a, 3), b = vrshrq_n_s32(m.b, 3);
    const int32x4_t c = vrshrq_n_s32(m.c, 3), d = vrshrq_n_s32(m.d, 3);
    const int32x4_t s1 = vaddq_s32(a, c), s4 = vsubq_s32(a, c), s6 = vaddq_s32(b, d), s5 = vsubq_s32(b, d);
    const int32x4_t g2 = vshrq_n_s32(vmlaq_lane_s32(vdupq_n_s32(128), vaddq_s32(s4, s5), k.rot, 0), 8);
    const int32x4_t g4 = vshrq_n_s32(vmlaq_lane_s32(vdupq_n_s32(128), vsubq_s32(s4, s5), k.rot, 0), 8);
    return {t7, s1, t8, s6, t3, g2, t0, g4};
}

inline uint16x4_t pixels(int32x4_t x) { return vqrshrun_n_s32(x, 14); }

// Pixel rows x + y and x - y, four pixels each, as u8 [x + y | x - y].
inline uint8x8_t pixels2(int32x4_t x, int32x4_t y) {
    return vqmovn_u16(vcombine_u16(pixels(vaddq_s32(x, y)), pixels(vsubq_s32(x, y))));
}

// Pixel rows of four columns: out[r] = u8 [row r | row 7 - r], r = 0..3.
template <bool kHalf>
inline void col_pixels(const int16x4_t in[8], uint8x8_t out[4], const Consts &k) {
    const ColSums c = col_pass<kHalf>(in, k);
    out[0] = pixels2(c.t7, c.s1);
    out[3] = pixels2(c.t8, c.s6);
    out[1] = pixels2(c.t3, c.g2);
    out[2] = pixels2(c.t0, c.g4);
}

// Transposes four 8-lane rows in place into the 4x4 blocks of their left and
// right halves: afterwards the low half of v[k] holds element k of the four
// rows, the high half element k + 4.
inline void transpose4x8(int16x8_t v[4]) {
    const int16x8x2_t a01 = vtrnq_s16(v[0], v[1]), a23 = vtrnq_s16(v[2], v[3]);
    const int32x4x2_t b0 = vtrnq_s32(vreinterpretq_s32_s16(a01.val[0]), vreinterpretq_s32_s16(a23.val[0]));
    const int32x4x2_t b1 = vtrnq_s32(vreinterpretq_s32_s16(a01.val[1]), vreinterpretq_s32_s16(a23.val[1]));
    v[0] = vreinterpretq_s16_s32(b0.val[0]);
    v[1] = vreinterpretq_s16_s32(b1.val[0]);
    v[2] = vreinterpretq_s16_s32(b0.val[1]);
    v[3] = vreinterpretq_s16_s32(b1.val[1]);
}

// 4x4 transposition of 16-bit lanes.
inline void transpose4(int16x4_t v[4]) {
    const int16x4x2_t a = vtrn_s16(v[0], v[1]), b = vtrn_s16(v[2], v[3]);
    const int32x2x2_t x = vtrn_s32(vreinterpret_s32_s16(a.val[0]), vreinterpret_s32_s16(b.val[0]));
    const int32x2x2_t y = vtrn_s32(vreinterpret_s32_s16(a.val[1]), vreinterpret_s32_s16(b.val[1]));
    v[0] = vreinterpret_s16_s32(x.val[0]);
    v[1] = vreinterpret_s16_s32(y.val[0]);
    v[2] = vreinterpret_s16_s32(x.val[1]);
    v[3] = vreinterpret_s16_s32(y.val[1]);
}

// Horizontal pass over four coefficient rows; returns the four rows of the
// intermediate block, eight columns each.
template <bool kRight>
inline void rows4(const int16_t *coef, int16x8_t out[4], const Consts &k) {
    int16x8_t v[4] = {vld1q_s16(coef), vld1q_s16(coef + 8), vld1q_s16(coef + 16), vld1q_s16(coef + 24)};
    transpose4x8(v);
    const int16x4_t in[8] = {vget_low_s16(v[0]),  vget_low_s16(v[1]),  vget_low_s16(v[2]),  vget_low_s16(v[3]),
                             vget_high_s16(v[0]), vget_high_s16(v[1]), vget_high_s16(v[2]), vget_high_s16(v[3])};
    int16x4_t h[8];
    row_pass<kRight>(in, h, k);
    for (int k = 0; k < 4; k++) out[k] = vcombine_s16(h[k], h[k + 4]);
    transpose4x8(out);
}

// The full transform. kBottom: coefficient rows 4-7 are zero, and so are the
// intermediate rows they give. kRight: coefficient columns 4-7 are zero.
template <bool kBottom, bool kRight>
__attribute__((noinline)) void idct8(const int16_t *coef, int32_t stride, uint8_t *dst) {
    const Consts k = consts();
    int16x8_t m[8];
    rows4<kRight>(coef, m, k);
    if (!kBottom) rows4<kRight>(coef + 32, m + 4, k);
    int16x4_t in[8];
    uint8x8_t lo[4], hi[4];
    for (int i = 0; i < 8; i++) in[i] = vget_low_s16(m[kBottom ? i & 3 : i]);
    col_pixels<kBottom>(in, lo, k);
    for (int i = 0; i < 8; i++) in[i] = vget_high_s16(m[kBottom ? i & 3 : i]);
    col_pixels<kBottom>(in, hi, k);
    uint8x8_t rows[8];
    for (int r = 0; r < 4; r++) {  // [row r | row 7 - r] of both halves -> rows r and 7 - r
        const uint32x2x2_t t = vtrn_u32(vreinterpret_u32_u8(lo[r]), vreinterpret_u32_u8(hi[r]));
        rows[r] = vreinterpret_u8_u32(t.val[0]);
        rows[7 - r] = vreinterpret_u8_u32(t.val[1]);
    }
    for (int i = 0; i < 8; i++, dst += stride) vst1_u8(dst, rows[i]);
}

}  // namespace

// Zero halves of the block, common in photographs, take cheaper passes.
void kivod_idct8_neon(const int16_t *coef, int32_t stride, uint8_t *dst) {
    int16x8_t r[8];
    for (int i = 0; i < 8; i++) r[i] = vld1q_s16(coef + 8 * i);
    const int16x8_t bottom = vorrq_s16(vorrq_s16(r[4], r[5]), vorrq_s16(r[6], r[7]));
    const int16x8_t all = vorrq_s16(bottom, vorrq_s16(vorrq_s16(r[0], r[1]), vorrq_s16(r[2], r[3])));
    // Lane 0: any bit in rows 4-7; lane 1: any in columns 4-7.
    const uint32x2_t any = vpmax_u32(vreinterpret_u32_s16(vorr_s16(vget_low_s16(bottom), vget_high_s16(bottom))),
                                     vreinterpret_u32_s16(vget_high_s16(all)));
    const bool no_bottom = vget_lane_u32(any, 0) == 0, no_right = vget_lane_u32(any, 1) == 0;
    if (no_bottom) {
        if (no_right) idct8<true, true>(coef, stride, dst);
        else idct8<true, false>(coef, stride, dst);
    } else {
        if (no_right) idct8<false, true>(coef, stride, dst);
        else idct8<false, false>(coef, stride, dst);
    }
}

// Top-left 4x4 coefficients; pixel rows and columns 0, 2, 4, 6 of the 8x8
// transform (the outputs no pass needs fold away).
void kivod_idct4_neon(const int16_t *coef, int32_t stride, uint8_t *dst) {
    const int16x4_t zero = vdup_n_s16(0);
    int16x4_t in[8] = {vld1_s16(coef), vld1_s16(coef + 8), vld1_s16(coef + 16), vld1_s16(coef + 24),
                       zero, zero, zero, zero};
    transpose4(in);  // coefficient k of rows 0-3
    const Consts k = consts();
    int16x4_t h[8];
    row_pass<true>(in, h, k);
    in[0] = h[0], in[1] = h[2], in[2] = h[4], in[3] = h[6];
    transpose4(in);  // rows 0-3 of columns 0, 2, 4, 6
    const ColSums c = col_pass<true>(in, k);
    const uint32x2_t p02 = vreinterpret_u32_u8(
        vqmovn_u16(vcombine_u16(pixels(vaddq_s32(c.t7, c.s1)), pixels(vaddq_s32(c.t0, c.g4)))));
    const uint32x2_t p46 = vreinterpret_u32_u8(
        vqmovn_u16(vcombine_u16(pixels(vsubq_s32(c.t8, c.s6)), pixels(vsubq_s32(c.t3, c.g2)))));
    const uint32_t rows[4] = {vget_lane_u32(p02, 0), vget_lane_u32(p02, 1), vget_lane_u32(p46, 0),
                              vget_lane_u32(p46, 1)};
    for (int i = 0; i < 4; i++, dst += stride) std::memcpy(dst, &rows[i], 4);
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
    const uint8x8_t px = vqmovun_s16(vqaddq_s16(vcombine_s16(o, o), vdupq_n_s16(128)));
    const uint16_t r0 = vget_lane_u16(vreinterpret_u16_u8(px), 0);
    const uint16_t r4 = vget_lane_u16(vreinterpret_u16_u8(px), 1);
    std::memcpy(dst, &r0, 2);
    std::memcpy(dst + static_cast<ptrdiff_t>(stride), &r4, 2);
}
