// NEON JND filter, two output rows per step, bit-exact to the plain one.
#include <arm_neon.h>

#include "encoder/enc_simd.h"
#include "encoder/jnd_steps.h"

// The filter in assembly on fixed registers: the band's tables in d0-d7
// (up: base, step; down: base, step), 4 and 6 in the bytes of d8 and d9.
// Each step filters rows y and y + 1, C = rows (y, y + 1) with CL and CH
// its halves; A, B, D and E hold the row pairs one and two rows above and
// below: (y - 2, y - 1), (y - 1, y), (y + 1, y + 2), (y + 2, y + 3). The
// band [c - d(c), min(255, c + a(c))] goes to q15 and q14, the sums of
// row y and y + 1 to q5 and q6, before the final rounding shift OUT.
#define KIVO_JND_STEP(A, B, C, CL, CH, D, E, OUT)                                                                  \
    "vshr.u8 q13, " C ", #4\n\t"                                                                                   \
    "vtbl.8 d28, {d0-d1}, d26\n\t" "vtbl.8 d29, {d0-d1}, d27\n\t" "vtbl.8 d30, {d2-d3}, d26\n\t"                 \
    "vtbl.8 d31, {d2-d3}, d27\n\t" "vcge.u8 q15, " C ", q15\n\t" "vsub.i8 q14, q14, q15\n\t"                       \
    "vqadd.u8 q14, " C ", q14\n\t"                                                                                 \
    "vtbl.8 d30, {d4-d5}, d26\n\t" "vtbl.8 d31, {d4-d5}, d27\n\t" "vtbl.8 d14, {d6-d7}, d26\n\t"                 \
    "vtbl.8 d15, {d6-d7}, d27\n\t" "vcge.u8 q7, " C ", q7\n\t" "vsub.i8 q15, q15, q7\n\t"                          \
    "vqsub.u8 q15, " C ", q15\n\t"                                                                                 \
    "vmax.u8 q13, " A ", q15\n\t" "vmin.u8 q13, q13, q14\n\t" "vmax.u8 q7, " E ", q15\n\t"                        \
    "vmin.u8 q7, q7, q14\n\t" "vaddl.u8 q5, d26, d14\n\t" "vaddl.u8 q6, d27, d15\n\t"                             \
    "vmax.u8 q13, " B ", q15\n\t" "vmin.u8 q13, q13, q14\n\t" "vmlal.u8 q5, d26, d8\n\t"                          \
    "vmlal.u8 q6, d27, d8\n\t" "vmax.u8 q13, " D ", q15\n\t" "vmin.u8 q13, q13, q14\n\t"                          \
    "vmlal.u8 q5, d26, d8\n\t" "vmlal.u8 q6, d27, d8\n\t" "vmlal.u8 q5, " CL ", d9\n\t"                           \
    "vmlal.u8 q6, " CH ", d9\n\t" OUT
// The rows of the next step into the pairs A (AL, AH) and B (BL, BH) the
// step leaves free, from E's second row (EH) and two new rows.
#define KIVO_JND_NEXT(AL, AH, BL, BH, EH)                                                                          \
    "vmov " AL ", " EH "\n\t" "vld1.8 {" AH "}, [%[p]], %[st]\n\t" "vmov " BL ", " AH "\n\t"                       \
    "vld1.8 {" BH "}, [%[p]], %[st]\n\t"
// Rows -2 to 3 into q8 (-2, -1), q9 (-1, 0), q10 (0, 1), q11 (1, 2), q12 (2, 3).
#define KIVO_JND_FIRST                                                                                              \
    "vld1.8 {d0-d3}, [%[up]]\n\t" "vld1.8 {d4-d7}, [%[down]]\n\t" "vmov.i8 d8, #4\n\t" "vmov.i8 d9, #6\n\t"     \
    "vld1.8 {d16}, [%[p]], %[st]\n\t" "vld1.8 {d17}, [%[p]], %[st]\n\t" "vmov d18, d17\n\t"                      \
    "vld1.8 {d19}, [%[p]], %[st]\n\t" "vmov d20, d19\n\t" "vld1.8 {d21}, [%[p]], %[st]\n\t" "vmov d22, d21\n\t"  \
    "vld1.8 {d23}, [%[p]], %[st]\n\t" "vmov d24, d23\n\t" "vld1.8 {d25}, [%[p]], %[st]\n\t"
