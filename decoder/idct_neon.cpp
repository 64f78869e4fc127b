// ARMv7 NEON inverse DCTs, bit-exact to the plain kernels in idct.cpp.
//
// Each pass works on four rows (or columns) in the 32-bit lanes of a q
// register. vmull/vmlal give the exact products of 16-bit inputs; adds and
// vmul/vmla wrap modulo 2^32 as the plain kernel does; vrshrn keeps the low
// 16 bits of the shifted value, which is the plain kernel's narrowing. The
// 8x8 transform is in assembly, the 4x4 one in intrinsics.
#include <arm_neon.h>

#include <cstring>

#include "decoder/idct_simd.h"
#include "decoder/kivod_int.h"

namespace {

using namespace kivo::idct;

constexpr int16_t w1 = kW1, w2 = kW2, w3 = kW3, w5 = kW5, w6 = kW6, w7 = kW7;

// The multipliers in the lanes of d registers, loaded once per block:
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
// its last butterflies: pixel rows 0 and 7 are pixels(t7 +- s1), rows 3 and 4
// pixels(t8 +- s6), rows 1 and 6 pixels(t3 +- g2), rows 2 and 5
// pixels(t0 +- g4). kHalf: rows 4-7 are zero.
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

// The 8x8 transform in assembly: with intrinsics the compiler spilled the
// 32-bit intermediates of the full passes to the stack. Same arithmetic as
// row_pass and col_pass above, on fixed registers:
//   d0 = W1 W7 W3 W5, d1 = W2 W6 181 0 (181 as the 32-bit lane 1), d2 = 256 -W5
//   q2-q7 temporaries; the inputs of a pass in four q registers X0-X3 as
//   [x0|x4] [x1|x5] [x2|x6] [x3|x7] (or, with inputs 4-7 zero, x0-x3 in d
//   registers Y0-Y3); t7 t8 t3 t0 in q5 X0 q2 q4, s1 s6 g2 g4 in X1 X3 q7 X2.

// Even part, inputs 4-7 present: t7 t8 t3 t0 from x0 x2 x4 x6 (X0 X2 free).
#define KIVO_EVEN(X0, X0L, X0H, X2L, X2H, SHIFT_X0, SHIFT_X1, ROUND) \
    "vmull.s16 q2, " X2L ", d1[0]\n\t" "vmlal.s16 q2, " X2H ", d1[1]\n\t" \
    "vmull.s16 q3, " X2L ", d1[1]\n\t" "vmlsl.s16 q3, " X2H ", d1[0]\n\t" ROUND SHIFT_X0 SHIFT_X1 \
    "vadd.i32 " X0 ", q4, q5\n\t" "vsub.i32 q4, q4, q5\n\t" \
    "vadd.i32 q5, " X0 ", q2\n\t" "vsub.i32 " X0 ", " X0 ", q2\n\t" \
    "vadd.i32 q2, q4, q3\n\t" "vsub.i32 q4, q4, q3\n\t"
// Odd part, inputs 4-7 present: a b c d in q3 q6 q7 X2 (X1 X3 then free).
#define KIVO_ODD_PRODUCTS(X1L, X1H, X2, X3L, X3H) \
    "vmull.s16 q3, " X1L ", d0[0]\n\t" "vmlal.s16 q3, " X3H ", d0[1]\n\t" \
    "vmull.s16 q6, " X1L ", d0[1]\n\t" "vmlsl.s16 q6, " X3H ", d0[0]\n\t" \
    "vmull.s16 q7, " X3L ", d0[2]\n\t" "vmlal.s16 q7, " X1H ", d0[3]\n\t" \
    "vmull.s16 " X2 ", " X1H ", d0[2]\n\t" "vmlsl.s16 " X2 ", " X3L ", d0[3]\n\t"
#define KIVO_ROUND4(X2) \
    "vrshr.s32 q3, q3, #3\n\t" "vrshr.s32 q6, q6, #3\n\t" \
    "vrshr.s32 q7, q7, #3\n\t" "vrshr.s32 " X2 ", " X2 ", #3\n\t"
// s1 s4 s6 s5 from a c b d (d negated when NEG: b - d and b + d swap).
#define KIVO_SUMS(X1, X2, X3, ADD_S6, SUB_S5) \
    "vadd.i32 " X1 ", q3, q7\n\t" "vsub.i32 q3, q3, q7\n\t" \
    "" ADD_S6 " " X3 ", q6, " X2 "\n\t" "" SUB_S5 " q6, q6, " X2 "\n\t"
// Rotation, horizontal pass: (181 (s4 +- s5)) rounded >> 8.
#define KIVO_ROT_ROW(X2) \
    "vadd.i32 q7, q3, q6\n\t" "vsub.i32 " X2 ", q3, q6\n\t" \
    "vmul.i32 q7, q7, d1[1]\n\t" "vmul.i32 " X2 ", " X2 ", d1[1]\n\t" \
    "vrshr.s32 q7, q7, #8\n\t" "vrshr.s32 " X2 ", " X2 ", #8\n\t"
// Rotation, vertical pass: (181 (s4 +- s5) + 128) >> 8 on the wrapped value.
#define KIVO_ROT_COL(X2) \
    "vmov.i32 q7, #128\n\t" "vmov.i32 " X2 ", #128\n\t" \
    "vmla.i32 q7, q3, d1[1]\n\t" "vmla.i32 " X2 ", q3, d1[1]\n\t" \
    "vmla.i32 q7, q6, d1[1]\n\t" "vmls.i32 " X2 ", q6, d1[1]\n\t" \
    "vshr.s32 q7, q7, #8\n\t" "vshr.s32 " X2 ", " X2 ", #8\n\t"
// Horizontal outputs, rounded >> 8 to 16 bits: X1 = [o0|o4], X0 = [o1|o5],
// X2 = [o2|o6], X3 = [o3|o7].
#define KIVO_ROW_OUT(X0, X0L, X0H, X1, X1L, X1H, X2, X2L, X2H, X3, X3L, X3H) \
    "vadd.i32 q3, q5, " X1 "\n\t" "vsub.i32 q5, q5, " X1 "\n\t" \
    "vadd.i32 q6, " X0 ", " X3 "\n\t" "vsub.i32 " X0 ", " X0 ", " X3 "\n\t" \
    "vrshrn.i32 " X1L ", q3, #8\n\t" "vrshrn.i32 " X1H ", " X0 ", #8\n\t" \
    "vrshrn.i32 " X3L ", q6, #8\n\t" "vrshrn.i32 " X3H ", q5, #8\n\t" \
    "vadd.i32 q3, q2, q7\n\t" "vsub.i32 q2, q2, q7\n\t" \
    "vadd.i32 q5, q4, " X2 "\n\t" "vsub.i32 q4, q4, " X2 "\n\t" \
    "vrshrn.i32 " X0L ", q3, #8\n\t" "vrshrn.i32 " X0H ", q4, #8\n\t" \
    "vrshrn.i32 " X2L ", q5, #8\n\t" "vrshrn.i32 " X2H ", q2, #8\n\t"
// Vertical outputs as pixels: X1 = u8 [row 0|row 7 ; row 3|row 4],
// X0 = [row 1|row 6 ; row 2|row 5], four pixels each.
#define KIVO_PIX(A, B, DST) \
    "vadd.i32 q3, " A ", " B "\n\t" "vsub.i32 q5, " A ", " B "\n\t" \
    "vqrshrun.s32 d12, q3, #14\n\t" "vqrshrun.s32 d13, q5, #14\n\t" "vqmovn.u16 " DST ", q6\n\t"
#define KIVO_COL_OUT(X0, X0L, X0H, X1, X1L, X1H, X2, X3) \
    KIVO_PIX("q5", X1, X1L) KIVO_PIX(X0, X3, X1H) KIVO_PIX("q2", "q7", X0L) KIVO_PIX("q4", X2, X0H)

// Horizontal pass over four rows, all coefficients.
#define KIVO_ROW(X0, X0L, X0H, X1, X1L, X1H, X2, X2L, X2H, X3, X3L, X3H) \
    KIVO_EVEN(X0, X0L, X0H, X2L, X2H, "vshll.s16 q4, " X0L ", #11\n\t", "vshll.s16 q5, " X0H ", #11\n\t", ) \
    KIVO_ODD_PRODUCTS(X1L, X1H, X2, X3L, X3H) KIVO_SUMS(X1, X2, X3, "vadd.i32", "vsub.i32") KIVO_ROT_ROW(X2) \
    KIVO_ROW_OUT(X0, X0L, X0H, X1, X1L, X1H, X2, X2L, X2H, X3, X3L, X3H)
// Horizontal pass over four rows whose coefficients 4-7 are zero.
#define KIVO_ROW_HALF(X0, X0L, X0H, X1, X1L, X1H, X2, X2L, X2H, X3, X3L, X3H) \
    "vmull.s16 q2, " X2L ", d1[0]\n\t" "vmull.s16 q3, " X2L ", d1[1]\n\t" "vshll.s16 q4, " X0L ", #11\n\t" \
    "vadd.i32 q5, q4, q2\n\t" "vsub.i32 " X0 ", q4, q2\n\t" \
    "vadd.i32 q2, q4, q3\n\t" "vsub.i32 q4, q4, q3\n\t" \
    "vmull.s16 q3, " X1L ", d0[0]\n\t" "vmull.s16 q6, " X1L ", d0[1]\n\t" \
    "vmull.s16 q7, " X3L ", d0[2]\n\t" "vmull.s16 " X2 ", " X3L ", d0[3]\n\t" \
    KIVO_SUMS(X1, X2, X3, "vsub.i32", "vadd.i32") KIVO_ROT_ROW(X2) \
    KIVO_ROW_OUT(X0, X0L, X0H, X1, X1L, X1H, X2, X2L, X2H, X3, X3L, X3H)
// Vertical pass over four columns, all rows.
#define KIVO_COL(X0, X0L, X0H, X1, X1L, X1H, X2, X2L, X2H, X3, X3L, X3H) \
    KIVO_EVEN(X0, X0L, X0H, X2L, X2H, "vmov.i32 q4, #0x200000\n\t" "vmlal.s16 q4, " X0L ", d2[0]\n\t", \
              "vshll.s16 q5, " X0H ", #8\n\t", "vrshr.s32 q2, q2, #3\n\t" "vrshr.s32 q3, q3, #3\n\t") \
    KIVO_ODD_PRODUCTS(X1L, X1H, X2, X3L, X3H) KIVO_ROUND4(X2) KIVO_SUMS(X1, X2, X3, "vadd.i32", "vsub.i32") \
    KIVO_ROT_COL(X2) KIVO_COL_OUT(X0, X0L, X0H, X1, X1L, X1H, X2, X3)
// Vertical pass over four columns whose rows 4-7 are zero; inputs Y0-Y3.
#define KIVO_COL_HALF(Y0, Y1, Y2, Y3, X0, X0L, X0H, X1, X1L, X1H, X2, X3) \
    "vmull.s16 q2, " Y2 ", d1[0]\n\t" "vmull.s16 q3, " Y2 ", d1[1]\n\t" \
    "vrshr.s32 q2, q2, #3\n\t" "vrshr.s32 q3, q3, #3\n\t" \
    "vmov.i32 q4, #0x200000\n\t" "vmlal.s16 q4, " Y0 ", d2[0]\n\t" \
    "vadd.i32 q5, q4, q2\n\t" "vsub.i32 " X0 ", q4, q2\n\t" \
    "vadd.i32 q2, q4, q3\n\t" "vsub.i32 q4, q4, q3\n\t" \
    "vmull.s16 q3, " Y1 ", d0[0]\n\t" "vmull.s16 q6, " Y1 ", d0[1]\n\t" \
    "vmull.s16 q7, " Y3 ", d0[2]\n\t" "vmull.s16 " X2 ", " Y3 ", d2[1]\n\t" \
    KIVO_ROUND4(X2) KIVO_SUMS(X1, X2, X3, "vadd.i32", "vsub.i32") \
    KIVO_ROT_COL(X2) KIVO_COL_OUT(X0, X0L, X0H, X1, X1L, X1H, X2, X3)

// Four rows in X0-X3 transposed into the layout of a pass's inputs.
#define KIVO_TRN(X0, X1, X2, X3) \
    "vtrn.16 " X0 ", " X1 "\n\t" "vtrn.16 " X2 ", " X3 "\n\t" "vtrn.32 " X0 ", " X2 "\n\t" "vtrn.32 " X1 ", " X3 "\n\t"
// Pixel rows: A = [row 0|row 7], B = [row 1|row 6], C = [row 2|row 5],
// D = [row 3|row 4] of the left half, E-H the same of the right half.
#define KIVO_STORE(A, B, C, D, E, F, G, H) \
    "vtrn.32 " A ", " E "\n\t" "vtrn.32 " B ", " F "\n\t" "vtrn.32 " C ", " G "\n\t" "vtrn.32 " D ", " H "\n\t" \
    "vst1.8 {" A "}, [%[dst]], %[stride]\n\t" "vst1.8 {" B "}, [%[dst]], %[stride]\n\t" \
    "vst1.8 {" C "}, [%[dst]], %[stride]\n\t" "vst1.8 {" D "}, [%[dst]], %[stride]\n\t" \
    "vst1.8 {" H "}, [%[dst]], %[stride]\n\t" "vst1.8 {" G "}, [%[dst]], %[stride]\n\t" \
    "vst1.8 {" F "}, [%[dst]], %[stride]\n\t" "vst1.8 {" E "}, [%[dst]]\n\t"

#define KIVO_CLOBBERS                                                                                          \
    "memory", "d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7", "d8", "d9", "d10", "d11", "d12", "d13", "d14", \
        "d15", "d16", "d17", "d18", "d19", "d20", "d21", "d22", "d23", "d24", "d25", "d26", "d27", "d28",    \
        "d29", "d30", "d31"

// Multipliers of the passes (see the register map above).
alignas(8) const int16_t kConsts[12] = {w1, w7, w3, w5, w2, w6, static_cast<int16_t>(kC), 0, 256, -w5, 0, 0};

// Rows 0-3 of the intermediate block from coefficient rows 0-3, horizontal
// pass ROW; leaves them in q9 q8 q10 q11.
#define KIVO_ROWS03(ROW)                                                              \
    "vld1.16 {d0 - d2}, [%[k]]\n\t" "vld1.16 {d16 - d19}, [%[coef]]!\n\t"       \
    "vld1.16 {d20 - d23}, [%[coef]]!\n\t" KIVO_TRN("q8", "q9", "q10", "q11")              \
    ROW("q8", "d16", "d17", "q9", "d18", "d19", "q10", "d20", "d21", "q11", "d22", "d23") KIVO_TRN("q9", "q8", "q10", "q11")

// All rows; horizontal pass ROW.
#define KIVO_IDCT8_FULL(ROW)                                                            \
    KIVO_ROWS03(ROW) "vld1.16 {d24 - d27}, [%[coef]]!\n\t"                          \
    "vld1.16 {d28 - d31}, [%[coef]]\n\t" KIVO_TRN("q12", "q13", "q14", "q15")                \
    ROW("q12", "d24", "d25", "q13", "d26", "d27", "q14", "d28", "d29", "q15", "d30", "d31") KIVO_TRN("q13", "q12", "q14", "q15") \
    "vswp d19, d26\n\t" "vswp d17, d24\n\t" "vswp d21, d28\n\t" "vswp d23, d30\n\t"       \
    KIVO_COL("q9", "d18", "d19", "q8", "d16", "d17", "q10", "d20", "d21", "q11", "d22", "d23")                          \
    KIVO_COL("q13", "d26", "d27", "q12", "d24", "d25", "q14", "d28", "d29", "q15", "d30", "d31")                        \
    KIVO_STORE("d16", "d18", "d19", "d17", "d24", "d26", "d27", "d25")

// Coefficient rows 4-7 zero; horizontal pass ROW.
#define KIVO_IDCT8_TOP(ROW)                                                                       \
    KIVO_ROWS03(ROW) "vswp d19, d16\n\t" "vswp d21, d22\n\t"                                \
    KIVO_COL_HALF("d18", "d19", "d20", "d21", "q12", "d24", "d25", "q13", "d26", "d27", "q14", "q15")                   \
    KIVO_COL_HALF("d16", "d17", "d22", "d23", "q14", "d28", "d29", "q15", "d30", "d31", "q9", "q10")                    \
    KIVO_STORE("d26", "d24", "d25", "d27", "d30", "d28", "d29", "d31")

#define KIVO_ASM(TEXT)                                                           \
    asm volatile(TEXT : [coef] "+r"(coef), [dst] "+r"(dst) : [stride] "r"(stride), \
                 [k] "r"(kConsts) : KIVO_CLOBBERS)

// One shape of block; out of line, so that the dispatch below ends in a jump.
template <bool kBottom, bool kRight>
__attribute__((noinline)) void idct8(const int16_t *coef, int32_t stride, uint8_t *dst) {
    if (kBottom && kRight) KIVO_ASM(KIVO_IDCT8_TOP(KIVO_ROW_HALF));
    else if (kBottom) KIVO_ASM(KIVO_IDCT8_TOP(KIVO_ROW));
    else if (kRight) KIVO_ASM(KIVO_IDCT8_FULL(KIVO_ROW_HALF));
    else KIVO_ASM(KIVO_IDCT8_FULL(KIVO_ROW));
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
    const int32x2x2_t rows = vtrn_s32(vreinterpret_s32_s16(vld1_s16(coef)), vreinterpret_s32_s16(vld1_s16(coef + 8)));
    const int16x4_t c = vreinterpret_s16_s32(rows.val[0]);  // c00 c01 c10 c11
    const int16x4x2_t cc = vtrn_s16(c, c);  // [c00 c00 c10 c10], [c01 c01 c11 c11]
    // out0 = (2048 c0 + W1 c1 + 128) >> 8, out4 = (2048 c0 - W7 c1 + 128) >> 8,
    // the rounding by vrshrn as in row_pass.
    static const int16_t kh[4] = {w1, -w7, w1, -w7};
    const int32x4_t hx = vmlal_s16(vshll_n_s16(cc.val[0], 11), cc.val[1], vld1_s16(kh));
    const int32x2_t h = vreinterpret_s32_s16(vrshrn_n_s32(hx, 8));  // [(M00 M04) (M10 M14)]
    const int16x4_t y0 = vreinterpret_s16_s32(vdup_lane_s32(h, 0));
    const int16x4_t y1 = vreinterpret_s16_s32(vdup_lane_s32(h, 1));
    // Row 0: x0 + ((W1 y1 + 4) >> 3); row 4: x0 - ((W7 y1 + 4) >> 3); level
    // shift, rounding and clamping as in col_pass.
    static const int16_t kv[4] = {w1, w1, w7, w7};
    const int32x4_t x0 = vaddq_s32(vshll_n_s16(y0, 8), vdupq_n_s32(128 << 14));
    const int32x4_t odd = vrshrq_n_s32(vmull_s16(y1, vld1_s16(kv)), 3);
    const uint16x4_t o = pixels(vcombine_s32(vget_low_s32(vaddq_s32(x0, odd)), vget_high_s32(vsubq_s32(x0, odd))));
    const uint8x8_t px = vqmovn_u16(vcombine_u16(o, o));
    const uint16_t r0 = vget_lane_u16(vreinterpret_u16_u8(px), 0);
    const uint16_t r4 = vget_lane_u16(vreinterpret_u16_u8(px), 1);
    std::memcpy(dst, &r0, 2);
    std::memcpy(dst + static_cast<ptrdiff_t>(stride), &r4, 2);
}