// The four steps, the row pairs' registers turning round.
#define KIVO_JND_BLOCK(OUT)                                                                                         \
    KIVO_JND_FIRST                                                                                                  \
    KIVO_JND_STEP("q8", "q9", "q10", "d20", "d21", "q11", "q12", OUT) KIVO_JND_NEXT("d16", "d17", "d18", "d19", "d25") \
    KIVO_JND_STEP("q10", "q11", "q12", "d24", "d25", "q8", "q9", OUT) KIVO_JND_NEXT("d20", "d21", "d22", "d23", "d19") \
    KIVO_JND_STEP("q12", "q8", "q9", "d18", "d19", "q10", "q11", OUT) KIVO_JND_NEXT("d24", "d25", "d16", "d17", "d23") \
    KIVO_JND_STEP("q9", "q10", "q11", "d22", "d23", "q12", "q8", OUT)
#define KIVO_JND_OPERANDS                                                                                           \
    : [p] "+r"(p), [d] "+r"(dst)                                                                                    \
    : [st] "r"(stride), [up] "r"(&kJndUp), [down] "r"(&kJndDown)                                                    \
    : "memory", "d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7", "d8", "d9", "d10", "d11", "d12", "d13", "d14",     \
      "d15", "d16", "d17", "d18", "d19", "d20", "d21", "d22", "d23", "d24", "d25", "d26", "d27", "d28", "d29",    \
      "d30", "d31"

void kivoe_jndfilt8x8_neon(const uint8_t *src, int32_t stride, int16_t *blk) {
    const uint8_t *p = src - 2 * static_cast<ptrdiff_t>(stride);
    int16_t *dst = blk;
    asm volatile(KIVO_JND_BLOCK("vrshr.u16 q5, q5, #4\n\t" "vrshr.u16 q6, q6, #4\n\t" "vst1.16 {d10-d13}, [%[d]]!\n\t")
                 KIVO_JND_OPERANDS);
}

void kivoe_jndfilt8x8_u8_neon(const uint8_t *src, int32_t stride, uint8_t *dst) {
    const uint8_t *p = src - 2 * static_cast<ptrdiff_t>(stride);
    asm volatile(KIVO_JND_BLOCK("vrshrn.u16 d10, q5, #4\n\t" "vrshrn.u16 d11, q6, #4\n\t" "vst1.8 {d10-d11}, [%[d]]!\n\t")
                 KIVO_JND_OPERANDS);
}

#undef KIVO_JND_STEP
#undef KIVO_JND_NEXT
#undef KIVO_JND_FIRST
#undef KIVO_JND_BLOCK
#undef KIVO_JND_OPERANDS

// A level L = sign * n (n > 0) becomes sign * m for the lowest m that the
// descent from n - 1 reaches. With c = sign * C and e = c - (n - 1) q, the
// descent starts when -T < e < T, and a step down to n - 1 - j holds while
// e + j q < T: it goes j = (T - 1 - e) / q steps, at most n - 1. T - 1 - e
// lies below 2T, so that the quotient comes from the Q14 reciprocal with
// one correction; e takes 32 bits.
void kivoe_jnd_suppress_neon(int16_t *levels, const int16_t *coef, const uint16_t *q, const uint16_t *recip,
                             const uint8_t *thr) {
    // AC magnitudes, each counted up to 8: only whether they add up to more
    // than 7 matters.
    int16x8_t l[8];
    int16x8_t sum = vdupq_n_s16(0);
    for (int r = 0; r < 8; ++r) {
        l[r] = vld1q_s16(levels + 8 * r);
        int16x8_t capped = vminq_s16(vqabsq_s16(l[r]), vdupq_n_s16(8));
        if (r == 0) capped = vsetq_lane_s16(0, capped, 0);
        sum = vaddq_s16(sum, capped);
    }
    const int32x4_t s4 = vpaddlq_s16(sum);
    const int64x2_t s2 = vpaddlq_s32(s4);
    if (vgetq_lane_s64(s2, 0) + vgetq_lane_s64(s2, 1) <= 7) return;
    for (int r = 0; r < 8; ++r) {
        const int16x8_t L = l[r];
        const uint16x8_t nz = vtstq_s16(L, L);
        const uint64x2_t any = vreinterpretq_u64_u16(nz);
        if ((vgetq_lane_u64(any, 0) | vgetq_lane_u64(any, 1)) == 0) continue;
        const int16x8_t s = vshrq_n_s16(L, 15);
        const uint16x8_t n1 = vsubq_u16(vreinterpretq_u16_s16(vabsq_s16(L)), vdupq_n_u16(1));
        const uint16x8_t Q = vld1q_u16(q + 8 * r);
        const int16x8_t C = vld1q_s16(coef + 8 * r);
        const uint16x8_t T = vmovl_u8(vld1_u8(thr + 8 * r));
        auto none = [](uint16x8_t m) {
            const uint64x2_t v = vreinterpretq_u64_u16(m);
            return (vgetq_lane_u64(v, 0) | vgetq_lane_u64(v, 1)) == 0;
        };
        uint16x8_t take, X;
        // (n - 1) q below 32768 and C not -32768 in every lane: e in 16
        // bits, saturated below (then far under -T, as the true value).
        // vqdmulh gives (2 (n - 1) q) >> 16, not zero exactly where the
        // product reaches 32768 (q from 32768 up reads as negative, which
        // for n - 1 > 0 is not zero either).
        const int16x8_t high = vqdmulhq_s16(vreinterpretq_s16_u16(n1), vreinterpretq_s16_u16(Q));
        const uint16x8_t wide = vandq_u16(nz, vorrq_u16(vreinterpretq_u16_s16(high), vceqq_s16(C, vdupq_n_s16(-32768))));
        if (none(wide)) {
            const int16x8_t P = vreinterpretq_s16_u16(vmulq_u16(n1, Q));
            const int16x8_t e = vqsubq_s16(vsubq_s16(veorq_s16(C, s), s), P);
            const int16x8_t t = vreinterpretq_s16_u16(T);
            take = vandq_u16(vandq_u16(vcgtq_s16(e, vnegq_s16(t)), vcltq_s16(e, t)), nz);
            if (none(take)) continue;
            X = vreinterpretq_u16_s16(vsubq_s16(vsubq_s16(t, vdupq_n_s16(1)), e));
        } else {
            int32x4_t e[2];
            uint32x4_t cond[2];
            for (int h = 0; h < 2; ++h) {
                const int32x4_t s32 = vmovl_s16(h ? vget_high_s16(s) : vget_low_s16(s));
                const int32x4_t c32 = vmovl_s16(h ? vget_high_s16(C) : vget_low_s16(C));
                const int32x4_t c = vsubq_s32(veorq_s32(c32, s32), s32);
                const uint32x4_t p = vmull_u16(h ? vget_high_u16(n1) : vget_low_u16(n1), h ? vget_high_u16(Q) : vget_low_u16(Q));
                e[h] = vsubq_s32(c, vreinterpretq_s32_u32(p));
                const int32x4_t t = vreinterpretq_s32_u32(vmovl_u16(h ? vget_high_u16(T) : vget_low_u16(T)));
                cond[h] = vandq_u32(vcgtq_s32(e[h], vnegq_s32(t)), vcltq_s32(e[h], t));
                e[h] = vsubq_s32(vsubq_s32(t, vdupq_n_s32(1)), e[h]);  // T - 1 - e
            }
            take = vandq_u16(vcombine_u16(vmovn_u32(cond[0]), vmovn_u32(cond[1])), nz);
            if (none(take)) continue;
            X = vreinterpretq_u16_s16(vcombine_s16(vqmovn_s32(e[0]), vqmovn_s32(e[1])));
        }
        // (X recip) >> 14 as (2 (2 X) recip) >> 16: 2 X and recip (at most
        // 16384) fit signed 16 bits, the product stays far below 2^31.
        const int16x8_t R = vreinterpretq_s16_u16(vld1q_u16(recip + 8 * r));
        const uint16x8_t m0 = vreinterpretq_u16_s16(vqdmulhq_s16(vreinterpretq_s16_u16(vshlq_n_u16(X, 1)), R));
        const uint16x8_t rem = vmlsq_u16(X, m0, Q);
        const uint16x8_t j = vsubq_u16(m0, vcgeq_u16(rem, Q));  // + 1 where rem >= q
        const int16x8_t m = vmaxq_s16(vreinterpretq_s16_u16(vsubq_u16(n1, j)), vdupq_n_s16(0));
        const int16x8_t out = vsubq_s16(veorq_s16(m, s), s);
        vst1q_s16(levels + 8 * r, vbslq_s16(take, out, L));
    }
}
